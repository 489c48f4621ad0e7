// The map between processes: killed writers, full memory, forked children.
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <random>
#include <thread>

#include "tests/kiv/SmallFiles.h"
#include "tests/tovan/SharedTable.h"

namespace Tovan {
namespace {

using SharingTest = SharedTable;

// The child notes its completed changes in a page of its own. HOSTROUTE_KILLS is the number of
// children that are killed.
TEST_F(SharingTest, KilledWriterLeavesEveryCompletedUpdate) {
  constexpr uint64_t kKeys = 3000;
  struct Completed {
    std::atomic<uint64_t> begun[kKeys];
    std::atomic<uint64_t> done[kKeys];
  };
  const SharedWithChildren<Completed> completed;
  constexpr uint64_t kErased = uint64_t{1} << 63;
  std::mt19937 random(3);
  const char* kills = std::getenv("HOSTROUTE_KILLS");
  const int rounds = kills == nullptr ? 200 : std::atoi(kills);
  for (int round = 0; round < rounds; ++round) {
    if (round % 20 == 0) {  // again with a small table, so that it grows
      removeTablesOf(name);
      for (uint64_t key = 0; key < kKeys; ++key) completed->begun[key] = completed->done[key] = 0;
    }
    const pid_t child = inChild([&] {
      Map table = writer();
      std::mt19937 own(static_cast<uint32_t>(round));
      for (;;) {
        const uint64_t key = own() % kKeys;
        const uint64_t number = (completed->begun[key] & ~kErased) + 1;
        const bool erase = own() % 4 == 0;
        completed->begun[key] = erase ? number | kErased : number;
        if (erase) {
          table.erase(key);
        } else {
          table.set(key, Repeated(number));
        }
        completed->done[key] = completed->begun[key].load();
      }
      return 0;
    });
    std::this_thread::sleep_for(std::chrono::microseconds(1000 + random() % 4000));
    ::kill(child, SIGKILL);
    ASSERT_TRUE(WIFSIGNALED(statusOf(child)));
    Map table = writer();
    EXPECT_EQ(table.corruptions(), 0u) << table.lastCorruption();
    for (uint64_t key = 0; key < kKeys; ++key) {
      const auto value = table.get(key);
      ASSERT_TRUE(!value || value->isWhole());
      const uint64_t stands = value ? value->word() : 0;
      const auto agrees = [&](uint64_t said) {
        return (said & kErased) != 0 || said == 0 ? !value : stands == said;
      };
      ASSERT_TRUE(agrees(completed->done[key]) || agrees(completed->begun[key]))
          << "key " << key << " has " << stands;
      // The next round begins with the present contents.
      completed->done[key] = completed->begun[key] =
          value ? stands : (completed->begun[key] | kErased);
    }
  }
}

// A reader must neither wait for ever for an entry that a dead writer was writing, nor return a
// wrong value. The next writer takes the entry from the journal.
TEST_F(SharingTest, ReaderIsToldOfAnUpdateThatNobodyEnds) {
  const SharedWithChildren<std::atomic<bool>> isWriting;
  size_t stuck = 0;
  for (int round = 0; round < 2000 && stuck < 3; ++round) {
    *isWriting = false;
    const pid_t child = inChild([&] {
      Map table = writer();
      for (uint64_t i = 0;; ++i) {
        table.set(1, Repeated(i));
        if (i == 100) *isWriting = true;
      }
      return 0;
    });
    while (!*isWriting && ::waitpid(child, nullptr, WNOHANG) == 0) std::this_thread::yield();
    ::kill(child, SIGKILL);
    statusOf(child);
    try {
      EXPECT_TRUE(reader().get(1)->isWhole());
    } catch (const CorruptionDetectedException& e) {
      ++stuck;
      EXPECT_NE(std::string(e.what()).find("in the middle of an update"), std::string::npos);
      EXPECT_TRUE(writer().get(1)->isWhole());
    }
  }
  EXPECT_GT(stuck, 0u);
}

TEST_F(SharingTest, FullMemoryLosesNothing) {
  const Sample::SmallFiles full(5000000);
  Map table = writer();
  uint64_t next = 0;
  const auto fillUp = [&] {
    for (;; ++next) table.set(next, Repeated(next));
  };
  EXPECT_THROW(fillUp(), NoSpaceException);
  EXPECT_GT(next, 1000U);
  EXPECT_EQ(table.size(), next);
  EXPECT_FALSE(table.get(next));
  for (uint64_t i = 0; i < next; ++i) {
    ASSERT_EQ(table.get(i)->word(), i);
    ASSERT_FALSE(table.set(i, Repeated(i + 1)));
  }
  // A freed slot can be used again.
  table.erase(0);
  EXPECT_TRUE(table.set(0, Repeated(0)));
}

// A reader must not find an unfinished table.
TEST_F(SharingTest, NothingIsLeftOfATableThatCouldNotBeMade) {
  for (const rlim_t bytes : {rlim_t{0}, rlim_t{4096}, rlim_t{5000}, rlim_t{4198400 + 4096}}) {
    const Sample::SmallFiles full(bytes);
    EXPECT_THROW(writer(), NoSpaceException) << bytes;
    EXPECT_TRUE(tablesOf(name).empty()) << bytes;
  }
}

// A forked process that lives longer, such as a hook, neither writes nor keeps other writers out.
TEST_F(SharingTest, AForkedChildLeavesTheTableToItsParent) {
  constexpr uint64_t kEntries = 2000;
  auto table = std::make_unique<Map>(config(Access::Write));
  table->set(1, Repeated(1));
  int ends[2];
  int begun[2];
  ASSERT_EQ(::pipe(ends), 0);
  ASSERT_EQ(::pipe(begun), 0);
  char byte = 0;
  const pid_t child = inChild([&] {
    ::close(ends[1]);
    if (::write(begun[1], &byte, 1) != 1) return 4;
    if (::read(ends[0], &byte, 1) != 0) return 1;  // until the parent has let go of the table
    try {
      table->set(2, Repeated(2));
      return 2;
    } catch (const ReadOnlyException&) {
    }
    // The table has grown since.
    for (uint64_t i = 1; i <= kEntries; ++i) {
      if (table->get(i).value_or(Repeated(0)).word() != i) return 3;
    }
    return table->keys().size() == kEntries && table->hasWriter() ? 0 : 5;
  });
  ::close(ends[0]);
  ASSERT_EQ(::read(begun[0], &byte, 1), 1);
  for (const int end : begun) ::close(end);
  for (uint64_t i = 2; i < kEntries; ++i) table->set(i, Repeated(i));
  table.reset();
  EXPECT_NO_THROW(writer().set(kEntries, Repeated(kEntries)));
  ::close(ends[1]);
  EXPECT_EQ(statusOf(child), 0);
  EXPECT_EQ(reader().size(), kEntries);
}

}  // namespace
}  // namespace Tovan
