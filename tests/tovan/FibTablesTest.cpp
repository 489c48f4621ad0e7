// The tables of routes and FECs in shared memory: announcements, refusals and repairs.
#include <algorithm>
#include <array>
#include <set>

#include "platform/tovan/Reports.h"
#include "tests/kiv/SmallFiles.h"
#include "tests/tovan/Damage.h"
#include "tests/tovan/RouteTablesTest.h"

namespace {

using Tovan::Access;

template <class F>
class FibTablesTest : public Tovan::RouteTablesTest<F> {
 protected:
  using Base = Tovan::RouteTablesTest<F>;
  using typename Base::Fec;
  using typename Base::ForwardingStatus;
  using typename Base::Prefix;
  using typename Base::Route;
  using typename Base::RouteStatus;
  using FecId = Tovan::Fib::FecId;
  using Base::host;
  using Base::name;

  static Route route(uint32_t n, FecId fecId = 7) {
    return {.key = host(n), .metricPref = {}, .routeType = {}, .fecId = fecId};
  }
  static Fec fec(FecId id, const std::string& intf) {
    return Fec(id, {{.hop = {}, .intf = Zemit::IntfId::of(std::string_view(intf))}});
  }
  template <class Table>
  typename Table::Ptr open(Access access) const {
    return Kiv::make<Table>(name, access);
  }
  template <class Key>
  size_t damage(const std::string& kind, const Key& key,
                ptrdiff_t offset = Tovan::kValue<Key>) const {
    return Tovan::damage(name + "." + kind + F::kNumber, key, offset);
  }
  /// Damages the entry of a FEC.
  size_t damageFec(FecId id) const { return damage("fec", id, Tovan::kValue<FecId> + 8); }

