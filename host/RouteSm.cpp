#include "host/RouteSm.h"

#include "host/Family.h"
#include "host/ReceiveRoutes.h"
#include "hostcore/Lifecycle.h"
#include "hostcore/Machine.h"
#include "hostcore/ReceiveRoutes.h"
#include "platform/kiv/runtime/Assert.h"

namespace Routing::Host {

namespace {
using Frame = HostCore::Machine<Ipv4>;
}

RouteSm::RouteSm(const Inputs& inputs) : fast_(std::make_unique<FastState>()) {
  Frame(*this).begin(inputs);
}

RouteSm::RouteSm(const Kiv::ActivityConfig::Ptr& activityConfig,
                 const Tovan::Fib::RouteStatus::Ptr& routeStatus,
                 const Tovan::Fib::ForwardingStatus::Ptr& fwdStatus,
                 const Status::PtrConst& hostStatus,
                 const RovelReady::VrfStatus::Ptr& ribReadyStatus,
                 const Routing::SeqConfig::Ptr& seqConfig, const Rovel::SeqInfo::Ptr& ipv4SeqInfo,
                 const Rovel::AdjacencyHelper::Ptr& adjHelper, const Ip::Status::PtrConst& ipStatus,
                 const Arp::NeighborDir::PtrConst& neighborDirByIntfName,
                 const RouteSmRoot::Ptr& root,
                 const Fhrp::VirtualIpStatus::PtrConst& virtualIpStatus, const L3::VrfName& vrfName)
    : RouteSm(Inputs{activityConfig, routeStatus, fwdStatus, hostStatus, ribReadyStatus, seqConfig,
                     ipv4SeqInfo, adjHelper, ipStatus, neighborDirByIntfName, root, virtualIpStatus,
                     vrfName}) {}

RouteSm::~RouteSm() {
  retire();
}

void RouteSm::retire() {
  Frame(*this).retire();
}

void RouteSm::kivFwkActivityIs(const Kiv::ActivityConfig::Ptr& activityConfig) {
  Frame(*this).kivFwkActivityIs(activityConfig);
}

void RouteSm::hasNotificationActiveIs(bool active) {
  Frame(*this).hasNotificationActiveIs(active);
}

void RouteSm::kivDoZombieReactors(bool zombie) {
  Frame(*this).kivDoZombieReactors(zombie);
}

void RouteSm::reportException(const Kiv::Notifiee& reactor, Kiv::AttributeId id) noexcept {
  Frame(*this).reportException(reactor, id);
}

void RouteSm::needsReactors() {
  HostCore::Reactors<Ipv4>(*this).makeAll();
}

void RouteSm::missed() {
  HostCore::Trust<Ipv4>(*this).end();
}

void RouteSm::routeStatusIs(const Kiv::Ptr<Tovan::Fib::RouteStatus>& routeStatus) {
  Frame(*this).inputIs(routeStatus_, routeStatus);
}

void RouteSm::hostStatusIs(const Kiv::Ptr<const Status>& hostStatus) {
  Frame(*this).inputIs(hostStatus_, hostStatus);
}

void RouteSm::adjHelperIs(const Kiv::Ptr<Rovel::AdjacencyHelper>& adjHelper) {
  Frame(*this).inputIs(adjHelper_, adjHelper);
}

void RouteSm::rootIs(const Kiv::Ptr<RouteSmRoot>& root) {
  Frame(*this).inputIs(root_, root);
}

Kiv::Ptr<RouteSm::KivFwdStatus> RouteSm::newFwdStatus(
    const Tovan::Fib::ForwardingStatus::Ptr& fwdStatus) {
  return Frame(*this).newReactor(fwdStatus_, fwdStatus);
}

Kiv::Ptr<RouteSm::KivRibReadyStatus> RouteSm::newRibReadyStatus(
    const RovelReady::VrfStatus::Ptr& ribReadyStatus) {
  return Frame(*this).newReactor(ribReadyStatus_, ribReadyStatus);
}

Kiv::Ptr<RouteSm::KivSeqConfig> RouteSm::newSeqConfig(const Routing::SeqConfig::Ptr& seqConfig) {
  return Frame(*this).newReactor(seqConfig_, seqConfig);
}

Kiv::Ptr<RouteSm::KivIpv4SeqInfo> RouteSm::newIpv4SeqInfo(const Rovel::SeqInfo::Ptr& ipv4SeqInfo) {
  return Frame(*this).newReactor(ipv4SeqInfo_, ipv4SeqInfo);
}

Kiv::Ptr<RouteSm::KivIpStatus> RouteSm::newIpStatus(const Ip::Status::PtrConst& ipStatus) {
  return Frame(*this).newReactor(ipStatus_, ipStatus);
}

Kiv::Ptr<RouteSm::KivNeighborDirByIntfName> RouteSm::newNeighborDirByIntfName(
    const Arp::NeighborDir::PtrConst& neighborDirByIntfName) {
  return Frame(*this).newReactor(neighborDirByIntfName_, neighborDirByIntfName);
}

Kiv::Ptr<RouteSm::KivVirtualIpStatus> RouteSm::newVirtualIpStatus(
    const Fhrp::VirtualIpStatus::PtrConst& virtualIpStatus) {
  return Frame(*this).newReactor(virtualIpStatus_, virtualIpStatus);
}

void RouteSm::virtualIpStatusDel() {
  virtualIpStatus_.del(*this);
}

void RouteSm::vrfIpIntfStatusIs(const Ip::IpIntfStatus::PtrConst& ipIntfStatus) {
  Frame(*this).vrfIpIntfStatusIs(ipIntfStatus);
}

void RouteSm::vrfIpIntfStatusDel(Zemit::IntfId intfId) {
  Frame(*this).vrfIpIntfStatusDel(intfId);
}

void RouteSm::ipIntfStatusFilterIs(const Ip::IpIntfStatus::PtrConst& ipIntfStatus) {
  Frame(*this).ipIntfStatusFilterIs(ipIntfStatus);
}

Kiv::Ptr<RouteSm::KivIpIntfStatusFilter> RouteSm::newIpIntfStatusFilter(
    const Ip::IpIntfStatus::PtrConst& ipIntfStatus) {
  return Frame(*this).newIpIntfStatusFilter(ipIntfStatus);
}

void RouteSm::ipIntfStatusFilterDel(Zemit::IntfId intfId) {
  Frame(*this).ipIntfStatusFilterDel(intfId);
}

void RouteSm::kiv_handleIpIntfStatusFilter(const KivIpIntfStatusFilter& filter) {
  vrfIpIntfStatusDel(Kiv::validPtr(filter.notifierRaw()).intfId());
}

void RouteSm::ipIntfStatusIs(const Ip::IpIntfStatus::PtrConst& ipIntfStatus) {
  Frame(*this).ipIntfStatusIs(ipIntfStatus);
}

Kiv::Ptr<RouteSm::KivIpIntfStatus> RouteSm::newIpIntfStatus(
    const Ip::IpIntfStatus::PtrConst& ipIntfStatus) {
  return Frame(*this).newIpIntfStatus(ipIntfStatus);
}

void RouteSm::arpIntfStatusIs(const ArpTable& arpIntfStatus) {
  Frame(*this).arpIntfStatusIs(arpIntfStatus);
}

Kiv::Ptr<RouteSm::KivArpIntfStatus> RouteSm::newArpIntfStatus(const ArpTable& arpIntfStatus) {
  return Frame(*this).newArpIntfStatus(arpIntfStatus);
}

void RouteSm::arpIntfStatusDel(const Kiv::Name& name) {
  Frame(*this).arpIntfStatusDel(name);
}

void RouteSm::kiv_handleArpIntfStatus(KivArpIntfStatus& reactor) {
  reactor.handleDel();
}

void RouteSm::initializedIs(bool initialized) {
  Frame(*this).initializedIs(initialized);
}

void RouteSm::handleInitialized() {
  KIV_TRACE(hostRouteTrace, 8, *this, "void Routing::Host::RouteSm::handleInitialized()");
  HostCore::handleInitialized<Ipv4>(*this);
}

void RouteSm::handleIpIntfStatus(Zemit::IntfId intfId) {
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::handleIpIntfStatus(Zemit::IntfId)");
  HostCore::handleIpIntfStatus<Ipv4>(*this, intfId);
}

void RouteSm::handleIpIntfStatus() {
  KIV_ASSERT(Ipv4::kModule, false);
}

bool RouteSm::hasNoReceiveRoutes() const {
  return Kiv::validPtr(rootRaw()).receiveAddrToIntfNameCount() == 0;
}

bool RouteSm::isPrimaryRecvRouteChanged(const Ip::IpIntfStatus::PtrConst& ipIntfStatus) const {
  const auto& status = Kiv::validPtr(ipIntfStatus);
  return status->activeAddrWithMask() !=
         Kiv::validPtr(rootRaw()).intfNameToAddrWithMask(status->name());
}

void RouteSm::KivIpStatus::onIpIntfStatus(const Zemit::IntfId& intfId) {
  if (!mayAct()) return;
  // A copy: a callback may delete the status meanwhile.
  if (const auto status = notifierRaw()->ipIntfStatus(intfId)) {
    routeSm()->ipIntfStatusFilterIs(status);
  } else {
    routeSm()->ipIntfStatusFilterDel(intfId);
  }
}

void RouteSm::KivIpStatus::onIpIntfStatuskivImmediate() {
  if (!mayAct()) return;
  const Kiv::Ptr<KivIpStatus> alive(this);
  HostCore::Reactors<Ipv4>(*routeSm()).followInterfaces([this](Zemit::IntfId intfId) {
    onIpIntfStatus(intfId);
  });
}

void RouteSm::KivIpIntfStatusFilter::handleVrf() {
  const L3::VrfName& vrf = this->vrf();
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::KivIpIntfStatusFilter::handleVrf()"
                << " In VRF: " << vrf);
  applyVrf();
}

