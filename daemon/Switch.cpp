// A switch: the tables and the state machines of all its VRFs.
#include "daemon/Switch.h"

#include <unistd.h>

#include <algorithm>
#include <vector>

#include "daemon/EngineFamily.h"
#include "daemon/RootTables.h"
#include "daemon/SharedNames.h"
#include "hostcore/Tracing.h"
#include "platform/kiv/containers/Exception.h"
#include "platform/tovan/Reports.h"
#include "platform/tovan/SharedNames.h"

namespace Daemon {

Switch::Switch(Options options)
    : options_(std::move(options)),
      intfStatusDir_(Kiv::make<Interface::AllIntfStatusDir>("intfStatusDir")),
      neighborDir_(Kiv::make<Arp::NeighborDir>("neighborDir")) {
  if (!options_.sharedName.empty()) {
    KIV_REQUIRE(isSharedName(options_.sharedName),
                "the name of shared tables has 1 to 100 bytes, and neither \".\" nor \"/\"");
    removeSharedLeftovers(options_.sharedName);
    sharedTables_.process = ::getpid();
  }
  openShared<Ipv4>();
  openShared<Ipv6>();
  vrf(kDefaultVrf);
}

Switch::SharedTablesRemover::~SharedTablesRemover() {
  if (process == ::getpid()) Tovan::removeTablesOf(sharedName);
}

Tovan::Access Switch::access() const {
  return options_.sharedName.empty() ? Tovan::Access::Embedded : Tovan::Access::Write;
}

template <class F>
void Switch::openShared() {
  const std::string name = options_.sharedName.empty() ? "forwardingStatus" : options_.sharedName;
  std::get<SharedTables<F>>(shared_) = {
      .forwarding = Kiv::make<typename F::ForwardingStatus>(name, access()),
      .virtualIps = Kiv::make<typename F::VirtualIpStatus>("virtualIpStatus"),
      .intfs = Kiv::make<typename F::IpStatus>("ipStatus")};
}

Vrf& Switch::vrf(std::string_view name) {
  if (const auto known = vrfs_.find(name); known != vrfs_.end()) return known->second;
  const L3::VrfName vrfName{Kiv::String(name)};
  Vrf vrf{.name = vrfName,
          .readiness = Kiv::make<RovelReady::VrfStatus>(vrfName),
          .seqConfig = Kiv::make<Routing::SeqConfig>("seqConfig"),
          .routings = {}};
  openRouting<Ipv4>(vrf);
  openRouting<Ipv6>(vrf);
  Vrf& added = vrfs_.emplace(name, std::move(vrf)).first->second;
  newMachine(added, added.routing<Ipv4>());
  newMachine(added, added.routing<Ipv6>());
  forEachFamily([&](auto family) {
    added.routing<decltype(family)>().machine()->account().isSettling = &isSettling_;
  });
  openHistory(vrfs_.find(name)->first, added, true);
  publishState(added);
  return added;
}

/// Publishes the state of a VRF's machines to the readers of its route tables.
void Switch::publishState(const Vrf& vrf) const {
  if (options_.sharedName.empty()) return;
  forEachFamily([&](auto family) {
    using F = decltype(family);
    const auto& routing = vrf.routing<F>();
    const auto* machine = routing.machine();
    routing.routeStatus->stateIs({.loading = loading_,
                                  .initialized = machine != nullptr && machine->initialized(),
                                  .synchronized = F::hostRoutesSynced(*vrf.readiness),
                                  .incomplete = incomplete_});
  });
}

/// Changes a part of the state of all tables.
void Switch::publish(bool& former, bool now) {
  if (std::exchange(former, now) == now) return;
  for (const auto& [name, vrf] : vrfs_) publishState(vrf);
}

Vrf& Switch::knownVrf(std::string_view name) {
  const auto known = vrfs_.find(name);
  KIV_REQUIRE(known != vrfs_.end(), "there is no VRF \"" + std::string(name) + "\"");
  return known->second;
}

void Switch::traceLevelIs(std::string_view vrf, uint32_t levels) {
  Vrf& traced = knownVrf(vrf);
  forEachFamily([&](auto family) {
    using F = decltype(family);
    if (auto* machine = traced.routing<F>().machine()) {
      HostCore::tracedLevelsAre<EngineFamily<F>>(*machine, levels);
    }
  });
}

void Switch::traceAddressIs(std::string_view vrf, std::string_view address) {
  Vrf& traced = knownVrf(vrf);
  const auto ipv4 = Zemit::IpAddr::parse(address);
  const auto ipv6 = Zemit::Ip6Addr::parse(address);
  KIV_REQUIRE(ipv4 || ipv6 || address.empty(), "\"" + std::string(address) + "\" is no address");
  if (auto* machine = traced.routing<Ipv4>().machine()) {
    HostCore::tracedAddressIs<EngineFamily<Ipv4>>(*machine, ipv4, ipv6.has_value());
  }
  if (auto* machine = traced.routing<Ipv6>().machine()) {
    HostCore::tracedAddressIs<EngineFamily<Ipv6>>(*machine, ipv6, ipv4.has_value());
  }
}

bool Switch::tendTables(bool all) {
  constexpr size_t kPagesATurn = 512;  // a few microseconds for each page
  const uint64_t former = std::exchange(corruptions_, Tovan::corruptionCount());
  if (all || former != corruptions_) {
    tendRound_.turnIsWhole();
  } else {
    tendRound_.turnIs(kPagesATurn);
  }
  bool mayGrow = true;
  const auto tend = [&](auto& table) {
    try {
      table.tend(tendRound_);
    } catch (const Pindo::Exception&) {  // a full table, or damage that was already reported
      mayGrow = false;
    } catch (const std::bad_alloc&) {
      mayGrow = false;
    }
  };
  forEachFamily([&](auto family) {
    using F = decltype(family);
    tend(*shared<F>().forwarding);
    for (const auto& vrf : vrfs_) tend(*vrf.second.template routing<F>().routeStatus);
  });
  return mayGrow;
}

bool Switch::tablesAreCurrent() const {
  bool areCurrent = true;
  forEachFamily([&](auto family) {
    using F = decltype(family);
    areCurrent &= shared<F>().forwarding->isCurrent();
    for (const auto& vrf : vrfs_) {
      areCurrent &= vrf.second.template routing<F>().routeStatus->isCurrent();
    }
  });
  return areCurrent;
}

void Switch::redo() {
  forEachFamily([&](auto family) {
    using F = decltype(family);
    for (const auto& vrf : vrfs_) redo(vrf.second.template routing<F>());
  });
}

template <class F>
void Switch::redo(const HostRouting<F>& routing) {
  auto* machine = routing.machine();
  if (machine == nullptr || !machine->initialized()) return;
  machine->initializedIs(false);
  machine->initializedIs(true);
  if (options_.settles) settleInside(routing, typename F::Prefix());
  const auto addrs = F::AddrSet::AddrSetIs(F::Prefix::null());
  const auto add = [&addrs](const typename F::Route& route) {
    if (route.key.len() == F::Prefix::kMaxLen) addrs->ipIs(route.key.addr(), true);
  };
  const RootTables<F> own(*routing.root);
  routing.routeStatus->forEachRoute(add);
  for (const auto& table : {own.neighbors, own.received, routing.hostStatus})
    table->forEachRoute(add);
  machine->doMerge(addrs);
  const std::vector<typename F::RouteStatus::PtrConst> routeTables{routing.routeStatus};
  routing.adjHelper->validate(routeTables, std::vector{own.neighbors, own.received});
}

template <class F>
void Switch::openRouting(Vrf& vrf) {
  const Kiv::String& name = vrf.name.value();
  const std::string tableName = options_.sharedName.empty()
                                    ? std::string(name.view())
                                    : Tovan::sharedRouteStatusName(options_.sharedName, name);
  vrf.readiness->newRouteStatus(F::kReadyKind);
  HostRouting<F>& routing = vrf.routing<F>();
  routing.routeStatus = Kiv::make<typename F::RouteStatus>(tableName, access());
  routing.hostStatus = Kiv::make<typename F::HostTable>("hostStatus");
  routing.seqInfo = Kiv::make<Rovel::SeqInfo>("seqInfo");
  routing.trie = Kiv::make<typename F::Trie>();
  routing.adjHelper = Kiv::make<typename F::AdjacencyHelper>("adjHelper", shared<F>().forwarding);
  routing.root = F::newRoot(name);
  routing.root->trieIs(routing.trie);
  routing.root->adjHelperIs(routing.adjHelper);
  routing.root->intfStatusDirIs(intfStatusDir_);
}

void Switch::newMachine(Vrf& vrf, HostRouting<Ipv4>& routing) {
  const auto& inputs = shared<Ipv4>();
  routing.root->newRouteSm(activity_, routing.routeStatus, inputs.forwarding, routing.hostStatus,
                           vrf.readiness, vrf.seqConfig, routing.seqInfo, routing.adjHelper,
                           inputs.intfs, neighborDir_, routing.root, inputs.virtualIps, vrf.name);
}

void Switch::newMachine(Vrf& vrf, HostRouting<Ipv6>& routing) {
  const auto& inputs = shared<Ipv6>();
  routing.root->newRouteSm(activity_, routing.routeStatus, inputs.forwarding, routing.hostStatus,
                           vrf.readiness, vrf.seqConfig, routing.seqInfo, routing.adjHelper,
                           inputs.intfs, neighborDir_, inputs.virtualIps, routing.root, vrf.name);
}

void Switch::setInterface(Zemit::IntfId intf, std::string_view vrf) {
  const L3::VrfName vrfName = this->vrf(vrf).name;
  auto& l3Status = *l3Statuses_.tryEmplace(intf).first;
  if (!l3Status) l3Status = Kiv::make<L3::Intf::Status>(intf.name());
  l3Status->vrfIs(vrfName);
  intfStatusDir_->intfIs(intf, true);
  forEachFamily(
      [&](auto family) { family.intfIs(*shared<decltype(family)>().intfs, intf, l3Status); });
}

void Switch::removeInterface(Zemit::IntfId intf) {
  l3Statuses_.erase(intf);  // the statuses below hold it until they go
  intfStatusDir_->intfIs(intf, false);
  forEachFamily([&](auto family) { family.intfDel(*shared<decltype(family)>().intfs, intf); });
}

void Switch::setAddress(Zemit::IntfId intf, const Zemit::IpAddrWithMask& addr, bool secondary,
                        bool present) {
  const Ip::IpIntfStatus::Ptr status = shared<Ipv4>().intfs->ipIntfStatus(intf);
  if (!status) return;
  if (secondary) {
    status->activeSecondaryWithMaskIs(addr, present);
  } else if (present) {
    status->activeAddrWithMaskIs(addr);
  } else if (status->activeAddrWithMask() == addr) {
    status->activeAddrWithMaskIs({});
  }
}

void Switch::setAddress(Zemit::IntfId intf, const Zemit::Ip6AddrWithMask& addr, bool present) {
  const Ip6::IntfStatus::Ptr status = shared<Ipv6>().intfs->intf(intf);
  if (!status) return;
  if (present) {
    status->addrIs(addr, {.active = true});
  } else {
    status->addrDel(addr);
  }
}

template <class Addr>
void Switch::setNeighbor(Zemit::IntfId intf, const Arp::BasicNeighborStatus<Addr>& neighbor,
                         bool present) {
  using F = FamilyOf<Addr>;
  auto& index = std::get<NeighborIndex<F>>(neighborIndices_);
  Arp::ArpIntfStatus::Ptr table(neighborDir_->tableOf(intf));
  if (!table && present) table = neighborDir_->newArpIntfStatus(intf.name());
  if (!table) return;
  F::neighborExpect(*table, neighbor.ipAddr);
  if (present) {
    if (options_.settles) index.insert({neighbor.ipAddr, intf});
    F::neighborIs(*table, neighbor);
  } else {
    index.erase({neighbor.ipAddr, intf});
    F::neighborDel(*table, neighbor.ipAddr);
  }
}

void Switch::setNeighborTable(Zemit::IntfId intf, bool present) {
  if (present) {
    neighborDir_->newArpIntfStatus(intf.name());
    return;
  }
  const auto* table = neighborDir_->tableOf(intf);
  if (table != nullptr && options_.settles) {
    forEachFamily([&](auto family) {
      auto& index = std::get<NeighborIndex<decltype(family)>>(neighborIndices_);
      for (auto it = family.neighbors(*table); it; ++it) index.erase({it.key(), intf});
    });
  }
  neighborDir_->arpIntfStatusDel(intf.name());
}

template <class Addr>
void Switch::setFec(const Tovan::BasicFec<Tovan::BasicVia<Addr>>& fec, bool present) {
  using F = FamilyOf<Addr>;
  auto& forwarding = *shared<F>().forwarding;
  std::set<Zemit::IntfId> concerned;
  if (options_.settles) {
    for (const auto& via : forwarding.fec(fec.id())) concerned.insert(via.intf);
  }
  if (present) {
    forwarding.fecIs(fec);
    for (const auto& via : fec) concerned.insert(via.intf);
  } else {
    forwarding.fecDel(fec.id());
  }
  if (options_.settles) settleOn<F>(concerned);
}

template <class Prefix, class Type>
void Switch::setRoute(std::string_view vrf, const Tovan::BasicRoute<Prefix, Type>& route,
                      bool present) {
  using F = FamilyOf<typename Prefix::Addr>;
  const bool isHost = route.key.len() == Prefix::kMaxLen;
  const HostRouting<F>& routing = this->vrf(vrf).template routing<F>();
  const auto set = [&](auto& table) {
    if (present) {
      table.routeIs(route);
    } else {
      table.routeDel(route.key);
    }
  };
  if (isHost) {
    set(*routing.hostStatus);
  } else {
    set(*routing.routeStatus);
  }
  auto* machine = routing.machine();
  if (machine == nullptr) return;
  if (isHost) {
    machine->handleHostStatusRoute(route.key);
  } else {
    machine->handleStatusRoute(route.key);
  }
  if (options_.settles) settleInside(routing, route.key);
}

void Switch::setVirtualIp(const Routing::Fhrp::VrfIpWithMaskPair& virtualIp, bool present) {
  vrf(virtualIp.vrfName().value());
  shared<Ipv4>().virtualIps->virtualIpIs(virtualIp, present);
}

void Switch::setVirtualIp(const Routing::Fhrp::VrfIpPair& virtualIp, bool present) {
  vrf(virtualIp.vrfName().value());
  shared<Ipv6>().virtualIps->virtualIpIs(virtualIp, present);
}

template <class F>
void Switch::setInitialized(std::string_view vrf, bool initialized) {
  Vrf& told = this->vrf(vrf);
  auto* machine = told.template routing<F>().machine();
  if (machine == nullptr) return;
  machine->initializedIs(initialized);
  publishState(told);
}

void Switch::setRibReady(std::string_view vrf, bool ready) {
  Vrf& told = this->vrf(vrf);
  told.readiness->ribReadyIs(ready);
  publishState(told);
}

void Switch::setStartRibReadyVerification(std::string_view vrf, bool start) {
  Vrf& told = this->vrf(vrf);
  told.readiness->startRibReadyVerificationIs(start);
  publishState(told);
}

namespace {

/// Marks announcements of neighbours as settling during its lifetime.
class Settling {
 public:
  explicit Settling(bool& isSettling) : isSettling_(isSettling) { isSettling_ = true; }
  Settling(const Settling&) = delete;
  Settling& operator=(const Settling&) = delete;
  ~Settling() { isSettling_ = false; }

