// One neighbour learned, updated and lost: the engine's whole road, and beside it the floor, which
// makes the same look-ups and table writes on plain hash maps and does nothing else.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "daemon/Switch.h"

#ifdef HOSTROUTE_HAS_BOOST
#include <boost/unordered/unordered_flat_map.hpp>
#include <boost/unordered/unordered_flat_set.hpp>
#else
#include <unordered_map>
#include <unordered_set>
#endif

namespace {

struct KivHasher {
  template <class K>
  size_t operator()(const K& key) const {
    return Kiv::Hash<K>()(key) * size_t{0x9E3779B97F4A7C15};
  }
};
#ifdef HOSTROUTE_HAS_BOOST
template <class K, class V>
using Map = boost::unordered_flat_map<K, V, KivHasher>;
template <class K>
using Set = boost::unordered_flat_set<K, KivHasher>;
#else
template <class K, class V>
using Map = std::unordered_map<K, V, KivHasher>;
template <class K>
using Set = std::unordered_set<K, KivHasher>;
#endif

/// The hosts of a switch: 250 on each subnet, a subnet on each interface.
constexpr size_t kHostsPerSubnet = 250;

template <class F>
class Plan {
 public:
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;

  explicit Plan(size_t hosts) {
    for (size_t subnet = 0; subnet * kHostsPerSubnet < hosts; ++subnet) {
      intfs.push_back(Zemit::IntfId::of(std::string_view("Ethernet" + std::to_string(subnet + 1))));
    }
  }

  Prefix subnet(size_t index) const { return Prefix::enclosing(addr(index, 0), kSubnetBits); }
  Addr host(size_t host) const {
    return addr(host / kHostsPerSubnet, static_cast<uint32_t>(host % kHostsPerSubnet + 1));
  }
  Zemit::IntfId intfOf(size_t host) const { return intfs[host / kHostsPerSubnet]; }

  std::vector<Zemit::IntfId> intfs;

 private:
  static constexpr bool kIsIpv4 = Addr::kBits == 32;
  static constexpr uint32_t kSubnetBits = kIsIpv4 ? 24 : 64;

  static Addr addr(size_t subnet, uint32_t host) {
    if constexpr (kIsIpv4) {
      return Addr((uint32_t{10} << 24) + (static_cast<uint32_t>(subnet) << 8) + host);
    } else {
      return Addr(0x20010db800000000 + subnet, host);
    }
  }
};

/// The engine, with its tables in this process's own memory.
template <class F>
class Engine {
 public:
  explicit Engine(size_t hosts) : plan_(hosts) {
    for (size_t i = 0; i < plan_.intfs.size(); ++i) {
      switch_.setInterface(plan_.intfs[i], Daemon::Switch::kDefaultVrf);
      typename F::ForwardingStatus::Fec fec(i + 1);
      fec.newVia({.hop = {}, .intf = plan_.intfs[i]});
      switch_.setFec(fec);
      switch_.setRoute(Daemon::Switch::kDefaultVrf,
                       typename F::RouteStatus::Route{.key = plan_.subnet(i), .fecId = i + 1});
    }
    switch_.setInitialized<F>(Daemon::Switch::kDefaultVrf, true);
  }
  void learn(size_t host) { set(host, 1, true); }
  void update(size_t host) { set(host, ++changes_, true); }
  void lose(size_t host) { set(host, 1, false); }
  size_t routes() {
    return switch_.vrf(Daemon::Switch::kDefaultVrf)
               .template routing<F>()
               .routeStatus->routeCount() -
           plan_.intfs.size();
  }

 private:
  void set(size_t host, uint64_t mac, bool present) {
    const Arp::BasicNeighborStatus<typename F::Addr> entry{
        .ipAddr = plan_.host(host),
        .mac = Zemit::EthAddr(
            {0, 0, 0, 0, static_cast<uint8_t>(mac >> 8), static_cast<uint8_t>(mac)})};
    switch_.setNeighbor(plan_.intfOf(host), entry, present);
  }

  Plan<F> plan_;
  Daemon::Switch switch_;
  uint64_t changes_ = 1;
};

/// What any implementation has to look up and to write for the same outcome.
template <class F>
class Floor {
 public:
  explicit Floor(size_t hosts) : plan_(hosts) {
    for (size_t i = 0; i < plan_.intfs.size(); ++i) {
      fecs_.try_emplace(i + 1, plan_.intfs[i]);
      fibRoutes_.try_emplace(plan_.subnet(i), i + 1);
    }
  }
  void learn(size_t host) {
    const Addr addr = plan_.host(host);
    neighbors_.insert_or_assign({addr, plan_.intfOf(host)}, 1);
    reconcile(host, addr, true);
  }
  void update(size_t host) {
    const Addr addr = plan_.host(host);
    neighbors_.insert_or_assign({addr, plan_.intfOf(host)}, ++changes_);
    reconcile(host, addr, true);
  }
  void lose(size_t host) {
    const Addr addr = plan_.host(host);
    neighbors_.erase({addr, plan_.intfOf(host)});
    reconcile(host, addr, false);
  }
  size_t routes() const { return routeTable_.size(); }

