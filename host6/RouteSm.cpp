#include "host6/RouteSm.h"

#include "host6/Family.h"
#include "host6/ReceiveRoutes.h"
#include "hostcore/Lifecycle.h"
#include "hostcore/Machine.h"
#include "hostcore/ReceiveRoutes.h"
#include "platform/kiv/runtime/Assert.h"

namespace Routing6::Host {

namespace {
using Frame = HostCore::Machine<Ipv6>;
}

RouteSm::RouteSm(const Inputs& inputs) : fast_(std::make_unique<FastState>()) {
  Frame(*this).begin(inputs);
}

RouteSm::RouteSm(const Kiv::ActivityConfig::Ptr& activityConfig,
                 const Tovan::Fib6::RouteStatus::Ptr& routeStatus,
                 const Tovan::Fib6::ForwardingStatus::Ptr& fwdStatus,
                 const Status::PtrConst& hostStatus,
                 const RovelReady::VrfStatus::Ptr& ribReadyStatus,
                 const Routing::SeqConfig::Ptr& seqConfig, const Rovel::SeqInfo::Ptr& ipv6SeqInfo,
                 const Rovel::Adjacency6Helper::Ptr& adjHelper,
                 const Ip6::Status::PtrConst& ipStatus,
                 const Arp::NeighborDir::PtrConst& neighborDirByIntfName,
                 const Routing::Fhrp::VirtualIp6Status::PtrConst& virtualIp6Status,
                 const RouteSmRoot::Ptr& root, const L3::VrfName& vrfName)
    : RouteSm(Inputs{activityConfig, routeStatus, fwdStatus, hostStatus, ribReadyStatus, seqConfig,
                     ipv6SeqInfo, adjHelper, ipStatus, neighborDirByIntfName, root,
                     virtualIp6Status, vrfName}) {}

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
  HostCore::Reactors<Ipv6>(*this).makeAll();
}

void RouteSm::missed() {
  HostCore::Trust<Ipv6>(*this).end();
}

void RouteSm::routeStatusIs(const Kiv::Ptr<Tovan::Fib6::RouteStatus>& routeStatus) {
  Frame(*this).inputIs(routeStatus_, routeStatus);
}

void RouteSm::hostStatusIs(const Kiv::Ptr<const Status>& hostStatus) {
  Frame(*this).inputIs(hostStatus_, hostStatus);
}

void RouteSm::adjHelperIs(const Kiv::Ptr<Rovel::Adjacency6Helper>& adjHelper) {
  Frame(*this).inputIs(adjHelper_, adjHelper);
}

void RouteSm::rootIs(const Kiv::Ptr<RouteSmRoot>& root) {
  Frame(*this).inputIs(root_, root);
}

Kiv::Ptr<RouteSm::KivFwdStatus> RouteSm::newFwdStatus(
    const Tovan::Fib6::ForwardingStatus::Ptr& fwdStatus) {
  return Frame(*this).newReactor(fwdStatus_, fwdStatus);
}

Kiv::Ptr<RouteSm::KivRibReadyStatus> RouteSm::newRibReadyStatus(
    const RovelReady::VrfStatus::Ptr& ribReadyStatus) {
  return Frame(*this).newReactor(ribReadyStatus_, ribReadyStatus);
}

Kiv::Ptr<RouteSm::KivSeqConfig> RouteSm::newSeqConfig(const Routing::SeqConfig::Ptr& seqConfig) {
  return Frame(*this).newReactor(seqConfig_, seqConfig);
}

Kiv::Ptr<RouteSm::KivIpv6SeqInfo> RouteSm::newIpv6SeqInfo(const Rovel::SeqInfo::Ptr& ipv6SeqInfo) {
  return Frame(*this).newReactor(ipv6SeqInfo_, ipv6SeqInfo);
}

Kiv::Ptr<RouteSm::KivIpStatus> RouteSm::newIpStatus(const Ip6::Status::PtrConst& ipStatus) {
  return Frame(*this).newReactor(ipStatus_, ipStatus);
}

Kiv::Ptr<RouteSm::KivNeighborDirByIntfName> RouteSm::newNeighborDirByIntfName(
    const Arp::NeighborDir::PtrConst& neighborDirByIntfName) {
  return Frame(*this).newReactor(neighborDirByIntfName_, neighborDirByIntfName);
}

Kiv::Ptr<RouteSm::KivVirtualIp6Status> RouteSm::newVirtualIp6Status(
    const Routing::Fhrp::VirtualIp6Status::PtrConst& virtualIp6Status) {
  return Frame(*this).newReactor(virtualIp6Status_, virtualIp6Status);
}

void RouteSm::virtualIp6StatusDel() {
  virtualIp6Status_.del(*this);
}

void RouteSm::vrfIpIntfStatusIs(const Ip6::IntfStatus::PtrConst& ipIntfStatus) {
  Frame(*this).vrfIpIntfStatusIs(ipIntfStatus);
}

void RouteSm::vrfIpIntfStatusDel(Zemit::IntfId intfId) {
  Frame(*this).vrfIpIntfStatusDel(intfId);
}

void RouteSm::ipIntfStatusFilterIs(const Ip6::IntfStatus::PtrConst& ipIntfStatus) {
  Frame(*this).ipIntfStatusFilterIs(ipIntfStatus);
}

