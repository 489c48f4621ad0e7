// The engine under the loads of a switch: the cost of an event beside the floor, and the growth of
// costs.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <random>
#include <stdexcept>

#include "bench/Measure.h"
#include "bench/Neighbors.h"
#include "bench/Scene.h"

namespace Bench {
namespace {

/// The options of a run.
struct Options {
  bool quick = false;      ///< a tenth of the sizes, and fewer rounds
  std::string filter;      ///< only the measurements whose names contain this
  size_t scale = 1;        ///< divisor of the sizes
  size_t rounds = 25;      ///< number of rounds for a median
  size_t repetitions = 3;  ///< repetitions of long measurements

  bool wants(const std::string& name) const { return name.find(filter) != std::string::npos; }
  std::vector<size_t> sizes(std::initializer_list<size_t> all) const {
    std::vector<size_t> result;
    for (const size_t size : all) result.push_back(size / scale);
    return result;
  }
};

void require(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(what);
}

template <class F>
void events(const Options& options, const std::string& name, size_t hosts) {
  const auto figures = inProcess([&]() -> std::vector<double> {
    Floor<F> floor(hosts);
    Engine<F> engine(hosts);
    for (size_t host = 0; host < hosts; ++host) {
      floor.learn(host);
      engine.learn(host);
    }
    std::vector<double> ofFloor[kEvents], ofEngine[kEvents], traced[kEvents], kept[kEvents];
    std::vector<double> floorAgain, engineAgain;
    std::mt19937_64 random(1);
    for (size_t round = 0; round < options.rounds; ++round) {
      timeEvents(floor, drawn(1000, hosts, random), ofFloor, &floorAgain);
      timeEvents(engine, drawn(1000, hosts, random), ofEngine, &engineAgain);
      F::trace().levelIs(0, true);
      timeEvents(engine, drawn(1000, hosts, random), traced);
      F::trace().levelIs(0, false);
      engine.historyIs(kHistory);
      timeEvents(engine, drawn(1000, hosts, random), kept);
      engine.historyIs(0);
    }
    require(engine.routes() == hosts && floor.routes() == hosts, "a neighbour lacks its route");
    std::vector<double> medians;
    for (size_t event = 0; event < kEvents; ++event) {
      medians.push_back(median(ofEngine[event]));
      medians.push_back(median(traced[event]));
      medians.push_back(median(ofFloor[event]));
      medians.push_back(median(kept[event]));
    }
    medians.push_back(median(engineAgain));
    medians.push_back(median(floorAgain));
    return medians;
  });
  for (size_t event = 0; event < kEvents; ++event) {
    report(name + '/' + kEventNames[event], static_cast<double>(hosts),
           {{"ns", figures[4 * event]},
            {"ns_level0", figures[4 * event + 1]},
            {"floor_ns", figures[4 * event + 2]},
            {"ratio", figures[4 * event] / figures[4 * event + 2]},
            {"ns_history", figures[4 * event + 3]},
            {"history_ratio", figures[4 * event + 3] / figures[4 * event]}});
  }
  const double again = figures[4 * kEvents];
  const double floorAgain = figures[4 * kEvents + 1];
  report(name + "/updated again", static_cast<double>(hosts),
         {{"ns", again}, {"floor_ns", floorAgain}, {"ratio", again / floorAgain}});
}

template <class Subject>
double bytesEach(size_t hosts) {
  return inProcess([hosts]() -> std::vector<double> {
    Subject subject(hosts);
    const double before = residentBytes();
    for (size_t host = 0; host < hosts; ++host) subject.learn(host);
    return {(residentBytes() - before) / static_cast<double>(hosts)};
  })[0];
}

template <class F>
void memory(const std::string& name, size_t hosts) {
  const double engine = bytesEach<Engine<F>>(hosts);
  const double floor = bytesEach<Floor<F>>(hosts);
  report(name, static_cast<double>(hosts),
         {{"bytes", engine}, {"floor_bytes", floor}, {"ratio", engine / floor}});
}

/// The times of single events while the tables grow from empty.
///
/// Each run makes the same calls on the same data. Of each event the shortest time counts, because
/// only the engine's own delays repeat in every run.
template <class F>
void latency(const Options& options, const std::string& name, size_t hosts) {
  std::vector<size_t> order(hosts);
  for (size_t i = 0; i < hosts; ++i) order[i] = i;
  std::shuffle(order.begin(), order.end(), std::mt19937_64(1));
  const size_t count = kEvents * hosts;
  auto* const shortest = static_cast<float*>(mmap(
      nullptr, count * sizeof(float), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  require(shortest != MAP_FAILED, "no memory");
  std::fill(shortest, shortest + count, 1e30F);
  for (size_t run = 0; run < options.repetitions; ++run) {
    inProcess([&]() -> std::vector<double> {
      Engine<F> engine(hosts);
      float* at = shortest;
      const auto time = [&at](auto event) {
        const auto start = std::chrono::steady_clock::now();
        event();
        const std::chrono::duration<float, std::nano> elapsed =
            std::chrono::steady_clock::now() - start;
        *at = std::min(*at, elapsed.count());
        ++at;
      };
      for (const size_t host : order) {
        time([&] { engine.learn(host); });
      }
      for (const size_t host : order) {
        time([&] { engine.update(host); });
      }
      for (const size_t host : order) {
        time([&] { engine.lose(host); });
      }
      return {};
    });
  }
  for (size_t event = 0; event < kEvents; ++event) {
    float* const times = shortest + event * hosts;
    std::sort(times, times + hosts);
    const auto at = [&](double share) {
      return times[static_cast<size_t>(share * static_cast<double>(hosts - 1))];
    };
    report(name + '/' + kEventNames[event], static_cast<double>(hosts),
           {{"p50_ns", at(0.5)},
            {"p99_ns", at(0.99)},
            {"p9999_ns", at(0.9999)},
            {"longest_ns", at(1)}});
  }
  munmap(shortest, count * sizeof(float));
}

// The loads. Each runs at several sizes; `Series` fits the growth of its figures.

/// The figures of one load at several sizes.
class Series {
 public:
  Series(std::string name, std::vector<std::string> fitted)
      : name_(std::move(name)), fitted_(std::move(fitted)), costs_(fitted_.size()) {}

  void add(size_t size, const Figures& figures) {
    report(name_, static_cast<double>(size), figures);
    for (const auto& [what, value] : figures) {
      const auto at = std::find(fitted_.begin(), fitted_.end(), what);
      if (at != fitted_.end()) {
        costs_[static_cast<size_t>(at - fitted_.begin())].emplace_back(size, value);
      }
    }
  }
  ~Series() {
    Figures exponents;
    for (size_t i = 0; i < fitted_.size(); ++i) {
      exponents.emplace_back(fitted_[i], exponentOf(costs_[i]));
    }
    report(name_ + "/exponent", 0, exponents);
  }

 private:
  std::string name_;
  std::vector<std::string> fitted_;
  std::vector<std::vector<std::pair<double, double>>> costs_;
};

/// Adds prefixes behind a gateway on an interface with neighbours. Returns the seconds and the
/// additional bytes. Without the machine only the input tables are filled.
template <class F>
std::vector<double> gatewayRun(size_t prefixes, size_t neighbors, bool withMachine) {
  return inProcess([&]() -> std::vector<double> {
    Scene<F> scene;
    const auto intf = scene.intf(1);
    scene.direct(1, {intf});
    scene.gateway(2, intf, Net<F>::addr(0, 1));
    scene.route(Net<F>::cover(), 1);
    scene.initialized();
    for (size_t i = 0; i < neighbors; ++i) scene.neighbor(intf, Net<F>::addr(i / 250, i % 250));
    require(scene.hostRoutes() == neighbors, "a neighbour lacks its route");
    if (!withMachine) scene.sw.template teardown<F>(scene.kVrf);
    const double before = residentBytes();
    const double seconds = secondsOf([&] {
      for (size_t i = 0; i < prefixes; ++i) scene.route(Net<F>::outside(i), 2);
    });
    require(scene.hostRoutes() == neighbors, "a neighbour has lost its route");
    return {seconds, residentBytes() - before};
  });
}

/// 1. A full table behind a gateway, on an interface with a growing number of neighbours.
template <class F>
void behindGateway(const Options& options, const std::string& name) {
  const size_t prefixes = 1'000'000 / options.scale;
  const auto each = 1 / static_cast<double>(prefixes);
  Series series(name, {"ns"});
  for (const size_t neighbors : options.sizes({1'000, 10'000, 100'000})) {
    const auto ours = gatewayRun<F>(prefixes, neighbors, true);
    const auto inputs = gatewayRun<F>(prefixes, neighbors, false);
    series.add(neighbors, {{"ns", 1e9 * (ours[0] - inputs[0]) * each},
                           {"input_ns", 1e9 * inputs[0] * each},
                           {"bytes", (ours[1] - inputs[1]) * each},
                           {"input_bytes", inputs[1] * each}});
  }
}

/// 2. More specific routes, with ten hosts in each, are added and removed under a cover with many
///    hosts.
template <class F>
void nestedCovers(const Options& options, const std::string& name) {
  Series series(name, {"added_ns", "removed_ns"});
  for (const size_t hosts : options.sizes({10'000, 30'000, 100'000})) {
    const auto figures = inProcess([&]() -> std::vector<double> {
      constexpr size_t kInside = 10;
      Scene<F> scene;
      const auto intf = scene.intf(1);
      scene.direct(1, {intf});
      scene.direct(2, {intf});
      scene.route(Net<F>::cover(), 1);
      scene.initialized();
      const double learned = secondsOf([&] {
        for (size_t i = 0; i < hosts; ++i) {
          scene.neighbor(intf, Net<F>::addr(i / kInside, i % kInside + 1));
        }
      });
      const size_t routes = hosts / kInside;
      const auto each = 1e9 / static_cast<double>(routes);
      const double added = secondsOf([&] {
        for (size_t i = 0; i < routes; ++i) scene.route(Net<F>::subnet(i), 2);
      });
      const double removed = secondsOf([&] {
        for (size_t i = 0; i < routes; ++i) scene.route(Net<F>::subnet(i), 2, false);
      });
      require(scene.hostRoutes() == hosts, "a neighbour lacks its route");
      return {each * added, each * removed, each * learned};
    });
    series.add(
        hosts,
        {{"added_ns", figures[0]}, {"removed_ns", figures[1]}, {"learned_inside_ns", figures[2]}});
  }
}

/// 3. A FEC gains and loses an interface without hosts, so that no host route changes.
template <class F>
void fecChange(const Options& options, const std::string& name) {
  Series series(name, {"changed_ms", "learned_ms"});
  for (const size_t hosts : options.sizes({10'000, 30'000, 100'000})) {
    const auto figures = inProcess([&]() -> std::vector<double> {
      Scene<F> scene;
      const auto intf = scene.intf(1);
      scene.direct(1, {intf});
      scene.route(Net<F>::cover(), 1);
      scene.initialized();
      const auto all = [&](bool present) {
        for (size_t i = 0; i < hosts; ++i) {
          scene.neighbor(intf, Net<F>::addr(i / 250, i % 250), present);
        }
      };
      std::vector<double> learned, changed;
      for (size_t run = 0; run < options.repetitions; ++run) {
        learned.push_back(secondsOf([&] { all(true); }));
        changed.push_back(secondsOf([&] { scene.direct(1, {intf, scene.intf(2)}); }));
        changed.push_back(secondsOf([&] { scene.direct(1, {intf}); }));
        require(scene.hostRoutes() == hosts, "a neighbour lacks its route");
        all(false);
      }
      return {1e3 * median(changed), 1e3 * median(learned)};
    });
    series.add(hosts, {{"changed_ms", figures[0]},
                       {"learned_ms", figures[1]},
                       {"ratio", figures[0] / figures[1]}});
  }
}

/// Times the same events alternately on two subjects. Returns the mean of the events' medians for
/// each.
template <class Subject, class Other>
std::vector<double> compared(const Options& options, Subject& subject, Other& other, size_t hosts,
                             size_t otherHosts) {
  std::vector<double> ofSubject[kEvents], ofOther[kEvents];
  std::mt19937_64 random(1);
  for (size_t round = 0; round < options.rounds; ++round) {
    timeEvents(subject, drawn(std::min<size_t>(hosts, 1000), hosts, random), ofSubject);
    timeEvents(other, drawn(std::min<size_t>(otherHosts, 1000), otherHosts, random), ofOther);
  }
  double sum = 0;
  double otherSum = 0;
  for (size_t event = 0; event < kEvents; ++event) {
    sum += median(ofSubject[event]);
    otherSum += median(ofOther[event]);
  }
  constexpr auto kCount = static_cast<double>(kEvents);
  return {sum / kCount, otherSum / kCount};
}

/// A switch with virtual addresses or several VRFs, for events of neighbours.
template <class F>
class LadenSwitch {
 public:
  /// Each VRF has its own interfaces, subnets and `hosts` neighbours.
  LadenSwitch(size_t vrfs, size_t hosts, size_t virtualIps) : hosts_(hosts) {
    for (size_t i = 0; i < virtualIps; ++i) {
      // The virtual addresses are not those of neighbours.
      const auto addr = Net<F>::addr(50'000 + i / 250, i % 250);
      const L3::VrfName vrf{Kiv::String(std::string_view(scene_.kVrf))};
      if constexpr (Net<F>::kIsIpv4) {
        scene_.sw.setVirtualIp({vrf, Zemit::IpAddrWithMask(addr, 24)});
      } else {
        scene_.sw.setVirtualIp({vrf, addr});
      }
    }
    for (size_t vrf = 0; vrf < vrfs; ++vrf) {
      const std::string name = vrf == 0 ? scene_.kVrf : "vrf" + std::to_string(vrf);
      const size_t first = vrf * subnets();
      for (size_t subnet = first; subnet < first + subnets(); ++subnet) {
        intfs_.push_back(scene_.intf(subnet + 1));
        scene_.sw.setInterface(intfs_.back(), name);
        scene_.direct(subnet + 1, {intfs_.back()});
        scene_.route(Net<F>::subnet(subnet), subnet + 1, true, name);
      }
      // Initialized as in a daemon, because a machine that is not initialized tracks every
      // neighbour of the switch.
      Daemon::forEachFamily(
          [&](auto family) { scene_.sw.template setInitialized<decltype(family)>(name, true); });
    }
    for (size_t host = 0; host < vrfs * hosts; ++host) learn(host);
    require(scene_.hostRoutes() == hosts, "a neighbour lacks its route");
  }
  void learn(size_t host) { neighbor(host, true, 1); }
  void update(size_t host) { neighbor(host, true, ++changes_); }
  void lose(size_t host) { neighbor(host, false, 1); }

 private:
  size_t subnets() const { return (hosts_ + 249) / 250; }
  void neighbor(size_t host, bool present, uint64_t mac) {
    const size_t subnet = host / hosts_ * subnets() + host % hosts_ / 250;
    const auto addr = Net<F>::addr(subnet, host % hosts_ % 250 + 1);
    scene_.neighbor(intfs_[subnet], addr, present, mac);
  }

  size_t hosts_;
  Scene<F> scene_;
  std::vector<Zemit::IntfId> intfs_;
  uint64_t changes_ = 1;
};

/// 4. Events beside a growing number of virtual addresses.
template <class F>
void virtualAddresses(const Options& options, const std::string& name) {
  Series series(name, {"ns"});
  for (const size_t count : options.sizes({1'000, 3'000, 10'000})) {
    const auto figures = inProcess([&] {
      constexpr size_t kHosts = 10'000;
      LadenSwitch<F> with(1, kHosts, count);
      LadenSwitch<F> without(1, kHosts, 0);
      return compared(options, with, without, kHosts, kHosts);
    });
    series.add(
        count,
        {{"ns", figures[0]}, {"without_ns", figures[1]}, {"ratio", figures[0] / figures[1]}});
  }
}

/// 5. Events on a switch with a growing number of VRFs. The first peer is a switch with a single
///    VRF of the same size. The second has a single VRF with all neighbours and thus as many cache
///    misses.
template <class F>
void manyVrfs(const Options& options, const std::string& name) {
  Series series(name, {"ns"});
  for (const size_t vrfs : options.sizes({20, 60, 200})) {
    const auto figures = inProcess([&] {
      constexpr size_t kHosts = 500;
      LadenSwitch<F> many(vrfs, kHosts, 0);
      LadenSwitch<F> one(1, kHosts, 0);
      LadenSwitch<F> whole(1, vrfs * kHosts, 0);
      auto times = compared(options, many, one, vrfs * kHosts, kHosts);
      times.push_back(compared(options, many, whole, vrfs * kHosts, vrfs * kHosts)[1]);
      return times;
    });
    series.add(vrfs, {{"ns", figures[0]},
                      {"one_ns", figures[1]},
                      {"ratio", figures[0] / figures[1]},
                      {"whole_ns", figures[2]},
                      {"whole_ratio", figures[0] / figures[2]}});
  }
}

/// 6. A full table and its neighbours, present before the machine's initialization or fed to it
///    afterwards.
template <class F>
void startUp(const Options& options, const std::string& name) {
  Series series(name, {"start_s", "feed_s"});
  for (const size_t prefixes : options.sizes({10'000, 100'000, 1'000'000})) {
    const size_t neighbors = prefixes / 10;
    const auto run = [&](bool presentFirst) {
      return inProcess([&]() -> std::vector<double> {
        Scene<F> scene;
        const auto intf = scene.intf(1);
        const auto feed = [&] {
          scene.direct(1, {intf});
          scene.gateway(2, intf, Net<F>::addr(0, 1));
          scene.route(Net<F>::cover(), 1);
          for (size_t i = 0; i < prefixes; ++i) scene.route(Net<F>::outside(i), 2);
          for (size_t i = 0; i < neighbors; ++i) {
            scene.neighbor(intf, Net<F>::addr(i / 250, i % 250));
          }
        };
        if (presentFirst) {
          feed();
        } else {
          scene.initialized();
        }
        const double seconds = secondsOf([&] { presentFirst ? scene.initialized() : feed(); });
        require(scene.hostRoutes() == neighbors, "a neighbour lacks its route");
        return {seconds};
      })[0];
    };
    const double start = run(true);
    const double fed = run(false);
    series.add(prefixes, {{"start_s", start}, {"feed_s", fed}, {"ratio", start / fed}});
  }
}

/// 7. The addresses of one interface, added one by one.
template <class F>
void manyAddresses(const Options& options, const std::string& name) {
  Series series(name, {"seconds"});
  for (const size_t count : options.sizes({100, 300, 1'000})) {
    const auto figures = inProcess([&]() -> std::vector<double> {
      Scene<F> scene;
      const auto intf = scene.intf(1);
      scene.sw.setInterface(intf, scene.kVrf);
      scene.initialized();
      const double seconds = secondsOf([&] {
        for (size_t i = 0; i < count; ++i) {
          const typename F::AddrWithMask addr(Net<F>::addr(i, 1), Net<F>::kSubnetBits);
          if constexpr (Net<F>::kIsIpv4) {
            scene.sw.setAddress(intf, addr, true);
          } else {
            scene.sw.setAddress(intf, addr);
          }
        }
      });
      require(scene.routing().root->receiveTable()->routeCount() >= count, "an address is missing");
      return {seconds};
    });
    series.add(count, {{"seconds", figures[0]}});
  }
}

/// 8. A growing number of VRFs, each with an interface, a route and a neighbour of its own: the
///    seconds and the bytes of one. Without the machines only the tables are filled.
template <class F>
void vrfsAndInterfaces(const Options& options, const std::string& name) {
  const auto fill = [](size_t vrfs, bool withMachines) {
    return inProcess([&]() -> std::vector<double> {
      Scene<F> scene;
      const double before = residentBytes();
      const double seconds = secondsOf([&] {
        for (size_t i = 1; i <= vrfs; ++i) {
          const std::string vrf = "vrf" + std::to_string(i);
          const auto intf = scene.intf(i);
          scene.sw.vrf(vrf);
          if (!withMachines) {
            // Initialized first, so that no merges stay deferred.
            Daemon::forEachFamily([&](auto family) {
              scene.sw.template setInitialized<decltype(family)>(vrf, true);
              scene.sw.template teardown<decltype(family)>(vrf);
            });
          }
          scene.sw.setInterface(intf, vrf);
          scene.direct(i, {intf});
          scene.route(Net<F>::subnet(i), i, true, vrf);
          Daemon::forEachFamily([&](auto family) {
            if (withMachines) scene.sw.template setInitialized<decltype(family)>(vrf, true);
          });
          scene.neighbor(intf, Net<F>::addr(i, 1));
          require(!withMachines || scene.hostRoutes(vrf) == 1, "a neighbour lacks its route");
        }
      });
      return {seconds, residentBytes() - before};
    });
  };
  Series series(name, {"seconds", "bytes"});
  for (const size_t vrfs : options.sizes({250, 1'000, 4'000})) {
    const auto each = 1 / static_cast<double>(vrfs);
    const auto ours = fill(vrfs, true);
    const auto tables = fill(vrfs, false);
    series.add(vrfs, {{"seconds", ours[0]},
                      {"bytes", ours[1] - tables[1]},
                      {"ms_each", 1e3 * ours[0] * each},
                      {"bytes_each", (ours[1] - tables[1]) * each},
                      {"table_bytes_each", tables[1] * each}});
  }
}

/// 9. Neighbours that come and go, and 10,000 further events: the memory beyond that before, as it
///    is and after malloc_trim().
template <class F>
void flood(const Options& options, const std::string& name) {
  const size_t hosts = 1'000'000 / options.scale;
  const auto figures = inProcess([hosts]() -> std::vector<double> {
    constexpr size_t kEventsAfter = 10'000;
    Engine<F> engine(hosts);
    engine.learn(0);
    const double before = residentBytes();
    const auto grown = [before](bool isTrimmed) { return residentBytes(isTrimmed) - before; };
    for (size_t host = 1; host < hosts; ++host) engine.learn(host);
    const double full = grown(true);
    for (size_t host = 1; host < hosts; ++host) engine.lose(host);
    const double empty = grown(false);
    for (size_t event = 0; event < kEventsAfter / 2; ++event) {
      engine.learn(1 + event % 100);
      engine.lose(1 + event % 100);
    }
    return {before, full, empty, grown(false), grown(true)};
  });
  report(name, static_cast<double>(hosts),
         {{"before_bytes", figures[0]},
          {"full_bytes", figures[1]},
          {"emptied_bytes", figures[2]},
          {"later_bytes", figures[3]},
          {"trimmed_bytes", figures[4]}});
}

/// 10. A growing number of neighbours: the time and the memory of each, when all are learned and
///     when all have gone.
template <class F>
void growth(const Options& options, const std::string& name) {
  Series series(name, {"learn_ns", "lose_ns", "bytes"});
  for (const size_t hosts : options.sizes({10'000, 100'000, 1'000'000, 4'000'000})) {
    const auto figures = inProcess([hosts]() -> std::vector<double> {
      const double each = 1 / static_cast<double>(hosts);
      std::mt19937_64 random(1);
      const auto all = drawn(hosts, hosts, random);
      Engine<F> engine(hosts);
      const double before = residentBytes();
      const double learning = secondsOf([&] {
        for (const size_t host : all) engine.learn(host);
      });
      const double bytes = residentBytes() - before;
      const double losing = secondsOf([&] {
        for (const size_t host : all) engine.lose(host);
      });
      return {1e9 * learning * each, 1e9 * losing * each, bytes * each, residentBytes() - before};
    });
    series.add(hosts, {{"learn_ns", figures[0]},
                       {"lose_ns", figures[1]},
                       {"bytes", figures[2]},
                       {"left_bytes", figures[3]}});
  }
}

/// 11. Interfaces that come and go one after the other, each with a new name, a FEC, a route and a
///     neighbour: the memory that each leaves. Also that of look-ups of names that there never
///     were.
template <class F>
void names(const Options& options, const std::string& name) {
  const size_t count = 100'000 / options.scale;
  const auto figures = inProcess([count]() -> std::vector<double> {
    Scene<F> scene;
    scene.initialized();
    const auto intfIsThere = [&](size_t number, bool isThere) {
      const auto intf = scene.intf(number);
      if (isThere) {
        scene.sw.setInterface(intf, Scene<F>::kVrf);
        scene.sw.setNeighborTable(intf);
        scene.direct(1, {intf});
        scene.route(Net<F>::subnet(1), 1);
        scene.neighbor(intf, Net<F>::addr(1, 1));
        require(scene.hostRoutes() == 1, "a neighbour lacks its route");
      } else {
        scene.neighbor(intf, Net<F>::addr(1, 1), false);
        scene.route(Net<F>::subnet(1), 1, false);
        scene.sw.setFec(typename F::ForwardingStatus::Fec(1), false);
        scene.sw.setNeighborTable(intf, false);
        scene.sw.removeInterface(intf);
      }
    };
    const auto comeAndGo = [&](size_t first) {
      for (size_t number = first; number < first + count; ++number) {
        intfIsThere(number, true);
        intfIsThere(number, false);
      }
    };
    const double each = 1 / static_cast<double>(count);
    comeAndGo(0);
    const double before = residentBytes();
    comeAndGo(count);
    const double after = residentBytes();
    for (size_t number = 0; number < count; ++number) {
      const auto unknown = "Absent" + std::to_string(number);
      require(!Zemit::IntfId::find(std::string_view(unknown)), "an unknown name has an id");
    }
    return {(after - before) * each, (residentBytes() - after) * each};
  });
  report(name, static_cast<double>(count),
         {{"bytes_each", figures[0]}, {"bytes_each_unknown", figures[1]}});
}

void run(const Options& options) {
  // Some measurements enable trace level 0 for its cost. The records are dropped.
  Kiv::Tracer::sinkIs([](const Kiv::TraceRecord&) {});
  forEachFamily([&](auto family, const std::string& suffix) {
    using F = decltype(family);
    const auto named = [&](const std::string& what, auto measure) {
      const std::string name = what + '/' + suffix;
      if (options.wants(name)) measure(name);
    };
    for (const size_t hosts : options.sizes({100'000, 1'000'000})) {
      named("event", [&](const auto& name) { events<F>(options, name, hosts); });
      named("memory", [&](const auto& name) { memory<F>(name, hosts); });
    }
    named("latency",
          [&](const auto& name) { latency<F>(options, name, 1'000'000 / options.scale); });
    named("gateway", [&](const auto& name) { behindGateway<F>(options, name); });
    named("covers", [&](const auto& name) { nestedCovers<F>(options, name); });
    named("fec", [&](const auto& name) { fecChange<F>(options, name); });
    named("virtual", [&](const auto& name) { virtualAddresses<F>(options, name); });
    named("vrfs", [&](const auto& name) { manyVrfs<F>(options, name); });
    named("scale", [&](const auto& name) { vrfsAndInterfaces<F>(options, name); });
    named("names", [&](const auto& name) { names<F>(options, name); });
    named("flood", [&](const auto& name) { flood<F>(options, name); });
    named("growth", [&](const auto& name) { growth<F>(options, name); });
    named("start", [&](const auto& name) { startUp<F>(options, name); });
    named("addresses", [&](const auto& name) { manyAddresses<F>(options, name); });
  });
}

constexpr const char* kUsage =
    R"(usage: engine [--quick] [--filter TEXT] [--rounds COUNT] [--json FILE] [--without SHORT_CUT]

Times the engine under load.

  --quick              a twentieth of the sizes, and fewer rounds
  --filter TEXT        only the measurements whose names contain this
  --rounds COUNT       of the measurements of an event; 25 by default
  --json FILE          writes a line for each measurement
  --without SHORT_CUT  runs the engine that was built without a short cut (target `engines`):
      cover      the cover of an interface's last neighbour is cached
      repeat     an event that would only repeat steps takes none
      relevance  events that are not relevant for a machine are left out
      reactors   reactors without a relevant event are made later
      prefetch   the memory that one event reads is prefetched
      pipeline   that of many addresses is prefetched in stages
      none       nothing left out, but built the same way
)";

/// Runs the program that was built without this short cut, with the other arguments. Returns only
/// if that fails.
void runWithout(const std::string& shortCut, std::vector<char*> arguments) {
  const auto own = std::filesystem::read_symlink("/proc/self/exe");
  const auto program = own.parent_path() / ("engine_without_" + shortCut);
  arguments.push_back(nullptr);
  execv(program.c_str(), arguments.data());
  throw std::invalid_argument("cannot run " + program.string() + ": " + std::strerror(errno));
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
  Bench::Options options;
  std::string shortCut;
  std::vector<char*> arguments{argv[0]};  // without the option that selects another program
  try {
    for (int i = 1; i < argc; ++i) {
      const std::string option = argv[i];
      const int at = i;
      const auto value = [&] {
        if (i + 1 == argc) throw std::invalid_argument(option + " needs a value");
        return std::string(argv[++i]);
      };
      if (option == "--quick") {
        options.scale = 20;
        options.rounds = 5;
        options.repetitions = 2;
      } else if (option == "--json") {
        Bench::reportTo(value());
      } else if (option == "--filter") {
        options.filter = value();
      } else if (option == "--rounds") {
        options.rounds = std::stoul(value());
      } else if (option == "--without") {
        shortCut = value();
        continue;
      } else if (option == "--help") {
        std::cout << Bench::kUsage;
        return 0;
      } else {
        throw std::invalid_argument(Bench::kUsage);
      }
      arguments.insert(arguments.end(), argv + at, argv + i + 1);
    }
    if (!shortCut.empty()) Bench::runWithout(shortCut, std::move(arguments));
    Bench::run(options);
  } catch (const std::exception& failure) {
    std::cerr << failure.what() << '\n';
    return 1;
  }
}