void RouteSm::KivIpIntfStatus::onActiveAddrWithMask() {
  if (mayAct()) handleActiveAddrWithMask();
}

void RouteSm::KivIpIntfStatus::onActiveSecondaryWithMask(
    const Zemit::IpAddrWithMask& addrWithMask) {
  if (mayAct()) handleActiveSecondaryWithMask(addrWithMask);
}

void RouteSm::KivIpIntfStatus::onActiveSecondaryWithMaskkivImmediate() {
  if (mayAct()) handleActiveSecondaryWithMask();
}

void RouteSm::KivIpIntfStatus::handleActiveAddrWithMask() {
  RouteSm& sm = Kiv::validPtr(routeSm());
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::KivIpIntfStatus::handleActiveAddrWithMask()"
                << " In VRF: " << sm.vrfName());
  recomputeReceiveRoutes(RouteSm::Ptr(&sm), notifier());
}

void RouteSm::KivIpIntfStatus::handleActiveSecondaryWithMask(const Zemit::IpAddrWithMask&) {
  handleActiveSecondaryWithMask();
}

void RouteSm::KivIpIntfStatus::handleActiveSecondaryWithMask() {
  RouteSm& sm = Kiv::validPtr(routeSm());
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::KivIpIntfStatus::handleActiveSecondaryWithMask()"
                << " In VRF: " << sm.vrfName());
  recomputeReceiveRoutes(RouteSm::Ptr(&sm), notifier());
}

