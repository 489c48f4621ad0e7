// The steps of the golden model's state machine, over sorted maps and sets.
#include "tests/model/Machine.h"

#include <algorithm>
#include <stdexcept>

namespace Golden {
namespace {

using nlohmann::json;

constexpr size_t kMaxVias = 128;

std::optional<Route> lookUp(const RouteTable& table, const Prefix& prefix) {
  const auto it = table.find(prefix);
  return it == table.end() ? std::nullopt : std::optional(it->second);
}

/// The prefixes in the order in which routes are handled. Longer prefixes come last, so their
/// result stays.
template <class Prefixes>
std::vector<Prefix> shortestFirst(const Prefixes& prefixes) {
  std::vector<Prefix> sorted(prefixes.begin(), prefixes.end());
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const Prefix& a, const Prefix& b) { return a.len < b.len; });
  return sorted;
}

std::vector<Prefix> keys(const RouteTable& table) {
  std::vector<Prefix> result;
  for (const auto& [prefix, route] : table) result.push_back(prefix);
  return shortestFirst(result);
}

bool skipInterface(const std::string& intf) {
  return intf.rfind("Management", 0) == 0;
}

bool intersects(const IntfSet& a, const IntfSet& b) {
  return std::any_of(a.begin(), a.end(), [&b](const auto& name) { return b.contains(name); });
}

/// The members of `b` that are not in `a`.
IntfSet subtract(const IntfSet& a, const IntfSet& b) {
  IntfSet result;
  for (const auto& name : b) {
    if (!a.contains(name)) result.insert(name);
  }
  return result;
}

bool isLinkLocal(Bits addr) {
  return addr >> 118 == 0xfe80u >> 6;
}

}  // namespace

FecId Adjacencies::getOrCreate(const ViaSet& vias) {
  for (auto& [id, adjacency] : byId_) {
    if (adjacency.vias == vias) {
      ++adjacency.refs;
      return id;
    }
  }
  byId_[next_] = {vias, 1};
  return next_++;
}

void Adjacencies::drop(FecId id) {
  const auto it = byId_.find(id);
  if (it != byId_.end() && --it->second.refs == 0) byId_.erase(it);
}

ViaSet Adjacencies::vias(FecId id) const {
  const auto it = byId_.find(id);
  return it == byId_.end() ? ViaSet{} : it->second.vias;
}

Machine::Machine(const Family& family, const World& world, Readiness& readiness, std::string vrf)
    : family_(family), world_(world), readiness_(readiness), vrf_(std::move(vrf)) {
  for (const auto& [intf, status] : world_.intfs) handleVrf(intf);
  for (const auto& [intf, table] : world_.neighborDir) handleArpEntries(intf);
  for (const auto& virtualIp : world_.virtualIps[family_.slot]) handleVirtualIp(virtualIp);
}

// Lifecycle and readiness

void Machine::initializedIs(bool value) {
  if (value == initialized_) return;
  initialized_ = value;
  handleInitialized();
}

void Machine::handleInitialized() {
  handleStatusRoute();
  handleHostStatusRoute();
  handleArpEntries();
  if (!toMerge_.empty()) {
    doMerge(AddrSet(toMerge_));
    toMerge_.clear();
  }
  setHostRouteRibReady();
}

void Machine::handleRibReady() {
  if (!initialized_ || !readiness_.ribReady) return;
  AddrSet changed;
  for (const auto& [prefix, route] : routeStatus) {
    if (!family_.bgpTypes.contains(route.type) && prefix.len == family_.width) {
      changed.insert(prefix.addr);
    }
  }
  if (!changed.empty()) doMerge(changed);
  readiness_.hostRoutesSynced[family_.slot] = true;
}

void Machine::setHostRouteRibReady() {
  if (!readiness_.startRibReadyVerification) return;
  if (initialized_) {
    handleStatusRoute();
    handleHostStatusRoute();
    handleArpEntries();
  }
  readiness_.ready[family_.slot] = true;
}

