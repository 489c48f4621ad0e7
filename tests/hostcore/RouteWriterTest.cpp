// The rules by which one host route is written and withdrawn.
#include "tests/hostcore/World.h"

namespace {

template <class F>
class RouteWriterTest : public testing::Test, protected World<F> {
 protected:
  using FecId = Tovan::Fib::FecId;
  using Route = typename F::Route;

  /// Asks for a route of the sample address in one table or the other.
  void writeHost(typename F::RouteType type, FecId fecId) {
    addRouteToRouteTable(this->neighborTable(), nullptr, host, fecId, type, this->virtualIps.get(),
                         this->root, L3::VrfName("red"));
  }
  void writeMerged(typename F::RouteType type, FecId fecId) {
    addRouteToRouteTable(nullptr, this->routeStatus, host, fecId, type, this->virtualIps.get(),
                         this->root, L3::VrfName("red"));
  }
  void writeBoth(typename F::RouteType type, FecId fecId) {
    writeHost(type, fecId);
    writeMerged(type, fecId);
  }
  void expectRoutes(const Route& ofNeighbor, const Route& merged) {
    EXPECT_EQ(this->neighborTable()->route(key), ofNeighbor);
    EXPECT_EQ(this->routeStatus->route(key), merged);
  }
  Route route(typename F::RouteType type, FecId fecId, uint32_t metric, uint8_t preference) const {
    return {.key = F::Prefix::host(host),
            .metricPref = {.metric = metric, .preference = preference},
            .routeType = type,
            .fecId = fecId};
  }
  FecId newFibAdjacency() {
    typename F::ViaSet vias;
    vias.newVia({.hop = {}, .intf = this->ethernet1}, 1);
    return this->adjHelper->doGetOrCreateFibAdjacency(vias);
  }