Kiv::Ptr<RouteSm::KivIpIntfStatusFilter> RouteSm::newIpIntfStatusFilter(
    const Ip6::IntfStatus::PtrConst& ipIntfStatus) {
  return Frame(*this).newIpIntfStatusFilter(ipIntfStatus);
}

void RouteSm::ipIntfStatusFilterDel(Zemit::IntfId intfId) {
  Frame(*this).ipIntfStatusFilterDel(intfId);
}

void RouteSm::kiv_handleIpIntfStatusFilter(const KivIpIntfStatusFilter& filter) {
  vrfIpIntfStatusDel(Kiv::validPtr(filter.notifierRaw()).intfId());
}

void RouteSm::ipIntfStatusIs(const Ip6::IntfStatus::PtrConst& ipIntfStatus) {
  Frame(*this).ipIntfStatusIs(ipIntfStatus);
}

Kiv::Ptr<RouteSm::KivIpIntfStatus> RouteSm::newIpIntfStatus(
    const Ip6::IntfStatus::PtrConst& ipIntfStatus) {
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
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__));
  HostCore::handleInitialized<Ipv6>(*this);
}

void RouteSm::handleIpIntfStatus(Zemit::IntfId intfId) {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__));
  HostCore::handleIpIntfStatus<Ipv6>(*this, intfId);
}

void RouteSm::handleIpIntfStatus() {
  KIV_ASSERT(Ipv6::kModule, false);
}

bool RouteSm::hasNoReceiveRoutes() const {
  return Kiv::validPtr(rootRaw()).receiveAddrToIntfNameCount() == 0;
}

void RouteSm::KivIpStatus::onIntf(const Zemit::IntfId& intfId) {
  if (!mayAct()) return;
  // A copy: a callback may delete the status meanwhile.
  if (const auto status = notifierRaw()->intf(intfId)) {
    routeSm()->ipIntfStatusFilterIs(status);
  } else {
    routeSm()->ipIntfStatusFilterDel(intfId);
  }
}

void RouteSm::KivIpStatus::onIntfkivImmediate() {
  if (!mayAct()) return;
  const Kiv::Ptr<KivIpStatus> alive(this);
  HostCore::Reactors<Ipv6>(*routeSm()).followInterfaces([this](Zemit::IntfId intfId) {
    onIntf(intfId);
  });
}

void RouteSm::KivIpIntfStatusFilter::handleVrf() {
  const L3::VrfName& vrf = this->vrf();
  KIV_TRACE(hostRoute6Trace, 8, *this,
            "void Routing6::Host::RouteSm::KivIpIntfStatusFilter::handleVrf()"
                << " In VRF: " << vrf);
  applyVrf();
}

void RouteSm::KivIpIntfStatus::onAddr(const Zemit::Ip6AddrWithMask& addrWithMask) {
  if (mayAct()) handleActiveAddrWithMask(addrWithMask);
}

void RouteSm::KivIpIntfStatus::onAddrkivImmediate() {
  if (mayAct()) handleActiveAddrWithMask();
}

void RouteSm::KivArpIntfStatus::onIp6NeighborEntry(const Zemit::Ip6Addr& addr) {
  if (mayAct()) handleArpEntry(addr);
}

void RouteSm::KivArpIntfStatus::onIp6NeighborEntrykivImmediate() {
  if (mayAct()) handleArpEntry();
}

void RouteSm::KivVirtualIp6Status::onVirtualIp(const Routing::Fhrp::VrfIpPair& pair) {
  virtualIp_ = pair;
  if (mayActOn<Routing::Fhrp::VirtualIp6Status::VirtualIpAttribute>(&pair)) {
    routeSm()->handleVirtualIp6Status(pair);
  }
}

void RouteSm::KivVirtualIp6Status::onVirtualIp() {
  if (mayAct()) routeSm()->handleVirtualIp6Status();
}

RouteSm::Ptr routeSmFactory(
    const Kiv::ActivityConfig::Ptr& activityConfig,
    const Tovan::Fib6::RouteStatus::Ptr& routeStatus,
    const Tovan::Fib6::ForwardingStatus::Ptr& fwdStatus, const Status::PtrConst& hostStatus,
    const RovelReady::VrfStatus::Ptr& ribReadyStatus, const Routing::SeqConfig::Ptr& seqConfig,
    const Rovel::SeqInfo::Ptr& ipv6SeqInfo, const Rovel::Adjacency6Helper::Ptr& adjHelper,
    const Ip6::Status::PtrConst& ipStatus, const Arp::NeighborDir::PtrConst& neighborDirByIntfName,
    const Routing::Fhrp::VirtualIp6Status::PtrConst& virtualIp6Status, const RouteSmRoot::Ptr& root,
    const L3::VrfName& vrfName) {
  return Kiv::make<RouteSm>(RouteSm::Inputs{
      activityConfig, routeStatus, fwdStatus, hostStatus, ribReadyStatus, seqConfig, ipv6SeqInfo,
      adjHelper, ipStatus, neighborDirByIntfName, root, virtualIp6Status, vrfName});
}

}  // namespace Routing6::Host