// Look-ups

std::optional<Route> Machine::doFibLookup(const Prefix& prefix) const {
  return lookUp(prefix.len == family_.width ? hostStatus : routeStatus, prefix);
}

std::optional<Prefix> Machine::checkIpAddressAgainstFib(Bits addr, const std::string& intf) const {
  std::optional<Prefix> longest;
  for (const auto& prefix : trie_) {
    if (inside(family_, addr, prefix) && (!longest || prefix.len > longest->len)) longest = prefix;
  }
  if (!longest) return std::nullopt;
  const auto route = doFibLookup(*longest);
  if (!route || route->fec == 0 || !getIntfs(route->fec).contains(intf)) return std::nullopt;
  return longest;
}

std::optional<Route> Machine::routeAbove(const Prefix& prefix) const {
  std::optional<Route> above;
  for (const auto& candidate : trie_) {
    const auto route = lookUp(routeStatus, candidate);
    if (route && candidate.len < prefix.len && inside(family_, prefix.addr, candidate) &&
        (!above || candidate.len > above->key.len)) {
      above = route;
    }
  }
  return above;
}

std::vector<Via> Machine::fecVias(FecId fec) const {
  const auto& fecs = world_.fecs[family_.slot];
  const auto it = fecs.find(fec);
  return it == fecs.end() ? std::vector<Via>{} : it->second;
}

IntfSet Machine::getIntfs(FecId fec) const {
  IntfSet intfs;
  for (const auto& via : fecVias(fec)) intfs.insert(via.intf);
  return intfs;
}

bool Machine::isVirtual(Bits addr) const {
  const auto& virtualIps = world_.virtualIps[family_.slot];
  return std::any_of(virtualIps.begin(), virtualIps.end(),
                     [addr](const auto& entry) { return entry.second.addr == addr; });
}

// Writing host routes

void Machine::addRouteToRouteTable(RouteTable& table, bool toRouteTable, Bits addr, FecId fec,
                                   const std::string& type) {
  const Prefix prefix = host(addr);
  const auto tracked = lookUp(prefixToRoute_, prefix);
  const auto existing = lookUp(table, prefix);
  if (toRouteTable && type == "attached_" && isVirtual(addr)) {
    if (existing) {
      table[prefix].type = "invalid_";
      table[prefix].fec = 0;
    }
    fibAdjacencies_.drop(fec);
    return;
  }
  Route route = existing.value_or(Route{.key = prefix, .metric = 0, .preference = 1});
  // A host route takes the metric of a tracked FIB route. A host table's route that is new or
  // changes its type does not.
  const bool sameType = existing && existing->type == type;
  if (tracked && (toRouteTable || sameType)) {
    route.metric = tracked->metric;
    route.preference = tracked->preference;
  }
  route.type = type;
  route.fec = fec;
  table[prefix] = route;
}

void Machine::removeHostRoute(Bits addr, HostTable& table) {
  const auto removed = lookUp(table.routes, host(addr));
  if (!removed) return;
  table.routes.erase(removed->key);
  if (removed->fec != 0 && owns(*removed)) table.adjacencies.drop(removed->fec);
}

void Machine::unfile(FecId fec, const Prefix& prefix) {
  const auto it = adjacencyToPrefix_.find(fec);
  if (it == adjacencyToPrefix_.end()) return;
  it->second.erase(prefix);
  if (it->second.empty()) adjacencyToPrefix_.erase(it);
}

// FIB routes

void Machine::handleStatusRoute(const Prefix& prefix) {
  if (prefix.len == family_.width) return;
  handleRoute(prefix, lookUp(routeStatus, prefix));
}

void Machine::handleStatusRoute() {
  if (!initialized_) return;
  for (const auto& prefix : keys(routeStatus)) {
    if (routeStatus.contains(prefix)) handleStatusRoute(prefix);
  }
}

void Machine::handleHostStatusRoute(const Prefix& prefix) {
  handleRoute(prefix, lookUp(hostStatus, prefix));
}

