// Tests of host routes with damaged tables in shared memory.
#include <unistd.h>

#include <set>
#include <stdexcept>

#include "platform/obu/FibLookup.h"
#include "tests/hostcore/World.h"
#include "tests/tovan/Damage.h"

namespace {

enum class Record { kSubnet, kHostRoute, kFec };
enum class Event { kLearned, kAnnounced, kLost, kRewritten, kInitialized, kRibReady };
using Numbers = std::set<uint32_t>;

/// The VRF "red" with its routes and FECs in shared memory: a subnet on Ethernet1 (FEC 7) with the
/// neighbours 4 and 5.
template <class F>
class DamagedWorld : public World<F> {
 public:
  using S = Sample<F>;

  explicit DamagedWorld(const std::string& name) : name_(name) {
    this->routeStatus = Kiv::make<typename F::RouteStatus>(name, Tovan::Access::Write);
    this->forwarding = Kiv::make<typename F::ForwardingStatus>(name, Tovan::Access::Write);
    this->adjHelper = Kiv::make<typename F::AdjacencyHelper>("adjHelper", this->forwarding);
    this->root->adjHelperIs(this->adjHelper);
    this->startWithSubnet();
    for (const uint32_t n : {4U, 5U}) this->learn(this->ethernet1, n);
  }
  ~DamagedWorld() { Tovan::removeTablesOf(name_); }

  /// Damages the stored subnet, the host route of 5, or FEC 7. The announcement of another FEC then
  /// makes the cached covers invalid.
  void damage(Record record) {
    const std::string number = S::kIsIpv4 ? "4" : "6";
    if (record == Record::kFec) {
      const Tovan::Fib::FecId fec = 7;
      ASSERT_EQ(Tovan::damage(name_ + ".fec" + number, fec, Tovan::kValue<decltype(fec)> + 8), 1U);
    } else {
      const auto prefix = record == Record::kSubnet ? S::subnet() : F::Prefix::host(S::addr(5));
      ASSERT_EQ(Tovan::damage(name_ + ".route" + number, prefix, Tovan::kValue<decltype(prefix)>),
                1U);
    }
    this->forwarding->fecNotify(9);
  }

  void happen(Event event) {
    switch (event) {
      case Event::kLearned:
        return this->learn(this->ethernet1, 6);
      case Event::kAnnounced:
        return announce(5);
      case Event::kLost:
        return this->lose(this->ethernet1, 5);
      case Event::kRewritten:
        return rewrite();
      case Event::kInitialized:
        this->machine().initializedIs(false);
        this->machine().initializedIs(true);
        return;
      case Event::kRibReady:
        this->readiness->ribReadyIs(true);
        EXPECT_TRUE(F::hostRoutesSynced(*this->readiness)) << "all readable routes are merged";
        return;
    }
  }
  void announce(uint32_t n) { F::neighborNotify(this->table(this->ethernet1), S::addr(n)); }
  /// The daemon writes FEC and subnet again. The subnet gets another metric each time.
  void rewrite() {
    this->forwarding->fecIs(typename F::Fec(7, {{.hop = {}, .intf = this->ethernet1}}));
    this->routeStatus->routeIs({.key = S::subnet(),
                                .metricPref = {.metric = ++metric_, .preference = 1},
                                .routeType = F::kConnected,
                                .fecId = 7});
    this->machine().handleStatusRoute(S::subnet());
  }

  Numbers neighbors() {
    Numbers known;
    for (uint32_t n = 4; n <= 6; ++n) {
      if (F::findNeighbor(this->table(this->ethernet1), S::addr(n)) != nullptr) known.insert(n);
    }
    return known;
  }
  Numbers hostRoutes() {
    Numbers present;
    for (uint32_t n = 4; n <= 6; ++n) {
      if (this->hasRoute(this->neighborTable(), n)) present.insert(n);
    }
    return present;
  }
  /// The host routes that can be read in the route table.
  Numbers mergedRoutes() {
    Numbers present;
    for (uint32_t n = 4; n <= 6; ++n) {
      const auto host = F::Prefix::host(S::addr(n));
      if (Obu::readRoute(this->routeStatus.get(), host).key == host) present.insert(n);
    }
    return present;
  }

 private:
  std::string name_;
  uint32_t metric_ = 0;
};

/// The neighbours with a host route after an event. Damage of one record removes no other route. A
/// new route that needs the damaged record is not added.
Numbers expected(Record damaged, Event event) {
  const bool isCovered = damaged == Record::kHostRoute;
  if (event == Event::kLearned && isCovered) return {4, 5, 6};
  if (event == Event::kLost && isCovered) return {4};
  return {4, 5};
}

template <class F>
class DamageTest : public testing::Test {};
TYPED_TEST_SUITE(DamageTest, Families);

TYPED_TEST(DamageTest, EveryEventUsesTheReadableRecords) {
  for (const Record damaged : {Record::kSubnet, Record::kHostRoute, Record::kFec}) {
    for (const Event event : {Event::kLearned, Event::kAnnounced, Event::kLost, Event::kRewritten,
                              Event::kInitialized, Event::kRibReady}) {
      SCOPED_TRACE(testing::Message() << "record " << static_cast<int>(damaged) << ", event "
                                      << static_cast<int>(event));
      DamagedWorld<TypeParam> world("hostcore-test-" + std::to_string(::getpid()));
      const TraceLog log(TypeParam::trace(), {0});
      world.damage(damaged);
      world.happen(event);

      EXPECT_EQ(world.hostRoutes(), expected(damaged, event));
      Numbers merged = world.mergedRoutes();
      // The damaged host route is back after a merge of its address.
      const bool mayBeDamaged = damaged == Record::kHostRoute && event != Event::kLost &&
                                event != Event::kRewritten && event != Event::kInitialized;
      if (mayBeDamaged) merged.insert(5);
      EXPECT_EQ(merged, expected(damaged, event));

      world.rewrite();
      for (const uint32_t n : world.neighbors()) world.announce(n);
      EXPECT_EQ(world.hostRoutes(), world.neighbors());
      EXPECT_EQ(world.mergedRoutes(), world.neighbors());
      EXPECT_FALSE(world.hasRoute(world.routeStatus, 9)) << "damage is left";
      for (const auto& record : log.records) {
        EXPECT_EQ(record.find("exception"), std::string::npos) << record;
      }
      // The reference of a host route that could not be read was never dropped.
      const std::vector<typename TypeParam::RouteStatus::PtrConst> tables{world.routeStatus};
      EXPECT_EQ(world.adjHelper->validate(tables, std::array{world.neighborTable()}),
                damaged == Record::kHostRoute ? 1U : 0U);
      world.expectBalancedReferences();
    }
  }
}

// The report of an exception must not raise another one, which would end the process.
TYPED_TEST(DamageTest, AFailingTraceEndsNothing) {
  World<TypeParam> world;
  world.startWithSubnet();
  world.learn(world.ethernet1, 5);
  const TraceLog log(TypeParam::trace(), {0});
  size_t reports = 0;
  Kiv::Tracer::sinkIs([&reports](const Kiv::TraceRecord& record) {
    reports += record.functionName == "reportException";
    throw std::runtime_error("the disk is full");
  });
  typename TypeParam::Fec fec(7);
  for (uint32_t i = 0; i <= Tovan::Fib::ViaIndex::max + 1; ++i) {
    fec.newVia({.hop = {}, .intf = world.ethernet1});
  }
  world.forwarding->fecIs(fec);
  EXPECT_GT(reports, 0U);
}

}  // namespace