  const typename F::Addr host = Sample<F>::addr(5);
  const typename F::Prefix key = F::Prefix::host(host);
};
TYPED_TEST_SUITE(RouteWriterTest, Families);

TYPED_TEST(RouteWriterTest, GivesANewRouteTheTrackedMetricInTheRouteTableOnly) {
  this->writeMerged(TypeParam::kAttached, 7);
  EXPECT_EQ(this->routeStatus->route(this->key), this->route(TypeParam::kAttached, 7, 0, 1));
  this->routeStatus->routeDel(this->key);

  this->root->prefixToRouteIs(this->route(TypeParam::kConnected, 3, 50, 9));
  this->writeMerged(TypeParam::kAttached, 7);
  EXPECT_EQ(this->routeStatus->route(this->key), this->route(TypeParam::kAttached, 7, 50, 9));
  this->writeHost(TypeParam::kAttached, 7);
  EXPECT_EQ(this->neighborTable()->route(this->key), this->route(TypeParam::kAttached, 7, 0, 1));
}

TYPED_TEST(RouteWriterTest, KeepsTheMetricOfARouteUnlessTheTrackedOneDiffers) {
  const auto before = this->route(TypeParam::kAttached, 7, 20, 3);
  this->neighborTable()->routeIs(before);
  this->routeStatus->routeIs(before);
  this->writeBoth(TypeParam::kAttached, 8);
  this->expectRoutes(this->route(TypeParam::kAttached, 8, 20, 3),
                     this->route(TypeParam::kAttached, 8, 20, 3));

  this->root->prefixToRouteIs(this->route(TypeParam::kConnected, 3, 50, 9));
  this->writeBoth(TypeParam::kAttached, 8);
  this->expectRoutes(this->route(TypeParam::kAttached, 8, 50, 9),
                     this->route(TypeParam::kAttached, 8, 50, 9));
}

TYPED_TEST(RouteWriterTest, GivesARouteOfAnotherTypeTheNewTypeInEitherTable) {
  const auto before = this->route(TypeParam::kConnected, 7, 20, 3);
  this->neighborTable()->routeIs(before);
  this->routeStatus->routeIs(before);
  this->root->prefixToRouteIs(this->route(TypeParam::kConnected, 3, 50, 9));
  this->writeBoth(TypeParam::kAttached, 8);
  this->expectRoutes(this->route(TypeParam::kAttached, 8, 20, 3),
                     this->route(TypeParam::kAttached, 8, 50, 9));
}

// The writer gives way to virtual addresses of any VRF, the handler only to those of its own VRF.
TYPED_TEST(RouteWriterTest, WritesNoAttachedRouteForAnAddressThatIsVirtualInAnyVrf) {
  this->virtualIps->virtualIpIs(Sample<TypeParam>::virtualAddr("blue", this->host), true);

  this->writeMerged(TypeParam::kAttached, this->newFibAdjacency());
  EXPECT_EQ(this->routeStatus->routeCount(), 0u);
  EXPECT_EQ(this->adjHelper->fibAdjacencies().size(), 0u) << "the reference was not dropped";

  this->routeStatus->routeIs(this->route(TypeParam::kAttached, 7, 20, 3));
  this->writeMerged(TypeParam::kAttached, this->newFibAdjacency());
  EXPECT_EQ(this->routeStatus->route(this->key), this->route(TypeParam::kInvalid, 0, 20, 3));
  EXPECT_EQ(this->adjHelper->fibAdjacencies().size(), 0u) << "the reference was not dropped";

  this->writeMerged(Sample<TypeParam>::kReceive, 7);
  EXPECT_EQ(this->routeStatus->route(this->key).routeType, Sample<TypeParam>::kReceive);
  this->writeHost(TypeParam::kAttached, 7);
  EXPECT_EQ(this->neighborTable()->route(this->key).routeType, TypeParam::kAttached);
}

TYPED_TEST(RouteWriterTest, StopsTheProcessUnlessItGetsOneTableAndAType) {
  const auto call = [&](const auto& hostTable, const auto& routeTable, auto type) {
    addRouteToRouteTable(hostTable, routeTable, this->host, 7, type, nullptr, this->root, {});
  };
  using HostTable = typename TypeParam::HostTable::Ptr;
  using RouteTable = typename TypeParam::RouteStatus::Ptr;
  EXPECT_DEATH(call(HostTable(), RouteTable(), TypeParam::kAttached),
               "hostTable \\|\\| routeTable");
  EXPECT_DEATH(call(this->neighborTable(), this->routeStatus, TypeParam::kAttached),
               "!\\(hostTable && routeTable\\)");
  EXPECT_DEATH(call(this->neighborTable(), RouteTable(), TypeParam::kInvalid),
               "routeType != Routing6?::Fib::invalid_ \\(HostRoute6?Sm:");
}

// Releasing an adjacency of another owner would remove it while it is used. Without the release,
// our own adjacency would leak.
TYPED_TEST(RouteWriterTest, ReleasesTheAdjacencyOfOurOwnRouteTypesOnly) {
  const auto& table = this->neighborTable();
  typename TypeParam::ViaSet vias;
  vias.newVia({.hop = this->host, .intf = this->ethernet1}, 1);
  const auto addrs = TypeParam::AddrSet::AddrSetIs(TypeParam::Prefix::null());

  const auto usersLeft = [&](auto type) {
    const auto adjacency = this->adjHelper->doGetOrCreateHostAdjacency(vias, table);
    addrs->ipIs(this->host, true);
    table->routeIs(this->route(type, adjacency, 0, 1));
    TypeParam::removeHostRoute(this->host, table, addrs, this->adjHelper);
    EXPECT_EQ(table->routeCount(), 0u);
    EXPECT_FALSE(addrs->ip(this->host));
    return table->adjacencies().users(adjacency);
  };
  for (auto type : Sample<TypeParam>::kOwnTypes) EXPECT_EQ(usersLeft(type), 0u) << type;
  EXPECT_EQ(usersLeft(Sample<TypeParam>::kForeignType), 1u);

  addrs->ipIs(this->host, true);
  TypeParam::removeHostRoute(this->host, table, addrs, this->adjHelper);
  EXPECT_FALSE(addrs->ip(this->host)) << "an address without route leaves the set too";
}

}  // namespace