 private:
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;
  using Via = typename F::ForwardingStatus::Via;
  struct Route {
    uint64_t fec;
    uint64_t metricAndType;
  };
  struct Adjacency {
    uint64_t id;
    uint32_t users;
  };

  void reconcile(size_t host, const Addr& addr, bool present) {
    const Prefix prefix = plan_.subnet(host / kHostsPerSubnet);
    const auto fibRoute = fibRoutes_.find(prefix);
    const Via via{.hop = addr, .intf = fecs_.find(fibRoute->second)->second};
    const bool had = hostTable_.contains(addr);
    benchmark::DoNotOptimize(receiveTable_.contains(addr));
    benchmark::DoNotOptimize(hostStatus_.contains(addr));
    if (present) {
      filed_[prefix].insert(addr);
      if (had) return;
      const uint64_t id = ++ids_;
      hostAdjacencies_.try_emplace(via, Adjacency{id, 1});
      hostTable_.try_emplace(addr, Route{id, 3});
      fibAdjacencies_.try_emplace(via, Adjacency{id, 1});
      fibFecs_.try_emplace(id, via);
      routeTable_.insert_or_assign(Prefix::host(addr), Route{id, 3});
    } else {
      filed_[prefix].erase(addr);
      hostTable_.erase(addr);
      hostAdjacencies_.erase(via);
      const auto route = routeTable_.find(Prefix::host(addr));
      fibFecs_.erase(route->second.fec);
      routeTable_.erase(route);
      fibAdjacencies_.erase(via);
    }
  }

  Plan<F> plan_;
  uint64_t changes_ = 1;
  uint64_t ids_ = 0;
  Map<Via, uint64_t> neighbors_;
  Map<uint64_t, Zemit::IntfId> fecs_;
  Map<Prefix, uint64_t> fibRoutes_;
  Map<Prefix, Set<Addr>> filed_;
  Set<Addr> receiveTable_;
  Set<Addr> hostStatus_;
  Map<Addr, Route> hostTable_;
  Map<Via, Adjacency> hostAdjacencies_;
  Map<Via, Adjacency> fibAdjacencies_;
  Map<uint64_t, Via> fibFecs_;
  Map<Prefix, Route> routeTable_;
};

/// A subject filled with neighbours; made once for each size, because filling takes longest.
template <class Subject>
Subject& filled(size_t hosts) {
  static std::unique_ptr<Subject> subject;
  static size_t size = 0;
  if (size != hosts) {
    subject.reset();
    subject = std::make_unique<Subject>(hosts);
    for (size_t host = 0; host < hosts; ++host) subject->learn(host);
    size = hosts;
  }
  return *subject;
}

enum class Event { kLearned, kUpdated, kLost };

template <class Subject, Event event>
void neighbor(benchmark::State& state) {
  constexpr size_t kBatch = 1000;
  const auto hosts = static_cast<size_t>(state.range(0));
  Subject& subject = filled<Subject>(hosts);
  std::mt19937_64 random(1);
  std::vector<size_t> batch(kBatch);
  for (auto _ : state) {
    // Strided, so that no host is drawn twice.
    const size_t first = random() % hosts;
    for (size_t i = 0; i < kBatch; ++i) batch[i] = (first + i * (hosts / kBatch)) % hosts;
    std::shuffle(batch.begin(), batch.end(), random);
    if constexpr (event == Event::kLearned) {
      for (const size_t host : batch) subject.lose(host);
    }
    const auto start = std::chrono::steady_clock::now();
    for (const size_t host : batch) {
      if constexpr (event == Event::kLearned) subject.learn(host);
      if constexpr (event == Event::kUpdated) subject.update(host);
      if constexpr (event == Event::kLost) subject.lose(host);
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(elapsed.count() / kBatch);
    if constexpr (event == Event::kLost) {
      for (const size_t host : batch) subject.learn(host);
    }
  }
  if (subject.routes() != hosts) state.SkipWithError("not every neighbour has its route");
}

#define BENCH_NEIGHBOR(Family, event)                       \
  BENCHMARK(neighbor<Floor<Daemon::Family>, Event::event>)  \
      ->Name("floor/" #Family "/" #event)                   \
      ->Arg(100'000)                                        \
      ->Arg(1'000'000)                                      \
      ->UseManualTime()                                     \
      ->Unit(benchmark::kNanosecond);                       \
  BENCHMARK(neighbor<Engine<Daemon::Family>, Event::event>) \
      ->Name("engine/" #Family "/" #event)                  \
      ->Arg(100'000)                                        \
      ->Arg(1'000'000)                                      \
      ->UseManualTime()                                     \
      ->Unit(benchmark::kNanosecond)

BENCH_NEIGHBOR(Ipv4, kLearned);
BENCH_NEIGHBOR(Ipv4, kUpdated);
BENCH_NEIGHBOR(Ipv4, kLost);
BENCH_NEIGHBOR(Ipv6, kLearned);
BENCH_NEIGHBOR(Ipv6, kUpdated);
BENCH_NEIGHBOR(Ipv6, kLost);

}  // namespace
