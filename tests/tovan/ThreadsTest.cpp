// A writer and readers in threads of one process, each with a table of its own.
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "platform/tovan/ForwardingStatus.h"
#include "platform/tovan/Reports.h"
#include "tests/tovan/SharedTable.h"

namespace Tovan {
namespace {

using ThreadsTest = SharedTable;

// Keys below kKeys are always there, and their values only grow. Other keys are added and removed,
// so that pages are split and joined, and slots and memory are used again.
TEST_F(ThreadsTest, ReadersSeeWholeEntriesWhileTheWriterIsBusy) {
  constexpr uint64_t kKeys = 300;
  constexpr uint64_t kRounds = 30;
  Map table(config(Access::Write));
  for (uint64_t key = 0; key < kKeys; ++key) table.set(key, Repeated(1));
  std::atomic<bool> ends = false;
  std::atomic<size_t> wrong = 0;
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i) {
    readers.emplace_back([&] {
      const Map other(config(Access::Read));
      std::vector<uint64_t> last(kKeys, 1);
      const auto check = [&](uint64_t key, const Repeated& value) {
        const bool isRight = key < kKeys ? value.word() >= std::exchange(last[key], value.word())
                                         : value.word() == key;
        wrong += !isRight || !value.isWhole();
      };
      do {
        for (uint64_t key = 0; key < kKeys; ++key) {
          const auto value = other.get(key);
          check(key, value.value_or(Repeated(0)));
          const auto passing = other.get(kKeys + key * 15);
          if (passing) check(kKeys + key * 15, *passing);
        }
        size_t met = 0;
        for (const auto& [key, value] : other) {
          met += key < kKeys;
          check(key, value);
        }
        wrong += met != kKeys;
      } while (!ends || last[0] < kRounds);
    });
  }
  // Meanwhile, other tables are opened and closed, and damage is reported. All tables of a process
  // share the data of these operations.
  std::thread neighbor([&] {
    for (int i = 0; !ends; ++i) {
      Map unshared({.name = "private"});
      unshared.set(1, Repeated(1));
      const auto shared = config(Access::Write);
      Map own({.access = Access::Write, .name = name + ".own", .layout = shared.layout});
      own.corruptionDetected("not really");
      own.cleanup();
      tableReports();
    }
  });
  for (uint64_t round = 1; round <= kRounds; ++round) {
    const uint64_t end = kKeys + (round % 2 == 0 ? 50 : 150) * round;
    for (uint64_t key = kKeys; key < end; ++key) table.set(key, Repeated(key));
    for (uint64_t key = 0; key < kKeys; ++key) table.set(key, Repeated(round));
    for (uint64_t key = kKeys; key < end; ++key) table.erase(key);
    tend(table);
    if (round % 10 == 0) table.validate();
  }
  ends = true;
  for (auto& reader : readers) reader.join();
  neighbor.join();
  EXPECT_EQ(wrong, 0u);
}

TEST_F(ThreadsTest, ReadersOfFecsSeeTheViasOfOneUpdate) {
  using Fib::ForwardingStatus;
  const auto status = Kiv::make<ForwardingStatus>(name, Access::Write);
  // Each update has an interface of its own, so that names are published and removed.
  const auto fecOf = [](uint32_t update) {
    const auto intf = Zemit::IntfId::of(std::string_view("Ethernet" + std::to_string(update)));
    Fib::Fec fec(7);
    for (uint32_t i = 0; i <= update % 5; ++i) {
      fec.newVia({.hop = Zemit::IpAddr(update), .intf = intf});
    }
    return fec;
  };
  status->fecIs(fecOf(1));
  std::atomic<bool> ends = false;
  std::atomic<size_t> mixed = 0;
  std::thread reader([&] {
    const auto other = Kiv::make<ForwardingStatus>(name, Access::Read);
    while (!ends) {
      const auto fec = other->fec(7);
      mixed += fec.viaCount() == 0 || fec != fecOf(fec.begin()->hop.value());
    }
  });
  for (uint32_t i = 0; i < 3000; ++i) status->fecIs(fecOf(i));
  ends = true;
  reader.join();
  EXPECT_EQ(mixed, 0u);
}

}  // namespace
}  // namespace Tovan
