// Output for a terminal.
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

/// True when the file descriptor is a terminal.
inline bool isTerminal(int fd) {
  return ::isatty(fd) == 1;
}

/// True when standard output is a terminal and NO_COLOR is not set (no-color.org).
inline bool isColoured() {
  const char* refused = std::getenv("NO_COLOR");
  return isTerminal(STDOUT_FILENO) && (refused == nullptr || *refused == '\0');
}

/// The style of tables on standard output. On a terminal, lines are at most as long as it is wide.
inline Replay::TextStyle tableStyle() {
  struct winsize size {};
  const bool isKnown = isTerminal(STDOUT_FILENO) && ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0;
  return {.coloured = isColoured(), .width = isKnown ? size.ws_col : size_t{0}};
}

/// A member of an object as text that is safe for a terminal. \throws Json::exception.
std::string shownText(const Json& object, const char* member);
/// The JSON text of an object; safe for a terminal when standard output is one.
std::string shownJson(const Json& object, int indent = -1);

/// Shows the number of lines read so far, if standard error is a terminal; 0 removes the display.
inline void showProgress(size_t lines) {
  if (!isTerminal(STDERR_FILENO)) return;
  std::cerr << "\r\033[K";
  if (lines != 0) std::cerr << lines << " lines";
  std::cerr << std::flush;
}

}  // namespace Cli
