#include "linux/KernelRoutes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>

#include "tests/linux/Samples.h"

namespace Linux {
namespace {

using Verb = RouteRequest::Verb;

RouteValue direct(LinkIndex link, uint32_t metric = 0) {
  return {.vias = {{.link = link, .gateway = {}}}, .metric = metric, .preferredSource = {}};
}

std::string toText(const RouteKey& key, const RouteValue& value) {
  return toString(RouteRequest{Verb::Add, key, value});
}

/// Keeps the keys of the last commit apart, as the file does when the process is killed.
class FakeLog final : public AdvertisedLog {
 public:
  void add(const RouteKey& key, uint32_t metric) override { noted[key] = metric; }
  void remove(const RouteKey& key) override { noted.erase(key); }
  void commit() override { kept = noted; }

  std::map<RouteKey, uint32_t> noted, kept;
};

/// Simulates the kernel's routes, and a routing daemon that imports them from the kernel's
/// notifications.
class FakeKernel final : public RouteChannel {
 public:
  struct Killed {};
  struct Route {
    bool isOurs = true;
    RouteValue value;

    friend bool operator==(const Route&, const Route&) = default;
  };
  /// A prefix and a metric identify a route.
  using Place = std::pair<RouteKey, uint32_t>;

  explicit FakeKernel(FakeLog& log) : log_(log) {}

  void perform(std::span<const RouteRequest> requests, std::span<int> results) override {
    for (size_t i = 0; i < requests.size(); ++i) {
      if (requestsUntilKilled == 0) throw Killed();
      if (requestsUntilKilled > 0) --requestsUntilKilled;
      ++requestCount;
      results[i] = perform(requests[i]);
      told.push_back(toString(requests[i]) + (results[i] == 0 ? "" : " !"));
    }
  }

  /// Adds a route of another protocol, or of a second process with our protocol number.
  void put(const RouteKey& key, const Route& route) {
    routes[{key, route.value.metric}] = route;
    tellNew({key, route.value.metric}, route.value);
  }
  void takeAway(const Place& place) {
    routes.erase(place);
    imported.erase(place);
  }
  /// The interface loses its last IPv4 address. The kernel drops its IPv4 routes without a
  /// notification.
  void dropSilently(LinkIndex link) {
    std::erase_if(routes, [&](const auto& item) {
      const auto& [place, route] = item;
      return familyOf(place.first.prefix) == 4 && isOnlyThrough(route.value, link);
    });
  }
  /// Returns the removed IPv6 routes. The kernel sends notifications of these.
  std::vector<RouteKey> setDown(LinkIndex link) {
    down.insert(link);
    dropSilently(link);
    std::vector<RouteKey> told6;
    std::vector<Place> places;
    for (const auto& [place, route] : routes) {
      if (isOnlyThrough(route.value, link)) places.push_back(place);
    }
    for (const auto& place : places) {
      if (routes[place].isOurs) told6.push_back(place.first);
      takeAway(place);
    }
    return told6;
  }

  std::set<std::string> ours() const {
    std::set<std::string> result;
    for (const auto& [place, route] : routes) {
      if (route.isOurs) result.insert(toText(place.first, route.value));
    }
    return result;
  }
  /// The routes that the routing daemon imported.
  std::set<std::string> imports() const {
    std::set<std::string> result;
    for (const auto& [place, value] : imported) {
      result.insert(value ? toText(place.first, *value)
                          : toString(place.first.prefix) + " added twice");
    }
    return result;
  }

  std::map<Place, Route> routes;
  /// No value for a route that was added twice without a deletion; a routing daemon drops such a
  /// route.
  std::map<Place, std::optional<RouteValue>> imported;
  std::set<LinkIndex> down;
  std::function<int(const RouteRequest&)> fault;
  int requestsUntilKilled = -1;
  size_t requestCount = 0;
  std::vector<std::string> told;

