// The output of a replay as text tables.
#include <map>
#include <sstream>
#include <string>

#include "daemon/RootTables.h"
#include "replay/Output.h"
#include "replay/Printable.h"
#include "replay/ShownRoute.h"
#include "replay/TextTable.h"

namespace Replay {
namespace {

/// The tables of one dump. A row of each begins with the VRF and the family.
struct DumpTables {
  TextTable hostRoutes{{"VRF", "FAMILY", "PREFIX", "TYPE", "METRIC", "VIA"}};
  TextTable receiveAddrs{{"VRF", "FAMILY", "INTERFACE", "RECEIVED THERE"}};
  TextTable fibRoutes{{"VRF", "FAMILY", "FIB ROUTE", "TYPE", "FEC", "HOSTS", "VIA"}};
  TextTable machines{
      {"VRF", "FAMILY", "INITIALIZED", "READY", "SYNCHRONIZED", "DEFERRED", "HOST ADJ", "FIB ADJ"}};
};

std::string yesOrNo(bool value) {
  return value ? "yes" : "no";
}

template <class F>
void addRows(const Daemon::Switch& sw, const Daemon::Vrf& vrf, DumpTables& tables) {
  const auto& routing = vrf.routing<F>();
  const auto& root = *routing.root;
  const auto& forwarding = *sw.shared<F>().forwarding;
  const std::string vrfName(vrf.name.value().view());

  const auto isHost = [](const auto& route) { return route.key.len() == F::Prefix::kMaxLen; };
  for (const auto& [route, vias] : shownRoutes<F>(*routing.routeStatus, forwarding, isHost)) {
    tables.hostRoutes.add({vrfName, F::kName, toString(route.key),
                           std::string(Routing::routeTypeName(route.routeType)),
                           std::to_string(route.metricPref.metric), viasText<F>(vias)});
  }

  std::map<Kiv::String8, std::set<typename F::Addr>> addrsByIntf;
  for (auto it = root.receiveAddrToIntfNameIteratorConst(); it; ++it) {
    addrsByIntf[it.value()].insert(it.key());
  }
  for (const auto& [intf, addrs] : addrsByIntf) {
    std::string list;
    for (const auto& addr : addrs) list.append(list.empty() ? "" : " ").append(toString(addr));
    tables.receiveAddrs.add({vrfName, F::kName, std::string(intf.view()), list});
  }

  std::map<typename F::Prefix, typename F::Route> fibRoutes;
  for (auto it = root.prefixToRouteIteratorConst(); it; ++it) fibRoutes[it.key()] = it.value();
  for (const auto& [prefix, route] : fibRoutes) {
    const auto hosts = F::neighborSet(root, prefix);
    if (!hosts || hosts->ipCount() == 0) continue;
    tables.fibRoutes.add({vrfName, F::kName, toString(prefix),
                          std::string(Routing::routeTypeName(route.routeType)),
                          std::to_string(route.fecId), std::to_string(hosts->ipCount()),
                          viasText<F>(viasOf<F>(forwarding, route.fecId))});
  }

  const auto* machine = routing.machine();
  const Daemon::RootTables<F> own(root);
  tables.machines.add(
      {vrfName, F::kName, machine == nullptr ? "torn down" : yesOrNo(machine->initialized()),
       yesOrNo(vrf.readiness->routeStatus(F::kReadyKind)->ready()),
       yesOrNo(F::hostRoutesSynced(*vrf.readiness)), std::to_string(own.waiting->ipCount()),
       std::to_string(own.received->adjacencies().size() + own.neighbors->adjacencies().size()),
       std::to_string(routing.adjHelper->fibAdjacencies().size())});
}

class TextOutput final : public Output {
 public:
  TextOutput(std::ostream& os, const TextStyle& style) : os_(os), style_(style) {}

  void dump(const Daemon::Switch& sw, const DumpSelection& selection) override {
    DumpTables tables;
    for (const Daemon::Vrf* vrf : selection.vrfs) {
      if (selection.ipv4) addRows<Daemon::Ipv4>(sw, *vrf, tables);
      if (selection.ipv6) addRows<Daemon::Ipv6>(sw, *vrf, tables);
    }
    if (tables.hostRoutes.empty()) {
      os_ << "No host routes.\n\n";
    } else {
      print(tables.hostRoutes);
    }
    print(tables.receiveAddrs);
    print(tables.fibRoutes);
    print(tables.machines);
  }

  void trace(const Kiv::TraceRecord& record) override {
    std::ostringstream text;
    text << record;
    os_ << printable(text.view()) << '\n';
  }

  void event(size_t number, std::string_view line) override {
    os_ << "line " << number << ": " << printable(line) << '\n';
  }

 private:
  void print(const TextTable& table) {
    if (table.empty()) return;
    table.print(os_, style_);
    os_ << '\n';
  }

  std::ostream& os_;
  const TextStyle style_;
};

}  // namespace

std::unique_ptr<Output> textOutput(std::ostream& os, const TextStyle& style) {
  return std::make_unique<TextOutput>(os, style);
}

}  // namespace Replay
