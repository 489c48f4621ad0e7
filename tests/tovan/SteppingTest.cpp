// Stops a writer after each of its instructions, and gives every state of the memory in which it
// can be killed to a reader and to a next writer.
//
// By default, only a part of the changes is stepped through. HOSTROUTE_STEPPING=long steps through
// all; see scripts/try-tables.
#include <sys/ptrace.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <string_view>
#include <vector>

#include "tests/tovan/SharedTable.h"

namespace Tovan {
namespace {

/// The memory of a table, read and written without the library. The directory is limited to the
/// part that the tables of these tests use.
class Image {
 public:
  static constexpr size_t kTop = 4096;
  static constexpr size_t kPagesAt = kTop + (size_t{8} << 19);
  static constexpr size_t kUsed = kTop + 4096;  // header and directory
  static constexpr size_t kMaxBytes = kPagesAt + (size_t{1} << 20);

  explicit Image(const std::string& table) {
    fd_ = ::shm_open(("/hostroute-" + table).c_str(), O_RDWR | O_CREAT, 0644);
    bytes_ = static_cast<std::byte*>(
        ::mmap(nullptr, kMaxBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0));
  }
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;
  ~Image() {
    ::munmap(bytes_, kMaxBytes);
    ::close(fd_);
  }

  size_t size() const {
    struct stat status {};
    return ::fstat(fd_, &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
  }
  /// Copies the memory into one piece.
  void copyTo(std::vector<std::byte>& state) const {
    const size_t size = this->size();
    state.resize(kUsed + (size > kPagesAt ? size - kPagesAt : 0));
    std::memcpy(state.data(), bytes_, std::min(size, kUsed));
    if (size > kPagesAt) std::memcpy(state.data() + kUsed, bytes_ + kPagesAt, size - kPagesAt);
  }
  bool equals(const std::vector<std::byte>& state) const {
    const size_t size = this->size();
    return size >= kPagesAt && state.size() == kUsed + size - kPagesAt &&
           std::memcmp(state.data() + kUsed, bytes_ + kPagesAt, size - kPagesAt) == 0 &&
           std::memcmp(state.data(), bytes_, kUsed) == 0;
  }
  void set(const std::vector<std::byte>& state) {
    const size_t size = kPagesAt + state.size() - kUsed;
    if (this->size() != size && ::ftruncate(fd_, static_cast<off_t>(size)) != 0) std::abort();
    std::memcpy(bytes_, state.data(), kUsed);
    std::memcpy(bytes_ + kPagesAt, state.data() + kUsed, size - kPagesAt);
  }

 private:
  int fd_ = -1;
  std::byte* bytes_ = nullptr;
};

bool isLong() {
  const char* stepping = std::getenv("HOSTROUTE_STEPPING");
  return stepping != nullptr && std::string_view(stepping) == "long";
}

/// A value of two equal words. No other test uses this type, so that the code of its table is
/// optimised although that of other tests is not: it would have ten times as many instructions.
struct Twice {
  uint64_t words[2];

  explicit Twice(uint64_t word = 0) : words{word, word} {}
  uint64_t word() const { return words[0]; }
  bool isWhole() const { return words[0] == words[1]; }
};

/// A change of one key, or of all.
struct Change {
  enum { Set, Erase, Clear } kind;
  uint64_t key = 0;
  uint64_t word = 0;
};

class SteppingTest : public SharedTable {
 protected:
  using Map = TovanMap<uint64_t, Twice>;
  using Contents = std::map<uint64_t, uint64_t>;

  void TearDown() override {
    removeTablesOf(copyName);
    SharedTable::TearDown();
  }

  static void apply(const Change& change, Contents& contents) {
    if (change.kind == Change::Set) contents[change.key] = change.word;
    if (change.kind == Change::Erase) contents.erase(change.key);
    if (change.kind == Change::Clear) contents.clear();
  }
  static void apply(const Change& change, Map& table) {
    if (change.kind == Change::Set) table.set(change.key, Twice(change.word));
    if (change.kind == Change::Erase) table.erase(change.key);
    if (change.kind == Change::Clear) table.clear();
  }

  /// Whether a key may have a value (0 is none) in a state between two contents.
  static bool mayHave(uint64_t key, uint64_t word, const Contents& before, const Contents& after) {
    const auto in = [key](const Contents& contents) {
      const auto found = contents.find(key);
      return found == contents.end() ? 0 : found->second;
    };
    return word == in(before) || word == in(after);
  }

