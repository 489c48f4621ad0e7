// Tests of the prefix tries against a simple model.
#include "platform/routing/Trie.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <random>
#include <set>
#include <vector>

namespace Routing {
namespace {

/// The model: a set of prefixes with a look-up that tries every length.
template <class P>
class Model {
 public:
  bool routeIs(const P& prefix, bool present) {
    return present ? prefixes_.insert(prefix).second : prefixes_.erase(prefix) != 0;
  }
  P longest(const P& prefix, uint32_t maxLen) const {
    for (uint32_t len = maxLen + 1; len-- > 0;) {
      const auto covering = P::enclosing(prefix.addr(), len);
      if (prefixes_.contains(covering)) return covering;
    }
    return P::null();
  }
  P longestStrictlyShorter(const P& prefix) const {
    return prefix.len() == 0 ? P::null() : longest(prefix, prefix.len() - 1);
  }
  const std::set<P>& prefixes() const { return prefixes_; }

 private:
  std::set<P> prefixes_;
};

Zemit::IpAddr addrOf(uint64_t high, uint64_t, Zemit::IpAddr) {
  return Zemit::IpAddr(static_cast<uint32_t>(high >> 32));
}
Zemit::Ip6Addr addrOf(uint64_t high, uint64_t low, Zemit::Ip6Addr) {
  return {high, low};
}

template <class T>
class TrieTest : public testing::Test {
 protected:
  using Prefix = typename T::Prefix;
  using Addr = typename T::Addr;

  static constexpr uint64_t kBases[] = {0, 0x5555555555555555, 0x0123456789abcdef, ~uint64_t{0}};

  uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random() % bound); }
  Addr randomAddr() { return addrOf(random(), random(), Addr()); }
  /// An address with the leading bits of one of a few addresses. The other bits are random, often
  /// mostly zero.
  Addr nearAddr() {
    const uint32_t shared = below(Addr::kBits + 1);
    const uint64_t highMask = Zemit::leadingOnes<uint64_t>(std::min(shared, 64U));
    const uint64_t lowMask = Zemit::leadingOnes<uint64_t>(std::max(shared, 64U) - 64);
    const uint64_t sparse = below(2) == 0 ? random() & random() & random() : ~uint64_t{0};
    return addrOf((kBases[below(4)] & highMask) | (random() & sparse & ~highMask),
                  (kBases[below(2)] & lowMask) | (random() & sparse & ~lowMask), Addr());
  }
  Prefix nearPrefix() { return Prefix::enclosing(nearAddr(), below(Prefix::kMaxLen + 1)); }

  /// Changes the set `steps` times, by an insertion in `percent` of the steps, and compares
  /// look-ups after each step.
  void run(uint32_t steps, uint32_t percent) {
    for (uint32_t step = 0; step < steps; ++step) {
      const bool present = below(100) < percent;
      Prefix prefix = nearPrefix();
      if (!present && below(2) == 0 && !model.prefixes().empty()) {
        const auto at = model.prefixes().lower_bound(prefix);
        prefix = at == model.prefixes().end() ? *model.prefixes().begin() : *at;
      }
      const bool changed = model.routeIs(prefix, present);
      ASSERT_EQ(trie->contains(prefix), changed != present) << "step " << step;
      ASSERT_EQ(present ? trie->routeIs(prefix, true) : trie->routeDel(prefix), changed);
      ASSERT_EQ(trie->size(), model.prefixes().size());
      for (const Prefix& asked : {prefix, nearPrefix(), Prefix::host(nearAddr())}) {
        ASSERT_EQ(trie->longestMatch(asked), model.longest(asked, asked.len())) << "step " << step;
        ASSERT_EQ(trie->longestStrictlyShorter(asked), model.longestStrictlyShorter(asked));
      }
    }
    std::vector<Prefix> seen;
    trie->forEach([&](const Prefix& prefix) { seen.push_back(prefix); });
    std::ranges::sort(seen);
    ASSERT_TRUE(std::ranges::equal(seen, model.prefixes()));
  }
  /// Removes all remaining prefixes in random order.
  void drain() {
    std::vector<Prefix> left(model.prefixes().begin(), model.prefixes().end());
    std::ranges::shuffle(left, random);
    for (const Prefix& prefix : left) {
      ASSERT_TRUE(trie->routeIs(prefix, false));
      model.routeIs(prefix, false);
      const Prefix asked = nearPrefix();
      ASSERT_EQ(trie->longestMatch(asked), model.longest(asked, asked.len()));
    }
  }

  std::mt19937_64 random{20240229};
  typename T::Ptr trie = Kiv::make<T>();
  Model<Prefix> model;
};
using Tries = testing::Types<Routing::Trie, Routing6::Trie>;
TYPED_TEST_SUITE(TrieTest, Tries);

// Covers every length, clusters, nested prefixes and long single paths, while the set grows,
// changes, becomes empty and is refilled.
TYPED_TEST(TrieTest, AgreesWithTheModel) {
  const size_t bytesWhenEmpty = this->trie->bytes();
  for (uint32_t steps : {50u, 3000u, 30000u}) {
    this->run(steps, 90);
    this->run(steps, 50);
    this->run(steps, 25);
    this->drain();
    EXPECT_EQ(this->trie->size(), 0u);
    EXPECT_EQ(this->trie->bytes(), bytesWhenEmpty) << "an empty set holds no nodes";
  }
}

// One prefix of each length on one path: the deepest possible nesting.
TYPED_TEST(TrieTest, FindsEachPrefixOfAChain) {
  using P = typename TypeParam::Prefix;
  const auto addr = this->randomAddr();
  for (uint32_t len = 0; len <= P::kMaxLen; ++len) {
    EXPECT_EQ(this->trie->longestMatch(P::enclosing(addr, len)),
              len == 0 ? P::null() : P::enclosing(addr, len - 1));
    EXPECT_TRUE(this->trie->routeIs(P::enclosing(addr, len), true));
    EXPECT_EQ(this->trie->longestMatch(addr), P::enclosing(addr, len));
  }
  for (uint32_t len = P::kMaxLen; len > 0; --len) {
    EXPECT_EQ(this->trie->longestStrictlyShorter(P::enclosing(addr, len)),
              P::enclosing(addr, len - 1));
    EXPECT_TRUE(this->trie->routeDel(P::enclosing(addr, len)));
    EXPECT_EQ(this->trie->longestMatch(addr), P::enclosing(addr, len - 1));
  }
}

TYPED_TEST(TrieTest, NeverContainsTheNullPrefix) {
  using P = typename TypeParam::Prefix;
  EXPECT_FALSE(this->trie->routeIs(P::null(), true));
  this->trie->routeIs(P(), true);
  EXPECT_EQ(this->trie->longestMatch(P::null()), P::null());
  EXPECT_EQ(this->trie->longestStrictlyShorter(P()), P::null());
  EXPECT_FALSE(this->trie->contains(P::null()));
  EXPECT_FALSE(this->trie->routeDel(P::null()));
  EXPECT_EQ(this->trie->longestMatch(this->randomAddr()), P()) << "the default route covers all";
}

}  // namespace
}  // namespace Routing
