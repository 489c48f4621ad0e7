// Tests of interface ids.
#include "platform/zemit/IntfId.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace Zemit {
namespace {

TEST(IntfIdTest, NamesItsInterface) {
  const IntfId id = IntfId::of("Ethernet1");
  EXPECT_EQ(id, IntfId::of(std::string("Ethernet1").c_str()));
  EXPECT_NE(id, IntfId::of("Ethernet2"));
  std::ostringstream os;
  os << id;
  EXPECT_EQ(os.str(), "Ethernet1");
}

TEST(IntfIdTest, NoInterfaceHasTheEmptyName) {
  EXPECT_EQ(IntfId().value(), 0u);
  EXPECT_TRUE(IntfId().name().empty());
  EXPECT_EQ(IntfId::of(""), IntfId());
}

// Threads assign ids while other threads read names. A name that moved would be read after its
// memory was freed.
TEST(IntfIdTest, ThreadsAgreeOnIdsAndNamesKeepTheirAddresses) {
  constexpr size_t kNames = 1000;
  const Kiv::String8* const early = &IntfId::of("early").name();
  std::vector<std::vector<IntfId>> seen(4);
  std::vector<std::thread> threads;
  for (auto& ids : seen) {
    threads.emplace_back([&ids] {
      for (size_t i = 0; i < kNames; ++i) {
        ids.push_back(IntfId::of(std::to_string(i).c_str()));
        EXPECT_EQ(ids.back().name().view(), std::to_string(i));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (const auto& ids : seen) EXPECT_EQ(ids, seen.front());
  EXPECT_EQ(&IntfId::of("early").name(), early);
}

}  // namespace
}  // namespace Zemit
