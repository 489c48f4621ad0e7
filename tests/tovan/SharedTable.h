// A table under a name of its own, for tests that open it several times.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>

#include "platform/tovan/TovanMap.h"

namespace Tovan {

/// A value that shows whether it was torn: all its words are the same.
struct Repeated {
  std::array<uint64_t, 4> words;

  explicit Repeated(uint64_t word = 0) { words.fill(word); }
  uint64_t word() const { return words[0]; }
  bool isWhole() const {
    return std::all_of(words.begin(), words.end(), [&](uint64_t w) { return w == words[0]; });
  }
};

using Map = TovanMap<uint64_t, Repeated>;

class SharedTable : public testing::Test {
 protected:
  void TearDown() override { removeTablesOf(name); }

  TableConfig config(Access access) const {
    return {.access = access, .name = name, .layout = "number/1"};
  }
  Map writer() const { return Map(config(Access::Write)); }
  Map reader() const { return Map(config(Access::Read)); }
  /// Looks at all of a table.
  static void tend(Map& table) {
    TendRound round;
    table.tend(round);
  }

  /// The table's file, opened past the library.
  int file() const { return ::shm_open(("/hostroute-" + name).c_str(), O_RDWR, 0); }

  /// Runs `body` in another process, whose exit status is what it returns.
  template <class Body>
  static pid_t inChild(Body body) {
    const pid_t child = ::fork();
    if (child == 0) {
      int status = 99;
      try {
        status = body();
      } catch (const std::exception& e) {
        std::fprintf(stderr, "child: %s\n", e.what());
      }
      ::_exit(status);
    }
    return child;
  }
  static int statusOf(pid_t child) {
    int status = 0;
    ::waitpid(child, &status, 0);
    return status;
  }

  const std::string name = "test" + std::to_string(::getpid());
};

}  // namespace Tovan
