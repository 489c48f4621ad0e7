// The terminal: what it is like, and texts from elsewhere that it may show.
#pragma once

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include <nlohmann/json.hpp>

#include "replay/TextTable.h"

namespace Cli {

using Json = nlohmann::ordered_json;

/// Whether what goes to the file descriptor is read by a person right now.
inline bool isTerminal(int fd) {
  return ::isatty(fd) == 1;
}

/// Whether standard output may be coloured: on a terminal, unless NO_COLOR is set (no-color.org).
inline bool isColoured() {
  const char* refused = std::getenv("NO_COLOR");
  return isTerminal(STDOUT_FILENO) && (refused == nullptr || *refused == '\0');
}

/// How tables are printed on standard output: on a terminal they fit it.
inline Replay::TextStyle tableStyle() {
  struct winsize size {};
  const bool isKnown = isTerminal(STDOUT_FILENO) && ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0;
  return {.coloured = isColoured(), .width = isKnown ? size.ws_col : size_t{0}};
}

/// A member of an object, as a text that a terminal may show. \throws Json::exception.
std::string shownText(const Json& object, const char* member);
/// An object for programs, and for people where standard output is a terminal.
std::string shownJson(const Json& object, int indent = -1);

/// Shows how far a long input is, on standard error where that is a terminal; 0 takes it away.
inline void showProgress(size_t lines) {
  if (!isTerminal(STDERR_FILENO)) return;
  std::cerr << "\r\033[K";
  if (lines != 0) std::cerr << lines << " lines";
  std::cerr << std::flush;
}

}  // namespace Cli
