// Events of one neighbour (learned, updated, lost): the engine's whole processing, and the floor
// beside it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "bench/Measure.h"
#include "bench/Scene.h"

#ifdef HOSTROUTE_HAS_BOOST
#include <boost/unordered/unordered_flat_map.hpp>
#include <boost/unordered/unordered_flat_set.hpp>
#else
#include <unordered_map>
#include <unordered_set>
#endif

namespace Bench {

/// The places of the hosts: one subnet on each interface, kHostsPerSubnet hosts on each subnet.
template <class F>
class Plan {
 public:
  static constexpr size_t kHostsPerSubnet = 250;

  explicit Plan(size_t hosts) {
    for (size_t subnet = 0; subnet * kHostsPerSubnet < hosts; ++subnet) {
      intfs.push_back(Scene<F>::intf(subnet + 1));
    }
  }
  static size_t subnetOf(size_t host) { return host / kHostsPerSubnet; }
  static typename F::Addr host(size_t host) {
    return Net<F>::addr(subnetOf(host), host % kHostsPerSubnet + 1);
  }
  Zemit::IntfId intfOf(size_t host) const { return intfs[subnetOf(host)]; }

  std::vector<Zemit::IntfId> intfs;
};

/// The engine, for events of neighbours.
template <class F>
class Engine {
 public:
  explicit Engine(size_t hosts) : plan_(hosts) {
    for (size_t i = 0; i < plan_.intfs.size(); ++i) {
      scene_.sw.setInterface(plan_.intfs[i], Scene<F>::kVrf);
      scene_.sw.setNeighborTable(plan_.intfs[i]);
      scene_.direct(i + 1, {plan_.intfs[i]});
      scene_.route(Net<F>::subnet(i), i + 1);
    }
    // As in a daemon: a machine that is not initialized follows every neighbour of the switch.
    Daemon::forEachFamily([&](auto family) {
      scene_.sw.template setInitialized<decltype(family)>(scene_.kVrf, true);
    });
  }
  void learn(size_t host) { scene_.neighbor(plan_.intfOf(host), plan_.host(host)); }
  void update(size_t host) {
    scene_.neighbor(plan_.intfOf(host), plan_.host(host), true, ++changes_);
  }
  void lose(size_t host) { scene_.neighbor(plan_.intfOf(host), plan_.host(host), false); }
  size_t routes() { return scene_.hostRoutes(); }
  /// Keeps the last `entries` changes of host routes; 0 for none.
  void historyIs(size_t entries) { scene_.sw.historyIs(entries); }

 private:
  Plan<F> plan_;
  Scene<F> scene_;
  uint64_t changes_ = 1;
};

/// The floor: the look-ups and writes that every implementation needs for the same result, on plain
/// hash maps.
template <class F>
class Floor {
 public:
  explicit Floor(size_t hosts) : plan_(hosts) {
    for (size_t i = 0; i < plan_.intfs.size(); ++i) {
      fecs_.try_emplace(i + 1, plan_.intfs[i]);
      fibRoutes_.try_emplace(Net<F>::subnet(i), i + 1);
    }
  }
  void learn(size_t host) { present(host, 1); }
  void update(size_t host) { present(host, ++changes_); }
  /// Finds everything before it erases anything, so that the processor waits for all of it at once.
  void lose(size_t host) {
    const Addr addr = plan_.host(host);
    const Via via = viaTo(host, addr);
    const auto neighbor = neighbors_.find({addr, plan_.intfOf(host)});
    const auto hostRoute = hostTable_.find(addr);
    const auto hostAdjacency = hostAdjacencies_.find(via);
    const auto fibAdjacency = fibAdjacencies_.find(via);
    const auto route = routeTable_.find(Prefix::host(addr));
    filed_.find(prefixOf(host))->second.erase(addr);
    fibFecs_.erase(hostRoute->second.fec);
    neighbors_.erase(neighbor);
    hostTable_.erase(hostRoute);
    hostAdjacencies_.erase(hostAdjacency);
    fibAdjacencies_.erase(fibAdjacency);
    routeTable_.erase(route);
  }
  size_t routes() const { return hostTable_.size(); }

