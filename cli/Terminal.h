// What the commands need to know of the terminal.
#pragma once

#include <unistd.h>

#include <cstdlib>

namespace Cli {

/// Whether what goes to the file descriptor is read by a person right now.
inline bool isTerminal(int fd) {
  return ::isatty(fd) == 1;
}

/// Whether standard output may be coloured: on a terminal, unless NO_COLOR is set (no-color.org).
inline bool isColoured() {
  const char* refused = std::getenv("NO_COLOR");
  return isTerminal(STDOUT_FILENO) && (refused == nullptr || *refused == '\0');
}

}  // namespace Cli
