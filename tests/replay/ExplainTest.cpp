// Checks explanations, history and counters after every event of random replays: the reason of an
// address's route, the missing condition of an address without a route, the changes of routes with
// their causes, and the numbers of routes.
#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "daemon/Explain.h"
#include "daemon/Switch.h"
#include "hostcore/fast/State.h"
#include "replay/ExplanationJson.h"
#include "replay/Output.h"
#include "replay/Player.h"
#include "replay/ShownRoute.h"
#include "tests/model/Generator.h"
#include "tests/replay/Seeds.h"

namespace {

using Daemon::CauseKind;
using Daemon::ExplainedVia;
using Daemon::Missing;
using Vias = std::vector<ExplainedVia>;

Vias inOrder(Vias vias) {
  std::sort(vias.begin(), vias.end(), [](const auto& a, const auto& b) {
    return std::tie(a.hop, a.intf) < std::tie(b.hop, b.intf);
  });
  return vias;
}

/// A route of the route table.
struct InTable {
  std::string type;
  uint64_t fec;
  Vias vias;

  friend bool operator==(const InTable&, const InTable&) = default;
  friend std::ostream& operator<<(std::ostream& os, const InTable& route) {
    os << route.type << " FEC " << route.fec;
    for (const auto& via : route.vias) os << ", " << via.hop << ' ' << via.intf;
    return os;
  }
};

template <class F>
InTable shown(const Daemon::Switch& sw, const typename F::Route& route) {
  Vias vias;
  for (const auto& via : Replay::viasOf<F>(*sw.shared<F>().forwarding, route.fecId)) {
    vias.push_back({Replay::hopText(via.hop), std::string(via.intf.name().view())});
  }
  const bool isFec = route.fecId < F::ForwardingStatus::kFirstAdjacency;
  return {std::string(Routing::routeTypeName(route.routeType)), isFec ? route.fecId : 0,
          inOrder(std::move(vias))};
}

/// A switch that plays a random replay.
class ExplainTest : public testing::TestWithParam<std::tuple<uint64_t, std::string>> {
 protected:
  template <class Check>
  void play(Check check) {
    const auto& [seed, universe] = GetParam();
    Golden::Generator generator(seed, Golden::weightsOf(universe));
    // The first events of a crowded universe mostly add neighbours.
    const size_t events = universe == "crowded" ? 1100 : 700;
    for (size_t number = 1; number <= events && !HasFailure(); ++number) {
      const auto event = generator.next();
      SCOPED_TRACE("event " + std::to_string(number) + " " + event.dump());
      player_.apply(event.dump());
      note(event);
      check(number, event);
    }
  }

  /// The addresses of all events so far, in the order of their first event.
  const std::vector<std::string>& addresses() const { return addresses_; }

  std::ostream nowhere_{nullptr};
  std::unique_ptr<Replay::Output> output_ = Replay::jsonOutput(nowhere_);
  Daemon::Switch sw_{{.settles = std::get<0>(GetParam()) % 2 == 0}};
  Replay::Player player_{sw_, *output_, {}};

 private:
  void note(const nlohmann::json& event) {
    for (const char* field : {"ip", "addr", "prefix"}) {
      if (!event.contains(field)) continue;
      const auto text = event[field].get<std::string>();
      const auto address = text.substr(0, text.find('/'));
      if (std::find(addresses_.begin(), addresses_.end(), address) == addresses_.end()) {
        addresses_.push_back(address);
      }
    }
  }