 private:
  static bool isOnlyThrough(const RouteValue& value, LinkIndex link) {
    return !value.vias.empty() &&
           std::ranges::all_of(value.vias, [&](const auto& via) { return via.link == link; });
  }
  void tellNew(const Place& place, const RouteValue& value) {
    const auto [at, isNew] = imported.try_emplace(place, value);
    if (!isNew) at->second.reset();
  }
  int perform(const RouteRequest& request) {
    const Place place{request.key, request.value.metric};
    const bool adds = request.verb == Verb::Add || request.verb == Verb::AddBlackhole;
    if (const int error = fault ? fault(request) : 0) return error;
    if (adds) {
      EXPECT_TRUE(log_.kept.contains(request.key)) << "written before it was noted";
      const bool isUp = std::ranges::none_of(
          request.value.vias, [&](const auto& via) { return down.contains(via.link); });
      if (request.verb == Verb::Add) {
        EXPECT_FALSE(request.value.vias.empty());
        if (!isUp) return ENETDOWN;
      }
      if (!routes.try_emplace(place, Route{true, request.value}).second) return EEXIST;
      tellNew(place, request.value);
      return 0;
    }
    const auto found = routes.find(place);
    if (found == routes.end() || !found->second.isOurs) return ESRCH;
    takeAway(place);
    return 0;
  }

  FakeLog& log_;
};

/// Performs batches in submit(), or later when it lags.
class FakeWriter final : public RouteWriter {
 public:
  explicit FakeWriter(RouteChannel& channel) : channel_(channel) {}

  RouteBatch* vacant() override { return underWay_.size() < kMost ? &vacant_ : nullptr; }
  void submit() override {
    underWay_.push_back(std::exchange(vacant_, {}));
    if (!lags) finishNext();
  }
  RouteBatch* finished() override { return finished_ != 0 ? &underWay_.front() : nullptr; }
  RouteBatch* await() override {
    if (finished_ == 0) finishNext();
    return finished();
  }
  void release() override {
    underWay_.pop_front();
    --finished_;
    --performed_;
  }

  /// Performs a batch without reporting it.
  void performNext() {
    if (performed_ == underWay_.size()) return;
    auto& batch = *std::next(underWay_.begin(), static_cast<std::ptrdiff_t>(performed_));
    batch.reserveResults();
    batch.performOn(channel_);
    ++performed_;
  }
  void finishNext() {
    if (performed_ == finished_) performNext();
    finished_ = std::min(finished_ + 1, performed_);
  }

  bool lags = false;

 private:
  static constexpr size_t kMost = 3;

  RouteChannel& channel_;
  RouteBatch vacant_;
  std::list<RouteBatch> underWay_;
  size_t performed_ = 0, finished_ = 0;
};

class KernelRoutesTest : public testing::Test {
 protected:
  KernelRoutesTest() { restart(); }

  /// Starts a new process. It knows only the log and the tables.
  void restart(std::optional<std::map<RouteKey, RouteValue>> wants = {}) {
    kernel.requestsUntilKilled = -1;
    // The new process cannot know of routes that were replaced before, so the test forgives these.
    for (auto& [place, value] : kernel.imported) {
      if (!value && kernel.routes.contains(place)) value = kernel.routes[place].value;
    }
    log.noted = log.kept;
    const bool lags = writer != nullptr && writer->lags;
    writer = std::make_unique<FakeWriter>(kernel);
    writer->lags = lags;
    routes = std::make_unique<KernelRoutes>(
        *writer, log, [this] { return now; }, options,
        [this](const RouteKey& key, uint32_t metric) {
          const auto found = kernel.routes.find({key, metric});
          return found != kernel.routes.end() && !found->second.isOurs;
        });
    for (const auto& [key, metric] : std::map(log.kept)) routes->adoptAdvertised(key, metric);
    routes->beginDump();
    dump();
    routes->endDump();
    if (wants) wanted = *wants;
    for (const auto& [key, value] : wanted) routes->want(key, value);
    routes->start();
  }
  void dump() {
    for (const auto& [place, route] : kernel.routes) {
      if (route.isOurs) routes->adopt(place.first, route.value);
    }
  }
  void want(const RouteKey& key, std::optional<RouteValue> value) {
    if (value) {
      wanted[key] = *value;
    } else {
      wanted.erase(key);
    }
    routes->want(key, std::move(value));
  }
  void wantNow(const RouteKey& key, std::optional<RouteValue> value) {
    want(key, std::move(value));
    routes->flush();
  }
  /// Adds another protocol's route, which may replace ours.
  void putAnothers(const RouteKey& key, const RouteValue& value) {
    kernel.put(key, {false, value});
    routes->observeAnother(key, value.metric, true);
  }
  void takeAnothersAway(const FakeKernel::Place& place) {
    kernel.takeAway(place);
    routes->observeAnother(place.first, place.second, false);
  }
  /// The requests since the last call.
  std::vector<std::string> told() { return std::exchange(kernel.told, {}); }