  struct RouteWatcher final : RouteStatus::NotifieeConst {
    void onRoute(const Prefix& prefix) override { told.insert(prefix); }
    void onRoutekivImmediate() override { ++toldOfAll; }
    std::set<Prefix> told;
    size_t toldOfAll = 0;
  };
  struct FecWatcher final : ForwardingStatus::NotifieeConst {
    void onFec(const FecId& id) override { told.insert(id); }
    void onFec() override { ++toldOfAll; }
    std::set<FecId> told;
    size_t toldOfAll = 0;
  };
};
TYPED_TEST_SUITE(FibTablesTest, Tovan::TestFamilies);

// Without the announcement, an observer would keep a lost route.
TYPED_TEST(FibTablesTest, DamagedRoutesAreDroppedAndAnnounced) {
  using T = FibTablesTest<TypeParam>;
  const auto table = this->template open<typename T::RouteStatus>(Access::Write);
  for (uint32_t n = 1; n <= 40; ++n) table->routeIs(T::route(n));
  const auto watcher = Kiv::make<typename T::RouteWatcher>();
  watcher->notifierIs(table);
  watcher->toldOfAll = 0;
  ASSERT_EQ(this->damage("route", T::host(5)), 1u);
  ASSERT_EQ(this->damage("route", T::host(6)), 1u);
  EXPECT_NE(table->routeDel(T::host(5)).key, T::host(5)) << "the damaged route is unknown";
  EXPECT_EQ(watcher->told, (std::set{T::host(5), T::host(6)}));
  EXPECT_EQ(watcher->toldOfAll, 1u) << "a key may be damaged, too";

  // The original key of a damaged key is unknown.
  watcher->told.clear();
  ASSERT_EQ(this->damage("route", T::host(7), 0), 1u);
  table->routeDel(T::host(7));
  EXPECT_TRUE(watcher->told.contains(T::host(7)));
  EXPECT_EQ(watcher->toldOfAll, 2u);
  EXPECT_EQ(table->routeCount(), 37u);

  // A write repairs the table, too.
  watcher->told.clear();
  ASSERT_EQ(this->damage("route", T::host(9)), 1u);
  ASSERT_EQ(this->damage("route", T::host(8), 0), 1u);
  table->routeIs(T::route(8, 9));
  EXPECT_TRUE(watcher->told.contains(T::host(8)));
  EXPECT_TRUE(watcher->told.contains(T::host(9)));
  EXPECT_EQ(watcher->toldOfAll, 3u);
  EXPECT_EQ(table->route(T::host(8)).fecId, 9u);
}

TYPED_TEST(FibTablesTest, DamagedFecsAreDroppedAndAnnounced) {
  using T = FibTablesTest<TypeParam>;
  const auto table = this->template open<typename T::ForwardingStatus>(Access::Write);
  for (uint32_t id = 1; id <= 9; ++id) table->fecIs(T::fec(id, "Ethernet1"));
  const auto watcher = Kiv::make<typename T::FecWatcher>();
  watcher->notifierIs(table);
  watcher->toldOfAll = 0;
  for (const uint64_t id : {2U, 3U}) ASSERT_EQ(this->damageFec(id), 1u);
  table->fecDel(2);
  EXPECT_EQ(watcher->told, (std::set<uint64_t>{2, 3}));
  EXPECT_EQ(watcher->toldOfAll, 1u);
  EXPECT_EQ(table->fecKeys().size(), 7u);
}

// The vias that were stored before the refusal are removed.
TYPED_TEST(FibTablesTest, AFecThatIsRefusedLeavesNothing) {
  using T = FibTablesTest<TypeParam>;
  using WideFec = typename T::Fec;
  struct ViaKey {
    uint64_t fec;
    uint32_t change;
    uint32_t index;
  };
  struct RawVia {
    typename TypeParam::Addr hop;
    uint32_t intf;
  };
  const auto table = this->template open<typename T::ForwardingStatus>(Access::Write);
  const std::string kind = std::string("via") + TypeParam::kNumber;
  const Tovan::TovanMap<ViaKey, RawVia> vias(
      {.access = Access::Read, .name = this->name + "." + kind, .layout = kind + "/1"});
  const auto fecOf = [](uint64_t id) {
    WideFec fec(id);
    for (int i = 0; i < 10; ++i) {
      fec.newVia({.hop = TypeParam::addr(static_cast<uint32_t>(i)), .intf = {}});
    }
    return fec;
  };
  table->fecIs(fecOf(1));
  std::optional<Sample::SmallFiles> full(5000000);
  uint64_t id = 2;
  const auto fill = [&] {
    for (;; ++id) table->fecIs(fecOf(id));
  };
  EXPECT_THROW(fill(), Tovan::NoSpaceException);
  EXPECT_EQ(table->fecKeys().size(), id - 1);
  EXPECT_EQ(vias.size(), (id - 1) * 9);
  // A refused update changes nothing.
  WideFec wider = fecOf(id - 1);
  for (uint32_t i = 0; i < 100; ++i) wider.newVia({.hop = TypeParam::addr(1000 + i), .intf = {}});
  EXPECT_THROW(table->fecIs(wider), Tovan::NoSpaceException);
  EXPECT_EQ(table->fec(id - 1), fecOf(id - 1));
  EXPECT_EQ(vias.size(), (id - 1) * 9);
  full.reset();
  table->fecIs(fecOf(id));
  EXPECT_EQ(vias.size(), id * 9);
}

// A number belongs to one interface as long as an entry refers to it.
TYPED_TEST(FibTablesTest, NoInterfaceGetsTheNumberOfALostName) {
  using T = FibTablesTest<TypeParam>;
  constexpr uint64_t kFecs = 4;
  const auto intf = [](uint64_t n) { return "Ethernet" + std::to_string(n); };
  for (uint64_t lost = 1; lost <= kFecs; ++lost) {
    {
      const auto table = this->template open<typename T::ForwardingStatus>(Access::Write);
      for (uint64_t id = 1; id <= kFecs; ++id) table->fecIs(T::fec(id, intf(id)));
    }
    const uint64_t endOfName = '0' + lost;  // the second word of the entry
    ASSERT_EQ(this->damage("intf", endOfName, 0), 1u);
    const auto table = this->template open<typename T::ForwardingStatus>(Access::Write);
    table->fecIs(T::fec(8, "Ethernet8"));
    table->fecIs(T::fec(9, "Ethernet9"));
    const auto reader = this->template open<typename T::ForwardingStatus>(Access::Read);
    for (const auto& opened : {table, reader}) {
      for (uint64_t id = 1; id <= kFecs; ++id) {
        const auto expected = id == lost ? T::fec(id, "") : T::fec(id, intf(id));
        EXPECT_EQ(opened->fec(id), expected) << id << " when " << lost << " is lost";
      }
      for (const uint64_t id : {8U, 9U}) EXPECT_EQ(opened->fec(id), T::fec(id, intf(id)));
    }
    Tovan::removeTablesOf(this->name);
  }
}

// The names that FECs refer to stay. No number is assigned twice, because readers keep the names
// that they have read.
TYPED_TEST(FibTablesTest, UnusedNamesAreRemoved) {
  using T = FibTablesTest<TypeParam>;
  constexpr size_t kMost = 100;
  const auto intf = [](uint64_t n) { return "Ethernet" + std::to_string(n); };
  const auto wide = [&](uint64_t first) {
    typename T::Fec fec(2);
    for (uint64_t n = first; n < first + 4; ++n) {
      fec.newVia({.hop = {}, .intf = Zemit::IntfId::of(std::string_view(intf(n)))});
    }
    return fec;
  };
  typename T::ForwardingStatus::Ptr reader;
  for (uint64_t round = 0; round < 3; ++round) {
    const uint64_t first = 10'000 * (round + 1);
    const auto table = this->template open<typename T::ForwardingStatus>(Access::Write);
    if (!reader) reader = this->template open<typename T::ForwardingStatus>(Access::Read);
    table->fecIs(T::fec(1, intf(round)));
    for (uint64_t n = first; n < first + 1000; ++n) {
      table->fecIs(wide(n));
      table->adjacencyIs(T::fec(T::ForwardingStatus::kFirstAdjacency, intf(n + 2000)));
      EXPECT_EQ(reader->fec(2), wide(n));
      EXPECT_EQ(reader->fec(T::ForwardingStatus::kFirstAdjacency),
                T::fec(T::ForwardingStatus::kFirstAdjacency, intf(n + 2000)));
      table->adjacencyDel(T::ForwardingStatus::kFirstAdjacency);
      ASSERT_LE(table->intfNameCount(), kMost);
    }
    EXPECT_EQ(reader->fec(1), T::fec(1, intf(round)));
    if (round == 1) table->fecDelAll();  // the next writer finds no entry that has a number
  }
  EXPECT_EQ(reader->fec(2), wide(30'999));
}

// The writer checks tables that it does not change. It restores names from its own memory.
TYPED_TEST(FibTablesTest, TablesWithoutChangesAreRepaired) {
  using T = FibTablesTest<TypeParam>;
  constexpr uint64_t kFirst = 100;  // not the number of an interface
  const auto routes = this->template open<typename T::RouteStatus>(Access::Write);
  const auto fecs = this->template open<typename T::ForwardingStatus>(Access::Write);
  const auto intf = [](uint64_t n) { return "Ethernet" + std::to_string(n); };
  for (uint32_t n = 1; n <= 9; ++n) {
    routes->routeIs(T::route(n, n));
    fecs->fecIs(T::fec(kFirst + n, intf(n)));
  }
  const auto routeWatcher = Kiv::make<typename T::RouteWatcher>();
  const auto fecWatcher = Kiv::make<typename T::FecWatcher>();
  routeWatcher->notifierIs(routes);
  fecWatcher->notifierIs(fecs);
  routeWatcher->toldOfAll = fecWatcher->toldOfAll = 0;
  ASSERT_EQ(this->damage("route", T::host(4)), 1u);
  ASSERT_EQ(this->damageFec(kFirst + 5), 1u);
  ASSERT_EQ(this->damage("intf", uint64_t{'6'}, 0), 1u);  // the second word of the entry
  const uint64_t reported = Tovan::corruptionCount();
  Tovan::TendRound round;
  routes->tend(round);
  fecs->tend(round);
  EXPECT_EQ(Tovan::corruptionCount(), reported + 3);
  EXPECT_EQ(routeWatcher->told, std::set{T::host(4)});
  EXPECT_EQ(routeWatcher->toldOfAll, 1u);
  EXPECT_EQ(fecWatcher->told, std::set<uint64_t>{kFirst + 5});
  const auto reader = this->template open<typename T::ForwardingStatus>(Access::Read);
  for (uint64_t n = 1; n <= 9; ++n) {
    const auto expected = n == 5 ? typename T::Fec() : T::fec(kFirst + n, intf(n));
    EXPECT_EQ(reader->fec(kFirst + n), expected) << n;
  }
}

TYPED_TEST(FibTablesTest, AReaderRefusesEvenChangesWithoutEffect) {
  using T = FibTablesTest<TypeParam>;
  const auto routes = this->template open<typename T::RouteStatus>(Access::Write);
  const auto fecs = this->template open<typename T::ForwardingStatus>(Access::Write);
  routes->routeIs(T::route(1));
  fecs->fecIs(T::fec(7, "Ethernet1"));
  const auto routesRead = this->template open<typename T::RouteStatus>(Access::Read);
  const auto fecsRead = this->template open<typename T::ForwardingStatus>(Access::Read);
  const auto routeWatcher = Kiv::make<typename T::RouteWatcher>();
  const auto fecWatcher = Kiv::make<typename T::FecWatcher>();
  routeWatcher->notifierIs(routesRead);
  fecWatcher->notifierIs(fecsRead);
  EXPECT_THROW(routesRead->routeIs(T::route(1)), Tovan::ReadOnlyException);
  EXPECT_THROW(fecsRead->fecIs(T::fec(7, "Ethernet1")), Tovan::ReadOnlyException);
}

TYPED_TEST(FibTablesTest, NothingIsFoundUnderTheNullPrefix) {
  using T = FibTablesTest<TypeParam>;
  const auto null = T::Prefix::null();
  const typename T::Route stored{.key = null, .metricPref = {}, .routeType = {}, .fecId = 7};
  const auto expectHidden = [&](auto& table) {
    table.routeIs(stored);
    EXPECT_EQ(table.route(null), typename T::Route());
    EXPECT_EQ(table.routeKeys(), std::vector{null});
    EXPECT_EQ(table.routeDel(null), stored);
    EXPECT_EQ(table.routeCount(), 0u);
  };
  expectHidden(*this->template open<typename T::RouteStatus>(Access::Write));
  expectHidden(*Kiv::make<typename TypeParam::HostStatus>("hosts"));
}

// The routes 1..3 have the same vias, so they share one adjacency.
TYPED_TEST(FibTablesTest, AHelperMendsItsAdjacencies) {
  using T = FibTablesTest<TypeParam>;
  using Helper = typename TypeParam::AdjacencyHelper;
  const auto routes = this->template open<typename T::RouteStatus>(Access::Write);
  const auto fecs = this->template open<typename T::ForwardingStatus>(Access::Write);
  const auto helper = Kiv::make<Helper>("helper", fecs);
  const auto hosts = Kiv::make<typename TypeParam::HostStatus>("hosts");
  const std::vector<typename Helper::RouteTable::PtrConst> tables{routes};
  typename Helper::ViaSet vias;
  for (const uint32_t hop : {1U, 2U}) {
    vias.newVia({.hop = TypeParam::addr(hop), .intf = Zemit::IntfId::of("Ethernet1")}, 1);
  }
  uint64_t adjacency = 0;
  for (uint32_t n = 1; n <= 3; ++n) {
    adjacency = helper->doGetOrCreateFibAdjacency(vias);
    routes->routeIs(T::route(n, adjacency));
    hosts->routeIs(T::route(n, helper->doGetOrCreateHostAdjacency(vias, hosts)));
  }
  const auto published = fecs->fec(adjacency);
  ASSERT_EQ(published.viaCount(), 2u);
  EXPECT_EQ(helper->validate(tables, std::array{hosts}), 0u);

  // A reference to a damaged adjacency publishes it again.
  for (const uint64_t likely : {uint64_t{0}, adjacency}) {
    ASSERT_EQ(this->damageFec(adjacency), 1u);
    EXPECT_EQ(helper->takeFibAdjacency(vias, likely), adjacency);
    EXPECT_EQ(fecs->fec(adjacency), published);
  }
  ASSERT_EQ(this->damageFec(adjacency), 1u);
  hosts->adjacencies().share(1);
  EXPECT_EQ(helper->validate(tables, std::array{hosts}), 2u) << "two references without a route";
  EXPECT_EQ(fecs->fec(adjacency), published);
  EXPECT_EQ(helper->fibAdjacencies().users(static_cast<uint32_t>(adjacency)), 3u);
  EXPECT_EQ(hosts->adjacencies().users(1), 3u);

  // A damaged route has no reference, so the last one is released with the others.
  ASSERT_EQ(this->damage("route", T::host(2)), 1u);
  for (const uint32_t n : {1U, 3U}) {
    routes->routeDel(T::host(n));
    helper->doDropRefOnFibAdjacency(adjacency);
  }
  EXPECT_EQ(helper->fibAdjacencies().size(), 1u);
  EXPECT_EQ(helper->validate(tables), 1u);
  EXPECT_EQ(helper->fibAdjacencies().size(), 0u);
  EXPECT_EQ(fecs->fec(adjacency), typename T::Fec());
}

}  // namespace