  std::vector<std::string> addresses_;
};

/// True when the machine has a pending merge for the address, or may have one that it cannot know
/// of.
template <class F>
bool mayBePending(const typename F::RouteSm* machine, const typename F::Addr& addr) {
  return machine == nullptr || !machine->initialized() || !machine->fast().isTrusted ||
         machine->fast().due.find(addr) != nullptr;
}

class VerdictTest : public ExplainTest {
 protected:
  template <class F>
  void check(const std::string& vrfName, const Daemon::Vrf& vrf, const std::string& address) {
    const auto addr = F::Addr::parse(address);
    if (!addr) return;
    const auto host = F::Prefix::host(*addr);
    const auto answer = Daemon::explain(sw_, vrfName, address);
    const auto route = vrf.routing<F>().routeStatus->route(host);
    std::optional<InTable> inTable;
    if (route.key == host && route.routeType != F::kInvalid) inTable = shown<F>(sw_, route);
    std::optional<InTable> verdict;
    if (answer.winner) {
      verdict = {answer.winner->type, answer.winner->fec, inOrder(answer.winner->vias)};
    }
    ASSERT_EQ(verdict, inTable) << Daemon::toText(answer);
    ASSERT_NE(answer.winner.has_value(), answer.missing.has_value()) << Daemon::toText(answer);
    ++answers_;
    if (answer.pending.empty()) return;
    // With a pending merge the verdict is the table's route. That must be rare, and the machine
    // must expect it.
    ++pending_;
    ASSERT_TRUE(mayBePending<F>(vrf.routing<F>().machine(), *addr)) << Daemon::toText(answer);
  }

  size_t answers_ = 0;
  size_t pending_ = 0;
};

TEST_P(VerdictTest, AgreesWithTheTableAfterEveryEvent) {
  play([&](size_t number, const nlohmann::json&) {
    size_t at = 0;
    for (const auto& address : addresses()) {
      if (addresses().size() > 30 && (++at + number) % 8 != 0) continue;
      for (const auto& [name, vrf] : sw_.vrfs()) {
        check<Daemon::Ipv4>(name, vrf, address);
        check<Daemon::Ipv6>(name, vrf, address);
        if (HasFatalFailure()) return;
      }
    }
  });
  EXPECT_GT(answers_, 5000u);
  EXPECT_LT(pending_, answers_ / 10);
}

/// Supplies the conditions that an explanation reports as missing.
class MissingTest : public ExplainTest {
 protected:
  template <class F>
  void direct(const Missing& missing, const std::string& intf, const typename F::Prefix& prefix) {
    const auto id = nextFec_++;
    sw_.setFec(typename F::Fec(id, {{.hop = {}, .intf = Zemit::IntfId::of(Kiv::Name(intf))}}));
    sw_.setRoute(missing.vrf, typename F::Route{.key = prefix,
                                                .metricPref = {.metric = 0, .preference = 1},
                                                .routeType = F::kConnected,
                                                .fecId = id});
  }

  template <class F>
  void setVirtual(const std::string& vrf, const typename F::Addr& addr, bool present) {
    const L3::VrfName name{Kiv::String(vrf)};
    if constexpr (F::kNumber == 4) {
      sw_.setVirtualIp(Routing::Fhrp::VrfIpWithMaskPair(name, Zemit::IpAddrWithMask(addr, 32)),
                       present);
    } else {
      sw_.setVirtualIp(Routing::Fhrp::VrfIpPair(name, addr), present);
    }
  }

  template <class F>
  void supply(const Missing& missing, const typename F::Addr& addr) {
    const auto host = F::Prefix::host(addr);
    const auto intf = Zemit::IntfId::of(Kiv::Name(missing.intf.empty() ? "New1" : missing.intf));
    const typename F::Neighbor neighbor{.ipAddr = addr, .mac = {}};
    switch (missing.kind) {
      case Missing::Kind::Machine:
        FAIL() << "no input can create a machine";
      case Missing::Kind::Initialization:
        return sw_.setInitialized<F>(missing.vrf, true);
      case Missing::Kind::NotVirtual:
        for (const auto& pair : sw_.shared<F>().virtualIps->virtualIpKeys()) {
          if (F::virtualAddr(pair) == addr) sw_.setVirtualIp(pair, false);
        }
        return;
      case Missing::Kind::FibRouteFec:
        return direct<F>(missing, "Ethernet1", host);
      case Missing::Kind::Neighbor:
        return sw_.setNeighbor(intf, neighbor);
      case Missing::Kind::Cover:
        return direct<F>(missing, missing.intf, F::Prefix::enclosing(addr, F::Addr::kBits - 2));
      case Missing::Kind::CoverRecord:
      case Missing::Kind::CoverFec:
      case Missing::Kind::OtherInterface:
      case Missing::Kind::DirectVia:
        return direct<F>(missing, missing.intf, *F::Prefix::parse(missing.prefix));
      case Missing::Kind::Announcement:
        if (missing.intf.empty()) {
          setVirtual<F>(missing.vrf, addr, true);
          setVirtual<F>(missing.vrf, addr, false);
        } else {
          F::neighborNotify(*sw_.neighborDir().tableOf(intf), addr);
        }
        return;
    }
  }

