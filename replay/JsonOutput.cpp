// The output of a replay as JSON.
#include <type_traits>

#include "daemon/RootTables.h"
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

/// The members of a set, from an iterator on it.
template <class Iterator>
JsonList keysJson(Iterator it) {
  JsonList list;
  for (; it; ++it) list.add(valueJson(it.key()));
  return list;
}

/// A map as a JSON object, from an iterator on its entries. `valueText` gives the JSON text of a
/// value.
template <class Iterator, class ValueText>
JsonObject mapJson(Iterator it, ValueText valueText) {
  JsonObject object;
  for (; it; ++it) object.add(keyText(it.key()), valueText(it.value()));
  return object;
}

template <class F, class Table, class Tables, class IsShown>
JsonList routesJson(const Table& table, const Tables& tables, IsShown isShown) {
  JsonList list;
  for (const auto& shown : shownRoutes<F>(table, tables, isShown)) {
    list.add(routeJson<F>(shown).text());
  }
  return list;
}

/// The state of one machine as one object.
class WholeDump {
 public:
  template <class F>
  explicit WholeDump(std::type_identity<F>, const Daemon::Vrf& vrf) {
    dump_.add("vrf", jsonString(vrf.name.value())).add("family", std::to_string(F::kNumber));
  }
  /// Adds a member with the JSON text of its value.
  void add(std::string_view name, std::string value) { dump_.add(name, std::move(value)); }
  /// Adds a member that is a JsonList or a JsonObject.
  template <class Collection>
  void add(std::string_view name, Collection collection) {
    dump_.add(name, collection.text());
  }
  std::string text() { return JsonObject().add("dump", dump_.text()).text(); }

 private:
  JsonObject dump_;
};

/// The state of one machine in pieces, one JSON object on each line. The first line has the single
/// values. Each element of a list or map has a line of its own.
class DumpInPieces {
 public:
  template <class F>
  explicit DumpInPieces(std::type_identity<F>, const Daemon::Vrf& vrf, std::ostream& os)
      : os_(os), vrf_(jsonString(vrf.name.value())), family_(std::to_string(F::kNumber)) {}
  void add(std::string_view name, std::string value) { single_.add(name, std::move(value)); }
  template <class Collection>
  void add(std::string_view name, Collection collection) {
    if (!isBegun_) print(single_);
    isBegun_ = true;
    for (std::string& piece : collection.pieces()) {
      JsonObject dump;
      print(dump.add(name, std::move(piece)));
    }
  }

 private:
  void print(JsonObject& dump) {
    dump.add("vrf", vrf_).add("family", family_);
    os_ << JsonObject().add("dump", dump.text()).text() << '\n';
  }

  std::ostream& os_;
  const std::string vrf_;
  const std::string family_;
  JsonObject single_;
  bool isBegun_ = false;
};

template <class F>
JsonObject adjacencyJson(const typename F::ViaSet& vias, uint32_t users) {
  JsonObject object;
  object.add("vias", viasJson<F>(viasOf<F>(vias))).add("refs", std::to_string(users));
  return object;
}

/// Adds the attributes that only one family's root has, or that it has under another name.
template <class Dump>
void addFamilyJson(const Routing::Host::RouteSmRoot& root, Dump& dump) {
  dump.add("arpRoute", mapJson(root.arpRouteIteratorConst(), [](const auto& addrs) {
             return keysJson(addrs->ipIteratorConst()).text();
           }));
  dump.add("intfNameToAddrWithMask", mapJson(root.intfNameToAddrWithMaskIteratorConst(),
                                             [](const auto& addr) { return valueJson(addr); }));
  dump.add("intfNameToSecondaryAddrWithMask",
           mapJson(root.intfNameToSecondaryAddrWithMaskIteratorConst(), [](const auto& addrs) {
             return keysJson(addrs->addrWithMaskIteratorConst()).text();
           }));
}
template <class Dump>
void addFamilyJson(const Routing6::Host::RouteSmRoot& root, Dump& dump) {
  dump.add("neighRoute", mapJson(root.neighRouteIteratorConst(), [](const auto& addrs) {
             return keysJson(addrs->ipIteratorConst()).text();
           }));
  dump.add("intfNameToAddrWithMask",
           mapJson(root.intfNameToAddrWithMaskIteratorConst(), [](const auto& addrs) {
             return keysJson(addrs->addrWithMaskIteratorConst()).text();
           }));
}

