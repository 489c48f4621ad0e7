#include "host6/RouteSmRoot.h"

#include "host6/Family.h"
#include "host6/RouteSm.h"
#include "hostcore/Machine.h"

namespace Routing6::Host {

RouteSmRoot::RouteSmRoot(Kiv::Name name)
    : NamedEntity(std::move(name)),
      neighRoute_(tracked_),
      prefixToRoute_(tracked_),
      prefixToAdjacency_(tracked_) {
  handleInitialized();
}

RouteSmRoot::~RouteSmRoot() {
  receiveTableDel();
  neighTableDel();
  neighRouteDelAll();
  intfNameToAddrWithMaskDelAll();
  toMergeDel();
  vipToMergeDel();
  routeSmDel();
  dropNotifiees();
}

uint32_t RouteSmRoot::tracedLevels() const noexcept {
  return routeSm() ? routeSm()->tracedLevels() : 0;
}

void RouteSmRoot::handleInitialized() {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__));
  const Ptr alive(this);
  receiveTableIs("receiveTable");
  neighTableIs("neighTable");
  toMergeIs(Zemit::Ip6Prefix::null());
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

Status::Ptr RouteSmRoot::neighTableIs(const Kiv::Name& name) {
  if (neighTable() && neighTable()->name() == name) return neighTable();
  const auto table = Kiv::make<Status>(name);
  neighTable_.set(*this, table);
  return table;
}

void RouteSmRoot::adjacencyToPrefixIs(const PrefixList::Ptr& list) {
  KIV_REQUIRE(list,
              "null _adjacencyToPrefix parameter to mutator for "
              "Routing6::Host::RouteSmRoot::adjacencyToPrefix not allowed");
  adjacencyToPrefix_.set(*this, list->fecId(), list);
}

IntfAddresses::Ptr RouteSmRoot::intfNameToAddrWithMaskIs(const Kiv::String8& intfName) {
  if (const auto* present = intfNameToAddrWithMaskFind(intfName)) return *present;
  const auto addresses = Kiv::make<IntfAddresses>(intfName);
  intfNameToAddrWithMask_.set(*this, intfName, addresses);
  return addresses;
}

Obu::Ip6AddrSet::Ptr RouteSmRoot::toMergeIs(const Zemit::Ip6Prefix& prefix) {
  if (toMerge() && toMerge()->prefix() == prefix) return toMerge();
  const auto addrs = Obu::Ip6AddrSet::AddrSetIs(prefix);
  toMerge_.set(*this, addrs);
  return addrs;
}

Obu::Ip6AddrSet::Ptr RouteSmRoot::vipToMergeIs(const Zemit::Ip6Prefix& prefix) {
  if (vipToMerge() && vipToMerge()->prefix() == prefix) return vipToMerge();
  const auto addrs = Obu::Ip6AddrSet::AddrSetIs(prefix);
  vipToMerge_.set(*this, addrs);
  return addrs;
}

void RouteSmRoot::routeSmDel() {
  routeSm_.del(*this);
}

RouteSm::Ptr RouteSmRoot::newRouteSm(
    const Kiv::ActivityConfig::Ptr& activityConfig,
    const Tovan::Fib6::RouteStatus::Ptr& routeStatus,
    const Tovan::Fib6::ForwardingStatus::Ptr& fwdStatus, const Status::PtrConst& hostStatus,
    const RovelReady::VrfStatus::Ptr& ribReadyStatus, const Routing::SeqConfig::Ptr& seqConfig,
    const Rovel::SeqInfo::Ptr& ipv6SeqInfo, const Rovel::Adjacency6Helper::Ptr& adjHelper,
    const Ip6::Status::PtrConst& ipStatus, const Arp::NeighborDir::PtrConst& neighborDirByIntfName,
    const Routing::Fhrp::VirtualIp6Status::PtrConst& virtualIp6Status, const Ptr& root,
    const L3::VrfName& vrfName) {
  return HostCore::newRouteSm<Ipv6>(
      *this,
      {activityConfig, routeStatus, fwdStatus, hostStatus, ribReadyStatus, seqConfig, ipv6SeqInfo,
       adjHelper, ipStatus, neighborDirByIntfName, root, virtualIp6Status, vrfName});
}

RouteSm::Ptr RouteSmRoot::routeSmIs(
    const Kiv::ActivityConfig::Ptr& activityConfig,
    const Tovan::Fib6::RouteStatus::Ptr& routeStatus,
    const Tovan::Fib6::ForwardingStatus::Ptr& fwdStatus, const Status::PtrConst& hostStatus,
    const RovelReady::VrfStatus::Ptr& ribReadyStatus, const Routing::SeqConfig::Ptr& seqConfig,
    const Rovel::SeqInfo::Ptr& ipv6SeqInfo, const Rovel::Adjacency6Helper::Ptr& adjHelper,
    const Ip6::Status::PtrConst& ipStatus, const Arp::NeighborDir::PtrConst& neighborDirByIntfName,
    const Routing::Fhrp::VirtualIp6Status::PtrConst& virtualIp6Status, const Ptr& root,
    const L3::VrfName& vrfName) {
  return HostCore::routeSmIs<Ipv6>(
      *this,
      {activityConfig, routeStatus, fwdStatus, hostStatus, ribReadyStatus, seqConfig, ipv6SeqInfo,
       adjHelper, ipStatus, neighborDirByIntfName, root, virtualIp6Status, vrfName});
}

RouteSmRoot::Ptr routeSmRootFactory(const Kiv::Name& name) {
  return Kiv::make<RouteSmRoot>(name);
}

}  // namespace Routing6::Host