void Machine::handleHostStatusRoute() {
  if (!initialized_) return;
  for (const auto& prefix : keys(hostStatus)) handleHostStatusRoute(prefix);
}

void Machine::handleRoute(const Prefix& prefix, const std::optional<Route>& route) {
  if (!initialized_) return;
  const auto old = lookUp(prefixToRoute_, prefix);
  if (route) {
    if (old == route) return;
    neighborRoute_[prefix];
    trie_.insert(prefix);
    prefixToRoute_[prefix] = *route;
    if (prefix.len == family_.width) {
      doMerge({prefix.addr});
    } else {
      handleAdjacency(*route);
    }
    return;
  }
  trie_.erase(prefix);
  if (old) handleDeletedRoute(*old);
  unfile(old ? old->fec : 0, prefix);
  prefixToAdjacency_.erase(prefix);
  neighborRoute_.erase(prefix);
  prefixToRoute_.erase(prefix);
}

void Machine::handleDeletedRoute(const Route& route) {
  AddrSet changed;
  if (route.key.len == family_.width) changed.insert(route.key.addr);
  const auto above = routeAbove(route.key);
  const IntfSet oldIntfs = getIntfs(route.fec);
  const IntfSet aboveIntfs = above ? getIntfs(above->fec) : IntfSet{};
  const bool rehome = above && intersects(oldIntfs, aboveIntfs);
  if (neighborRoute_.contains(route.key)) {
    for (const Bits addr : AddrSet(neighborRoute_[route.key])) {
      removeHostRoute(addr, neighborTable_);
      neighborRoute_[route.key].erase(addr);
      if (rehome) fixupArpRoute(addr, *above);
      changed.insert(addr);
    }
  }
  if (above) changed.merge(promoteArpEntries(subtract(oldIntfs, aboveIntfs), *above));
  if (!changed.empty()) doMerge(changed);
}

// Adjacencies and FECs

void Machine::handleAdjacency(const Route& route) {
  const Prefix prefix = route.key;
  const auto old = prefixToAdjacency_.find(prefix);
  const FecId oldFec = old == prefixToAdjacency_.end() ? 0 : old->second;
  AddrSet changed;
  if (oldFec != 0) changed = handleDeletedAdjacency(prefix);
  if (prefix.len == family_.width) changed.insert(prefix.addr);
  prefixToAdjacency_.erase(prefix);

  const bool oldListExisted = adjacencyToPrefix_.contains(oldFec);
  unfile(oldFec, prefix);
  const bool oldListSurvived = adjacencyToPrefix_.contains(oldFec);

  IntfSet intfs;
  if (route.fec != 0) {
    prefixToAdjacency_[prefix] = route.fec;
    // If the old list still exists, the prefix is put back into it. Without an old list, no new
    // list is made here.
    if (oldListExisted) fileUnder(oldListSurvived ? oldFec : route.fec, prefix);
    intfs = getIntfs(route.fec);
  }

  const auto above = routeAbove(prefix);
  if (above && neighborRoute_.contains(above->key)) {
    for (const Bits addr : AddrSet(neighborRoute_[above->key])) {
      if (!inside(family_, addr, prefix)) continue;
      removeHostRoute(addr, neighborTable_);
      changed.insert(addr);
      neighborRoute_[above->key].erase(addr);
    }
  }
  changed.merge(promoteArpEntries(intfs, route));
  if (!changed.empty()) doMerge(changed);
}

AddrSet Machine::handleDeletedAdjacency(const Prefix& prefix) {
  AddrSet result;
  if (!neighborRoute_.contains(prefix)) return result;
  for (const Bits addr : AddrSet(neighborRoute_[prefix])) {
    removeHostRoute(addr, neighborTable_);
    neighborRoute_[prefix].erase(addr);
    result.insert(addr);
  }
  return result;
}