  void passTime(double seconds) {
    const double end = now + seconds;
    while (routes->nextDeadline() && *routes->nextDeadline() <= end) {
      now = std::max(now, *routes->nextDeadline());
      routes->flush();
    }
    now = end;
    routes->flush();
  }
  void expectRight() {
    std::set<std::string> expected;
    std::map<RouteKey, uint32_t> expectedLog;
    for (const auto& [key, value] : wanted) {
      const auto inKernel = normalized(key.prefix, value);
      expected.insert(toText(key, inKernel));
      expectedLog[key] = inKernel.metric;
    }
    EXPECT_EQ(kernel.ours(), expected);
    EXPECT_EQ(kernel.imports(), expected);
    EXPECT_EQ(log.kept, expectedLog);
    EXPECT_EQ(routes->installedCount(), expected.size());
    EXPECT_EQ(routes->problemCount(), 0u);
  }

  double now = 1000;
  FakeLog log;
  FakeKernel kernel{log};
  KernelRoutesOptions options;
  std::map<RouteKey, RouteValue> wanted;
  std::unique_ptr<FakeWriter> writer;
  std::unique_ptr<KernelRoutes> routes;
};

TEST_F(KernelRoutesTest, WritesTheDifference) {
  want(key4(1), direct(1));
  want(key4(2), direct(1));
  want(key4(2), std::nullopt);
  want(key6(1), direct(1));
  routes->flush();
  EXPECT_EQ(routes->counters().added, 2u);
  EXPECT_EQ(told().size(), 2u);
  // Withdrawn and wanted again before the flush.
  want(key4(1), std::nullopt);
  want(key4(1), direct(1));
  routes->flush();
  EXPECT_EQ(told(), std::vector<std::string>());
  // For the kernel, another metric makes another route.
  wantNow(key4(1), direct(2));
  wantNow(key4(1), direct(2, 20));
  EXPECT_EQ(told(), (std::vector<std::string>{"route del 10.0.0.1/32 table 10",
                                              "route add 10.0.0.1/32 dev 2 table 10",
                                              "route del 10.0.0.1/32 table 10",
                                              "route add 10.0.0.1/32 dev 2 table 10 metric 20"}));
  EXPECT_EQ(routes->nextDeadline(), std::nullopt);
  expectRight();
  routes->removeAll();
  wanted.clear();
  expectRight();
}

TEST_F(KernelRoutesTest, AdoptsTheRoutesOfAFormerProcess) {
  wantNow(key4(1), direct(1));
  wantNow(key4(2), direct(1));
  wantNow(key4(3), direct(1));
  wantNow(key4(4), direct(1));
  kernel.dropSilently(1);
  for (uint32_t host : {1U, 2U, 3U}) kernel.routes[{key4(host), 0}] = {true, direct(1)};
  told();
  // Route 1 is right, 2 and 3 are stale, 4 was lost between the processes, 5 is new.
  restart({{{key4(1), direct(1)}, {key4(3), direct(2)}, {key4(5), direct(1)}}});
  EXPECT_EQ(told(), std::vector<std::string>());
  routes->flush();
  const auto written = told();
  EXPECT_EQ(
      std::set(written.begin(), written.end()),
      (std::set<std::string>{
          "route del 10.0.0.2/32 table 10", "route del 10.0.0.3/32 table 10",
          "route add 10.0.0.3/32 dev 2 table 10", "route add blackhole 10.0.0.4/32 table 10",
          "route del blackhole 10.0.0.4/32 table 10", "route add 10.0.0.5/32 dev 1 table 10"}));
  EXPECT_EQ(routes->counters().adopted, 3u);
  expectRight();

  // Adds a blackhole route of a killed process, and a second route for a prefix.
  kernel.put(key4(6), {true, {}});
  kernel.put(key4(1), {true, direct(2, 30)});
  restart();
  routes->flush();
  expectRight();
}

TEST_F(KernelRoutesTest, AnnouncesRoutesThatTheKernelDroppedWithoutANotification) {
  for (uint32_t host : {1U, 2U, 3U}) want(key4(host), direct(1, 20));
  want(key4(4), direct(2, 20));
  routes->flush();
  kernel.dropSilently(1);
  told();
  // One host leaves, one moves and one stays. Routes through other interfaces stay unchanged.
  routes->distrust(1);
  want(key4(1), std::nullopt);
  want(key4(2), direct(2, 20));
  routes->flush();
  expectRight();
  EXPECT_EQ(routes->counters().silentLosses, 3u);
  for (const auto& request : told()) EXPECT_EQ(request.find("10.0.0.4"), std::string::npos);
  // Distrust of routes that the kernel still has changes nothing.
  routes->distrust(2);
  routes->flush();
  EXPECT_EQ(told(),
            (std::vector<std::string>{"route add blackhole 10.0.0.2/32 table 10 metric 20 !",
                                      "route add blackhole 10.0.0.4/32 table 10 metric 20 !"}));
  expectRight();
}

TEST_F(KernelRoutesTest, RestoresRoutesThatTheKernelDroppedWithTheirPreferredSource) {
  const Address source = *Zemit::IpAddr::parse("192.0.2.1");
  const RouteValue sourced{.vias = {{1, {}}}, .metric = 20, .preferredSource = source};
  want(key4(1), sourced);
  want(key4(2), direct(1, 20));
  routes->flush();
  kernel.dropSilently(1);
  told();
  routes->distrustSource(source);
  routes->flush();
  EXPECT_EQ(routes->counters().silentLosses, 1u);
  for (const auto& request : told()) EXPECT_EQ(request.find("10.0.0.2/"), std::string::npos);
}

TEST_F(KernelRoutesTest, RemovesTheRoutesOfADownInterfaceAndRestoresThem) {
  for (const auto& key : {key4(1), key6(1)}) want(key, direct(1));
  routes->flush();
  for (const auto& key : kernel.setDown(1)) routes->observe(key, std::nullopt);
  routes->distrust(1);
  routes->flush();
  EXPECT_TRUE(kernel.imported.empty());
  EXPECT_TRUE(log.kept.empty());
  ASSERT_EQ(routes->problems(9).size(), 2u);
  EXPECT_EQ(routes->problems(9)[0].error, ENETDOWN);
  EXPECT_EQ(routes->problems(1).size(), 1u);

  kernel.down.clear();
  routes->linkChanged(1);
  routes->flush();
  expectRight();
}

TEST_F(KernelRoutesTest, LeavesRoutesOfOtherProtocolsAndAdoptsItsOwn) {
  // In place of one wanted route there is a route of another protocol; in place of another one
  // there is an unknown route with our protocol.
  kernel.put(key4(1), {false, direct(2)});
  kernel.put(key4(2), {true, direct(2)});
  want(key4(1), direct(1));
  want(key4(2), direct(1));
  routes->flush();
  ASSERT_EQ(routes->problems(9).size(), 1u);
  EXPECT_EQ(routes->problems(9)[0].key, key4(1));
  EXPECT_EQ(routes->problems(9)[0].error, EEXIST);
  const auto before = kernel.requestCount;
  passTime(600);
  EXPECT_LT(kernel.requestCount - before, 100u) << "it asks less and less often";
  EXPECT_EQ(routes->problems(9)[0].since, 1000);
  kernel.takeAway({key4(1), 0});
  passTime(60);
  expectRight();
}

TEST_F(KernelRoutesTest, DistinguishesRoutesOfOtherProgramsFromItsOwn) {
  wantNow(key4(1), direct(1));
  wantNow(key4(2), direct(1));
  // The first route is dropped without a notification before another program adds its route. The
  // second route is replaced by another program.
  kernel.dropSilently(1);
  kernel.routes[{key4(2), 0}] = {true, direct(1)};
  kernel.put(key4(1), {false, direct(2)});
  routes->distrust(1);
  putAnothers(key4(2), direct(2));
  routes->flush();
  EXPECT_EQ(routes->installedCount(), 0u);
  ASSERT_EQ(routes->problems(9).size(), 2u);
  for (const auto& problem : routes->problems(9)) EXPECT_EQ(problem.error, EEXIST);
  EXPECT_EQ(kernel.routes.size(), 2u) << "another's stay";
  // Our routes return when the places are free.
  for (const auto& key : {key4(1), key4(2)}) takeAnothersAway({key, 0});
  routes->flush();
  expectRight();
}

TEST_F(KernelRoutesTest, DeletesAndAddsARouteThatWasReplaced) {
  // A daemon that imports the table drops a replaced route, even if the new route equals the wanted
  // one.
  wantNow(key4(1), direct(1));
  wantNow(key4(2), direct(1));
  kernel.put(key4(1), {true, direct(2)});
  routes->observe(key4(1), direct(2), true);
  want(key4(1), direct(2));
  kernel.put(key4(2), {true, direct(1)});
  routes->observe(key4(2), direct(1), true);
  routes->flush();
  expectRight();
  // The kernel repeats a notification after the offload to a switch chip. This is no replacement.
  told();
  routes->observe(key4(1), direct(2), false);
  routes->flush();
  EXPECT_EQ(told(), std::vector<std::string>());
}

TEST_F(KernelRoutesTest, AnnouncesALossWithTheAdvertisedMetric) {
  wantNow(key4(1), direct(1, 20));
  log.commit();
  // Between the processes the route is lost, and a route with our protocol number and another
  // metric appears.
  kernel.dropSilently(1);
  for (const uint32_t metric : {0U, 30U}) {
    kernel.put(key4(1), {true, direct(2, metric)});
    restart();
    routes->flush();
    expectRight();
    kernel.dropSilently(1);
  }
}

TEST_F(KernelRoutesTest, RetriesRequestsThatFailForLackOfMemory) {
  wantNow(key4(1), direct(1));
  for (const int error : {ENOBUFS, ENOMEM, ENOSPC, RouteChannel::kUnknown}) {
    kernel.fault = [error](const auto&) { return error; };
    want(key4(1), std::nullopt);
    want(key4(2), direct(1));
    routes->flush();
    passTime(5);
    EXPECT_EQ(routes->problemCount(), 2u);
    EXPECT_TRUE(kernel.routes.contains({key4(1), 0}));
    kernel.fault = {};
    passTime(10);
    expectRight();
    want(key4(1), direct(1));
    want(key4(2), std::nullopt);
    passTime(0);
    expectRight();
  }
}

TEST_F(KernelRoutesTest, RestoresRoutesThatOthersDeleteOncePerInterval) {
  wantNow(key4(1), direct(1));
  const auto deleteIt = [&] {
    kernel.takeAway({key4(1), 0});
    routes->observe(key4(1), std::nullopt);
    routes->flush();
  };
  deleteIt();
  expectRight();
  for (int i = 0; i < 5; ++i) deleteIt();
  EXPECT_TRUE(kernel.ours().empty());
  EXPECT_EQ(routes->counters().repaired, 1u);
  passTime(options.repairInterval);
  expectRight();
  EXPECT_EQ(routes->counters().repaired, 2u);
  // The rate limit for repairs does not delay changes by the host itself.
  deleteIt();
  wantNow(key4(1), direct(2));
  expectRight();
  // Another process with our protocol number adds and changes routes.
  passTime(5);
  for (const auto& key : {key4(1), key4(7)}) {
    kernel.put(key, {true, direct(3)});
    routes->observe(key, direct(3));
  }
  passTime(0);
  expectRight();
  passTime(5);
  EXPECT_EQ(routes->nextDeadline(), std::nullopt);
}

TEST_F(KernelRoutesTest, FindsDifferencesAfterANewDump) {
  for (uint32_t host = 1; host <= 4; ++host) want(key4(host), direct(1));
  routes->flush();
  kernel.takeAway({key4(1), 0});
  kernel.dropSilently(1);
  kernel.routes[{key4(2), 0}] = {true, direct(1)};
  kernel.routes[{key4(3), 0}] = {true, direct(2)};
  kernel.put(key4(9), {true, direct(1)});
  kernel.imported[{key4(3), 0}].reset();
  told();
  routes->beginDump();
  dump();
  routes->endDump();
  routes->flush();
  expectRight();
  for (const auto& request : told()) EXPECT_EQ(request.find("10.0.0.2/"), std::string::npos);
}

TEST_F(KernelRoutesTest, DampsAHostThatFlaps) {
  options = {.dampingChanges = 3, .dampingWindow = 10, .dampingQuiet = 30};
  routes->setOptions(options);
  const auto flap = [&] {
    wantNow(key4(1), std::nullopt);
    wantNow(key4(1), direct(1));
    now += 1;
  };
  wantNow(key4(1), direct(1));
  flap();
  expectRight();
  flap();
  EXPECT_TRUE(kernel.ours().empty());
  ASSERT_EQ(routes->problems(9).size(), 1u);
  EXPECT_EQ(routes->problems(9)[0].error, 0);
  EXPECT_EQ(routes->counters().damped, 1u);
  passTime(29);
  flap();
  told();
  passTime(25);
  EXPECT_EQ(told(), std::vector<std::string>());
  passTime(5);
  expectRight();
  // Few changes over a long time are not damped, and leave no state.
  for (int i = 0; i < 10; ++i) {
    flap();
    passTime(10);
    expectRight();
  }
  EXPECT_EQ(routes->nextDeadline(), std::nullopt);
}

TEST_F(KernelRoutesTest, MatchesErrorsToRoutesThatHaveChangedSince) {
  for (uint32_t host = 1; host <= 4; ++host) wantNow(key4(host), direct(1));
  told();
  writer->lags = true;
  kernel.fault = [](const auto& request) { return request.key == key4(6) ? ENOBUFS : 0; };
  wantNow(key4(1), std::nullopt);
  for (uint32_t host = 5; host <= 7; ++host) want(key4(host), direct(1));
  routes->flush();
  want(key4(1), direct(1));  // as before its deletion, which is in progress
  want(key4(5), direct(2));
  want(key4(7), std::nullopt);
  routes->flush();
  EXPECT_EQ(told(), std::vector<std::string>());
  EXPECT_EQ(routes->installedCount(), 4u);
  routes->drain();
  EXPECT_EQ(told(),
            (std::vector<std::string>{
                "route del 10.0.0.1/32 table 10", "route add 10.0.0.5/32 dev 1 table 10",
                "route add 10.0.0.6/32 dev 1 table 10 !", "route add 10.0.0.7/32 dev 1 table 10",
                "route add 10.0.0.1/32 dev 1 table 10", "route del 10.0.0.5/32 table 10",
                "route del 10.0.0.7/32 table 10", "route add 10.0.0.5/32 dev 2 table 10"}));
  ASSERT_EQ(routes->problemCount(), 1u);
  EXPECT_EQ(routes->problems(1).front().key, key4(6));
  kernel.fault = {};
  writer->lags = false;
  passTime(1);
  expectRight();
}

TEST_F(KernelRoutesTest, SubmitsNoMoreBatchesThanTheWriterTakes) {
  writer->lags = true;
  constexpr uint32_t kHosts = 5000;
  for (uint32_t host = 1; host <= kHosts; ++host) want(key4(host), direct(1));
  routes->flush();
  EXPECT_EQ(kernel.requestCount, 0u);
  // A performed batch makes room for the next one.
  for (size_t before = 0; before < kHosts; before = kernel.requestCount) {
    writer->finishNext();
    ASSERT_GT(kernel.requestCount, before);
    routes->flush();
  }
  routes->drain();
  expectRight();
  // Now all routes are removed, but the writer cannot take all requests at once.
  routes->removeAll();
  wanted.clear();
  expectRight();
}

TEST_F(KernelRoutesTest, AddsOnlyUnannouncedRoutesBeforeTheFlush) {
  wantNow(key4(1), direct(1));
  wantNow(key4(2), direct(1));
  kernel.dropSilently(1);
  told();
  restart();
  want(key4(1), direct(2));
  want(key4(2), std::nullopt);
  want(key4(3), direct(1));
  routes->flushAdditions();
  EXPECT_EQ(told(), std::vector<std::string>{"route add 10.0.0.3/32 dev 1 table 10"});
  routes->flush();
  expectRight();
}

// After random events, and after a kill at any request, the kernel has exactly the wanted routes. A
// daemon that imports the table has the same routes, and the log has no other keys.
TEST_F(KernelRoutesTest, ConvergesAfterRandomEventsAndKills) {
  for (uint32_t seed = 1; seed <= 300; ++seed) {
    std::mt19937 random(seed);
    const auto below = [&random](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    const auto anyKey = [&] { return below(2) == 0 ? key4(1 + below(6)) : key6(1 + below(6)); };
    const auto anyValue = [&](const RouteKey& key) {
      auto value = direct(1 + below(3), below(8) == 0 ? 20 : 0);
      if (below(4) == 0) value.vias.push_back({4, {}});
      return normalized(key.prefix, value);
    };
    writer->lags = seed % 2 == 0;
    options.dampingChanges = seed % 4 >= 2 ? 3 : 0;
    routes->setOptions(options);
    for (int step = 0; step < 60; ++step) {
      const auto key = anyKey();
      const LinkIndex link = 1 + below(3);
      try {
        switch (below(14)) {
          case 0:
            for (const auto& gone : kernel.setDown(link)) routes->observe(gone, std::nullopt);
            routes->distrust(link);
            break;
          case 1:
            kernel.down.erase(link);
            routes->linkChanged(link);
            break;
          case 2:
            kernel.dropSilently(link);
            routes->distrust(link);
            break;
          case 3:
            if (kernel.routes.contains({key, 0}) && kernel.routes[{key, 0}].isOurs) {
              kernel.takeAway({key, 0});
              routes->observe(key, std::nullopt);
            }
            break;
          case 4: {
            const auto value = below(2) == 0 ? normalized(key.prefix, direct(7)) : anyValue(key);
            const auto there = kernel.routes.find({key, value.metric});
            if (there == kernel.routes.end() || !there->second.isOurs) break;
            kernel.put(key, {true, value});
            routes->observe(key, value, true);
            break;
          }
          case 5:
            putAnothers(key, normalized(key.prefix, direct(9)));
            break;
          case 6:
            kernel.fault = [&random](const auto&) { return random() % 3 == 0 ? ENOBUFS : 0; };
            break;
          case 7:
            kernel.fault = {};
            break;
          case 8:
            kernel.requestsUntilKilled = static_cast<int>(below(5));
            break;
          case 9:
            // Notifications are lost.
            kernel.dropSilently(link);
            routes->beginDump();
            dump();
            routes->endDump();
            break;
          default:
            want(key, below(3) == 0 ? std::nullopt : std::optional(anyValue(key)));
        }
        if (below(3) == 0) passTime(below(3) * 0.4);
        if (below(4) == 0) routes->flushAdditions();
        if (below(3) == 0) writer->performNext();
        if (below(4) == 0) writer->finishNext();
      } catch (const FakeKernel::Killed&) {
        restart();
      }
    }
    try {
      passTime(0);
    } catch (const FakeKernel::Killed&) {
      restart();
    }
    kernel.requestsUntilKilled = -1;
    writer->lags = false;
    routes->drain();
    kernel.fault = {};
    kernel.down.clear();
    std::vector<FakeKernel::Place> others;
    for (const auto& [place, route] : kernel.routes) {
      if (!route.isOurs) others.push_back(place);
    }
    for (const auto& place : others) takeAnothersAway(place);
    passTime(0);
    passTime(200);
    expectRight();
    ASSERT_FALSE(HasFailure()) << "seed " << seed;
    EXPECT_EQ(routes->nextDeadline(), std::nullopt);
  }
}

}  // namespace
}  // namespace Linux
