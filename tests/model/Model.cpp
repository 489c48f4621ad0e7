// Applies the events of a replay to the golden model's tables and notifies its state machines.
#include "tests/model/Model.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include "tests/model/Machine.h"

namespace Golden {

using nlohmann::json;

namespace {

/// The family that an event names; both families when it names none.
std::vector<const Family*> familiesOf(const json& event) {
  if (!event.is_object() || !event.contains("family")) return {&kIpv4, &kIpv6};
  return {event.at("family") == 4 ? &kIpv4 : &kIpv6};
}

/// Stores `value` under `key`, or erases the key when `value` is empty. True when the map changed.
template <class Map>
bool store(Map& map, const typename Map::key_type& key,
           const std::optional<typename Map::mapped_type>& value) {
  const auto it = map.find(key);
  if (value ? it != map.end() && it->second == *value : it == map.end()) return false;
  if (value) {
    map[key] = *value;
  } else {
    map.erase(it);
  }
  return true;
}

template <class Set>
bool store(Set& set, const typename Set::value_type& value, bool present) {
  return present ? set.insert(value).second : set.erase(value) > 0;
}

}  // namespace

/// The state of one VRF.
struct Vrf {
  Vrf(const World& world, const std::string& name)
      : machines{Machine(kIpv4, world, readiness, name), Machine(kIpv6, world, readiness, name)} {}