/// Adds the state of one machine to `dump`, the single values first.
template <class F, class Dump>
void describe(const Daemon::Switch& sw, const Daemon::Vrf& vrf, Dump& dump) {
  const auto& routing = vrf.routing<F>();
  const auto& root = *routing.root;
  const auto& forwarding = *sw.shared<F>().forwarding;
  const Daemon::RootTables<F> tables(root);
  const typename F::HostTable& receiveTable = *tables.received;
  const typename F::HostTable& neighborTable = *tables.neighbors;
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
  dump.add("initialized", machine == nullptr ? "null" : jsonBool(machine->initialized()));
  dump.add("hostRoutesSynced", jsonBool(F::hostRoutesSynced(*vrf.readiness)));
  dump.add("ready", jsonBool(vrf.readiness->routeStatus(F::kReadyKind)->ready()));
  dump.add("routeTable", routesJson<F>(*routing.routeStatus, forwarding, isHost));
  dump.add("receiveTable", routesJson<F>(receiveTable, receiveTable, all));
  dump.add(neighborTable.name().view(), routesJson<F>(neighborTable, neighborTable, all));
  dump.add("prefixToRoute", mapJson(root.prefixToRouteIteratorConst(), [&](const auto& route) {
             return routeJson<F>({route, viasOf<F>(forwarding, route.fecId)}).text();
           }));
  dump.add("prefixToAdjacency", mapJson(root.prefixToAdjacencyIteratorConst(),
                                        [](const auto& fecId) { return std::to_string(fecId); }));
  dump.add("adjacencyToPrefix",
           mapJson(root.adjacencyToPrefixIteratorConst(),
                   [](const auto& list) { return keysJson(list->prefixIteratorConst()).text(); }));
  dump.add("receiveAddrToIntfName", mapJson(root.receiveAddrToIntfNameIteratorConst(),
                                            [](const auto& name) { return jsonString(name); }));
  dump.add("toMerge", keysJson(tables.waiting->ipIteratorConst()));
  dump.add("hostAdjacencies", std::move(hostAdjacencies));
  dump.add("fibAdjacencies", std::move(fibAdjacencies));
  addFamilyJson(root, dump);
}

class JsonOutput final : public Output {
 public:
  JsonOutput(std::ostream& os, bool inPieces) : os_(os), inPieces_(inPieces) {}

  void dump(const Daemon::Switch& sw, const DumpSelection& selection) override {
    for (const Daemon::Vrf* vrf : selection.vrfs) {
      if (selection.ipv4) dump<Ipv4>(sw, *vrf);
      if (selection.ipv6) dump<Ipv6>(sw, *vrf);
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
  template <class F>
  void dump(const Daemon::Switch& sw, const Daemon::Vrf& vrf) {
    if (inPieces_) {
      DumpInPieces pieces(std::type_identity<F>(), vrf, os_);
      describe<F>(sw, vrf, pieces);
    } else {
      os_ << dumpJson<F>(sw, vrf) << '\n';
    }
  }

  std::ostream& os_;
  const bool inPieces_;
};

}  // namespace

template <class F>
std::string dumpJson(const Daemon::Switch& sw, const Daemon::Vrf& vrf) {
  WholeDump dump(std::type_identity<F>(), vrf);
  describe<F>(sw, vrf, dump);
  return dump.text();
}

template std::string dumpJson<Ipv4>(const Daemon::Switch&, const Daemon::Vrf&);
template std::string dumpJson<Ipv6>(const Daemon::Switch&, const Daemon::Vrf&);

std::unique_ptr<Output> jsonOutput(std::ostream& os, bool inPieces) {
  return std::make_unique<JsonOutput>(os, inPieces);
}

}  // namespace Replay
