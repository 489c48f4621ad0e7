// A table with a unique name, for tests that open it several times.
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

/// A value of equal words, so that a mixture of two values is detected.
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
  /// Checks a whole table.
  static void tend(Map& table) {
    TendRound round;
    table.tend(round);
  }

  /// The table's file, opened without the library.
  int file() const { return ::shm_open(("/hostroute-" + name).c_str(), O_RDWR, 0); }
  void overwrite(size_t offset, uint64_t word) const {
    const int fd = file();
    ASSERT_EQ(::pwrite(fd, &word, sizeof(word), static_cast<off_t>(offset)), 8);
    ::close(fd);
  }
  /// Changes the file's length to the result of `change` for the present length. Returns the
  /// former length.
  template <class Change>
  off_t resize(Change change) const {
    const int fd = file();
    const off_t size = ::lseek(fd, 0, SEEK_END);
    EXPECT_EQ(::ftruncate(fd, change(size)), 0);
    ::close(fd);
    return size;
  }

  static void fill(Map& table, uint64_t entries) {
    for (uint64_t key = 0; key < entries; ++key) table.set(key, Repeated(key));
  }

  /// Runs `body` in another process. Its result is the exit status of the process.
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

/// A `T` that the process shares with its children.
template <class T>
class SharedWithChildren {
 public:
  SharedWithChildren()
      : at_(static_cast<T*>(::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE,
                                   MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
  SharedWithChildren(const SharedWithChildren&) = delete;
  SharedWithChildren& operator=(const SharedWithChildren&) = delete;
  ~SharedWithChildren() { ::munmap(at_, sizeof(T)); }

  T* operator->() const { return at_; }
  T& operator*() const { return *at_; }

 private:
  T* at_;
};

}  // namespace Tovan
