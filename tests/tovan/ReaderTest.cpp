// Tests that readers get each route with its own next hops, and miss no change.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <optional>
#include <thread>

#include "tests/tovan/RouteTablesTest.h"

namespace Tovan {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

template <class F>
class ReaderTest : public RouteTablesTest<F> {
 protected:
  using typename RouteTablesTest<F>::Route;
  using typename RouteTablesTest<F>::ViaSet;
  using RouteTablesTest<F>::host;

  /// The tables of a VRF, and the changes that a daemon makes to a route.
  struct Owner {
    typename F::ForwardingStatus::Ptr forwarding;
    typename F::RouteStatus::Ptr routes;
    typename F::AdjacencyHelper::Ptr adjacencies;

    explicit Owner(const std::string& name)
        : forwarding(Kiv::make<typename F::ForwardingStatus>(name, Access::Write)),
          routes(Kiv::make<typename F::RouteStatus>(sharedRouteStatusName(name, "a/b"),
                                                    Access::Write)),
          adjacencies(Kiv::make<typename F::AdjacencyHelper>("adjHelper", forwarding)) {}

    /// Gives the route of host `n` a metric, and the next hop that belongs to the metric.
    void set(uint32_t n, uint32_t metric) {
      const auto former = routes->route(host(n));
      ViaSet vias;
      vias.newVia({.hop = hopOf(n, metric), .intf = Zemit::IntfId::of("Ethernet1")}, 1);
      const auto fecId = adjacencies->doGetOrCreateFibAdjacency(vias);
      routes->routeIs(
          {.key = host(n), .metricPref = {.metric = metric}, .routeType = {}, .fecId = fecId});
      adjacencies->doDropRefOnFibAdjacency(former.fecId);
    }
    void remove(uint32_t n) {
      adjacencies->doDropRefOnFibAdjacency(routes->routeDel(host(n)).fecId);
    }
  };

