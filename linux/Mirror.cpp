// A copy of the kernel's objects, updated by its messages.
#include "linux/Mirror.h"

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <string>

#include "linux/ObjectSet.h"
#include "linux/RouteTable.h"

namespace Linux {

template <>
struct Identity<InterfaceAddress> {
  static uint32_t hash(const InterfaceAddress& a) { return hashOf(a.addr); }
  static bool isSame(const InterfaceAddress& a, const InterfaceAddress& b) {
    return a.addr == b.addr && a.len == b.len && a.peer == b.peer;
  }
};

template <>
struct Identity<Neighbor> {
  static uint32_t hash(const Neighbor& n) { return hashOf(n.addr); }
  static bool isSame(const Neighbor& a, const Neighbor& b) { return a.addr == b.addr; }
};

template <>
struct Identity<FdbEntry> {
  static uint32_t hash(const FdbEntry& e) {
    uint64_t mac = 0;
    for (const uint8_t byte : e.mac.bytes()) mac = mac << 8 | byte;
    return Kiv::hashWords((uint64_t{e.port} << 32) | e.bridge, mac << 16 | e.vlan);
  }
  static bool isSame(const FdbEntry& a, const FdbEntry& b) {
    return a.port == b.port && a.bridge == b.bridge && a.vlan == b.vlan && a.mac == b.mac;
  }
};

template <>
struct Identity<Nexthop> {
  static uint32_t hash(const Nexthop& n) { return Kiv::hashWord(n.id); }
  static bool isSame(const Nexthop& a, const Nexthop& b) { return a.id == b.id; }
};

/// All objects, and the effects of a change on other objects.
class Mirror::State {
 public:
  explicit State(uint8_t ownProtocol) : ownProtocol_(ownProtocol) {}

  /// An interface and its addresses, neighbours and FDB entries, which may be known before the
  /// interface itself.
  struct Interface {
    Link link;
    bool isKnown = false;
    uint16_t dump = 0;
    ObjectSet<InterfaceAddress> addresses;
    ObjectSet<Neighbor> neighbors;
    ObjectSet<FdbEntry> fdb;  ///< of its bridge
    size_t ipv4Addresses = 0;

    bool isVacant() const {
      return !isKnown && addresses.empty() && neighbors.empty() && fdb.empty();
    }
  };

  void put(const Link& link);
  void put(const InterfaceAddress& addr);
  void put(const Neighbor& neighbor);
  void put(const FdbEntry& entry);
  void put(const Nexthop& nexthop);
  void erase(const Link& link);
  void erase(const InterfaceAddress& addr);
  void erase(const Neighbor& neighbor);
  void erase(const FdbEntry& entry);
  void erase(const Nexthop& nexthop);
  void applyRoute(const Route& route, const Change& change);

  void beginDump();
  void endDump();

  const Interface* find(LinkIndex index) const {
    const auto* found = interfaces_.find(index);
    return found == nullptr ? nullptr : found->get();
  }
  const Nexthop* nexthop(uint32_t id) const {
    return nexthops_.find({.id = id, .hop = {}, .group = {}});
  }

  Observer* observer_ = nullptr;
  uint8_t ownProtocol_ = 0;
  Kiv::HashMap<LinkIndex, std::unique_ptr<Interface>> interfaces_;
  ObjectSet<Nexthop> nexthops_;
  RouteTable routes_{[this](TableId table, const Prefix& prefix) {
    if (observer_ != nullptr) observer_->onRoute(table, prefix);
  }};

 private:
  Interface& interface(LinkIndex index) {
    auto& found = *interfaces_.tryEmplace(index).first;
    if (!found) found = std::make_unique<Interface>();
    return *found;
  }
  Interface* findMutable(LinkIndex index) {
    auto* found = interfaces_.find(index);
    return found == nullptr ? nullptr : found->get();
  }
  void dropVacant(LinkIndex index) {
    const Interface* known = find(index);
    if (known != nullptr && known->isVacant()) interfaces_.erase(index);
  }
  std::vector<LinkIndex> indexes() const { return interfaces_.keys(); }

  void tellLink(LinkIndex index) {
    if (observer_ != nullptr) observer_->onLink(index);
  }
  void tellFdb(const FdbEntry& entry, bool present) {
    if (observer_ != nullptr) observer_->onFdbEntry(entry, present);
  }

  void ipv4AddressGone(LinkIndex link, Zemit::IpAddr addr);
  TableId vrfTableOf(const Interface* interface) const;
  void nexthopChanged(uint32_t id);
  void dropNexthopsOn(LinkIndex link);
  void index(const Nexthop& nexthop);
  void unindex(const Nexthop& nexthop);

