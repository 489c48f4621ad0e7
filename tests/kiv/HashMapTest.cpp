// Tests of HashMap against a model, and of iterators during changes.
#include "platform/kiv/containers/HashMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <set>
#include <string>
#include <unordered_map>

#include "platform/kiv/containers/Ptr.h"
#include "platform/kiv/containers/String.h"

namespace Kiv {
namespace {

struct Counted : Object {
  explicit Counted(uint64_t n) : number(n) { ++living; }
  ~Counted() override { --living; }
  uint64_t number;
  static inline int living = 0;
};

/// A key of the size of an IPv6 prefix.
struct LongKey {
  std::array<uint64_t, 3> words{};
  uint32_t hash() const { return hashWords(words[0] ^ words[2], words[1]); }
  friend bool operator==(const LongKey&, const LongKey&) = default;
};

/// Maps all keys to few groups and few tags, so that every probe collides.
struct PoorHash {
  uint32_t operator()(uint64_t key) const { return static_cast<uint32_t>(key % 5) << 29; }
};

template <class K>
K keyOf(uint64_t n) {
  if constexpr (std::is_same_v<K, StringN>) {
    return StringN("Ethernet" + std::to_string(n));
  } else if constexpr (std::is_same_v<K, LongKey>) {
    return {{n, ~n, n >> 3}};
  } else {
    return static_cast<K>(n);
  }
}
template <class V>
V valueOf(uint64_t n) {
  if constexpr (std::is_same_v<V, Ptr<Counted>>) {
    return make<Counted>(n);
  } else if constexpr (std::is_same_v<V, std::string>) {
    return std::string(n % 40, 'x') + std::to_string(n);
  } else {
    return V(n);
  }
}
template <class V>
bool isValueOf(const V& value, uint64_t n) {
  if constexpr (std::is_same_v<V, Ptr<Counted>>) {
    return value->number == n;
  } else {
    return value == valueOf<V>(n);
  }
}

template <class M>
class HashMapModelTest : public testing::Test {
 protected:
  using K = std::remove_cvref_t<decltype(std::declval<typename M::Iterator>().key())>;
  using V = std::remove_cvref_t<decltype(std::declval<typename M::Iterator>().value())>;

  /// Compares everything that can be read from the map with the model.
  void expectSame() {
    ASSERT_EQ(map.size(), model.size());
    ASSERT_EQ(map.empty(), model.empty());
    size_t walked = 0;
    for (auto it = map.iteratorConst(); it; ++it, ++walked) {
      const auto found = model.find(numbers.at(it.key()));
      ASSERT_NE(found, model.end());
      ASSERT_TRUE(isValueOf(it.value(), found->second));
    }
    ASSERT_EQ(walked, model.size());
    ASSERT_EQ(map.keys().size(), model.size());
    for (uint64_t n = 0; n < 200; ++n) ASSERT_EQ(map.contains(keyOf<K>(n)), model.contains(n));
  }
  void store(uint64_t n, uint64_t value) {
    numbers.emplace(keyOf<K>(n), n);
    const bool isNew = model.emplace(n, value).second;
    const auto [stored, added] = map.tryEmplace(keyOf<K>(n), valueOf<V>(value));
    ASSERT_EQ(added, isNew);
    ASSERT_TRUE(isValueOf(*stored, model[n]));
    if (value % 3 == 0) {
      *stored = valueOf<V>(value);
      model[n] = value;
    }
  }
  void eraseOnWalk(uint64_t oneIn) {
    for (auto it = map.iterator(); it; ++it) {
      if (random() % oneIn != 0) continue;
      model.erase(numbers.at(it.key()));
      map.erase(it);
    }
  }

