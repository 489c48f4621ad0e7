// Tests of the tables that number via sets, and of the helper that counts their users.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <vector>

#include "tests/tovan/RouteTablesTest.h"

namespace {

template <class F>
class AdjacencyTest : public testing::Test {
 protected:
  using Forwarding = typename F::ForwardingStatus;
  using Helper = typename F::AdjacencyHelper;
  using HostTable = typename Helper::HostTable;
  using RouteTable = typename Helper::RouteTable;
  using ViaSet = typename Helper::ViaSet;
  using Route = typename HostTable::Route;
  using Prefix = typename HostTable::Prefix;

  typename Forwarding::Via via(uint32_t n) const { return {.hop = F::addr(n), .intf = intf}; }
  ViaSet vias(const std::vector<uint32_t>& hops) const {
    ViaSet set;
    for (const uint32_t n : hops) set.newVia(via(n), 1);
    return set;
  }
  Route route(uint32_t n, Tovan::Fib::FecId fecId) const {
    return {.key = Prefix::host(F::addr(n)), .metricPref = {}, .routeType = {}, .fecId = fecId};
  }

  const Zemit::IntfId intf = Zemit::IntfId::of("Ethernet1");
  typename Forwarding::Ptr forwarding = Kiv::make<Forwarding>("forwarding");
  typename Helper::Ptr helper = Kiv::make<Helper>("helper", forwarding);
  typename HostTable::Ptr table = Kiv::make<HostTable>("table");
};
TYPED_TEST_SUITE(AdjacencyTest, Tovan::TestFamilies);

// Compares with a map from sets to users. There are enough sets for several blocks of memory.
TYPED_TEST(AdjacencyTest, ATableNumbersEachSetOnceAndRemovesItWithItsLastUser) {
  Rovel::AdjacencyTable<typename TestFixture::ViaSet> adjacencies;
  struct Model {
    uint32_t index = 0;
    uint32_t users = 0;
  };
  std::map<uint32_t, Model> model;
  std::mt19937 random(1);
  uint32_t highest = 0;
  uint32_t taken = 2;  // one of this many changes takes a set
  size_t most = 0;
  for (int i = 0; i < 60'000; ++i) {
    if (i == 20'000) {
      most = adjacencies.bytes();
      taken = 500;
    }
    if (i == 40'000) {
      EXPECT_LE(adjacencies.bytes(), most * 3 / 4) << "the memory of entries is kept";
      taken = 2;
    }
    const auto n = static_cast<uint32_t>(random() % 900);
    auto& expected = model[n];
    if (random() % taken == 0) {
      const uint32_t next = adjacencies.next();
      const auto [index, isNew] = adjacencies.take(this->vias({n, n + 1}));
      ASSERT_EQ(isNew, expected.users == 0);
      ASSERT_EQ(index, isNew ? next : expected.index);
      expected = {index, expected.users + 1};
      highest = std::max(highest, index);
    } else if (expected.users != 0) {
      adjacencies.drop(expected.index);
      --expected.users;
    }
  }
  size_t sets = 0;
  for (const auto& [n, expected] : model) {
    if (expected.users == 0) continue;
    ++sets;
    EXPECT_EQ(adjacencies.users(expected.index), expected.users);
    EXPECT_EQ(adjacencies.viaSet(expected.index), this->vias({n, n + 1}));
  }
  EXPECT_EQ(adjacencies.size(), sets);
  EXPECT_EQ(adjacencies.last(), highest);
  EXPECT_GT(highest, 256u);
  EXPECT_LE(highest, 900u) << "numbers that are free again are not given out";
  size_t walked = 0;
  adjacencies.forEach([&](const auto&, uint32_t users) { walked += users != 0; });
  EXPECT_EQ(walked, sets);
}

TYPED_TEST(AdjacencyTest, UnusedNumbersHaveNoEntry) {
  Rovel::AdjacencyTable<typename TestFixture::ViaSet> adjacencies;
  const auto index = adjacencies.take(this->vias({1})).first;
  for (const uint64_t other : {uint64_t{0}, uint64_t{index} + 1, uint64_t{1} << 40}) {
    adjacencies.drop(other);
    EXPECT_EQ(adjacencies.users(other), 0u);
    EXPECT_TRUE(adjacencies.viaSet(other).empty());
  }
  EXPECT_EQ(adjacencies.users(index), 1u);
  adjacencies.share(index);
  adjacencies.usersAre(index, 7);
  EXPECT_EQ(adjacencies.users(index), 7u);
  adjacencies.usersAre(index, 0);
  EXPECT_EQ(adjacencies.size(), 0u);
}

TYPED_TEST(AdjacencyTest, AFibAdjacencyIsPublishedFromItsFirstReferenceToItsLast) {
  const auto vias = this->vias({1, 2});
  const auto id = this->helper->doGetOrCreateFibAdjacency(vias);
  EXPECT_GE(id, TypeParam::ForwardingStatus::kFirstAdjacency);
  EXPECT_EQ(this->helper->takeFibAdjacency(vias, id), id);
  EXPECT_EQ(this->helper->takeFibAdjacency(vias, id + 1), id) << "a wrong guess";
  EXPECT_EQ(this->forwarding->fec(id).viaCount(), 2u);
  EXPECT_TRUE(this->helper->isFibAdjacency(id, vias));
  EXPECT_FALSE(this->helper->isFibAdjacency(id, this->vias({1})));

  const auto other = Kiv::make<typename TypeParam::AdjacencyHelper>("other", this->forwarding);
  EXPECT_FALSE(other->isFibAdjacency(id, vias));
  const auto othersId = other->doGetOrCreateFibAdjacency(vias);
  EXPECT_NE(othersId, id) << "two helpers hand out the same id";
  for (int i = 0; i < 5; ++i) {
    other->doDropRefOnFibAdjacency(id);
    this->helper->doDropRefOnFibAdjacency(7);
  }
  this->helper->doDropRefOnFibAdjacency(id);
  this->helper->doDropRefOnFibAdjacency(id);
  EXPECT_EQ(this->forwarding->fec(id).viaCount(), 2u);
  this->helper->doDropRefOnFibAdjacency(id);
  EXPECT_FALSE(this->forwarding->adjacencyIsSound(id));
  EXPECT_FALSE(this->helper->isFibAdjacency(id, vias));
  EXPECT_EQ(this->forwarding->fec(othersId).viaCount(), 2u);
}

TYPED_TEST(AdjacencyTest, AHostAdjacencyBelongsToItsTable) {
  const auto otherTable = Kiv::make<typename TestFixture::HostTable>("otherTable");
  const auto index = this->helper->doGetOrCreateHostAdjacency(this->vias({1}), this->table);
  EXPECT_EQ(this->helper->doGetOrCreateHostAdjacency(this->vias({1}), this->table), index);
  EXPECT_EQ(this->table->adjIndexToViaSet(index), this->vias({1}));
  EXPECT_TRUE(otherTable->adjIndexToViaSet(index).empty());
  this->helper->doDropRefOnHostAdjacency(otherTable, index);
  this->helper->doDropRefOnHostAdjacency(this->table, index);
  EXPECT_EQ(this->table->adjacencies().users(static_cast<uint32_t>(index)), 1u);
  this->helper->doDropRefOnHostAdjacency(this->table, index);
  EXPECT_TRUE(this->table->adjIndexToViaSet(index).empty());
}

TYPED_TEST(AdjacencyTest, ValidationBringsReferencesInStepWithRoutes) {
  const auto routes = Kiv::make<typename TestFixture::RouteTable>("routes");
  const auto kept = this->helper->doGetOrCreateFibAdjacency(this->vias({1}));
  const auto lost = this->helper->doGetOrCreateFibAdjacency(this->vias({2}));
  const auto shared = this->helper->doGetOrCreateFibAdjacency(this->vias({3}));
  routes->routeIs(this->route(1, kept));
  routes->routeIs(this->route(3, shared));
  routes->routeIs(this->route(4, shared));
  const auto hostIndex = this->helper->doGetOrCreateHostAdjacency(this->vias({1}), this->table);
  this->helper->doGetOrCreateHostAdjacency(this->vias({1}), this->table);
  this->table->routeIs(this->route(1, hostIndex));

  const std::array routeTables{typename TestFixture::RouteTable::PtrConst(routes)};
  const std::array hostTables{this->table};
  EXPECT_EQ(this->helper->validate(routeTables, hostTables), 3u);
  EXPECT_FALSE(this->forwarding->adjacencyIsSound(lost));
  EXPECT_EQ(this->table->adjacencies().users(static_cast<uint32_t>(hostIndex)), 1u);
  EXPECT_EQ(this->helper->validate(routeTables, hostTables), 0u);
  this->helper->doDropRefOnFibAdjacency(shared);
  EXPECT_TRUE(this->forwarding->adjacencyIsSound(shared));
  this->helper->doDropRefOnFibAdjacency(shared);
  EXPECT_FALSE(this->forwarding->adjacencyIsSound(shared));
  EXPECT_TRUE(this->forwarding->adjacencyIsSound(kept));
}

}  // namespace