void Machine::handleFec(FecId fec) {
  if (!adjacencyToPrefix_.contains(fec)) return;
  for (const auto& prefix : shortestFirst(adjacencyToPrefix_[fec])) {
    if (!adjacencyToPrefix_.contains(fec) || !adjacencyToPrefix_[fec].contains(prefix)) continue;
    // A listed prefix without a FIB route is handled like a default route without a FEC.
    const Route route = lookUp(routeStatus, prefix).value_or(Route{});
    if (prefix.len == family_.width && owns(route)) continue;
    handleAdjacency(route);
  }
}

// Neighbours

void Machine::handleArpEntry(const std::string& intf, Bits addr) {
  if (skipInterface(intf)) return;
  if (world_.neighborDir.at(intf)[family_.slot].contains(addr)) {
    handleAddedArpEntry(addr, intf);
  } else {
    handleDeletedArpEntry(addr, intf);
  }
  doMerge({addr});
}

void Machine::handleArpEntries(const std::string& intf) {
  if (skipInterface(intf)) return;
  AddrSet changed;
  for (const auto& [addr, mac] : world_.neighborDir.at(intf)[family_.slot]) {
    handleAddedArpEntry(addr, intf);
    changed.insert(addr);
  }
  if (!changed.empty()) doMerge(changed);
}

void Machine::handleArpEntries() {
  if (!initialized_) return;
  for (const auto& [intf, table] : world_.neighborDir) handleArpEntries(intf);
}

void Machine::handleDeletedTable(const std::string& intf, const Neighbors& left) {
  if (skipInterface(intf)) return;
  AddrSet changed;
  for (const auto& [addr, mac] : left[family_.slot]) {
    handleDeletedArpEntry(addr, intf);
    changed.insert(addr);
  }
  if (!changed.empty()) doMerge(changed);
}

void Machine::handleAddedArpEntry(Bits addr, const std::string& intf) {
  const auto prefix = checkIpAddressAgainstFib(addr, intf);
  if (!prefix) return;
  const auto route = doFibLookup(*prefix);
  if (route) fixupArpRoute(addr, *route);
}

void Machine::handleDeletedArpEntry(Bits addr, const std::string& intf) {
  if (hasNeighborRoute(addr)) handleAddedArpEntry(addr, intf);
}

void Machine::fixupArpRoute(Bits addr, const Route& route) {
  if (route.fec == 0) return;
  ViaSet vias;
  const auto fec = fecVias(route.fec);
  if (fec.size() > kMaxVias) throw std::range_error("too many vias");
  for (const auto& via : fec) {
    const auto table = world_.neighborDir.find(via.intf);
    if (via.hop == 0 && table != world_.neighborDir.end() &&
        table->second[family_.slot].contains(addr)) {
      vias.insert({addr, via.intf});
    }
  }

  auto& filed = neighborRoute_[route.key];
  filed.insert(addr);
  const auto existing = lookUp(neighborTable_.routes, host(addr));
  auto& adjacencies = neighborTable_.adjacencies;
  if (vias.empty()) {
    if (existing) adjacencies.drop(existing->fec);
    neighborTable_.routes.erase(host(addr));
    filed.erase(addr);
    if (filed.empty()) unfile(route.fec, route.key);
    return;
  }
  fileUnder(route.fec, route.key);
  if (existing && adjacencies.vias(existing->fec) == vias) return;
  addRouteToRouteTable(neighborTable_.routes, false, addr, adjacencies.getOrCreate(vias),
                       "attached_");
  if (existing) adjacencies.drop(existing->fec);
}

AddrSet Machine::promoteArpEntries(const IntfSet& intfs, const Route& route) {
  AddrSet result;
  if (!initialized_) return result;
  for (const auto& intf : intfs) {
    const auto table = world_.neighborDir.find(intf);
    if (table == world_.neighborDir.end() || skipInterface(intf)) continue;
    for (const auto& [addr, mac] : table->second[family_.slot]) {
      if (checkIpAddressAgainstFib(addr, intf) && inside(family_, addr, route.key)) {
        result.insert(addr);
      }
    }
  }
  for (const Bits addr : result) fixupArpRoute(addr, route);
  return result;
}