  /// The fault of a table's contents, or "". Each key must have its value from before or after the
  /// change. A look-up may raise the exception for an uncompleted change if the key was absent or
  /// is being changed; during a repair, for any key.
  std::string faultOf(const Map& table, const Contents& before, const Contents& after) const {
    const bool isReader = table.isReadOnly();
    for (uint64_t key = 1; key <= kKeys; ++key) {
      try {
        const auto value = table.get(key);
        if (value && !value->isWhole()) return "key " + std::to_string(key) + " is torn";
        if (!mayHave(key, value ? value->word() : 0, before, after)) {
          return "key " + std::to_string(key) + " has " + std::to_string(value ? value->word() : 0);
        }
      } catch (const CorruptionDetectedException& unfinished) {
        const std::string_view what(unfinished.what());
        const bool isAtRest =
            before.contains(key) && after.contains(key) && before.at(key) == after.at(key);
        if (!isReader || what.find("in the middle of") == what.npos || (isAtRest && !isRepair)) {
          return unfinished.what();
        }
      }
    }
    return "";
  }

  /// The same for a walk.
  static std::string walkFaultOf(const Map& table, const Contents& before, const Contents& after) {
    Contents found;
    try {
      for (const auto& [key, value] : table) {
        if (!mayHave(key, value.word(), before, after)) return "walk has a value that nobody wrote";
        if (!found.emplace(key, value.word()).second) return "walk gives a key twice";
      }
    } catch (const CorruptionDetectedException& unfinished) {
      return table.isReadOnly() ? "" : unfinished.what();
    }
    for (const auto& [key, word] : before) {
      if (after.contains(key) && !found.contains(key)) return "walk misses a key";
    }
    return "";
  }

  /// Checks a state with a reader and with a next writer.
  void check(const std::vector<std::byte>& state, const Contents& before, const Contents& after) {
    ++states;
    copy->set(state);
    try {
      const Map reader(copyConfig(Access::Read));
      const std::string fault = faultOf(reader, before, after);
      ASSERT_EQ(fault + walkFaultOf(reader, before, after), "") << "for a reader";
    } catch (const OpenException& unfinished) {
      ASSERT_TRUE(before.empty() && after.empty()) << unfinished.what();
    }
    Map writer(copyConfig(Access::Write));
    const std::string fault = faultOf(writer, before, after);
    ASSERT_EQ(fault + walkFaultOf(writer, before, after), "") << "for the next writer";
    ASSERT_EQ(writer.corruptions(), 0u) << writer.lastCorruption();
    size_t there = 0;
    for (uint64_t key = 1; key <= kKeys; ++key) there += writer.get(key).has_value();
    ASSERT_EQ(writer.size(), there);
  }

  Map writer() const { return Map(config(Access::Write)); }
  TableConfig copyConfig(Access access) const {
    return {.access = access, .name = copyName, .layout = "number/1"};
  }

  /// Runs `body` in a child, instruction by instruction from its first raise(SIGSTOP) on, and
  /// checks every state of the table that differs from the one before, or only each `every`-th.
  /// `between` sets the two contents that are allowed.
  void step(const std::function<void()>& body,
            const std::function<void(Contents& before, Contents& after)>& between,
            size_t every = 1) {
    const pid_t child = ::fork();
    if (child == 0) {
      if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) ::_exit(77);
      try {
        body();
      } catch (...) {
        ::_exit(98);
      }
      ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77)
      GTEST_SKIP() << "no process may be traced here";
    ASSERT_TRUE(WIFSTOPPED(status)) << status;
    const Image image(name);
    std::vector<std::byte> last;
    size_t differing = 0;
    Contents before;
    Contents after;
    while (WIFSTOPPED(status) && !HasFatalFailure()) {
      ++steps;
      if (!image.equals(last)) {
        image.copyTo(last);
        if (differing++ % every == 0) {
          between(before, after);
          check(last, before, after);
        }
      }
      // No signal is passed on: SIGSTOP only marked the beginning.
      if (::ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr) != 0) break;
      ::waitpid(child, &status, 0);
    }
    if (WIFSTOPPED(status)) {
      ::kill(child, SIGKILL);
      ::waitpid(child, &status, 0);
    } else {
      EXPECT_EQ(status, 0);
    }
  }

