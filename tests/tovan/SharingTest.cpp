// Tests of the map with several processes: killed writers, full memory, memory that is given back,
// forked children.
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

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
        // In some rounds the table becomes small.
        const bool erase = own() % 16 < (round % 3 == 1 ? 15u : 4u);
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

// A reader must not wait for ever for an entry that a dead writer was writing, and must not return
// a wrong value. The next writer restores the entry from the journal.
TEST_F(SharingTest, ReaderReportsAnUpdateThatADeadWriterBegan) {
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

/// The memory that the table's file takes.
size_t memoryOf(int fd) {
  struct stat status {};
  EXPECT_EQ(::fstat(fd, &status), 0);
  return static_cast<size_t>(status.st_blocks) * 512;
}

// Entries that stay are found all the time, also by the next writer.
TEST_F(SharingTest, GivesMemoryBackWhenManyEntriesAreRemoved) {
  constexpr uint64_t kStay = 100;
  constexpr uint64_t kFlood = 30000;
  auto table = std::make_unique<Map>(config(Access::Write));
  const int fd = file();
  fill(*table, kStay);
  const size_t before = memoryOf(fd);
  const Map other = reader();
  const auto expectStaying = [&](const Map& in) {
    for (uint64_t i = 0; i < kStay; ++i) ASSERT_EQ(in.get(i).value_or(Repeated(1)).word(), i);
    EXPECT_EQ(in.keys().size(), kStay);
  };
  for (const bool isTakenOver : {false, true}) {
    fill(*table, kFlood);
    EXPECT_GT(memoryOf(fd), 1'000'000u);
    EXPECT_GT(table->bytes(), 1'000'000u);
    if (isTakenOver) {
      table.reset();
      table = std::make_unique<Map>(config(Access::Write));
    }
    for (uint64_t i = kStay; i < kFlood; ++i) {
      ASSERT_EQ(table->erase(i)->word(), i);
      if (i % 1000 == 0) {
        EXPECT_EQ(other.get(kStay / 2)->word(), kStay / 2);
      }
    }
    tend(*table);
    EXPECT_LT(memoryOf(fd), before + 200'000);
    EXPECT_LT(table->bytes(), 300'000u);
    expectStaying(*table);
    expectStaying(other);
    EXPECT_EQ(table->validate(), 0u);
    EXPECT_LT(memoryOf(fd), before + 200'000) << "a repair touches no memory that was given back";
  }
  ::shm_unlink(("/hostroute-" + name).c_str());
  tend(*table);
  expectStaying(reader());
  const int again = file();
  EXPECT_LT(memoryOf(again), before + 200'000) << "nor does a table that is made again";
  fill(*table, kFlood);
  EXPECT_EQ(reader().keys().size(), kFlood);
  table->clear();
  EXPECT_LT(memoryOf(again), before + 200'000);
  EXPECT_EQ(reader().keys().size(), 0u);
  EXPECT_EQ(table->corruptions(), 1u) << "its file was removed";
  ::close(fd);
  ::close(again);
}

// A page is copied when removed entries fill it. Otherwise, an entry that is repeatedly inserted
// and removed moves no other entry, at any size of the table.
TEST_F(SharingTest, RepeatedInsertionAndRemovalCausesNoSplitsAndJoins) {
  Map table({.name = "hovering"});
  for (const int step : {1, -1}) {
    for (int64_t size = step > 0 ? 1 : 300; size > 0 && size <= 300; size += step) {
      const auto next = static_cast<uint64_t>(size);
      if (step > 0) {
        table.set(next, Repeated(next));
      } else {
        table.erase(next);
      }
      table.set(0, Repeated(0));
      auto last = table.version(0);
      int moves = 0;
      for (uint64_t i = 0; i < 60; ++i) {
        table.set(1000 + i % 2, Repeated(i));
        table.erase(1000 + i % 2);
        moves += table.version(0) != std::exchange(last, table.version(0));
      }
      EXPECT_LE(moves, 3) << size;
    }
  }
  EXPECT_EQ(table.corruptions(), 0u);
}

// Memory that was given back must be reserved before it is used again: without that, a full
// /dev/shm would end the process.
TEST_F(SharingTest, ReservesReturnedMemoryBeforeItIsUsedAgain) {
  constexpr int kSkipped = 77;
  constexpr uint64_t kStay = 200;
  const auto body = [&] {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("none", "/dev/shm", "tmpfs", 0, "size=4m") != 0) {
      return kSkipped;
    }
    Map table = writer();
    fill(table, 20000);
    const Map other = reader();
    for (uint64_t i = kStay; i < 20000; ++i) table.erase(i);
    tend(table);
    const int filler = ::shm_open("/filler", O_RDWR | O_CREAT, 0600);
    const std::vector<char> block(4096);
    while (::write(filler, block.data(), block.size()) > 0) {
    }
    uint64_t next = kStay;
    const auto grow = [&] {
      for (; next < 20000; ++next) table.set(next, Repeated(next));
    };
    const auto holdsAll = [&](const Map& map) {
      for (uint64_t i = 0; i < next; ++i) {
        if (map.get(i).value_or(Repeated(~i)).word() != i) return false;
      }
      return map.size() == next && map.keys().size() == next;
    };
    try {
      grow();
      return 1;
    } catch (const NoSpaceException&) {
    }
    if (!holdsAll(table) || !holdsAll(other)) return 2;
    ::ftruncate(filler, 0);
    grow();
    return holdsAll(table) && holdsAll(other) && table.corruptions() == 0 ? 0 : 3;
  };
  const int status = statusOf(inChild(body));
  if (WEXITSTATUS(status) == kSkipped) GTEST_SKIP() << "no file system can be mounted";
  EXPECT_EQ(status, 0);
}

// A reader must not find an unfinished table.
TEST_F(SharingTest, AFailedCreationLeavesNoFile) {
  for (const rlim_t bytes : {rlim_t{0}, rlim_t{4096}, rlim_t{5000}, rlim_t{4198400 + 4096}}) {
    const Sample::SmallFiles full(bytes);
    EXPECT_THROW(writer(), NoSpaceException) << bytes;
    EXPECT_TRUE(tablesOf(name).empty()) << bytes;
  }
}

// A forked process that exists longer, such as a hook, neither writes nor prevents other writers.
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
    if (::read(ends[0], &byte, 1) != 0) return 1;  // until the parent has closed the table
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