  /// Supplies missing conditions until the address has a route.
  template <class F>
  void supplyAll(const std::string& vrf, const std::string& address) {
    const auto addr = F::Addr::parse(address);
    if (!addr || sw_.vrfs().find(vrf)->second.routing<F>().machine() == nullptr) return;
    std::string steps;
    for (size_t step = 0; step < 5; ++step) {
      const auto answer = Daemon::explain(sw_, vrf, address);
      SCOPED_TRACE(steps + Daemon::toText(answer));
      if (!answer.missing) return;
      const Missing missing = *answer.missing;
      ++supplied_[missing.kind];
      supply<F>(missing, *addr);
      const auto after = Daemon::explain(sw_, vrf, address);
      // After initialization, or when the address is no longer virtual, another missing condition
      // may appear. An address may also be virtual in addition to lacking a condition.
      const bool isOneOfSeveral = missing.kind == Missing::Kind::Initialization ||
                                  missing.kind == Missing::Kind::NotVirtual ||
                                  (missing.kind == Missing::Kind::Neighbor && missing.intf.empty());
      if (!isOneOfSeveral && after.missing) {
        ASSERT_EQ(after.missing->kind, Missing::Kind::NotVirtual) << Daemon::toText(after);
      }
      if (after.missing) {
        ASSERT_NE(after.missing->kind, missing.kind) << Daemon::toText(after);
      }
      steps += Daemon::toText(answer) + "then\n";
    }
    FAIL() << steps;
  }

  std::map<Missing::Kind, size_t> supplied_;

 private:
  uint64_t nextFec_ = 1000;
};

TEST_P(MissingTest, SupplyingTheMissingConditionsGivesTheAddressItsRoute) {
  play([&](size_t number, const nlohmann::json&) {
    if (number % 5 != 0 || addresses().empty()) return;
    const auto& address = addresses()[number / 5 % addresses().size()];
    const char* const vrf = number % 3 == 0 && sw_.vrfs().contains("blue") ? "blue" : "default";
    supplyAll<Daemon::Ipv4>(vrf, address);
    supplyAll<Daemon::Ipv6>(vrf, address);
  });
  EXPECT_GE(supplied_.size(), 4u);
}

/// Rebuilds the tables from the history entries.
class HistoryTest : public ExplainTest {
 protected:
  HistoryTest() {
    sw_.historyIs(kKept);
    sw_.historyObserverIs([this](const Daemon::HistoryEntry& entry) { take(entry); });
  }

  void take(const Daemon::HistoryEntry& entry) {
    using Change = Daemon::HistoryEntry::Change;
    all_.push_back(entry);
    auto& routes = told_[{entry.vrf, entry.family}];
    EXPECT_EQ(routes.contains(entry.prefix), entry.change != Change::Added) << entry.prefix;
    if (entry.change == Change::Removed) {
      routes.erase(entry.prefix);
    } else {
      routes[entry.prefix] = {entry.type, entry.fec, entry.vias};
    }
  }

  /// The causes that a change may have after this event.
  static std::set<CauseKind> causesOf(const nlohmann::json& event) {
    using Kind = CauseKind;
    const std::string op = event["op"];
    const bool present = event.value("present", true);
    if (op == "neighbor") {
      if (!present) return {Kind::NeighborLost};
      // The first neighbour of an interface creates the neighbour table.
      return {Kind::NeighborLearned, Kind::NeighborChanged, Kind::NeighborTable};
    }
    if (op == "neighborTable") return {Kind::NeighborTable};
    if (op == "route") return {Kind::Route, Kind::Settling};
    if (op == "fec") return {Kind::Fec, Kind::Settling};
    if (op == "addr") return {Kind::Address};
    if (op == "intf") return {Kind::Interface, Kind::Address};
    if (op == "virtualIp") return {Kind::VirtualIp};
    if (op == "initialized") return {Kind::Initialization};
    if (op == "ribReady" || op == "startRibReadyVerification") return {Kind::RibReady};
    return {};
  }