  UserIndex<LinkIndex> nexthopsByLink_;
  UserIndex<uint32_t> groupsByMember_;
  uint16_t dump_ = 0;
};

void Mirror::State::put(const Link& link) {
  Interface& interface = this->interface(link.index);
  interface.dump = dump_;
  const Link before = interface.link;
  const bool wasKnown = interface.isKnown;
  if (wasKnown && (before.name != link.name || before.kind != link.kind)) {
    interface.isKnown = false;
    tellLink(link.index);
  }
  const bool differs = !interface.isKnown || before != link;
  interface.link = link;
  interface.isKnown = true;
  if (differs) tellLink(link.index);
  // When a port leaves its bridge, the kernel removes its own address without a notification.
  for (const FdbEntry& entry : interface.fdb.objects()) {
    if (entry.bridge != link.master && entry.bridge != link.index) erase(entry);
  }
  // Also for an unchanged state, because a notification from before a dump may be applied after it.
  if (!link.isUp || !link.hasCarrier) dropNexthopsOn(link.index);
  const bool isRevived =
      wasKnown && ((link.isUp && !before.isUp) || (link.hasCarrier && !before.hasCarrier));
  routes_.linkIs(link, isRevived);
}

void Mirror::State::erase(const Link& link) {
  const LinkIndex index = link.index;
  dropNexthopsOn(index);
  routes_.linkGone(index);
  Interface* const interface = findMutable(index);
  if (interface == nullptr) return;
  for (const FdbEntry& entry : interface->fdb.objects()) {
    interface->fdb.erase(entry);
    tellFdb(entry, false);
  }
  for (const Neighbor& neighbor : interface->neighbors.objects()) {
    interface->neighbors.erase(neighbor);
    if (observer_ != nullptr) observer_->onNeighbor(index, neighbor.addr);
  }
  for (const InterfaceAddress& addr : interface->addresses.objects()) {
    interface->addresses.erase(addr);
    if (observer_ != nullptr) observer_->onAddress(index, addr.addr);
  }
  interfaces_.erase(index);
  tellLink(index);
}

void Mirror::State::put(const InterfaceAddress& addr) {
  Interface& interface = this->interface(addr.link);
  const size_t before = interface.addresses.size();
  const bool differs = interface.addresses.put(addr, dump_);
  if (familyOf(addr.addr) == 4) {
    interface.ipv4Addresses += interface.addresses.size() - before;
    if (interface.isKnown) routes_.ipv4Enabled(interface.link);
  }
  if (!differs) return;
  if (observer_ != nullptr) observer_->onAddress(addr.link, addr.addr);
}

void Mirror::State::erase(const InterfaceAddress& addr) {
  Interface* const interface = findMutable(addr.link);
  const auto* addr4 = std::get_if<Zemit::IpAddr>(&addr.addr);
  if (interface != nullptr && interface->addresses.erase(addr)) {
    if (addr4 != nullptr) --interface->ipv4Addresses;
    if (observer_ != nullptr) observer_->onAddress(addr.link, addr.addr);
    dropVacant(addr.link);
  }
  if (addr4 != nullptr) ipv4AddressGone(addr.link, *addr4);
}

void Mirror::State::ipv4AddressGone(LinkIndex link, Zemit::IpAddr addr) {
  const Interface* interface = find(link);
  if (interface == nullptr || interface->ipv4Addresses == 0) routes_.ipv4Disabled(link);
  if (!routes_.isPreferredSource(addr)) return;
  // The kernel looks for the address on the other interfaces of the VRF.
  const TableId table = vrfTableOf(interface);
  const InterfaceAddress like{.link = 0, .addr = addr, .peer = {}};
  const auto hasAddr = [&](const InterfaceAddress& other) { return other.addr == like.addr; };
  for (const auto& [index, other] : interfaces_) {
    if (vrfTableOf(other.get()) == table && other->addresses.findIf(like, hasAddr) != nullptr)
      return;
  }
  routes_.preferredSourceGone(table, addr);
}

/// The table in which the kernel looks up packets from an interface.
TableId Mirror::State::vrfTableOf(const Interface* interface) const {
  if (interface != nullptr) {
    if (interface->link.vrfTable != 0) return interface->link.vrfTable;
    const Interface* master = find(interface->link.master);
    if (master != nullptr && master->link.vrfTable != 0) return master->link.vrfTable;
  }
  return RT_TABLE_MAIN;
}

void Mirror::State::put(const Neighbor& neighbor) {
  if (neighbor.isProxy) return;
  constexpr uint16_t kUsable = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT;
  if ((neighbor.state & kUsable) == 0) {
    erase(neighbor);
  } else if (interface(neighbor.link).neighbors.put(neighbor, dump_) && observer_ != nullptr) {
    observer_->onNeighbor(neighbor.link, neighbor.addr);
  }
}

void Mirror::State::erase(const Neighbor& neighbor) {
  Interface* const interface = findMutable(neighbor.link);
  if (neighbor.isProxy || interface == nullptr || !interface->neighbors.erase(neighbor)) return;
  if (observer_ != nullptr) observer_->onNeighbor(neighbor.link, neighbor.addr);
  dropVacant(neighbor.link);
}

void Mirror::State::put(const FdbEntry& entry) {
  if (entry.bridge != 0 && interface(entry.port).fdb.put(entry, dump_)) tellFdb(entry, true);
}

void Mirror::State::erase(const FdbEntry& entry) {
  Interface* const interface = findMutable(entry.port);
  if (interface == nullptr || !interface->fdb.erase(entry)) return;
  tellFdb(entry, false);
  dropVacant(entry.port);
}

void Mirror::State::put(const Nexthop& nexthop) {
  if (const Nexthop* known = nexthops_.find(nexthop)) unindex(*known);
  const bool differs = nexthops_.put(nexthop, dump_);
  index(nexthop);
  if (differs) nexthopChanged(nexthop.id);
}

void Mirror::State::erase(const Nexthop& nexthop) {
  const Nexthop* const known = nexthops_.find(nexthop);
  if (known != nullptr) {
    unindex(*known);
    nexthops_.erase(nexthop);
  }
  routes_.nexthopGone(nexthop.id);
  // The kernel removes a group with its last member.
  for (const uint32_t id : groupsByMember_.of(nexthop.id)) {
    const Nexthop* const found = this->nexthop(id);
    // The list may name a group twice, and the group may be gone by now.
    if (found == nullptr) continue;
    Nexthop group = *found;
    groupsByMember_.remove(nexthop.id, id);
    std::erase_if(group.group, [&](const auto& member) { return member.first == nexthop.id; });
    if (group.group.empty()) {
      erase(group);
    } else {
      nexthops_.change(group);
      routes_.nexthopChanged(id);
    }
  }
}

/// A nexthop object or group changed. So did its routes and the groups that contain it.
void Mirror::State::nexthopChanged(uint32_t id) {
  routes_.nexthopChanged(id);
  for (const uint32_t group : groupsByMember_.of(id)) routes_.nexthopChanged(group);
}

void Mirror::State::dropNexthopsOn(LinkIndex link) {
  for (const uint32_t id : nexthopsByLink_.of(link)) erase({.id = id, .hop = {}, .group = {}});
}

void Mirror::State::index(const Nexthop& nexthop) {
  if (nexthop.hop && nexthop.hop->link != 0) nexthopsByLink_.add(nexthop.hop->link, nexthop.id);
  for (const auto& [member, weight] : nexthop.group) groupsByMember_.add(member, nexthop.id);
}

void Mirror::State::unindex(const Nexthop& nexthop) {
  if (nexthop.hop && nexthop.hop->link != 0) nexthopsByLink_.remove(nexthop.hop->link, nexthop.id);
  for (const auto& [member, weight] : nexthop.group) groupsByMember_.remove(member, nexthop.id);
}

void Mirror::State::applyRoute(const Route& route, const Change& change) {
  if (ownProtocol_ != 0 && route.protocol == ownProtocol_) {
    if (change.present && change.replaces) routes_.dropReplaced(route);
    return;
  }
  if (!change.present) {
    routes_.erase(route);
  } else if (route.nexthop != 0 && !route.hops.empty() && nexthop(route.nexthop) != nullptr) {
    // The nexthop object has the next hops. Those in the message are not stored.
    Route plain = route;
    plain.hops.clear();
    routes_.put(plain, change.replaces, change.appends);
  } else {
    routes_.put(route, change.replaces, change.appends);
  }
}

void Mirror::State::beginDump() {
  ++dump_;
  routes_.beginDump();
}

void Mirror::State::endDump() {
  for (const LinkIndex index : indexes()) {
    Interface& interface = *findMutable(index);
    if (interface.isKnown && interface.dump != dump_) {
      // Another interface with the same index may have its addresses and neighbours already.
      interface.isKnown = false;
      interface.link = Link();
      tellLink(index);
    }
    for (const Neighbor& neighbor : interface.neighbors.unseen(dump_)) {
      interface.neighbors.erase(neighbor);
      if (observer_ != nullptr) observer_->onNeighbor(index, neighbor.addr);
    }
    for (const InterfaceAddress& addr : interface.addresses.unseen(dump_)) {
      interface.addresses.erase(addr);
      if (familyOf(addr.addr) == 4) --interface.ipv4Addresses;
      if (observer_ != nullptr) observer_->onAddress(index, addr.addr);
    }
    for (const FdbEntry& entry : interface.fdb.unseen(dump_)) {
      interface.fdb.erase(entry);
      tellFdb(entry, false);
    }
    dropVacant(index);
  }
  for (const Nexthop& nexthop : nexthops_.unseen(dump_)) erase(nexthop);
  routes_.endDump();
}

Mirror::Mirror(uint8_t ownProtocol) : state_(std::make_unique<State>(ownProtocol)) {}

Mirror::~Mirror() = default;

void Mirror::setObserver(Observer* observer) {
  state_->observer_ = observer;
}

void Mirror::apply(const Change& change) {
  std::visit(
      [&](const auto& object) {
        if constexpr (std::is_same_v<decltype(object), const Route&>) {
          state_->applyRoute(object, change);
        } else if (change.present) {
          state_->put(object);
        } else {
          state_->erase(object);
        }
      },
      change.object);
}

void Mirror::beginDump() {
  state_->beginDump();
}

void Mirror::endDump() {
  state_->endDump();
}

const Link* Mirror::link(LinkIndex index) const {
  const auto* found = state_->find(index);
  return found != nullptr && found->isKnown ? &found->link : nullptr;
}

const Link* Mirror::linkByName(std::string_view name) const {
  for (const auto& [index, interface] : state_->interfaces_) {
    if (interface->isKnown && interface->link.name == name) return &interface->link;
  }
  return nullptr;
}

const InterfaceAddress* Mirror::address(LinkIndex link, const Address& addr) const {
  const auto* found = state_->find(link);
  if (found == nullptr) return nullptr;
  return found->addresses.findIf({.link = link, .addr = addr, .peer = {}},
                                 [&](const InterfaceAddress& other) { return other.addr == addr; });
}

const Neighbor* Mirror::neighbor(LinkIndex link, const Address& addr) const {
  const auto* found = state_->find(link);
  if (found == nullptr) return nullptr;
  return found->neighbors.find({.link = link, .addr = addr, .mac = {}});
}

std::vector<Route> Mirror::routes(TableId table, const Prefix& prefix) const {
  std::vector<Route> routes = state_->routes_.routes(table, prefix);
  for (Route& route : routes) {
    if (route.nexthop != 0) route.hops = resolvedHops(*this, route);
  }
  return routes;
}

const Nexthop* Mirror::nexthop(uint32_t id) const {
  return state_->nexthop(id);
}

void Mirror::forEachLink(const std::function<void(const Link&)>& visit) const {
  for (const auto& [index, interface] : state_->interfaces_) {
    if (interface->isKnown) visit(interface->link);
  }
}

void Mirror::forEachAddress(LinkIndex link,
                            const std::function<void(const InterfaceAddress&)>& visit) const {
  if (const auto* found = state_->find(link)) found->addresses.forEach(visit);
}

void Mirror::forEachNeighbor(LinkIndex link,
                             const std::function<void(const Neighbor&)>& visit) const {
  if (const auto* found = state_->find(link)) found->neighbors.forEach(visit);
}

void Mirror::forEachFdbEntry(const std::function<void(const FdbEntry&)>& visit) const {
  for (const auto& [index, interface] : state_->interfaces_) interface->fdb.forEach(visit);
}

void Mirror::forEachRoute(const std::function<void(TableId, const Prefix&)>& visit) const {
  state_->routes_.forEach(visit);
}

void Mirror::forEachNexthop(const std::function<void(const Nexthop&)>& visit) const {
  state_->nexthops_.forEach(visit);
}

std::vector<NextHop> resolvedHops(const Mirror& mirror, const Route& route) {
  switch (route.type) {
    case RTN_BLACKHOLE:
    case RTN_UNREACHABLE:
    case RTN_PROHIBIT:
    case RTN_THROW:
      return {};
    default:
      break;
  }
  const Nexthop* const nexthop = mirror.nexthop(route.nexthop);
  if (route.nexthop == 0 || nexthop == nullptr) return route.hops;
  std::vector<NextHop> hops;
  if (nexthop->isBlackhole) return hops;
  if (nexthop->hop) hops.push_back(*nexthop->hop);
  for (const auto& [id, weight] : nexthop->group) {
    const Nexthop* const member = mirror.nexthop(id);
    if (member == nullptr || !member->hop) continue;
    hops.push_back(*member->hop);
    hops.back().weight = weight;
  }
  return hops;
}

}  // namespace Linux
