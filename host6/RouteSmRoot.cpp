#include "host6/RouteSmRoot.h"

#include "host6/Family.h"
#include "host6/RouteSm.h"

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

void RouteSmRoot::handleInitialized() {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__));
  receiveTableIs("receiveTable");
  neighTableIs("neighTable");
  toMergeIs(Zemit::Ip6Prefix::null());
  // No one can be registered yet, so there is no one to tell.
  initialized_.setQuietly(true);
}

const Status::Ptr& RouteSmRoot::receiveTableIs(const Kiv::Name& name) {
  if (!receiveTable() || receiveTable()->name() != name) {
    receiveTable_.set(*this, Kiv::make<Status>(name));
  }
  return receiveTable();
}

const Status::Ptr& RouteSmRoot::neighTableIs(const Kiv::Name& name) {
  if (!neighTable() || neighTable()->name() != name)
    neighTable_.set(*this, Kiv::make<Status>(name));
  return neighTable();
}

void RouteSmRoot::adjacencyToPrefixIs(const PrefixList::Ptr& list) {
  KIV_REQUIRE(list,
              "null _adjacencyToPrefix parameter to mutator for "
              "Routing6::Host::RouteSmRoot::adjacencyToPrefix not allowed");
  adjacencyToPrefix_.set(*this, list->fecId(), list);
}

const IntfAddresses::Ptr& RouteSmRoot::intfNameToAddrWithMaskIs(const Kiv::String8& intfName) {
  if (!intfNameToAddrWithMask_.contains(intfName)) {
    intfNameToAddrWithMask_.set(*this, intfName, Kiv::make<IntfAddresses>(intfName));
  }
  return intfNameToAddrWithMask(intfName);
}

const Obu::Ip6AddrSet::Ptr& RouteSmRoot::toMergeIs(const Zemit::Ip6Prefix& prefix) {
  if (!toMerge() || toMerge()->prefix() != prefix) {
    if (routeSm()) routeSm()->missed();  // the merges that waited
    toMerge_.set(*this, Obu::Ip6AddrSet::AddrSetIs(prefix));
  }
  return toMerge();
}

const Obu::Ip6AddrSet::Ptr& RouteSmRoot::vipToMergeIs(const Zemit::Ip6Prefix& prefix) {
  if (!vipToMerge() || vipToMerge()->prefix() != prefix) {
    vipToMerge_.set(*this, Obu::Ip6AddrSet::AddrSetIs(prefix));
  }
  return vipToMerge();
}

void RouteSmRoot::routeSmDel() {
  routeSm_.del(*this);
}

const RouteSm::Ptr& RouteSmRoot::newRouteSm(
    const Kiv::ActivityConfig::Ptr& activityConfig,
    const Tovan::Fib6::RouteStatus::Ptr& routeStatus,
    const Tovan::Fib6::ForwardingStatus::Ptr& fwdStatus, const Status::PtrConst& hostStatus,
    const RovelReady::VrfStatus::Ptr& ribReadyStatus, const Routing::SeqConfig::Ptr& seqConfig,
    const Rovel::SeqInfo::Ptr& ipv6SeqInfo, const Rovel::Adjacency6Helper::Ptr& adjHelper,
    const Ip6::Status::PtrConst& ipStatus, const Arp::NeighborDir::PtrConst& neighborDirByIntfName,
    const Routing::Fhrp::VirtualIp6Status::PtrConst& virtualIp6Status, const Ptr& root,
    const L3::VrfName& vrfName) {
  routeSmDel();
  routeSm_.set(*this, routeSmFactory(activityConfig, routeStatus, fwdStatus, hostStatus,
                                     ribReadyStatus, seqConfig, ipv6SeqInfo, adjHelper, ipStatus,
                                     neighborDirByIntfName, virtualIp6Status, root, vrfName));
  return routeSm();
}

RouteSmRoot::Ptr routeSmRootFactory(const Kiv::Name& name) {
  return Kiv::make<RouteSmRoot>(name);
}

}  // namespace Routing6::Host