  static typename F::Addr hopOf(uint32_t n, uint32_t metric) {
    return F::addr(n << 16 | (metric & 0xFFFF));
  }
  template <class Fec>
  static bool isPair(uint32_t n, const Route& route, const Fec& fec) {
    return fec.viaCount() == 1 && fec.begin()->hop == hopOf(n, route.metricPref.metric);
  }
};
TYPED_TEST_SUITE(ReaderTest, TestFamilies);

// The ids of FIB adjacencies are used again at once. Here, another route uses each id, and then the
// first route uses it again with another next hop. Two separate look-ups give wrong pairs.
TYPED_TEST(ReaderTest, ReturnsTheRoutesOwnNextHopsWhileIdsAreUsedAgain) {
  using F = TypeParam;
  constexpr uint32_t kHosts = 3;
  constexpr auto kAtLeast = 500ms;
  constexpr auto kAtMost = 30s;
  const auto child = ::fork();
  if (child == 0) {
    typename TestFixture::Owner owner(this->name);
    for (uint32_t round = 0;; ++round) {
      owner.set(round % kHosts, round);
      owner.set((round + 1) % kHosts, round);
      owner.remove(round % kHosts);
      if (round % 5 == 0) owner.set((round + 1) % kHosts, round + 1);
    }
  }
  std::optional<typename F::Reader> reader;
  while (!reader) {
    try {
      reader.emplace(this->name, "a/b");
    } catch (const OpenException&) {
      std::this_thread::yield();  // the owner is making the tables
    }
  }
  const auto routes =
      Kiv::make<typename F::RouteStatus>(sharedRouteStatusName(this->name, "a/b"), Access::Read);
  const auto forwarding = Kiv::make<typename F::ForwardingStatus>(this->name, Access::Read);
  size_t wrongOneByOne = 0;
  size_t wrong = 0;
  size_t found = 0;
  const auto start = Clock::now();
  for (uint32_t n = 0;
       Clock::now() - start < kAtLeast || (wrongOneByOne == 0 && Clock::now() - start < kAtMost);
       n = (n + 1) % kHosts) {
    const auto route = routes->route(this->host(n));
    if (route.key == this->host(n)) {
      const auto fec = forwarding->fec(route.fecId);
      wrongOneByOne += fec.viaCount() != 0 && !this->isPair(n, route, fec);
    }
    if (const auto pair = reader->find(this->host(n))) {
      ++found;
      wrong += !this->isPair(n, pair->route, pair->fec);
    }
  }
  reader->forEach(
      [&](const auto& pair) {
        for (uint32_t n = 0; n < kHosts; ++n) {
          wrong += pair.route.key == this->host(n) && !this->isPair(n, pair.route, pair.fec);
        }
      },
      [](const std::string& damage) { ADD_FAILURE() << damage; });
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  EXPECT_GT(wrongOneByOne, 0u) << "the test proves nothing";
  EXPECT_GT(found, 1000u);
  EXPECT_EQ(wrong, 0u) << "of " << found;
}

TYPED_TEST(ReaderTest, ReportsChangesOnceAndFollowsARestart) {
  EXPECT_THROW(typename TypeParam::Reader(this->name, "a/b"), OpenException);
  std::optional<typename TestFixture::Owner> owner(this->name);
  owner->set(1, 5);
  typename TypeParam::Reader reader(this->name, "a/b");
  EXPECT_TRUE(reader.isCurrent());
  EXPECT_TRUE(reader.hasWriter());
  EXPECT_EQ(reader.wait(0s), TableNews::None);
  EXPECT_EQ(reader.wait(5ms), TableNews::None);

  const auto isToldOnce = [&](const char* what) {
    EXPECT_EQ(reader.wait(10s), TableNews::Changed) << what;
    EXPECT_EQ(reader.wait(0s), TableNews::None) << what;
  };
  owner->set(2, 6);
  isToldOnce("a route");
  owner->forwarding->fecIs(typename TypeParam::ForwardingStatus::Fec(7));
  isToldOnce("a FEC");
  owner->routes->stateIs({.initialized = true});
  isToldOnce("a state");
  EXPECT_TRUE(reader.state().initialized);
  EXPECT_EQ(reader.match(TypeParam::addr(2))->route.metricPref.metric, 6u);
  EXPECT_FALSE(reader.match(TypeParam::addr(3)));

  // The owner ends. Its tables stay until the next owner removes them.
  owner.reset();
  isToldOnce("the end of the writer");
  EXPECT_FALSE(reader.hasWriter());
  EXPECT_TRUE(reader.isCurrent());
  removeTablesOf(this->name);
  EXPECT_FALSE(reader.isCurrent());
  isToldOnce("the removal");
  EXPECT_EQ(reader.find(this->host(2))->route.metricPref.metric, 6u);

  // While the next owner has not made all its tables, none is opened.
  const auto forwarding =
      Kiv::make<typename TypeParam::ForwardingStatus>(this->name, Access::Write);
  EXPECT_FALSE(reader.reopen());
  EXPECT_FALSE(reader.isCurrent());
  std::thread next([&] {
    std::this_thread::sleep_for(20ms);
    const auto routes = Kiv::make<typename TypeParam::RouteStatus>(
        sharedRouteStatusName(this->name, "a/b"), Access::Write);
    routes->routeIs({.key = this->host(3)});
  });
  EXPECT_EQ(reader.wait(10s), TableNews::Reopened);
  next.join();
  EXPECT_TRUE(reader.isCurrent());
  EXPECT_FALSE(reader.find(this->host(2)));
  EXPECT_TRUE(reader.find(this->host(3)));
}

// A reader that waits while one writer ends and the next begins must not miss the changes of the
// next one.
TEST(ChangeCountTest, GoesOnWithTheNextWriter) {
  const std::string name = "count" + std::to_string(::getpid());
  const auto config = [&](Access access) {
    return TableConfig{.access = access, .name = name, .layout = "number/1"};
  };
  using Map = TovanMap<uint64_t, uint64_t>;
  std::optional<Map> writer(config(Access::Write));
  const Map reader(config(Access::Read));
  uint64_t last = 0;
  const auto hasChanged = [&] { return std::exchange(last, reader.changeCount()) < last; };
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(hasChanged()) << "a writer has opened the table";
    EXPECT_FALSE(hasChanged());
    writer->set(1, 2);
    EXPECT_TRUE(hasChanged());
    writer->set(1, 3);
    EXPECT_TRUE(hasChanged());
    writer->erase(1);
    EXPECT_TRUE(hasChanged());
    writer->clear();
    EXPECT_TRUE(hasChanged());
    writer.reset();
    EXPECT_FALSE(reader.hasWriter());
    writer.emplace(config(Access::Write));
    EXPECT_TRUE(reader.hasWriter());
  }
  writer->cleanup();
}

}  // namespace
}  // namespace Tovan