void Machine::doMerge(const AddrSet& changed) {
  if (!initialized_) {
    toMerge_.insert(changed.begin(), changed.end());
    return;
  }
  FecId heldFec = 0;
  for (const Bits addr : changed) {
    const Prefix prefix = host(addr);
    if (heldFec != 0) fibAdjacencies_.drop(heldFec);
    const auto old = lookUp(routeStatus, prefix);
    heldFec = old && owns(*old) ? old->fec : 0;

    const auto receive = lookUp(receiveTable_.routes, prefix);
    const auto fib = doFibLookup(prefix);
    const auto neighbor = lookUp(neighborTable_.routes, prefix);
    if (receive && family_.mergesReceiveRoutes) {
      const ViaSet vias = receive->type == "receive_" ? receiveTable_.adjacencies.vias(receive->fec)
                                                      : ViaSet{{0, ""}};
      addRouteToRouteTable(routeStatus, true, addr, fibAdjacencies_.getOrCreate(vias),
                           receive->type);
    } else if (fib && fib->fec != 0) {
      addRouteToRouteTable(routeStatus, true, addr, fib->fec, fib->type);
    } else if (!fib && neighbor) {
      const ViaSet vias = neighborTable_.adjacencies.vias(neighbor->fec);
      addRouteToRouteTable(routeStatus, true, addr, fibAdjacencies_.getOrCreate(vias), "attached_");
    } else {
      routeStatus.erase(prefix);
    }
  }
  if (heldFec != 0) fibAdjacencies_.drop(heldFec);
}

// Receive routes

void Machine::handleVrf(const std::string& intf) {
  const auto l3Vrf = world_.l3Vrf.find(intf);
  if (world_.intfs.contains(intf) && l3Vrf != world_.l3Vrf.end() && l3Vrf->second == vrf_) {
    vrfIntfs_.insert(intf);
    handleIpIntfStatus(intf);
    // A new reactor is notified of each attribute that it watches.
    for (int left = family_.addressAttributes; left > 0; --left) recomputeReceiveRoutes(intf);
  } else {
    vrfIntfs_.erase(intf);
    handleIpIntfStatus(intf);
  }
}

void Machine::handleAddresses(const std::string& intf) {
  if (vrfIntfs_.contains(intf)) recomputeReceiveRoutes(intf);
}

void Machine::handleIpIntfStatus(const std::string& intf) {
  if (vrfIntfs_.contains(intf) && world_.intfs.contains(intf)) return;
  AddrSet changed;
  removeReceiveRoutes(intf, changed);
  doMerge(changed);
}

void Machine::recomputeReceiveRoutes(const std::string& intf) {
  const Interface& status = world_.intfs.at(intf);
  AddrSet changed;
  removeReceiveRoutes(intf, changed);
  if (family_.number == 4) {
    if (status.primary != AddrLen{}) {
      addActiveReceiveRoutes(intf, status.primary, changed);
      intfNameToPrimary_[intf] = status.primary;
    }
    for (const auto& secondary : status.secondary) {
      addActiveReceiveRoutes(intf, secondary, changed);
      intfNameToSecondary_[intf].insert(secondary);
    }
  } else {
    auto& recorded = intfNameToAddrs_[intf];
    for (const auto& addr : status.addrs6) {
      if (isLinkLocal(addr.addr)) continue;
      addActiveReceiveRoutes(intf, addr, changed);
      recorded.insert(addr);
    }
  }
  doMerge(changed);
}

void Machine::addActiveReceiveRoutes(const std::string& intf, const AddrLen& addr,
                                     AddrSet& changed) {
  if (addr.addr == 0) return;
  addReceiveRoute(intf, addr.addr, "receive_", changed);
  if (!family_.derivesBroadcast || addr.len > 30) return;
  const Bits mask = hostMask(family_, addr.len);
  addReceiveRoute(intf, addr.addr & ~mask, "receiveBcast_", changed);
  addReceiveRoute(intf, addr.addr | mask, "receiveBcast_", changed);
}