  /// Steps through `changes` to a table that holds `contents`.
  void stepThrough(Contents contents, const std::vector<Change>& changes, size_t every = 1) {
    {
      Map table = writer();
      table.clear();
      for (const auto& [key, word] : contents) table.set(key, Twice(word));
    }
    const SharedWithChildren<std::atomic<size_t>> done;
    const auto body = [&] {
      Map table = writer();
      ::raise(SIGSTOP);
      for (const Change& change : changes) {
        apply(change, table);
        ++*done;
      }
    };
    size_t known = 0;
    const auto between = [&](Contents& before, Contents& after) {
      for (; known < *done; ++known) apply(changes[known], contents);
      before = after = contents;
      if (known < changes.size()) apply(changes[known], after);
    };
    step(body, between, every);
  }

  /// Prints the counts. There must be more than `leastStates` if the process may trace.
  void report(size_t leastStates) const {
    if (IsSkipped()) return;
    EXPECT_GT(states, leastStates);
    std::cout << steps << " instructions, " << states << " states checked\n";
  }

  static constexpr uint64_t kKeys = 400;
  const std::string copyName = name + "copy";
  std::optional<Image> copy{std::in_place, copyName};
  bool isRepair = false;  ///< whether a repair is stepped through
  size_t steps = 0;
  size_t states = 0;
};

TEST_F(SteppingTest, EachStateOfAChangeHasTheValueBeforeOrAfter) {
  stepThrough({{1, 1}, {2, 2}}, {{Change::Set, 3, 3},
                                 {Change::Set, 1, 4},
                                 {Change::Erase, 2},
                                 {Change::Set, 2, 5},
                                 {Change::Erase, 7},
                                 {Change::Erase, 3},
                                 {Change::Set, 1, 6},
                                 {Change::Clear},
                                 {Change::Set, 1, 7}});
  report(60);
}

// Pages are split and rewritten, the directory doubled and the file grown.
TEST_F(SteppingTest, EachStateOfAGrowingTableHasAllEntries) {
  Contents contents;
  std::vector<Change> changes;
  const uint64_t full = isLong() ? 60 : 69;  // of the 70 that a page takes
  for (uint64_t key = 1; key <= full; ++key) contents[key] = key;
  for (uint64_t key = full + 1; key <= (isLong() ? kKeys : full + 2); ++key) {
    changes.push_back({Change::Set, key, key});
    if (key % 3 == 0) changes.push_back({Change::Erase, key - 2});
  }
  stepThrough(contents, changes, isLong() ? 1 : 5);
  report(60);
}

// Pages are joined and the directory is halved.
TEST_F(SteppingTest, EachStateOfAShrinkingTableHasTheRemainingEntries) {
  Contents contents;
  std::vector<Change> changes;
  const uint64_t full = isLong() ? kKeys : 75;  // one more page than the 70 that a page takes
  for (uint64_t key = 1; key <= full; ++key) contents[key] = key;
  for (uint64_t key = 1; key <= full - 5; ++key) changes.push_back({Change::Erase, key});
  stepThrough(contents, changes, isLong() ? 1 : 5);
  report(60);
}

// A writer may also be killed while it takes a table over.
TEST_F(SteppingTest, EachStateOfARepairCanBeRepaired) {
  Contents contents;
  const uint64_t full = isLong() ? 70 : 20;
  for (uint64_t key = 1; key <= full; ++key) contents[key] = key;
  {
    Map table = writer();
    for (const auto& [key, word] : contents) table.set(key, Twice(word));
  }
  // The states in which a writer may be killed while it replaces a value, removes an entry, and
  // inserts one, which splits the page if it is full.
  std::vector<std::vector<std::byte>> left;
  for (const Change& change :
       {Change{Change::Set, 5, 205}, {Change::Erase, 6}, {Change::Set, 300, 300}}) {
    const auto body = [&] {
      Map table = writer();
      ::raise(SIGSTOP);
      apply(change, table);
    };
    const auto between = [&](Contents& before, Contents& after) {
      before = after = contents;
      apply(change, after);
      Image(name).copyTo(left.emplace_back());
    };
    step(body, between);
    apply(change, contents);
  }
  isRepair = true;
  const size_t stride = isLong() ? left.size() / 20 + 1 : 20;
  for (size_t i = 0; i < left.size() && !HasFatalFailure(); i += stride) {
    // The state determines whether the key has its old or its new value, and a repair keeps it.
    Contents now;
    copy->set(left[i]);
    for (const auto& [key, value] : Map(copyConfig(Access::Write))) now[key] = value.word();
    Image(name).set(left[i]);
    const auto body = [&] {
      ::raise(SIGSTOP);
      const Map table = writer();
    };
    const auto between = [&](Contents& before, Contents& after) { before = after = now; };
    step(body, between, isLong() ? 1 : 2);
  }
  report(20);
}

}  // namespace
}  // namespace Tovan