  Readiness readiness;
  std::array<Machine, 2> machines;
};

Model::Model(bool settle) : settle_(settle), world_(std::make_unique<World>()) {
  vrf("default");
}

Model::~Model() = default;

Vrf& Model::vrf(const std::string& name) {
  auto& vrf = vrfs_[name];
  if (!vrf) vrf = std::make_unique<Vrf>(*world_, name);
  return *vrf;
}

template <class Visit>
void Model::eachMachine(const Family& family, Visit visit) {
  for (auto& [name, vrf] : vrfs_) {
    if (Machine& machine = vrf->machines[family.slot]; machine.alive) visit(machine);
  }
}

void Model::apply(const json& event) {
  const std::string op = event.at("op");
  const bool present = event.value("present", true);
  Vrf& named = vrf(event.value("vrf", "default"));
  if (op == "vrf") {
    vrf(event.at("name"));
  } else if (op == "intf") {
    applyIntf(event, present);
  } else if (op == "addr") {
    applyAddr(event, present);
  } else if (op == "neighbor") {
    applyNeighbor(event, present);
  } else if (op == "neighborTable") {
    applyNeighborTable(event.at("intf"), present);
  } else if (op == "fec") {
    applyFec(event, present);
  } else if (op == "route") {
    applyRoute(event, present);
  } else if (op == "virtualIp") {
    applyVirtualIp(event, present);
  } else if (op == "ribReady" || op == "startRibReadyVerification") {
    applyReadiness(event);
  } else if (op == "initialized") {
    for (const Family* family : familiesOf(event)) {
      Machine& machine = named.machines[family->slot];
      if (machine.alive) machine.initializedIs(event.at("value"));
    }
  } else if (op == "teardown") {
    for (const Family* family : familiesOf(event)) named.machines[family->slot].alive = false;
  } else if (op != "notifyFecs" && op != "dump") {
    throw std::invalid_argument("unknown op " + op);
  }
}

void Model::applyIntf(const Event& event, bool present) {
  const std::string name = event.at("name");
  const auto tell = [&] {
    for (const Family* family : familiesOf(nullptr)) {
      eachMachine(*family, [&name](Machine& machine) { machine.handleVrf(name); });
    }
  };
  if (!present) {
    if (world_->intfs.erase(name) > 0) tell();
    return;
  }
  const bool moved = store(world_->l3Vrf, name, std::optional(event.value("vrf", "default")));
  const bool appeared = world_->intfs.try_emplace(name).second;
  if (moved || appeared) tell();
}

void Model::applyAddr(const Event& event, bool present) {
  const std::string intf = event.at("intf");
  const auto status = world_->intfs.find(intf);
  if (status == world_->intfs.end()) return;
  const Family& family = familyOf(event.at("addr"));
  const AddrLen addr = parseAddrLen(event.at("addr"));
  bool changed = false;
  if (family.number == 6) {
    changed = store(status->second.addrs6, addr, present);
    // A change of a link-local address does not recompute the interface's receive routes.
    if (inside(kIpv6, addr.addr, {parseAddr("fe80::"), 10})) return;
  } else if (event.value("secondary", false)) {
    changed = store(status->second.secondary, addr, present);
  } else if (AddrLen& primary = status->second.primary; present || primary == addr) {
    const AddrLen wanted = present ? addr : AddrLen{};
    changed = std::exchange(primary, wanted) != wanted;
  }
  if (changed) eachMachine(family, [&intf](Machine& machine) { machine.handleAddresses(intf); });
}

void Model::applyNeighbor(const Event& event, bool present) {
  const std::string intf = event.at("intf");
  const Family& family = familyOf(event.at("ip"));
  const Bits addr = parseAddr(event.at("ip"));
  auto& table = world_->neighborDir[intf][family.slot];
  const auto mac = present ? std::optional(event.value("mac", "")) : std::nullopt;
  if (!store(table, addr, mac)) return;
  eachMachine(family, [&](Machine& machine) { machine.handleArpEntry(intf, addr); });
}

void Model::applyNeighborTable(const std::string& intf, bool present) {
  if (present) {
    world_->neighborDir.try_emplace(intf);
    return;
  }
  const auto removed = world_->neighborDir.extract(intf);
  if (removed.empty()) return;
  for (const Family* family : familiesOf(nullptr)) {
    eachMachine(*family,
                [&](Machine& machine) { machine.handleDeletedTable(intf, removed.mapped()); });
  }
}

void Model::applyFec(const Event& event, bool present) {
  const FecId id = event.at("id");
  const Family& family = *familiesOf(event).front();
  std::optional<std::vector<Via>> vias;
  std::set<std::string> touched;
  if (present) {
    vias.emplace();
    for (const auto& via : event.at("vias")) {
      const Bits hop = via.contains("hop") ? parseAddr(via.at("hop")) : 0;
      vias->push_back({hop, via.at("intf")});
      touched.insert(vias->back().intf);
    }
  }
  auto& fecs = world_->fecs[family.slot];
  if (const auto old = fecs.find(id); old != fecs.end()) {
    for (const auto& via : old->second) touched.insert(via.intf);
  }
  if (store(fecs, id, vias)) {
    eachMachine(family, [id](Machine& machine) { machine.handleFec(id); });
  }
  if (!settle_) return;
  std::vector<Machine*> machines;
  eachMachine(family, [&machines](Machine& machine) { machines.push_back(&machine); });
  announceRouteless(family, machines,
                    [&](const std::string& intf, Bits) { return touched.contains(intf); });
}

void Model::applyRoute(const Event& event, bool present) {
  const Family& family = familyOf(event.at("prefix"));
  Machine& machine = vrf(event.value("vrf", "default")).machines[family.slot];
  const Prefix prefix = parseAddrLen(event.at("prefix"));
  const bool isHost = prefix.len == family.width;
  std::optional<Route> route;
  if (present) {
    route = {.key = prefix,
             .metric = event.value("metric", 0u),
             .preference = event.value("preference", 1u),
             .type = event.value("type", "connected_"),
             .fec = event.value("fec", FecId{0})};
  }
  // The machine is notified even when the route did not change.
  store(isHost ? machine.hostStatus : machine.routeStatus, prefix, route);
  if (!machine.alive) return;
  if (isHost) {
    machine.handleHostStatusRoute(prefix);
  } else {
    machine.handleStatusRoute(prefix);
  }
  if (!settle_) return;
  announceRouteless(family, {&machine},
                    [&](const std::string&, Bits addr) { return inside(family, addr, prefix); });
}

void Model::applyVirtualIp(const Event& event, bool present) {
  const Family& family = familyOf(event.at("addr"));
  const std::string text = event.at("addr");
  const AddrLen addr =
      family.number == 4 ? parseAddrLen(text) : AddrLen{parseAddr(text), family.width};
  const std::pair virtualIp(event.value("vrf", std::string("default")), addr);
  if (!store(world_->virtualIps[family.slot], virtualIp, present)) return;
  eachMachine(family, [&](Machine& machine) { machine.handleVirtualIp(virtualIp); });
}

void Model::applyReadiness(const Event& event) {
  Vrf& named = vrf(event.value("vrf", "default"));
  const bool ribReady = event.at("op") == "ribReady";
  bool& flag = ribReady ? named.readiness.ribReady : named.readiness.startRibReadyVerification;
  const bool value = event.at("value");
  if (std::exchange(flag, value) == value) return;
  for (Machine& machine : named.machines) {
    if (!machine.alive) continue;
    if (ribReady) {
      machine.handleRibReady();
    } else {
      machine.setHostRouteRibReady();
    }
  }
}

template <class Chosen>
void Model::announceRouteless(const Family& family, const std::vector<Machine*>& machines,
                              Chosen chosen) {
  // Collected before the first announcement, because an announcement can give other neighbours a
  // route.
  std::vector<std::pair<std::string, Bits>> routeless;
  for (const auto& [intf, table] : world_->neighborDir) {
    for (const auto& [addr, mac] : table[family.slot]) {
      const auto lacksIt = [ip = addr](const Machine* machine) {
        return !machine->hasNeighborRoute(ip);
      };
      if (chosen(intf, addr) && std::any_of(machines.begin(), machines.end(), lacksIt)) {
        routeless.emplace_back(intf, addr);
      }
    }
  }
  for (const auto& [intf, addr] : routeless) {
    eachMachine(family,
                [&, name = intf, ip = addr](Machine& told) { told.handleArpEntry(name, ip); });
  }
}

std::vector<json> Model::dumps(const json& selection) const {
  std::vector<json> result;
  for (const auto& [name, vrf] : vrfs_) {
    if (selection.is_object() && selection.value("vrf", name) != name) continue;
    for (const Family* family : familiesOf(selection)) {
      result.push_back(vrf->machines[family->slot].dump());
    }
  }
  return result;
}

json canonical(json dump) {
  auto& members = dump.at("dump");
  const auto mask = [&members](const std::string& table, FecId from) {
    if (!members.contains(table)) return;
    for (auto& route : members[table]) {
      if (route.at("fec") >= from) route["fec"] = "adjacency";
    }
  };
  mask("routeTable", FecId{1} << 32);
  for (const char* table : {"receiveTable", "arpTable", "neighTable"}) mask(table, 1);
  const auto sort = [](auto& self, json& value) -> void {
    for (auto& member : value) {
      if (member.is_structured()) self(self, member);
    }
    if (value.is_array()) std::sort(value.begin(), value.end());
  };
  sort(sort, members);
  return dump;
}

}  // namespace Golden
