// What a replay prints for programs.
#include "replay/Json.h"
#include "replay/Output.h"
#include "replay/ShownRoute.h"

namespace Replay {
namespace {

using Daemon::Ipv4;
using Daemon::Ipv6;

template <class Value>
std::string valueJson(const Value& value) {
  return jsonString(toString(value));
}

std::string keyText(Tovan::Fib::FecId fecId) {
  return std::to_string(fecId);
}
std::string keyText(const Kiv::String8& name) {
  return std::string(name.view());
}
template <Zemit::HasText Value>
std::string keyText(const Value& value) {
  return toString(value);
}

/// The keys of a set of values, from an iterator on it.
template <class Iterator>
std::string keysJson(Iterator it) {
  JsonList list;
  for (; it; ++it) list.add(valueJson(it.key()));
  return list.text();
}

/// A map of texts, from an iterator on the entries; `valueText` gives the JSON text of a value.
template <class Iterator, class ValueText>
std::string mapJson(Iterator it, ValueText valueText) {
  JsonObject object;
  for (; it; ++it) object.add(keyText(it.key()), valueText(it.value()));
  return object.text();
}

template <class F, class Table, class Tables, class IsShown>
std::string routesJson(const Table& table, const Tables& tables, IsShown isShown) {
  JsonList list;
  for (const auto& shown : shownRoutes<F>(table, tables, isShown)) {
    list.add(routeJson<F>(shown).text());
  }
  return list.text();
}

template <class F>
JsonObject adjacencyJson(const typename F::ViaSet& vias, uint32_t users) {
  JsonObject object;
  object.add("vias", viasJson<F>(viasOf<F>(vias))).add("refs", std::to_string(users));
  return object;
}

/// What only one family's root has, or has under another name.
void addFamilyJson(const Routing::Host::RouteSmRoot& root, JsonObject& dump) {
  dump.add("arpRoute", mapJson(root.arpRouteIteratorConst(), [](const auto& addrs) {
             return keysJson(addrs->ipIteratorConst());
           }));
  dump.add("intfNameToAddrWithMask", mapJson(root.intfNameToAddrWithMaskIteratorConst(),
                                             [](const auto& addr) { return valueJson(addr); }));
  dump.add("intfNameToSecondaryAddrWithMask",
           mapJson(root.intfNameToSecondaryAddrWithMaskIteratorConst(),
                   [](const auto& addrs) { return keysJson(addrs->addrWithMaskIteratorConst()); }));
}
void addFamilyJson(const Routing6::Host::RouteSmRoot& root, JsonObject& dump) {
  dump.add("neighRoute", mapJson(root.neighRouteIteratorConst(), [](const auto& addrs) {
             return keysJson(addrs->ipIteratorConst());
           }));
  dump.add("intfNameToAddrWithMask",
           mapJson(root.intfNameToAddrWithMaskIteratorConst(),
                   [](const auto& addrs) { return keysJson(addrs->addrWithMaskIteratorConst()); }));
}

class JsonOutput final : public Output {
 public:
  explicit JsonOutput(std::ostream& os) : os_(os) {}

  void dump(const Daemon::Switch& sw, const DumpSelection& selection) override {
    for (const Daemon::Vrf* vrf : selection.vrfs) {
      if (selection.ipv4) os_ << dumpJson<Ipv4>(sw, *vrf) << '\n';
      if (selection.ipv6) os_ << dumpJson<Ipv6>(sw, *vrf) << '\n';
    }
  }

  void trace(const Kiv::TraceRecord& record) override {
    JsonObject trace;
    trace.add("facility", jsonString(record.facility))
        .add("level", std::to_string(record.level))
        .add("object", jsonString(record.objectName))
        .add("function", jsonString(record.functionName))
        .add("message", jsonString(record.message));
    os_ << JsonObject().add("trace", trace.text()).text() << '\n';
  }

  void event(size_t number, std::string_view) override {
    os_ << JsonObject().add("event", std::to_string(number)).text() << '\n';
  }

 private:
  std::ostream& os_;
};

}  // namespace

template <class F>
std::string dumpJson(const Daemon::Switch& sw, const Daemon::Vrf& vrf) {
  const auto& routing = vrf.routing<F>();
  const auto& root = *routing.root;
  const auto& forwarding = *sw.shared<F>().forwarding;
  const typename F::HostTable& receiveTable = *root.receiveTable();
  const typename F::HostTable& neighborTable = *F::neighborTable(root);
  const auto all = [](const auto&) { return true; };
  const auto isHost = [](const auto& route) { return route.key.len() == F::Prefix::kMaxLen; };

  JsonList hostAdjacencies;
  for (const typename F::HostTable* table : {&receiveTable, &neighborTable}) {
    table->adjacencies().forEach([&](const auto& vias, uint32_t users) {
      auto object = adjacencyJson<F>(vias, users);
      hostAdjacencies.add(object.add("table", jsonString(table->name())).text());
    });
  }
  JsonList fibAdjacencies;
  routing.adjHelper->fibAdjacencies().forEach([&](const auto& vias, uint32_t users) {
    fibAdjacencies.add(adjacencyJson<F>(vias, users).text());
  });

  const auto* machine = routing.machine();
  JsonObject dump;
  dump.add("vrf", jsonString(vrf.name.value()))
      .add("family", std::to_string(F::kNumber))
      .add("initialized", machine == nullptr ? "null" : jsonBool(machine->initialized()))
      .add("routeTable", routesJson<F>(*routing.routeStatus, forwarding, isHost))
      .add("receiveTable", routesJson<F>(receiveTable, receiveTable, all))
      .add(neighborTable.name().view(), routesJson<F>(neighborTable, neighborTable, all))
      .add("prefixToRoute", mapJson(root.prefixToRouteIteratorConst(),
                                    [&](const auto& route) {
                                      const auto vias = viasOf<F>(forwarding, route.fecId);
                                      return routeJson<F>({route, vias}).text();
                                    }))
      .add("prefixToAdjacency", mapJson(root.prefixToAdjacencyIteratorConst(),
                                        [](const auto& fecId) { return std::to_string(fecId); }))
      .add("adjacencyToPrefix",
           mapJson(root.adjacencyToPrefixIteratorConst(),
                   [](const auto& list) { return keysJson(list->prefixIteratorConst()); }))
      .add("receiveAddrToIntfName", mapJson(root.receiveAddrToIntfNameIteratorConst(),
                                            [](const auto& name) { return jsonString(name); }))
      .add("toMerge", keysJson(root.toMerge()->ipIteratorConst()))
      .add("hostAdjacencies", hostAdjacencies.text())
      .add("fibAdjacencies", fibAdjacencies.text())
      .add("hostRoutesSynced", jsonBool(F::hostRoutesSynced(*vrf.readiness)))
      .add("ready", jsonBool(vrf.readiness->routeStatus(F::kReadyKind)->ready()));
  addFamilyJson(root, dump);
  return JsonObject().add("dump", dump.text()).text();
}

template std::string dumpJson<Ipv4>(const Daemon::Switch&, const Daemon::Vrf&);
template std::string dumpJson<Ipv6>(const Daemon::Switch&, const Daemon::Vrf&);

std::unique_ptr<Output> jsonOutput(std::ostream& os) {
  return std::make_unique<JsonOutput>(os);
}

}  // namespace Replay