void Machine::addReceiveRoute(const std::string& intf, Bits addr, const std::string& type,
                              AddrSet& changed) {
  auto& adjacencies = receiveTable_.adjacencies;
  const auto replaced = lookUp(receiveTable_.routes, host(addr));
  const FecId fec = type == "receive_" ? adjacencies.getOrCreate({{0, intf}}) : 0;
  addRouteToRouteTable(receiveTable_.routes, false, addr, fec, type);
  if (replaced) adjacencies.drop(replaced->fec);
  receiveAddrToIntfName_[addr] = intf;
  changed.insert(addr);
}

void Machine::removeReceiveRoutes(const std::string& intf, AddrSet& changed) {
  if (const auto it = intfNameToPrimary_.find(intf); it != intfNameToPrimary_.end()) {
    const AddrLen primary = it->second;
    intfNameToPrimary_.erase(it);
    removeAddrMask(intf, primary, changed);
  }
  // The overlap test of each following address reads the remaining set, so each address is erased
  // before its routes are removed.
  auto& secondaries = intfNameToSecondary_[intf];
  for (const auto& secondary : std::set<AddrLen>(secondaries)) {
    secondaries.erase(secondary);
    removeAddrMask(intf, secondary, changed);
  }
  for (const auto& addr : intfNameToAddrs_[intf]) removeAddrMask(intf, addr, changed);
  intfNameToSecondary_.erase(intf);
  intfNameToAddrs_.erase(intf);
}

void Machine::removeAddrMask(const std::string& intf, const AddrLen& addr, AddrSet& changed) {
  const auto remove = [&](Bits derived) {
    const auto owner = receiveAddrToIntfName_.find(derived);
    if (owner == receiveAddrToIntfName_.end() || owner->second != intf) return;
    removeReceiveRoute(intf, derived);
    changed.insert(derived);
  };
  if (addr.addr != 0) remove(addr.addr);
  if (!family_.derivesBroadcast || addr.len > 30) return;
  const Bits mask = hostMask(family_, addr.len);
  remove(addr.addr & ~mask);
  remove(addr.addr | mask);
}

void Machine::removeReceiveRoute(const std::string& intf, Bits addr) {
  // True when a remaining address of the interface also derives this receive address.
  const auto yields = [this, addr](const AddrLen& left) {
    if (left.addr == 0) return false;
    const Bits mask = hostMask(family_, left.len);
    return addr == left.addr ||
           (left.len <= 30 && (addr == (left.addr & ~mask) || addr == (left.addr | mask)));
  };
  const auto primary = intfNameToPrimary_.find(intf);
  if (primary != intfNameToPrimary_.end() && yields(primary->second)) return;
  for (const auto& secondary : intfNameToSecondary_[intf]) {
    if (yields(secondary)) return;
  }
  removeHostRoute(addr, receiveTable_);
  receiveAddrToIntfName_.erase(addr);
}

// Virtual addresses

void Machine::handleVirtualIp(const std::pair<std::string, AddrLen>& virtualIp) {
  const auto& [vrf, addr] = virtualIp;
  if (vrf != vrf_) return;
  if (!world_.virtualIps[family_.slot].contains(virtualIp)) {
    doMerge({addr.addr});
    return;
  }
  const auto route = lookUp(routeStatus, host(addr.addr));
  if (!route || route->type != "attached_") return;
  routeStatus.erase(route->key);
  fibAdjacencies_.drop(route->fec);
}

// State for dumps

ViaSet Machine::resolve(FecId fec) const {
  const auto vias = fecVias(fec);
  return vias.empty() ? fibAdjacencies_.vias(fec) : ViaSet(vias.begin(), vias.end());
}

