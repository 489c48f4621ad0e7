#include "host/RouteSm.h"

#include <string>
#include <utility>

#include "host/Family.h"
#include "host/ReceiveRoutes.h"
#include "hostcore/Lifecycle.h"
#include "hostcore/Listening.h"
#include "hostcore/NeighborEntries.h"
#include "hostcore/ReceiveRoutes.h"
#include "hostcore/Tracing.h"
#include "platform/kiv/Assert.h"

namespace Routing::Host {

RouteSm::RouteSm(
    const Kiv::ActivityConfig::Ptr& activityConfig, const Tovan::Fib::RouteStatus::Ptr& routeStatus,
    const Tovan::Fib::ForwardingStatus::Ptr& fwdStatus, const Status::PtrConst& hostStatus,
    const RovelReady::VrfStatus::Ptr& ribReadyStatus, const Routing::SeqConfig::Ptr& seqConfig,
    const Rovel::SeqInfo::Ptr& ipv4SeqInfo, const Rovel::AdjacencyHelper::Ptr& adjHelper,
    const Ip::Status::PtrConst& ipStatus, const Arp::NeighborDir::PtrConst& neighborDirByIntfName,
    const RouteSmRoot::Ptr& root, const Fhrp::VirtualIpStatus::PtrConst& virtualIpStatus,
    const L3::VrfName& vrfName) {
  kivFwkActivity_.setQuietly(activityConfig);
  routeStatus_.setQuietly(routeStatus);
  newFwdStatus(fwdStatus);
  hostStatus_.setQuietly(hostStatus);
  newRibReadyStatus(ribReadyStatus);
  newSeqConfig(seqConfig);
  newIpv4SeqInfo(ipv4SeqInfo);
  adjHelper_.setQuietly(adjHelper);
  newIpStatus(ipStatus);
  newNeighborDirByIntfName(neighborDirByIntfName);
  root_.setQuietly(root);
  newVirtualIpStatus(virtualIpStatus);
  vrfName_.setQuietly(vrfName);
  initialized_.setQuietly(false);
  // From here on the reactors reach the machine, whose inputs are all stored.
  inputsStored_ = true;
  forEachReactor([this](auto& reactor) { reactor.routeSmIs(this); });

  HostCore::Listening<Ipv4>(*this).begin();
  handleFec();
  if (this->ipStatus()) this->ipStatus()->onIpIntfStatuskivImmediate();
  if (this->neighborDirByIntfName()) {
    this->neighborDirByIntfName()->onArpIntfStatuskivImmediate();
  }
  handleVirtualIpStatus();
}

RouteSm::~RouteSm() {
  retire();
}

void RouteSm::retire() {
  if (std::exchange(hasEnded_, true)) return;
  const Ptr alive(this);
  HostCore::tracedLevelsAre<Ipv4>(*this, 0);
  kivDoZombieReactors(true);
  forEachReactor([](auto& reactor) { reactor.routeSmIs(nullptr); });
  initialized_.setQuietly(false);
  routeStatus_.setQuietly(nullptr);
  hostStatus_.setQuietly(nullptr);
  adjHelper_.setQuietly(nullptr);
  root_.setQuietly(nullptr);
  // Without the collections' hooks: nothing is withdrawn at teardown. The reactors let go of the
  // inputs here, which may run anybody's code.
  arpIntfStatus_.dropAll();
  ipIntfStatusFilter_.dropAll();
  vrfIpIntfStatus_.dropAll();
  ipIntfStatus_.dropAll();
  fwdStatus_.drop();
  ribReadyStatus_.drop();
  seqConfig_.drop();
  ipv4SeqInfo_.drop();
  ipStatus_.drop();
  neighborDirByIntfName_.drop();
  virtualIpStatus_.drop();
  kivFwkActivity_.setQuietly(nullptr);
}

void RouteSm::requireNotEnded() const {
  if (!hasEnded_) return;
  throw Kiv::Exception("the state machine of VRF " + std::string(name().view()) + " has ended");
}

template <class Visit>
void RouteSm::forEachReactor(Visit visit) {
  const auto visitOne = [&visit](const auto& reactor) {
    if (reactor) visit(*reactor);
  };
  visitOne(fwdStatus());
  visitOne(ribReadyStatus());
  visitOne(seqConfig());
  visitOne(ipv4SeqInfo());
  visitOne(ipStatus());
  for (auto it = ipIntfStatusFilterIterator(); it; ++it) visitOne(it.value());
  for (auto it = ipIntfStatusIterator(); it; ++it) visitOne(it.value());
  visitOne(neighborDirByIntfName());
  for (auto it = arpIntfStatusIterator(); it; ++it) visitOne(it.value());
  visitOne(virtualIpStatus());
}

void RouteSm::kivFwkActivityIs(const Kiv::ActivityConfig::Ptr& activityConfig) {
  requireNotEnded();
  // What has waited is handled late.
  if (kivFwkActivityRaw() != nullptr && kivFwkActivityRaw()->queues()) {
    HostCore::Listening<Ipv4>(*this).missed();
  }
  kivFwkActivity_.set(*this, activityConfig);
  forEachReactor([&](auto& reactor) { reactor.kivFwkActivityIs(activityConfig); });
  HostCore::Listening<Ipv4>(*this).review();
}

void RouteSm::hasNotificationActiveIs(bool active) {
  requireNotEnded();
  hasNotificationActive_ = active;
  if (!active) HostCore::Listening<Ipv4>(*this).missed();
  forEachReactor([active](auto& reactor) { reactor.hasNotificationActiveIs(active); });
}

void RouteSm::kivDoZombieReactors(bool zombie) {
  if (zombie) HostCore::Listening<Ipv4>(*this).missed();
  forEachReactor([zombie](auto& reactor) { reactor.kivDoZombieReactors(zombie); });
}

void RouteSm::reportException(const Kiv::Notifiee& reactor, Kiv::AttributeId id) noexcept {
  HostCore::reportException(hostRouteTrace, *this, reactor, id);
  HostCore::Listening<Ipv4>(*this).missed();
}

void RouteSm::missed() {
  HostCore::Listening<Ipv4>(*this).missed();
}

void RouteSm::inputReplaced(bool changed) {
  if (changed) missed();
}

Kiv::Ptr<RouteSm::KivFwdStatus> RouteSm::newFwdStatus(
    const Tovan::Fib::ForwardingStatus::Ptr& fwdStatus) {
  requireNotEnded();
  HostCore::bindNew(fwdStatus_, *this, inputsStored_, fwdStatus);
  return fwdStatus_.get();
}

const Tovan::Fib::ForwardingStatus* RouteSm::forwardingStatus() const noexcept {
  return HostCore::watchedBy(fwdStatus());
}

Kiv::Ptr<RouteSm::KivRibReadyStatus> RouteSm::newRibReadyStatus(
    const RovelReady::VrfStatus::Ptr& ribReadyStatus) {
  requireNotEnded();
  HostCore::bindNew(ribReadyStatus_, *this, inputsStored_, ribReadyStatus);
  return ribReadyStatus_.get();
}

RovelReady::VrfStatus* RouteSm::vrfReadiness() const noexcept {
  return ribReadyStatus() ? ribReadyStatus()->status() : nullptr;
}

Kiv::Ptr<RouteSm::KivSeqConfig> RouteSm::newSeqConfig(const Routing::SeqConfig::Ptr& seqConfig) {
  requireNotEnded();
  HostCore::bindNew(seqConfig_, *this, inputsStored_, seqConfig);
  return seqConfig_.get();
}

Kiv::Ptr<RouteSm::KivIpv4SeqInfo> RouteSm::newIpv4SeqInfo(const Rovel::SeqInfo::Ptr& ipv4SeqInfo) {
  requireNotEnded();
  HostCore::bindNew(ipv4SeqInfo_, *this, inputsStored_, ipv4SeqInfo);
  return ipv4SeqInfo_.get();
}

Kiv::Ptr<RouteSm::KivIpStatus> RouteSm::newIpStatus(const Ip::Status::PtrConst& ipStatus) {
  requireNotEnded();
  HostCore::bindNew(ipStatus_, *this, inputsStored_, ipStatus);
  return ipStatus_.get();
}

Kiv::Ptr<RouteSm::KivNeighborDirByIntfName> RouteSm::newNeighborDirByIntfName(
    const Arp::NeighborDir::PtrConst& neighborDirByIntfName) {
  requireNotEnded();
  HostCore::bindNew(neighborDirByIntfName_, *this, inputsStored_, neighborDirByIntfName);
  return neighborDirByIntfName_.get();
}

Kiv::Ptr<RouteSm::KivVirtualIpStatus> RouteSm::newVirtualIpStatus(
    const Fhrp::VirtualIpStatus::PtrConst& virtualIpStatus) {
  requireNotEnded();
  HostCore::bindNew(virtualIpStatus_, *this, inputsStored_, virtualIpStatus);
  inputReplaced(inputsStored_);
  return virtualIpStatus_.get();
}

const Fhrp::VirtualIpStatus* RouteSm::virtualIps() const noexcept {
  return HostCore::watchedBy(virtualIpStatus());
}

const Arp::ArpIntfStatus* RouteSm::neighborTable(Zemit::IntfId intf) const {
  const auto* dir = HostCore::watchedBy(neighborDirByIntfName());
  return dir == nullptr ? nullptr : dir->tableOf(intf);
}

void RouteSm::vrfIpIntfStatusIs(const Ip::IpIntfStatus::PtrConst& ipIntfStatus) {
  requireNotEnded();
  KIV_REQUIRE(ipIntfStatus,
              "null _vrfIpIntfStatus parameter to mutator for "
              "Routing::Host::RouteSm::vrfIpIntfStatus not allowed");
  const Zemit::IntfId intfId = ipIntfStatus->intfId();
  const HostCore::Event<Ipv4> event(*this, HostCore::CauseKind::Interface, intfId);
  vrfIpIntfStatus_.set(*this, intfId, ipIntfStatus);
  handleIpIntfStatus(intfId);
  // A callback may have removed the interface, or replaced its status.
  if (vrfIpIntfStatus(intfId) == ipIntfStatus) ipIntfStatusIs(ipIntfStatus);
}

void RouteSm::vrfIpIntfStatusDel(Zemit::IntfId intfId) {
  if (!vrfIpIntfStatus_.del(*this, intfId)) return;
  const HostCore::Event<Ipv4> event(*this, HostCore::CauseKind::Interface, intfId);
  handleIpIntfStatus(intfId);
  if (!vrfIpIntfStatus(intfId)) ipIntfStatusDel(intfId);
}

void RouteSm::ipIntfStatusFilterIs(const Ip::IpIntfStatus::PtrConst& ipIntfStatus) {
  requireNotEnded();
  KIV_REQUIRE(ipIntfStatus,
              "null _ipIntfStatusFilter parameter to mutator for "
              "Routing::Host::RouteSm::ipIntfStatusFilter not allowed");
  HostCore::bindMember(ipIntfStatusFilter_, *this, ipIntfStatus->intfId(), ipIntfStatus);
}

Kiv::Ptr<RouteSm::KivIpIntfStatusFilter> RouteSm::newIpIntfStatusFilter(
    const Ip::IpIntfStatus::PtrConst& ipIntfStatus) {
  if (ipIntfStatus) HostCore::renewMember(ipIntfStatusFilter_, *this, ipIntfStatus->intfId());
  ipIntfStatusFilterIs(ipIntfStatus);  // refuses null
  return ipIntfStatusFilter(ipIntfStatus->intfId());
}

void RouteSm::ipIntfStatusFilterDel(Zemit::IntfId intfId) {
  const auto filter = ipIntfStatusFilter(intfId);
  if (!filter) return;
  kiv_handleIpIntfStatusFilter(*filter);
  ipIntfStatusFilter_.del(*this, intfId);
}

void RouteSm::kiv_handleIpIntfStatusFilter(const KivIpIntfStatusFilter& filter) {
  vrfIpIntfStatusDel(Kiv::validPtr(filter.notifierRaw()).intfId());
}

void RouteSm::ipIntfStatusIs(const Ip::IpIntfStatus::PtrConst& ipIntfStatus) {
  requireNotEnded();
  KIV_REQUIRE(ipIntfStatus,
              "null _ipIntfStatus parameter to mutator for "
              "Routing::Host::RouteSm::ipIntfStatus not allowed");
  HostCore::bindMember(ipIntfStatus_, *this, ipIntfStatus->intfId(), ipIntfStatus);
}

Kiv::Ptr<RouteSm::KivIpIntfStatus> RouteSm::newIpIntfStatus(
    const Ip::IpIntfStatus::PtrConst& ipIntfStatus) {
  if (ipIntfStatus) HostCore::renewMember(ipIntfStatus_, *this, ipIntfStatus->intfId());
  ipIntfStatusIs(ipIntfStatus);  // refuses null
  return this->ipIntfStatus(ipIntfStatus->intfId());
}

void RouteSm::arpIntfStatusIs(const ArpTable& arpIntfStatus) {
  requireNotEnded();
  KIV_REQUIRE(arpIntfStatus,
              "null _arpIntfStatus parameter to mutator for "
              "Routing::Host::RouteSm::arpIntfStatus not allowed");
  const ArpTable former =
      HostCore::bindMember(arpIntfStatus_, *this, arpIntfStatus->name(), arpIntfStatus);
  HostCore::Listening<Ipv4>(*this).review(arpIntfStatus->intfId());
  if (former && former != arpIntfStatus) {
    HostCore::NeighborEntries<Ipv4>(*this).handleReplacedArpIntfStatus(*former, arpIntfStatus);
  }
}

Kiv::Ptr<RouteSm::KivArpIntfStatus> RouteSm::newArpIntfStatus(const ArpTable& arpIntfStatus) {
  ArpTable former;
  if (arpIntfStatus) {
    former = HostCore::renewMember(arpIntfStatus_, *this, arpIntfStatus->name());
  }
  arpIntfStatusIs(arpIntfStatus);  // refuses null
  if (former && former != arpIntfStatus) {
    HostCore::NeighborEntries<Ipv4>(*this).handleReplacedArpIntfStatus(*former, arpIntfStatus);
  }
  return this->arpIntfStatus(arpIntfStatus->name());
}

void RouteSm::arpIntfStatusDel(const Kiv::Name& name) {
  const auto reactor = arpIntfStatus(name);
  if (!reactor) return;
  kiv_handleArpIntfStatus(*reactor);
  arpIntfStatus_.del(*this, name);
}

void RouteSm::kiv_handleArpIntfStatus(KivArpIntfStatus& reactor) {
  reactor.handleDel();
}

void RouteSm::initializedIs(bool initialized) {
  requireNotEnded();
  if (!initialized_.set(*this, initialized)) return;
  HostCore::Listening<Ipv4>(*this).review();
  handleInitialized();
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
  HostCore::followInterfaces(*routeSm(), notifierRaw()->ipIntfStatusKeys(),
                             [this](Zemit::IntfId intfId) { onIpIntfStatus(intfId); });
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
  return Kiv::make<RouteSm>(activityConfig, routeStatus, fwdStatus, hostStatus, ribReadyStatus,
                            seqConfig, ipv4SeqInfo, adjHelper, ipStatus, neighborDirByIntfName,
                            root, virtualIpStatus, vrfName);
}

}  // namespace Routing::Host
