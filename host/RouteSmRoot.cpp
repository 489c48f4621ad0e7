#include "host/RouteSmRoot.h"

#include "host/Family.h"
#include "host/RouteSm.h"

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

void RouteSmRoot::handleInitialized() {
  KIV_TRACE(hostRouteTrace, 8, *this, "void Routing::Host::RouteSmRoot::handleInitialized()");
  receiveTableIs("receiveTable");
  arpTableIs("arpTable");
  toMergeIs(Zemit::Prefix::null());
  // No one can be registered yet, so there is no one to tell.
  initialized_.setQuietly(true);
}

const Status::Ptr& RouteSmRoot::receiveTableIs(const Kiv::Name& name) {
  if (!receiveTable() || receiveTable()->name() != name) {
    receiveTable_.set(*this, Kiv::make<Status>(name));
  }
  return receiveTable();
}

const Status::Ptr& RouteSmRoot::arpTableIs(const Kiv::Name& name) {
  if (!arpTable() || arpTable()->name() != name) arpTable_.set(*this, Kiv::make<Status>(name));
  return arpTable();
}

void RouteSmRoot::adjacencyToPrefixIs(const PrefixList::Ptr& list) {
  KIV_REQUIRE(list,
              "null _adjacencyToPrefix parameter to mutator for "
              "Routing::Host::RouteSmRoot::adjacencyToPrefix not allowed");
  adjacencyToPrefix_.set(*this, list->fecId(), list);
}

const IntfAddresses::Ptr& RouteSmRoot::intfNameToSecondaryAddrWithMaskIs(
    const Kiv::String8& intfName) {
  if (!intfNameToSecondaryAddrWithMask_.contains(intfName)) {
    intfNameToSecondaryAddrWithMask_.set(*this, intfName, Kiv::make<IntfAddresses>(intfName));
  }
  return intfNameToSecondaryAddrWithMask(intfName);
}

const Obu::AddrSet::Ptr& RouteSmRoot::toMergeIs(const Zemit::Prefix& prefix) {
  if (!toMerge() || toMerge()->prefix() != prefix) {
    if (routeSm()) routeSm()->missed();  // the merges that waited
    toMerge_.set(*this, Obu::AddrSet::AddrSetIs(prefix));
  }
  return toMerge();
}

void RouteSmRoot::routeSmDel() {
  routeSm_.del(*this);
}

const RouteSm::Ptr& RouteSmRoot::newRouteSm(
    const Kiv::ActivityConfig::Ptr& activityConfig, const Tovan::Fib::RouteStatus::Ptr& routeStatus,
    const Tovan::Fib::ForwardingStatus::Ptr& fwdStatus, const Status::PtrConst& hostStatus,
    const RovelReady::VrfStatus::Ptr& ribReadyStatus, const Routing::SeqConfig::Ptr& seqConfig,
    const Rovel::SeqInfo::Ptr& ipv4SeqInfo, const Rovel::AdjacencyHelper::Ptr& adjHelper,
    const Ip::Status::PtrConst& ipStatus, const Arp::NeighborDir::PtrConst& neighborDirByIntfName,
    const Ptr& root, const Fhrp::VirtualIpStatus::PtrConst& virtualIpStatus,
    const L3::VrfName& vrfName) {
  routeSmDel();
  routeSm_.set(*this, routeSmFactory(activityConfig, routeStatus, fwdStatus, hostStatus,
                                     ribReadyStatus, seqConfig, ipv4SeqInfo, adjHelper, ipStatus,
                                     neighborDirByIntfName, root, virtualIpStatus, vrfName));
  return routeSm();
}

RouteSmRoot::Ptr routeSmRootFactory(const Kiv::Name& name) {
  return Kiv::make<RouteSmRoot>(name);
}

}  // namespace Routing::Host