 private:
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;
  using Via = typename F::ForwardingStatus::Via;

  struct Hasher {
    using is_avalanching = void;  // or boost would mix the bits once more
    template <class K>
    size_t operator()(const K& key) const {
      return Kiv::Hash<K>()(key) * size_t{0x9E3779B97F4A7C15};
    }
  };
#ifdef HOSTROUTE_HAS_BOOST
  template <class K, class V>
  using Map = boost::unordered_flat_map<K, V, Hasher>;
  template <class K>
  using Set = boost::unordered_flat_set<K, Hasher>;
#else
  template <class K, class V>
  using Map = std::unordered_map<K, V, Hasher>;
  template <class K>
  using Set = std::unordered_set<K, Hasher>;
#endif

  struct Route {
    uint64_t fec;
    uint64_t metricAndType;
  };
  struct Adjacency {
    uint64_t id;
    uint32_t users;
  };

  Prefix prefixOf(size_t host) const {
    return Net<F>::subnet(plan_.subnetOf(host));
  }
  /// The via towards a host, by the route that covers it.
  Via viaTo(size_t host, const Addr& addr) const {
    const uint64_t fec = fibRoutes_.find(prefixOf(host))->second;
    return {.hop = addr, .intf = fecs_.find(fec)->second};
  }
  void present(size_t host, uint64_t mac) {
    const Addr addr = plan_.host(host);
    const Via via = viaTo(host, addr);
    neighbors_.insert_or_assign({addr, plan_.intfOf(host)}, mac);
    found_ += receiveTable_.contains(addr) + hostStatus_.contains(addr);
    const auto [route, isNew] = hostTable_.try_emplace(addr, Route{ids_ + 1, 3});
    if (!isNew) return;
    const uint64_t id = ++ids_;
    filed_[prefixOf(host)].insert(addr);
    hostAdjacencies_.try_emplace(via, Adjacency{id, 1});
    fibAdjacencies_.try_emplace(via, Adjacency{id, 1});
    fibFecs_.try_emplace(id, via);
    routeTable_.try_emplace(Prefix::host(addr), route->second);
  }

  Plan<F> plan_;
  uint64_t changes_ = 1;
  uint64_t ids_ = 0;
  uint64_t found_ = 0;
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

enum Event { kLearned, kUpdated, kLost };
inline constexpr size_t kEvents = 3;
inline constexpr size_t kHistory = 4096;  ///< changes that are kept
inline constexpr const char* kEventNames[] = {"learned", "updated", "lost"};

/// Hosts in an order without system, none twice.
inline std::vector<size_t> drawn(size_t count, size_t hosts, std::mt19937_64& random) {
  std::vector<size_t> batch(count);
  const size_t first = random() % hosts;
  for (size_t i = 0; i < count; ++i) batch[i] = (first + i * (hosts / count)) % hosts;
  std::shuffle(batch.begin(), batch.end(), random);
  return batch;
}

/// Nanoseconds of each kind of event, all done to the hosts of `batch`. The updates come first:
/// they load into the caches what the other events find there.
///
/// \param again  when not null, gets those of a second pass of updates.
template <class Subject>
void timeEvents(Subject& subject, const std::vector<size_t>& batch,
                std::vector<double> (&nanoseconds)[kEvents], std::vector<double>* again = nullptr) {
  const double toNs = 1e9 / static_cast<double>(batch.size());
  const auto time = [&](std::vector<double>& times, auto step) {
    times.push_back(toNs * secondsOf([&] {
                      for (const size_t host : batch) step(host);
                    }));
  };
  const auto update = [&](size_t host) { subject.update(host); };
  time(nanoseconds[kUpdated], update);
  if (again != nullptr) time(*again, update);
  time(nanoseconds[kLost], [&](size_t host) { subject.lose(host); });
  time(nanoseconds[kLearned], [&](size_t host) { subject.learn(host); });
}

}  // namespace Bench