  struct KeyHash {
    size_t operator()(const K& key) const { return Hash<K>()(key); }
  };
  M map;
  std::unordered_map<uint64_t, uint64_t> model;      // value by number
  std::unordered_map<K, uint64_t, KeyHash> numbers;  // the numbers of all keys ever stored
  std::mt19937_64 random{20};
};
using Maps = testing::Types<HashMap<uint64_t, uint64_t>, HashMap<LongKey, std::string>,
                            HashMap<StringN, Ptr<Counted>>, HashMap<uint64_t, uint32_t, PoorHash>>;
TYPED_TEST_SUITE(HashMapModelTest, Maps);

// Fills and empties the map to varying levels, so that tables grow, lose their overflow entries,
// and shrink.
TYPED_TEST(HashMapModelTest, AgreesWithAModelUnderRandomChanges) {
  constexpr bool isPoor = std::is_same_v<TypeParam, HashMap<uint64_t, uint32_t, PoorHash>>;
  const std::vector<uint64_t> levels = isPoor ? std::vector<uint64_t>{100, 10, 600}
                                              : std::vector<uint64_t>{20, 9000, 40, 70000, 100};
  for (const uint64_t level : levels) {
    for (uint64_t i = 0; i < std::max<uint64_t>(3 * level, 20000); ++i) {
      // With equally many insertions and erasures, half of the numbers is present.
      const uint64_t n = this->random() % (2 * level);
      if (this->random() % 2 == 0) {
        this->store(n, this->random() >> 1);
      } else {
        ASSERT_EQ(this->map.erase(keyOf<typename TestFixture::K>(n)), this->model.erase(n) == 1);
      }
      if (this->HasFatalFailure()) return;
    }
    ASSERT_NO_FATAL_FAILURE(this->expectSame());
    this->eraseOnWalk(3);
    ASSERT_NO_FATAL_FAILURE(this->expectSame());
  }
  this->eraseOnWalk(1);
  ASSERT_NO_FATAL_FAILURE(this->expectSame());
  EXPECT_EQ(this->map.bytes(), 0u);
  EXPECT_EQ(Counted::living, 0);
}

// Grows to a million entries and shrinks. A table that kept its size would make later walks slow.
TEST(HashMapTest, GivesMemoryBackWhenItShrinks) {
  HashMap<uint64_t, Ptr<Counted>> map;
  const auto shared = make<Counted>(uint64_t{0});
  for (uint64_t n = 0; n < 1'000'000; ++n) map.tryEmplace(n, shared);
  const size_t most = map.bytes();
  for (uint64_t n = 0; n < 999'000; ++n) ASSERT_TRUE(map.erase(n));
  for (uint64_t n = 0; n < 1'000'000; ++n) {  // replaces each element a thousand times
    map.tryEmplace(n, shared);
    map.erase(n + 999'000 < 1'000'000 ? n + 999'000 : n - 1'000);
  }
  EXPECT_EQ(map.size(), 1000u);
  EXPECT_LT(map.bytes(), most / 100);
  EXPECT_EQ(shared->referenceCount(), 1001);

  for (uint64_t n = 0; n < 100'000; ++n) map.tryEmplace(n, shared);
  auto moved = std::move(map);
  EXPECT_TRUE(map.empty());  // NOLINT(bugprone-use-after-move): moved-from is empty
  EXPECT_EQ(shared->referenceCount(), 101'001);
  moved.clear();
  EXPECT_EQ(shared->referenceCount(), 1);
}

/// Maps half of the keys to the last quarter of the groups, so that many overflow into other
/// groups.
struct UnevenHash {
  uint32_t operator()(uint64_t key) const {
    return hashWord(key) | (key % 2 == 0 ? 0U : 0xc0000000U);
  }
};

// The pages of a large block are moved to the next block, while elements are inserted and erased.
TEST(HashMapTest, KeepsAllElementsWhileALargeBlockIsReplaced) {
  const auto check = [](auto map) {
    constexpr uint64_t kCount = 300'000;
    std::vector<bool> isThere(kCount);
    for (uint64_t n = 0; n < kCount; ++n) {
      map.tryEmplace(n, std::array{n, ~n, n});
      isThere[n] = true;
      if (n % 5 == 0) {
        map.erase(n / 2);
        isThere[n / 2] = false;
      }
      if ((n + 1) % 50'000 != 0) continue;
      for (uint64_t key = 0; key <= n; ++key) {
        const auto* found = map.find(key);
        ASSERT_EQ(found != nullptr, isThere[key]) << key << " at " << n;
        if (found != nullptr) {
          ASSERT_EQ((*found)[1], ~key) << "at " << n;
        }
      }
      ASSERT_EQ(map.keys().size(), map.size());
    }
  };
  using Value = std::array<uint64_t, 3>;
  check(HashMap<uint64_t, Value>());
  check(HashMap<uint64_t, Value, UnevenHash>());
}

// A switch has millions of maps that are empty or almost empty.
TEST(HashMapTest, SmallMapsAreSmall) {
  HashMap<uint32_t, Present> set;
  EXPECT_EQ(sizeof set, 2 * sizeof(void*));
  EXPECT_EQ(set.bytes(), 0u);
  EXPECT_FALSE(set.contains(1));
  EXPECT_FALSE(set.erase(1));
  EXPECT_FALSE(set.iterator());
  EXPECT_TRUE(set.insert(1));
  EXPECT_FALSE(set.insert(1));
  EXPECT_LE(set.bytes(), 40u);
  for (uint32_t n = 2; n <= 8; ++n) set.insert(n);
  EXPECT_LE(set.bytes(), 96u);
  uint32_t sum = 0;
  for (const uint32_t key : set) sum += key;
  EXPECT_EQ(sum, 36u);
}

TEST(HashMapTest, AnIteratorStaysValidAcrossInsertions) {
  HashMap<uint64_t, uint64_t> map;
  for (uint64_t n = 0; n < 10; ++n) map.tryEmplace(n, n);
  auto it = map.iterator();
  const uint64_t first = it.key();
  const uint32_t generation = map.generation();
  // Each insertion may move the element to a larger table, or within the table that is being
  // emptied.
  for (uint64_t n = 100; n < 5000; ++n) {
    map.tryEmplace(n, n);
    ASSERT_EQ(it.value(), first);
  }
  EXPECT_NE(map.generation(), generation);
  map.erase(it);
  EXPECT_FALSE(map.contains(first));
  size_t left = 0;
  while (++it) ++left;
  EXPECT_LT(left, map.size() + 1);

  // When its element was erased and the table was changed, the iterator ends.
  auto lost = map.iterator();
  map.erase(lost.key());
  map.tryEmplace(lost.key() + 1'000'000, 0U);
  EXPECT_TRUE(lost);
  EXPECT_FALSE(++lost);
  // When only its element was erased, the iterator continues.
  auto kept = map.iterator();
  map.erase(kept.key());
  map.erase(kept);
  std::set<uint64_t> seen;
  while (++kept) seen.insert(kept.key());
  EXPECT_EQ(seen.size(), map.size());
  // After clear() and refilling, an old iterator ends, even when the map's memory has the same
  // address.
  auto old = map.iterator();
  map.clear();
  map.tryEmplace(old.key() + 1, 0U);
  EXPECT_FALSE(++old);
}

TEST(HashMapTest, AnIteratorStaysValidAcrossReserve) {
  HashMap<uint64_t, uint64_t> map;
  size_t bytes = 0;
  for (uint64_t n = 0; n < 2000 || map.bytes() <= bytes; ++n) {  // until the map grows
    bytes = map.bytes();
    map.tryEmplace(n, n);
  }
  std::vector<HashMap<uint64_t, uint64_t>::Iterator> walks;
  for (auto it = map.iterator(); it; ++it) walks.push_back(it);
  const uint32_t generation = map.generation();
  bytes = map.bytes();
  map.reserve(map.size() + 1);
  ASSERT_LT(map.bytes(), bytes) << "nothing was moved";
  EXPECT_NE(map.generation(), generation);
  for (const auto& it : walks) ASSERT_EQ(it.value(), it.key());
}

// Otherwise an iterator could mistake the empty map for the map that it iterates over.
TEST(HashMapTest, OnlyTheEmptyMapHasGenerationZero) {
  detail::lastHashGeneration = UINT32_MAX - 1;
  HashMap<uint64_t, uint64_t> map;
  for (uint64_t n = 0; n < 3; ++n) {
    map.tryEmplace(n, n);
    EXPECT_NE(map.generation(), (HashMap<uint64_t, uint64_t>().generation()));
  }
}

/// Reads the map in its destructor.
struct MapReader : Object {
  using Map = HashMap<uint64_t, Ptr<MapReader>>;
  explicit MapReader(const Map& from) : map(from) {}
  ~MapReader() override { keysSeen = map.keys(); }
  const Map& map;
  static inline std::vector<uint64_t> keysSeen;
};

// The destructor of an erased value must find the map in a consistent state.
TEST(HashMapTest, AValueMayUseTheMapWhileItIsErased) {
  MapReader::Map map;
  map.tryEmplace(1, make<MapReader>(map));
  map.tryEmplace(2, make<MapReader>(map));
  map.erase(1);
  EXPECT_EQ(MapReader::keysSeen, std::vector<uint64_t>{2});
  map.clear();
  EXPECT_EQ(MapReader::keysSeen, std::vector<uint64_t>{});
}

TEST(HashMapTest, AReservedMapIsNotRebuilt) {
  for (const size_t count : {3u, 15u, 16u, 1000u, 200'000u}) {
    HashMap<uint32_t, uint32_t> map;
    map.tryEmplace(0);
    map.reserve(count);
    const size_t bytes = map.bytes();
    for (uint32_t n = 0; n < count; ++n) map.tryEmplace(n);
    EXPECT_EQ(map.bytes(), bytes) << count;
  }
}

// Processors without SSE2 use the other matcher.
TEST(HashMapTest, BothMatchersAgree) {
  std::mt19937 random{7};
  for (int round = 0; round < 10000; ++round) {
    detail::HashGroup group;
    for (auto& byte : group.control) byte = static_cast<uint8_t>(random() % (round % 2 ? 5 : 256));
    group.overflow = static_cast<uint8_t>(random());
    const auto sought = static_cast<uint8_t>(random() % 5);
    uint32_t matching = 0;
    uint32_t full = 0;
    for (uint32_t i = 0; i < detail::HashGroup::kSlots; ++i) {
      matching |= uint32_t{group.control[i] == sought} << i;
      full |= uint32_t{group.control[i] > detail::HashGroup::kNoSlot} << i;
    }
    EXPECT_EQ(detail::WordMatcher::matching(group, sought), matching);
    EXPECT_EQ(detail::HashMatcher::matching(group, sought), matching);
    EXPECT_EQ(detail::WordMatcher::full(group), full);
    EXPECT_EQ(detail::HashMatcher::full(group), full);
  }
}

// Keys such as all addresses of a subnet, or one address of each subnet. With every seed they
// collide in the groups of a map about as often as random keys.
TEST(HashTest, SpreadsKeysAFixedDistanceApart) {
  constexpr size_t kGroups = 4096;
  constexpr size_t kKeys = kGroups * 14;
  const HashSeed usual = hashSeed;
  std::mt19937_64 random(3);
  for (int round = 0; round < 20; ++round) {
    const uint64_t sum = random();
    hashSeedIs({.add = sum, .multiply = random()});
    for (const unsigned shift : {0U, 8U, 16U, 32U, 44U}) {
      std::array<size_t, kGroups> ofWord{}, ofTwo{}, ofName{};
      for (uint64_t i = 0; i < kKeys; ++i) {
        const uint64_t key = i << shift;
        ++ofWord[hashWord(key) / (0x1'0000'0000 / kGroups)];
        ++ofTwo[hashWords(0x20010db8, key) / (0x1'0000'0000 / kGroups)];
        ++ofName[hashBytes(&key, sizeof(key)) / (0x1'0000'0000 / kGroups)];
      }
      for (const auto& groups : {ofWord, ofTwo, ofName}) {
        size_t tooMany = 0;
        for (const size_t keys : groups) tooMany += keys > 15 ? keys - 15 : 0;
        EXPECT_LT(tooMany, kKeys / 10) << "of keys " << (1ULL << shift) << " apart";
      }
    }
  }
  hashSeedIs(usual);
}

}  // namespace
}  // namespace Kiv
