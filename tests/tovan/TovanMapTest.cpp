// Tests of the map in one process: contents, growth, damage, refusals.
#include <sys/resource.h>

#include <map>
#include <memory>
#include <random>
#include <set>

#include "platform/kiv/runtime/Trace.h"
#include "platform/tovan/Reports.h"
#include "tests/tovan/Damage.h"
#include "tests/tovan/SharedTable.h"

namespace Tovan {
namespace {

struct WideKey {
  std::array<uint32_t, 5> words;
  auto operator<=>(const WideKey&) const = default;
};

/// Applies random operations to a table and to a std::map, and compares the results.
template <class Key, class Value, class MakeKey, class MakeValue>
void compareWithModel(MakeKey makeKey, MakeValue makeValue) {
  TovanMap<Key, Value> table({.name = "model"});
  std::map<Key, Value> model;
  std::minstd_rand random(1);
  // The key range widens and narrows, so that the table grows, empties and fills freed slots.
  for (const uint32_t range : {10u, 5000u, 100u, 20000u}) {
    for (int i = 0; i < 60000; ++i) {
      const Key key = makeKey(static_cast<uint32_t>(random() % range));
      const auto known = model.find(key);
      if (random() % 3 != 0) {
        const Value value = makeValue(random());
        if (known == model.end() && random() % 2 == 0) {
          table.add(key, value);
        } else {
          EXPECT_EQ(table.set(key, value), known == model.end());
        }
        model[key] = value;
      } else {
        const auto removed = table.erase(key);
        ASSERT_EQ(removed.has_value(), known != model.end());
        if (removed) {
          EXPECT_EQ(*removed, known->second);
          model.erase(known);
        }
      }
      const Key other = makeKey(static_cast<uint32_t>(random() % range));
      const auto found = table.get(other);
      ASSERT_EQ(found.has_value(), model.contains(other));
      if (found) {
        EXPECT_EQ(*found, model.at(other));
      }
    }
    EXPECT_EQ(table.size(), model.size());
    std::map<Key, Value> walked;
    for (const auto& [key, value] : table) EXPECT_TRUE(walked.emplace(key, value).second);
    EXPECT_EQ(walked, model);
    EXPECT_EQ(table.validate(), 0u);
  }
  EXPECT_EQ(table.corruptions(), 0u);
  table.cleanup();
  EXPECT_EQ(table.size(), 0u);
  EXPECT_FALSE(table.get(model.begin()->first));
}

TEST(TovanMapTest, AgreesWithAModelUnderRandomChanges) {
  compareWithModel<uint64_t, uint64_t>([](uint32_t n) { return uint64_t{n} << 32; },
                                       [](uint64_t n) { return n; });
  compareWithModel<uint32_t, uint16_t>([](uint32_t n) { return n; },
                                       [](uint64_t n) { return static_cast<uint16_t>(n); });
  using Wide = std::array<uint64_t, 5>;
  compareWithModel<WideKey, Wide>(
      [](uint32_t n) {
        return WideKey{{1, 2, 3, 4, n}};
      },
      [](uint64_t n) {
        return Wide{n, n, n, n, n + 1};
      });
}

// The merge walks the route table and writes into the same table.
TEST(TovanMapTest, WalkSurvivesWritesOfItsBody) {
  Map table({.name = "walked"});
  for (uint64_t i = 0; i < 5000; ++i) table.set(i, Repeated(i));
  std::multiset<uint64_t> seen;
  for (const auto& [key, value] : table) {
    seen.insert(key);
    if (key < 5000 && key % 2 == 0) table.erase(key);
    if (key < 5000) table.set(key + 10000, value);  // grows the table under the walk
  }
  for (uint64_t i = 0; i < 5000; ++i) EXPECT_EQ(seen.count(i), 1u) << i;
  EXPECT_EQ(table.size(), 2500u + 5000u);
}

class TovanMapDamageTest : public SharedTable {
 protected:
  /// A key that differs from all other words of the memory.
  static constexpr uint64_t kOdd = 0x0ddd'0000'0000'0000;
  /// Overwrites `count` bytes of the table. A seed always gives the same bytes.
  void damage(uint32_t seed, int count, size_t from) {
    const int fd = file();
    const auto size = static_cast<size_t>(::lseek(fd, 0, SEEK_END));
    std::mt19937 random(seed);
    for (int i = 0; i < count; ++i) {
      const auto at = static_cast<off_t>(from + random() % (size - from));
      const auto byte = static_cast<char>(random());
      ASSERT_EQ(::pwrite(fd, &byte, 1, at), 1);
    }
    ::close(fd);
  }
};

// With any contents of the memory, neither process may crash, hang, or return a wrong value.
TEST_F(TovanMapDamageTest, RandomDamageIsReportedAndRepaired) {
  constexpr uint64_t kEntries = 3000;
  size_t reported = 0;
  size_t repaired = 0;
  for (uint32_t seed = 0; seed < 30; ++seed) {
    Map table = writer();
    fill(table, kEntries);
    Map other = reader();
    damage(seed, 200, sizeof(TableHeader::Identity) + 64);
    for (uint64_t i = 0; i < kEntries; ++i) {
      for (Map* map : {&table, &other}) {
        try {
          const auto value = map->get(i);
          ASSERT_EQ(value.value_or(Repeated(i)).words, Repeated(i).words);
        } catch (const Pindo::Exception& e) {  // a damaged state may say that the slot is busy
          ++reported;
          map->corruptionDetected(e.what());
          EXPECT_EQ(map->lastCorruption(), e.what());
        }
      }
    }
    try {
      for (const auto& [key, value] : other) ASSERT_EQ(value.words, Repeated(key).words);
    } catch (const Pindo::Exception&) {
      ++reported;
    }
    repaired += table.validate();
    fill(table, kEntries);
    EXPECT_EQ(table.size(), kEntries);
    for (uint64_t i = 0; i < kEntries; ++i) ASSERT_TRUE(table.get(i) && other.get(i)) << i;
    table.cleanup();
  }
  EXPECT_GT(reported, 0u);
  EXPECT_GT(repaired, 0u);
}

// Pages that are not written are checked only by tend().
TEST_F(TovanMapDamageTest, IsFoundOnceInARoundWithoutChanges) {
  Map table = writer();
  for (uint64_t i = 0; i < 2000; ++i) table.set(kOdd + i, Repeated(i));
  const uint64_t last = kOdd + 1999;  // no split has copied this key, so it is at one place
  const Map other = reader();
  TendRound round;
  round.turnIs(5);
  table.tend(round);
  EXPECT_FALSE(round.takePage()) << "a table of more pages takes the whole turn";
  ASSERT_EQ(Tovan::damage<uint64_t>(name, last, kValue<uint64_t>), 1u);
  int turns = 0;
  for (round.turnIs(5); table.corruptions() == 0 && turns < 100; ++turns) {
    EXPECT_THROW(other.get(last), CorruptionDetectedException);
    table.tend(round);
    round.turnIs(5);
  }
  EXPECT_LT(turns, 100);
  EXPECT_NE(table.lastCorruption().find("slot at byte"), std::string::npos);
  EXPECT_EQ(table.takeDropped()->keys, std::vector{last});
  EXPECT_FALSE(other.get(last));
  EXPECT_EQ(other.keys().size(), 1999u);
  tend(table);
  EXPECT_EQ(table.corruptions(), 1u);
}

class FlippedBitTest : public TovanMapDamageTest {
 protected:
  static constexpr uint64_t kEntries = 100;
  static constexpr uint64_t key(uint64_t n) { return kOdd + n; }