void RouteSm::KivArpIntfStatus::onArpEntry(const Zemit::IpAddr& addr) {
  if (mayAct()) handleArpEntry(addr);
}

void RouteSm::KivArpIntfStatus::onArpEntrykivImmediate() {
  if (mayAct()) handleArpEntry();
}

void RouteSm::KivVirtualIpStatus::onVirtualIp(const Fhrp::VrfIpWithMaskPair& pair) {
  virtualIp_ = pair;
  if (mayActOn<Fhrp::VirtualIpStatus::VirtualIpAttribute>(&pair)) {
    routeSm()->handleVirtualIpStatus(pair);
  }
}

void RouteSm::KivVirtualIpStatus::onVirtualIp() {
  if (mayAct()) routeSm()->handleVirtualIpStatus();
}

RouteSm::Ptr routeSmFactory(
    const Kiv::ActivityConfig::Ptr& activityConfig, const Tovan::Fib::RouteStatus::Ptr& routeStatus,
    const Tovan::Fib::ForwardingStatus::Ptr& fwdStatus, const Status::PtrConst& hostStatus,
    const RovelReady::VrfStatus::Ptr& ribReadyStatus, const Routing::SeqConfig::Ptr& seqConfig,
    const Rovel::SeqInfo::Ptr& ipv4SeqInfo, const Rovel::AdjacencyHelper::Ptr& adjHelper,
    const Ip::Status::PtrConst& ipStatus, const Arp::NeighborDir::PtrConst& neighborDirByIntfName,
    const RouteSmRoot::Ptr& root, const Fhrp::VirtualIpStatus::PtrConst& virtualIpStatus,
    const L3::VrfName& vrfName) {
  return Kiv::make<RouteSm>(RouteSm::Inputs{
      activityConfig, routeStatus, fwdStatus, hostStatus, ribReadyStatus, seqConfig, ipv4SeqInfo,
      adjHelper, ipStatus, neighborDirByIntfName, root, virtualIpStatus, vrfName});
}

}  // namespace Routing::Host