 private:
  bool& isSettling_;
};

/// Whether the neighbour `addr` has no host route in this VRF.
template <class F>
bool isRouteless(const HostRouting<F>& routing, const typename F::Addr& addr) {
  const auto prefix = F::Prefix::host(addr);
  const auto& neighbors = F::neighborTable(*routing.root);
  return !neighbors || neighbors->route(prefix).key != prefix;
}

}  // namespace

// The neighbours are selected before the first one is announced. An announcement may give another
// neighbour with the same address its route, and the order must not affect the result.

/// Announces the neighbours inside `prefix` again that have no host route in this VRF.
template <class F>
void Switch::settleInside(const HostRouting<F>& routing, const typename F::Prefix& prefix) {
  auto routeless =
      std::get<NeighborIndex<F>>(neighborIndices_)
          .keysBetween({prefix.addr(), Zemit::IntfId()},
                       {prefix.addr().subnetLast(prefix.len()), Zemit::IntfId::highest()});
  std::erase_if(routeless, [&](const auto& key) { return !isRouteless(routing, key.addr); });
  const Settling settling(isSettling_);
  for (const auto& [addr, intf] : routeless) {
    F::neighborNotify(*neighborDir_->tableOf(intf), addr);
  }
}

/// Announces the neighbours on `intfs` again that have no host route in a VRF with a machine.
template <class F>
void Switch::settleOn(const std::set<Zemit::IntfId>& intfs) {
  std::vector<std::pair<const Arp::ArpIntfStatus*, typename F::Addr>> routeless;
  for (const Zemit::IntfId intf : intfs) {
    const auto* table = neighborDir_->tableOf(intf);
    if (table == nullptr) continue;
    for (auto it = F::neighbors(*table); it; ++it) {
      const auto lacksIt = [&](const auto& named) {
        const auto& routing = named.second.template routing<F>();
        return routing.machine() != nullptr && isRouteless(routing, it.key());
      };
      if (std::any_of(vrfs_.begin(), vrfs_.end(), lacksIt)) routeless.emplace_back(table, it.key());
    }
  }
  const Settling settling(isSettling_);
  for (const auto& [table, addr] : routeless) F::neighborNotify(*table, addr);
}

template void Switch::setNeighbor(Zemit::IntfId, const Arp::ArpEntryStatus&, bool);
template void Switch::setNeighbor(Zemit::IntfId, const Arp::Ip6NeighborEntryStatus&, bool);
template void Switch::setFec(const Tovan::Fib::Fec&, bool);
template void Switch::setFec(const Tovan::Fib6::Fec&, bool);
template void Switch::setRoute(std::string_view, const Tovan::Fib::Route&, bool);
template void Switch::setRoute(std::string_view, const Tovan::Fib6::Route&, bool);
template void Switch::setInitialized<Ipv4>(std::string_view, bool);
template void Switch::setInitialized<Ipv6>(std::string_view, bool);

}  // namespace Daemon
