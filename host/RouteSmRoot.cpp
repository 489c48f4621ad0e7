#include "host/RouteSmRoot.h"

#include "host/Family.h"
#include "host/RouteSm.h"
#include "hostcore/Machine.h"

namespace Routing::Host {

RouteSmRoot::RouteSmRoot(Kiv::Name name)
    : NamedEntity(std::move(name)),
      arpRoute_(tracked_),
      prefixToRoute_(tracked_),
      prefixToAdjacency_(tracked_) {
  handleInitialized();
}

RouteSmRoot::~RouteSmRoot() {
  receiveTableDel();
  arpTableDel();
  arpRouteDelAll();
  intfNameToSecondaryAddrWithMaskDelAll();
  toMergeDel();
  routeSmDel();
  dropNotifiees();
}

uint32_t RouteSmRoot::tracedLevels() const noexcept {
  return routeSm() ? routeSm()->tracedLevels() : 0;
}

void RouteSmRoot::handleInitialized() {
  KIV_TRACE(hostRouteTrace, 8, *this, "void Routing::Host::RouteSmRoot::handleInitialized()");
  const Ptr alive(this);
  receiveTableIs("receiveTable");
  arpTableIs("arpTable");
  toMergeIs(Zemit::Prefix::null());
  // No notifiee can be registered yet.
  initialized_.setQuietly(true);
}

// A callback may drop the last handle to the root, so the result is not read from it again.

Status::Ptr RouteSmRoot::receiveTableIs(const Kiv::Name& name) {
  if (receiveTable() && receiveTable()->name() == name) return receiveTable();
  const auto table = Kiv::make<Status>(name);
  receiveTable_.set(*this, table);
  return table;
}

Status::Ptr RouteSmRoot::arpTableIs(const Kiv::Name& name) {
  if (arpTable() && arpTable()->name() == name) return arpTable();
  const auto table = Kiv::make<Status>(name);
  arpTable_.set(*this, table);
  return table;
}

void RouteSmRoot::adjacencyToPrefixIs(const PrefixList::Ptr& list) {
  KIV_REQUIRE(list,
              "null _adjacencyToPrefix parameter to mutator for "
              "Routing::Host::RouteSmRoot::adjacencyToPrefix not allowed");
  adjacencyToPrefix_.set(*this, list->fecId(), list);
}

IntfAddresses::Ptr RouteSmRoot::intfNameToSecondaryAddrWithMaskIs(const Kiv::String8& intfName) {
  if (const auto* present = intfNameToSecondaryAddrWithMaskFind(intfName)) return *present;
  const auto addresses = Kiv::make<IntfAddresses>(intfName);
  intfNameToSecondaryAddrWithMask_.set(*this, intfName, addresses);
  return addresses;
}

Obu::AddrSet::Ptr RouteSmRoot::toMergeIs(const Zemit::Prefix& prefix) {
  if (toMerge() && toMerge()->prefix() == prefix) return toMerge();
  const auto addrs = Obu::AddrSet::AddrSetIs(prefix);
  toMerge_.set(*this, addrs);
  return addrs;
}

void RouteSmRoot::routeSmDel() {
  routeSm_.del(*this);
}

RouteSm::Ptr RouteSmRoot::newRouteSm(
    const Kiv::ActivityConfig::Ptr& activityConfig, const Tovan::Fib::RouteStatus::Ptr& routeStatus,
    const Tovan::Fib::ForwardingStatus::Ptr& fwdStatus, const Status::PtrConst& hostStatus,
    const RovelReady::VrfStatus::Ptr& ribReadyStatus, const Routing::SeqConfig::Ptr& seqConfig,
    const Rovel::SeqInfo::Ptr& ipv4SeqInfo, const Rovel::AdjacencyHelper::Ptr& adjHelper,
    const Ip::Status::PtrConst& ipStatus, const Arp::NeighborDir::PtrConst& neighborDirByIntfName,
    const Ptr& root, const Fhrp::VirtualIpStatus::PtrConst& virtualIpStatus,
    const L3::VrfName& vrfName) {
  return HostCore::newRouteSm<Ipv4>(
      *this,
      {activityConfig, routeStatus, fwdStatus, hostStatus, ribReadyStatus, seqConfig, ipv4SeqInfo,
       adjHelper, ipStatus, neighborDirByIntfName, root, virtualIpStatus, vrfName});
}

RouteSm::Ptr RouteSmRoot::routeSmIs(
    const Kiv::ActivityConfig::Ptr& activityConfig, const Tovan::Fib::RouteStatus::Ptr& routeStatus,
    const Tovan::Fib::ForwardingStatus::Ptr& fwdStatus, const Status::PtrConst& hostStatus,
    const RovelReady::VrfStatus::Ptr& ribReadyStatus, const Routing::SeqConfig::Ptr& seqConfig,
    const Rovel::SeqInfo::Ptr& ipv4SeqInfo, const Rovel::AdjacencyHelper::Ptr& adjHelper,
    const Ip::Status::PtrConst& ipStatus, const Arp::NeighborDir::PtrConst& neighborDirByIntfName,
    const Ptr& root, const Fhrp::VirtualIpStatus::PtrConst& virtualIpStatus,
    const L3::VrfName& vrfName) {
  return HostCore::routeSmIs<Ipv4>(
      *this,
      {activityConfig, routeStatus, fwdStatus, hostStatus, ribReadyStatus, seqConfig, ipv4SeqInfo,
       adjHelper, ipStatus, neighborDirByIntfName, root, virtualIpStatus, vrfName});
}

RouteSmRoot::Ptr routeSmRootFactory(const Kiv::Name& name) {
  return Kiv::make<RouteSmRoot>(name);
}

}  // namespace Routing::Host