  template <class F>
  void compare(const std::string& name, const Daemon::Vrf& vrf) {
    const auto* machine = vrf.routing<F>().machine();
    if (machine == nullptr) return;
    std::map<std::string, std::tuple<std::string, uint64_t, std::string>> routes;
    std::map<std::string_view, uint64_t> types;
    vrf.routing<F>().routeStatus->forEachRoute([&](const auto& route) {
      if (route.key.len() != F::Prefix::kMaxLen) return;
      const auto inTable = shown<F>(sw_, route);
      const auto fec = sw_.shared<F>().forwarding->fec(route.fecId);
      ++types[Routing::routeTypeName(route.routeType)];
      auto& told = told_[{name, F::kNumber}][toString(route.key)];
      // The vias of a FEC can change without a change of the route.
      if (inTable.fec != 0) std::get<2>(told) = Daemon::viasText(fec);
      routes[toString(route.key)] = {inTable.type, inTable.fec, Daemon::viasText(fec)};
    });
    EXPECT_EQ((told_[{name, F::kNumber}]), routes);
    const auto counters = sw_.counters(name);
    for (const auto& each : counters.values) {
      if (each.family != F::kNumber || std::string_view(each.info->name) != "host_routes") continue;
      EXPECT_EQ(each.value, types[each.labelValue]) << each.labelValue;
      types.erase(each.labelValue);
    }
    EXPECT_TRUE(types.empty()) << "not counted: " << types.begin()->first;
  }

  static constexpr size_t kKept = 7;
  std::vector<Daemon::HistoryEntry> all_;
  size_t checked_ = 0;
  std::map<std::pair<std::string, int>,
           std::map<std::string, std::tuple<std::string, uint64_t, std::string>>>
      told_;
};

TEST_P(HistoryTest, HasEachChangeOnceWithItsCause) {
  std::set<CauseKind> seen;
  play([&](size_t, const nlohmann::json& event) {
    const auto allowed = causesOf(event);
    for (; checked_ < all_.size(); ++checked_) {
      EXPECT_TRUE(allowed.contains(all_[checked_].cause)) << Daemon::causeText(all_[checked_]);
      EXPECT_FALSE(Daemon::causeText(all_[checked_]).empty());
      seen.insert(all_[checked_].cause);
    }
    for (const auto& [name, vrf] : sw_.vrfs()) {
      compare<Daemon::Ipv4>(name, vrf);
      compare<Daemon::Ipv6>(name, vrf);
    }
  });
  EXPECT_GE(seen.size(), 6u);
  // The switch keeps the last kKept entries.
  std::vector<Daemon::HistoryEntry> kept;
  for (const auto& entry : all_) {
    if (entry.vrf == "default" && entry.family == 4) kept.push_back(entry);
  }
  ASSERT_GT(kept.size(), kKept);
  kept.erase(kept.begin(), kept.end() - kKept);
  if (sw_.vrfs().find("default")->second.routing<Daemon::Ipv4>().machine() != nullptr) {
    EXPECT_EQ(sw_.history("default", "0.0.0.0/0"), kept);
    std::erase_if(kept, [](const auto& entry) { return entry.prefix != "10.1.1.1/32"; });
    EXPECT_EQ(sw_.history("default", "10.1.1.1"), kept);
  }
}

const auto kSeeds =
    testing::Combine(Replay::seeds(2), testing::Values("small", "crowded", "apart"));
INSTANTIATE_TEST_SUITE_P(Seeds, VerdictTest, kSeeds);
INSTANTIATE_TEST_SUITE_P(Seeds, MissingTest, kSeeds);
INSTANTIATE_TEST_SUITE_P(Seeds, HistoryTest, kSeeds);

}  // namespace
