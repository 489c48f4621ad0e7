// Tests of the ordered hash map against a std::set of its keys.
#include "platform/kiv/containers/OrderedHashMap.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

#include "tests/kiv/ShortMemory.h"

namespace {

using Keys = std::vector<uint32_t>;

Keys between(const std::set<uint32_t>& keys, uint32_t first, uint32_t last) {
  return {keys.lower_bound(first), keys.upper_bound(last)};
}

// In its phases the map grows beyond the size at which it is sorted, becomes empty, and grows
// again.
TEST(OrderedHashMapTest, GivesTheKeysOfAnyRangeInOrder) {
  std::mt19937 random(1);
  const auto below = [&random](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
  Kiv::OrderedHashMap<uint32_t, Kiv::Present> map;
  std::set<uint32_t> model;
  for (const uint32_t percentInserted : {100U, 50U, 5U, 0U, 90U}) {
    for (int i = 0; i < 20'000; ++i) {
      const uint32_t key = below(8'000);
      if (below(100) < percentInserted) {
        EXPECT_EQ(map.insert(key), model.insert(key).second);
      } else {
        EXPECT_EQ(map.erase(key), model.erase(key) == 1);
      }
      const uint32_t first = below(8'000);
      const uint32_t last = first + below(40);
      ASSERT_EQ(map.keysBetween(first, last), between(model, first, last));
    }
    ASSERT_EQ(map.keysBetween(0, 8'000), Keys(model.begin(), model.end()));
  }
  map.clear();
  EXPECT_EQ(map.keysBetween(0, 8'000), Keys());
  EXPECT_EQ(map.keysBetween(1, 0), Keys());
}

TEST(OrderedHashMapTest, KeepsItsOrderAfterAFailedAllocation) {
  std::mt19937 random(2);
  Kiv::OrderedHashMap<uint32_t, Kiv::Present> map;
  std::set<uint32_t> model;
  for (size_t i = 0; i < 20'000; ++i) {
    const auto key = static_cast<uint32_t>(random() % 8'000);
    try {
      const Sample::ShortMemory memory(1 + i % 3);
      map.insert(key);
    } catch (const std::bad_alloc&) {
    }
    if (map.contains(key)) model.insert(key);
    ASSERT_EQ(map.keysBetween(key, key + 100), between(model, key, key + 100)) << i;
    const auto other = static_cast<uint32_t>(random() % 8'000);
    if (i % 2 == 0) {
      ASSERT_EQ(map.erase(other), model.erase(other) == 1);
    }
  }
}

TEST(OrderedHashMapTest, ErasesByAReferenceToTheStoredKey) {
  Kiv::OrderedHashMap<uint32_t, int> map;
  for (uint32_t key = 0; key < 100; ++key) map.tryEmplace(key, 1);
  EXPECT_EQ(map.keysBetween(0, 99).size(), 100u);
  for (auto it = map.iterator(); it; ++it) map.erase(it.key());
  EXPECT_TRUE(map.empty());
  EXPECT_TRUE(map.keysBetween(0, 99).empty());
}

}  // namespace