  /// Flips bits of the states of a key's slots. A second call restores them.
  void flip(uint64_t n, int bits) { ASSERT_GE(Tovan::damage(name, key(n), kState, bits), 1U) << n; }
  /// The numbers that a walk visits, and whether the walk reported damage.
  static std::pair<std::set<uint64_t>, bool> walk(const Map& table) {
    std::set<uint64_t> met;
    bool damaged = false;
    table.forEachSound([&](const Map::Item& item) { met.insert(item.key - key(0)); },
                       [&](const std::string&) { damaged = true; });
    return {met, damaged};
  }
};

TEST_F(FlippedBitTest, BringsNoDeletedEntryBack) {
  for (int bits = 1; bits < 8; ++bits) {
    const auto expectGone = [&](const Map& table) {
      for (uint64_t n = 1; n < kEntries; n += 2) {
        try {
          EXPECT_FALSE(table.get(key(n))) << n << " by bits " << bits;
        } catch (const CorruptionDetectedException&) {
        }
      }
      for (const uint64_t met : walk(table).first) EXPECT_EQ(met % 2, 0U) << "bits " << bits;
    };
    {
      Map table = writer();
      for (uint64_t n = 0; n < kEntries; ++n) table.set(key(n), Repeated(n));
      for (uint64_t n = 1; n < kEntries; n += 2) table.erase(key(n));
      for (uint64_t n = 1; n < kEntries; n += 2) flip(n, bits);
      expectGone(table);
      // The living writer continues, and its count is right.
      for (uint64_t n = 1; n < kEntries; n += 2) table.set(key(n), Repeated(n));
      EXPECT_EQ(table.size(), kEntries) << "bits " << bits;
      for (uint64_t n = 1; n < kEntries; n += 2) table.erase(key(n));
    }
    for (uint64_t n = 1; n < kEntries; n += 2) flip(n, bits);
    expectGone(reader());
    Map next = writer();
    EXPECT_EQ(next.size(), kEntries / 2) << "bits " << bits;
    expectGone(next);
    next.cleanup();
  }
}

TEST_F(FlippedBitTest, HidesNoEntryWithoutAReport) {
  for (const int bits : {1, 2, 4}) {
    {
      Map table = writer();
      for (uint64_t n = 0; n < kEntries; ++n) table.set(key(n), Repeated(n));
    }
    for (uint64_t n = 0; n < kEntries; n += 10) {
      flip(n, bits);
      const auto [met, damaged] = walk(reader());
      EXPECT_TRUE(damaged || met.contains(n)) << n << " by bits " << bits;
      EXPECT_GE(met.size(), kEntries - 1);
      flip(n, bits);
    }
    // The writer copies some of the pages, and repairs the others. Undamaged entries stay.
    Map table = writer();
    for (uint64_t n = 0; n < kEntries; n += 10) flip(n, bits);
    for (uint64_t n = 0; n < kEntries; ++n) table.add(n, Repeated(n));
    table.validate();
    for (uint64_t n = 0; n < kEntries; n += 10) {
      const auto value = table.get(key(n));
      EXPECT_TRUE(value && value->word() == n) << n << " by bits " << bits;
    }
    EXPECT_EQ(table.size(), walk(table).first.size());
    table.cleanup();
  }
}

// The number of entries has no checksum, so no memory may be reserved for it unchecked.
TEST_F(FlippedBitTest, MakesNoReaderReserveTooMuchMemory) {
  Map table = writer();
  for (uint64_t n = 0; n < kEntries; ++n) table.set(key(n), Repeated(n));
  const Map other = reader();
  for (const uint64_t count : {~uint64_t{0}, uint64_t{1} << 60, uint64_t{1} << 20}) {
    overwrite(offsetof(TableHeader, size), count);
    for (const Map* map : {static_cast<const Map*>(&table), &other}) {
      EXPECT_EQ(map->size(), kEntries);
      EXPECT_EQ(map->keys().size(), kEntries);
    }
  }
  table.erase(key(0));
  EXPECT_EQ(other.size(), kEntries - 1) << "the next change corrects it";
}

// A writer treats a damaged entry as absent, and writes it anew.
TEST_F(TovanMapDamageTest, TheWriterContinuesAfterDamage) {
  Map table = writer();
  fill(table, 100);
  damage(7, 20000, 4096);
  for (uint64_t i = 100; i < 120; ++i) table.add(i, Repeated(i));
  for (uint64_t i = 0; i < 100; i += 2) table.set(i, Repeated(i));
  for (uint64_t i = 1; i < 100; i += 2) {
    EXPECT_EQ(table.erase(i).value_or(Repeated(i)).words, Repeated(i).words);
  }
  EXPECT_GT(table.corruptions(), 0u);
  EXPECT_NE(table.lastCorruption().find(name), std::string::npos);
  EXPECT_EQ(table.size(), 70u);
  EXPECT_TRUE(table.get(110));
}

// Reports and traces name the table and the place.
TEST_F(TovanMapDamageTest, EveryReportIsCountedAndTraced) {
  writer().set(kOdd, Repeated(1));
  ASSERT_EQ(Tovan::damage<uint64_t>(name, kOdd, kValue<uint64_t>), 1u);
  const uint64_t before = corruptionCount();
  std::vector<std::string> traced;
  Kiv::Tracer::sinkIs([&](const Kiv::TraceRecord& record) {
    traced.push_back(std::string(record.objectName) + ": " + std::string(record.message));
    EXPECT_EQ(record.level, 0u);
  });
  Kiv::TraceFacility::find("Tovan")->levelIs(0, true);
  // Damage that is found when the table is opened is reported, too.
  const Map table(config(Access::Write));
  Kiv::TraceFacility::find("Tovan")->levelIs(0, false);
  Kiv::Tracer::sinkIs({});
  EXPECT_EQ(corruptionCount(), before + 1);
  ASSERT_EQ(traced.size(), 1u);
  EXPECT_TRUE(traced[0].starts_with(name + ": Tovan table \"" + name + "\": slot at byte "))
      << traced[0];
  const auto reports = tableReports();
  const auto ours = std::ranges::find(reports, name, &TableReport::table);
  ASSERT_NE(ours, reports.end());
  EXPECT_GE(ours->corruptions, table.corruptions());
  EXPECT_EQ(ours->lastCorruption, table.lastCorruption());
}

// According to the state, the slot is being written. Only a living writer may complete that.
TEST_F(TovanMapDamageTest, AnUnfinishedUpdateOfALivingWriterIsNoDamage) {
  auto table = std::make_unique<Map>(config(Access::Write));
  table->set(kOdd, Repeated(5));
  const Map other = reader();
  ASSERT_EQ(Tovan::damage<uint64_t>(name, kOdd, kState, 1), 1u);
  EXPECT_THROW(other.get(kOdd), BusyException);
  tend(*table);
  table->set(kOdd, Repeated(6));
  EXPECT_EQ(other.get(kOdd)->word(), 6u);
  ASSERT_EQ(Tovan::damage<uint64_t>(name, kOdd, kState, 1), 1u);
  table.reset();
  EXPECT_THROW(other.get(kOdd), CorruptionDetectedException);
}

class OpenTovanMapTest : public TovanMapDamageTest {
 protected:
  /// The text of the refusal to open a table, or "".
  template <class M = Map>
  static std::string refusal(const TableConfig& config) {
    try {
      M map(config);
    } catch (const OpenException& e) {
      return e.what();
    }
    return {};
  }
  void expectRefusal(const std::string& what) {
    const std::string text = "Tovan table \"" + name + "\" " + what;
    EXPECT_EQ(refusal(config(Access::Read)), text);
    EXPECT_EQ(refusal(config(Access::Write)), text);
  }
};

TEST_F(OpenTovanMapTest, RefusesFilesThatAreNoSuchTable) {
  const std::string title = "Tovan table \"" + name + "\" ";
  EXPECT_EQ(refusal(config(Access::Read)), title + "does not exist");
  EXPECT_EQ(refusal({.access = Access::Write, .name = "a/b"}),
            "Tovan table \"a/b\" cannot be opened: not a name");
  const std::string withNul = name + std::string("\0x", 2);
  EXPECT_FALSE(refusal({.access = Access::Write, .name = withNul}).empty());
  EXPECT_TRUE(tablesOf(name).empty());
  {
    Map table = writer();
    fill(table, 5000);
    EXPECT_EQ(refusal(config(Access::Write)), title + "has a living writer");
    table.validateFiles();
    overwrite(offsetof(TableHeader, version), 1);
    EXPECT_THROW(table.validateFiles(), CorruptionDetectedException);
  }
  expectRefusal("has version 1, known is 4");
  overwrite(offsetof(TableHeader, version), 4);
  EXPECT_EQ((refusal<TovanMap<uint64_t, uint64_t>>(config(Access::Read))),
            title + "has another layout");
  auto other = config(Access::Write);
  other.layout = "number/2";
  EXPECT_EQ(refusal(other), title + "has another layout");
  overwrite(offsetof(TableHeader, identity) + 8, 1);
  expectRefusal("has a damaged header");
  overwrite(offsetof(TableHeader, magic), 1);
  expectRefusal("is not a Tovan table");

  EXPECT_EQ(tablesOf(name), std::vector{name});
  EXPECT_EQ(removeTablesOf(name), 1u);
  writer().set(1, Repeated(1));
}

TEST_F(OpenTovanMapTest, RefusesATruncatedTable) {
  {
    Map table = writer();
    fill(table, 5000);
  }
  const auto size = resize([](off_t whole) { return whole / 2; });
  expectRefusal("is truncated: " + std::to_string(size / 2) + " bytes of " + std::to_string(size));
  resize([](off_t) { return 10; });
  expectRefusal("is too short to be a table");
}

// A program that may write the file may cut it short. Processes that have it open must not crash.
TEST_F(OpenTovanMapTest, TableCutShortInUseIsDamageNotACrash) {
  Map table = writer();
  fill(table, 5000);
  Map other = reader();
  resize([](off_t whole) { return whole - 200000; });
  size_t reported = 0;
  for (uint64_t i = 0; i < 5000; ++i) {
    try {
      EXPECT_EQ(other.get(i).value_or(Repeated(i)).words, Repeated(i).words);
    } catch (const CorruptionDetectedException&) {
      ++reported;
    }
  }
  EXPECT_GT(reported, 0u);
  EXPECT_THROW(for (const auto& item
                    : other) EXPECT_TRUE(item.value.isWhole()),
               CorruptionDetectedException);
  EXPECT_THROW(table.validateFiles(), CorruptionDetectedException);
  fill(table, 5000);
  EXPECT_GT(table.corruptions(), 0u);
  EXPECT_EQ(table.size(), 5000u);
  // The file is whole again, for the old reader and for new ones.
  for (uint64_t i = 0; i < 5000; ++i) ASSERT_TRUE(other.get(i) && other.get(i)->word() == i) << i;
  EXPECT_EQ(reader().keys().size(), 5000u);
}

// Until the next change repairs the file, readers report damage and not absent entries.
TEST_F(OpenTovanMapTest, TheNextChangeRepairsAnEmptiedFile) {
  Map table = writer();
  fill(table, 100);
  Map other = reader();
  const auto cut = [&] {
    resize([](off_t) { return 0; });
    EXPECT_THROW(other.get(1), CorruptionDetectedException);
    EXPECT_THROW(other.keys(), CorruptionDetectedException);
  };
  cut();
  table.set(500, Repeated(500));
  EXPECT_TRUE(table.takeDropped()) << "the lost entries must be announced";
  EXPECT_EQ(table.size(), 1u);
  EXPECT_TRUE(other.get(500)) << "the reader maps the file that is whole again";
  EXPECT_FALSE(other.get(1));
  cut();
  tend(table);
  EXPECT_EQ(table.size(), 0u);
  EXPECT_EQ(reader().size(), 0u);
}

TEST_F(OpenTovanMapTest, ARemovedTableIsMadeAgain) {
  constexpr uint64_t kEntries = 5000;
  Map table = writer();
  fill(table, kEntries);
  const Map before = reader();
  const std::string file = "/hostroute-" + name;
  TendRound turn;
  turn.turnIs(0);
  ::shm_unlink(file.c_str());
  table.tend(turn);  // its removal is noticed at any turn
  EXPECT_EQ(table.corruptions(), 1u);
  EXPECT_NE(table.lastCorruption().find("was removed, and is made again"), std::string::npos);
  EXPECT_TRUE(table.isCurrent());
  EXPECT_FALSE(before.isCurrent());
  EXPECT_FALSE(before.hasWriter());
  EXPECT_TRUE(before.get(kEntries - 1));
  const Map after = reader();
  EXPECT_TRUE(after.hasWriter());
  EXPECT_EQ(refusal(config(Access::Write)), "Tovan table \"" + name + "\" has a living writer");
  for (uint64_t i = 0; i < 2 * kEntries; ++i) table.set(i, Repeated(i + 1));  // it grows, too
  for (uint64_t i = 0; i < 2 * kEntries; ++i) ASSERT_EQ(after.get(i)->word(), i + 1);

  // A foreign file under the name is neither overwritten nor removed.
  ASSERT_EQ(::rename(("/dev/shm" + file).c_str(), ("/dev/shm" + file + ".x").c_str()), 0);
  const int fd = ::shm_open(file.c_str(), O_RDWR | O_CREAT, 0644);
  ASSERT_EQ(::write(fd, "foreign", 7), 7);
  rlimit files{};
  ::getrlimit(RLIMIT_NOFILE, &files);
  const rlimit none{.rlim_cur = 0, .rlim_max = files.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &none);  // so no file can be made again
  for (int i = 0; i < 3; ++i) tend(table);
  ::setrlimit(RLIMIT_NOFILE, &files);
  EXPECT_EQ(table.corruptions(), 3u) << "two removals, and one failed new file";
  EXPECT_NE(table.lastCorruption().find("again: another file has its name"), std::string::npos);
  table.set(1, Repeated(7));
  table.cleanup();
  EXPECT_EQ(removeTablesOf(name), 0u);
  ::shm_unlink((file + ".x").c_str());
  struct stat status {};
  ASSERT_EQ(::fstat(fd, &status), 0);
  EXPECT_EQ(status.st_nlink, 1u);
  EXPECT_EQ(status.st_size, 7);
  ::close(fd);
  // Each turn tries again.
  ::shm_unlink(file.c_str());
  table.set(1, Repeated(8));
  tend(table);
  EXPECT_EQ(table.corruptions(), 3u);
  EXPECT_EQ(reader().get(1)->word(), 8u);
}

// When two writers used one name, the first must not remove the table of the second.
TEST_F(OpenTovanMapTest, TheTableOfAnotherWriterIsNotRemoved) {
  Map table = writer();
  ::shm_unlink(("/hostroute-" + name).c_str());
  int begun[2];
  int ends[2];
  ASSERT_EQ(::pipe(begun), 0);
  ASSERT_EQ(::pipe(ends), 0);
  char byte = 0;
  const pid_t child = inChild([&] {
    ::close(ends[1]);
    const Map own(config(Access::Write));
    if (::write(begun[1], &byte, 1) != 1 || ::read(ends[0], &byte, 1) != 0) return 1;
    return own.isCurrent() ? 0 : 2;
  });
  ASSERT_EQ(::read(begun[0], &byte, 1), 1);
  tend(table);
  EXPECT_FALSE(table.isCurrent());
  EXPECT_EQ(removeTablesOf(name), 0u);
  table.cleanup();
  for (const int end : {begun[0], begun[1], ends[0], ends[1]}) ::close(end);
  EXPECT_EQ(statusOf(child), 0);
}

TEST_F(OpenTovanMapTest, MoreThanAThousandTablesAreGuardedWhenCutShort) {
  constexpr size_t kTables = 1100;
  constexpr size_t kBytes = 8192;
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit former = limit;
  limit.rlim_cur = limit.rlim_max;
  if (limit.rlim_max < kTables + 100 || ::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    GTEST_SKIP() << "the limit of open files is too low";
  }
  std::vector<std::unique_ptr<TableMemory>> tables;
  for (size_t i = 0; i < kTables; ++i) {
    const TableConfig config{.access = Access::Write, .name = name + "." + std::to_string(i)};
    tables.push_back(std::make_unique<TableMemory>(config, kBytes));
    tables.back()->provide(0, kBytes);
    tables.back()->base()[0] = std::byte{1};
  }
  const std::string last = "/hostroute-" + name + "." + std::to_string(kTables - 1);
  const int fd = ::shm_open(last.c_str(), O_RDWR, 0);
  ASSERT_EQ(::ftruncate(fd, 0), 0);
  ::close(fd);
  EXPECT_EQ(tables.back()->base()[0], std::byte{0});
  EXPECT_TRUE(tables.back()->isCut());
  EXPECT_FALSE(tables.front()->isCut());
  tables.clear();
  ::setrlimit(RLIMIT_NOFILE, &former);
}

TEST_F(OpenTovanMapTest, ReaderRefusesEveryChange) {
  Map table = writer();
  table.set(1, Repeated(1));
  Map other = reader();
  const auto refused = [](auto operation) {
    try {
      operation();
    } catch (const ReadOnlyException& e) {
      return std::string(e.what());
    }
    return std::string("nothing");
  };
  EXPECT_EQ(refused([&] { other.set(1, Repeated(2)); }), "write to read-only Tovan table");
  EXPECT_EQ(refused([&] { other.erase(1); }), "remove to read-only Tovan table");
  EXPECT_EQ(refused([&] { other.clear(); }), "remove to read-only Tovan table");
  EXPECT_EQ(refused([&] { other.cleanup(); }), "cleanup to read-only Tovan table");
  EXPECT_EQ(refused([&] { other.validate(); }), "validate to read-only Tovan table");
  EXPECT_EQ(refused([&] { other.validateFiles(); }), "validateFiles to read-only Tovan table");
  EXPECT_EQ(other.get(1)->word(), 1u);
}

}  // namespace
}  // namespace Tovan