template <class Value>
json Machine::show(const std::set<Value>& values) const {
  json list = json::array();
  for (const auto& value : values) list.push_back(Golden::show(family_, value));
  return list;
}

json Machine::show(const ViaSet& vias) const {
  json list = json::array();
  for (const auto& via : vias) {
    list.push_back({{"hop", Golden::show(family_, via.hop)}, {"intf", via.intf}});
  }
  return list;
}

json Machine::show(const Route& route, const ViaSet& vias) const {
  return {{"prefix", Golden::show(family_, route.key)},
          {"type", route.type},
          {"metric", route.metric},
          {"preference", route.preference},
          {"fec", route.fec},
          {"vias", show(vias)}};
}

json Machine::show(const HostTable& table) const {
  json list = json::array();
  for (const auto& [prefix, route] : table.routes) {
    list.push_back(show(route, table.adjacencies.vias(route.fec)));
  }
  return list;
}

json Machine::dump() const {
  const auto text = [this](const auto& value) { return Golden::show(family_, value); };
  const auto object = [](const auto& map, const auto& key, const auto& value) {
    json members = json::object();
    for (const auto& [name, member] : map) members[key(name)] = value(member);
    return members;
  };
  const auto itself = [](const auto& value) { return value; };
  const auto shown = [this](const auto& set) { return show(set); };
  const auto fecText = [](FecId fec) { return std::to_string(fec); };
  json hostRoutes = json::array();
  for (const auto& [prefix, route] : routeStatus) {
    if (prefix.len == family_.width) hostRoutes.push_back(show(route, resolve(route.fec)));
  }
  json fibAdjacencies = json::array();
  for (const auto& [id, adjacency] : fibAdjacencies_.all()) {
    fibAdjacencies.push_back({{"vias", show(adjacency.vias)}, {"refs", adjacency.refs}});
  }
  json hostAdjacencies = json::array();
  const auto showAdjacencies = [&](const std::string& name, const HostTable& table) {
    for (const auto& [id, adjacency] : table.adjacencies.all()) {
      hostAdjacencies.push_back(
          {{"table", name}, {"vias", show(adjacency.vias)}, {"refs", adjacency.refs}});
    }
  };
  showAdjacencies("receiveTable", receiveTable_);
  showAdjacencies(family_.neighborTable, neighborTable_);
  std::sort(fibAdjacencies.begin(), fibAdjacencies.end());
  std::sort(hostAdjacencies.begin(), hostAdjacencies.end());

  json dump = {{"vrf", vrf_},
               {"family", family_.number},
               {"initialized", alive ? json(initialized_) : json(nullptr)},
               {"routeTable", hostRoutes},
               {"receiveTable", show(receiveTable_)},
               {family_.neighborTable, show(neighborTable_)},
               {family_.neighborRoute, object(neighborRoute_, text, shown)},
               {"prefixToRoute",
                object(prefixToRoute_, text,
                       [this](const Route& route) { return show(route, resolve(route.fec)); })},
               {"prefixToAdjacency", object(prefixToAdjacency_, text, itself)},
               {"adjacencyToPrefix", object(adjacencyToPrefix_, fecText, shown)},
               {"receiveAddrToIntfName", object(receiveAddrToIntfName_, text, itself)},
               {"toMerge", show(toMerge_)},
               {"hostAdjacencies", hostAdjacencies},
               {"fibAdjacencies", fibAdjacencies},
               {"hostRoutesSynced", readiness_.hostRoutesSynced[family_.slot]},
               {"ready", readiness_.ready[family_.slot]}};
  if (family_.number == 4) {
    dump["intfNameToAddrWithMask"] = object(intfNameToPrimary_, itself, text);
    dump["intfNameToSecondaryAddrWithMask"] = object(intfNameToSecondary_, itself, shown);
  } else {
    dump["intfNameToAddrWithMask"] = object(intfNameToAddrs_, itself, shown);
  }
  return {{"dump", dump}};
}

}  // namespace Golden
