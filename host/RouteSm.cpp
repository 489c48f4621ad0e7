#include "host/RouteSm.h"

#include "host/Family.h"
#include "host/ReceiveRoutes.h"
#include "hostcore/Lifecycle.h"
#include "hostcore/NeighborEntries.h"
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

  handleFec();
  if (this->ipStatus()) this->ipStatus()->onIpIntfStatuskivImmediate();
  if (this->neighborDirByIntfName()) {
    this->neighborDirByIntfName()->onArpIntfStatuskivImmediate();
  }
  handleVirtualIpStatus();
}

RouteSm::~RouteSm() {
  kivDoZombieReactors(true);
  forEachReactor([](auto& reactor) { reactor.routeSmIs(nullptr); });
  // Without the collections' hooks: nothing is withdrawn at teardown.
  arpIntfStatus_.dropAll();
  ipIntfStatusFilter_.dropAll();
  vrfIpIntfStatus_.dropAll();
  ipIntfStatus_.dropAll();
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
  kivFwkActivity_.set(*this, activityConfig);
  forEachReactor([&](auto& reactor) { reactor.kivFwkActivityIs(activityConfig); });
}

void RouteSm::hasNotificationActiveIs(bool active) {
  hasNotificationActive_ = active;
  forEachReactor([active](auto& reactor) { reactor.hasNotificationActiveIs(active); });
}

void RouteSm::kivDoZombieReactors(bool zombie) {
  forEachReactor([zombie](auto& reactor) { reactor.kivDoZombieReactors(zombie); });
}

void RouteSm::reportException(const Kiv::Notifiee& reactor, Kiv::AttributeId id) const noexcept {
  const char* what = "unknown";
  try {
    throw;
  } catch (const std::exception& exception) {
    what = exception.what();
    KIV_TRACE(hostRouteTrace, 0, *this,
              "exception in the notification of attribute "
                  << id << " of " << Kiv::Tracer::objectName(reactor) << ": " << what);
  } catch (...) {
    KIV_TRACE(hostRouteTrace, 0, *this,
              "exception in the notification of attribute "
                  << id << " of " << Kiv::Tracer::objectName(reactor) << ": " << what);
  }
}

template <class NewReactor, class... Args>
Kiv::Ptr<NewReactor> RouteSm::newReactor(Args&&... args) const {
  auto reactor = Kiv::make<NewReactor>(kivFwkActivity(), std::forward<Args>(args)...);
  reactor->hasNotificationActiveIs(hasNotificationActive_);
  return reactor;
}

template <class Slot, class Input, class... Args>
void RouteSm::bindNew(Slot& slot, const Input& input, Args&&... args) {
  if (!input) return;
  const auto reactor = newReactor<typename Slot::Element>(std::forward<Args>(args)...);
  slot.set(*this, reactor);
  if (inputsStored_) reactor->routeSmIs(this);
  reactor->notifierIs(input);
}

void RouteSm::newFwdStatus(const Tovan::Fib::ForwardingStatus::Ptr& fwdStatus) {
  bindNew(fwdStatus_, fwdStatus);
}

const Tovan::Fib::ForwardingStatus* RouteSm::forwardingStatus() const noexcept {
  return fwdStatus() ? fwdStatus()->notifierRaw() : nullptr;
}

void RouteSm::newRibReadyStatus(const RovelReady::VrfStatus::Ptr& ribReadyStatus) {
  bindNew(ribReadyStatus_, ribReadyStatus, ribReadyStatus);
}

RovelReady::VrfStatus* RouteSm::vrfReadiness() const noexcept {
  return ribReadyStatus() ? ribReadyStatus()->status().get() : nullptr;
}

void RouteSm::newSeqConfig(const Routing::SeqConfig::Ptr& seqConfig) {
  bindNew(seqConfig_, seqConfig);
}

void RouteSm::newIpv4SeqInfo(const Rovel::SeqInfo::Ptr& ipv4SeqInfo) {
  bindNew(ipv4SeqInfo_, ipv4SeqInfo);
}

void RouteSm::newIpStatus(const Ip::Status::PtrConst& ipStatus) {
  bindNew(ipStatus_, ipStatus);
}

void RouteSm::newNeighborDirByIntfName(const Arp::NeighborDir::PtrConst& neighborDirByIntfName) {
  bindNew(neighborDirByIntfName_, neighborDirByIntfName);
}

void RouteSm::newVirtualIpStatus(const Fhrp::VirtualIpStatus::PtrConst& virtualIpStatus) {
  bindNew(virtualIpStatus_, virtualIpStatus);
}

const Fhrp::VirtualIpStatus* RouteSm::virtualIps() const noexcept {
  return virtualIpStatus() ? virtualIpStatus()->notifierRaw() : nullptr;
}

const Arp::ArpIntfStatus* RouteSm::neighborTable(Zemit::IntfId intf) const {
  if (!neighborDirByIntfName()) return nullptr;
  return neighborDirByIntfName()->notifierRaw()->arpIntfStatus(intf.name()).get();
}

void RouteSm::vrfIpIntfStatusIs(const Ip::IpIntfStatus::PtrConst& ipIntfStatus) {
  KIV_REQUIRE(ipIntfStatus,
              "null _vrfIpIntfStatus parameter to mutator for "
              "Routing::Host::RouteSm::vrfIpIntfStatus not allowed");
  const Zemit::IntfId intfId = ipIntfStatus->intfId();
  vrfIpIntfStatus_.set(*this, intfId, ipIntfStatus);
  handleIpIntfStatus(intfId);
  ipIntfStatusIs(ipIntfStatus);
}

void RouteSm::vrfIpIntfStatusDel(Zemit::IntfId intfId) {
  if (!vrfIpIntfStatus_.del(*this, intfId)) return;
  handleIpIntfStatus(intfId);
  ipIntfStatusDel(intfId);
}

void RouteSm::ipIntfStatusFilterIs(const Ip::IpIntfStatus::PtrConst& ipIntfStatus) {
  KIV_REQUIRE(ipIntfStatus,
              "null _ipIntfStatusFilter parameter to mutator for "
              "Routing::Host::RouteSm::ipIntfStatusFilter not allowed");
  auto filter = ipIntfStatusFilter(ipIntfStatus->intfId());
  if (!filter) {
    filter = newReactor<KivIpIntfStatusFilter>();
    ipIntfStatusFilter_.set(*this, ipIntfStatus->intfId(), filter);
  }
  filter->routeSmIs(this);
  filter->ipIntfStatusIs(ipIntfStatus);
}

void RouteSm::ipIntfStatusFilterDel(Zemit::IntfId intfId) {
  const auto filter = ipIntfStatusFilter(intfId);
  if (!filter) return;
  kiv_handleIpIntfStatusFilter(*filter);
  ipIntfStatusFilter_.del(*this, intfId);
}

void RouteSm::kiv_handleIpIntfStatusFilter(const KivIpIntfStatusFilter& filter) {
  vrfIpIntfStatusDel(filter.notifierRaw()->intfId());
}

void RouteSm::ipIntfStatusIs(const Ip::IpIntfStatus::PtrConst& ipIntfStatus) {
  KIV_REQUIRE(ipIntfStatus,
              "null _ipIntfStatus parameter to mutator for "
              "Routing::Host::RouteSm::ipIntfStatus not allowed");
  auto reactor = this->ipIntfStatus(ipIntfStatus->intfId());
  if (!reactor) {
    reactor = newReactor<KivIpIntfStatus>();
    ipIntfStatus_.set(*this, ipIntfStatus->intfId(), reactor);
  }
  reactor->routeSmIs(this);
  reactor->notifierIs(ipIntfStatus);
}

void RouteSm::arpIntfStatusIs(const ArpTable& arpIntfStatus) {
  KIV_REQUIRE(arpIntfStatus,
              "null _arpIntfStatus parameter to mutator for "
              "Routing::Host::RouteSm::arpIntfStatus not allowed");
  auto reactor = this->arpIntfStatus(arpIntfStatus->name());
  if (!reactor) {
    reactor = newReactor<KivArpIntfStatus>();
    arpIntfStatus_.set(*this, arpIntfStatus->name(), reactor);
  }
  const ArpTable former = reactor->notifier();
  reactor->routeSmIs(this);
  reactor->notifierIs(arpIntfStatus);
  if (former && former != arpIntfStatus) {
    HostCore::NeighborEntries<Ipv4>(*this).handleReplacedArpIntfStatus(*former, arpIntfStatus);
  }
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
  if (initialized_.set(*this, initialized)) handleInitialized();
}

void RouteSm::handleInitialized() {
  KIV_TRACE(hostRouteTrace, 8, *this, "void Routing::Host::RouteSm::handleInitialized()");
  HostCore::handleInitialized<Ipv4>(*this);
}

void RouteSm::handleIpIntfStatus(Zemit::IntfId intfId) {
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::handleIpIntfStatus(Zemit::IntfId)");
  const auto& followed = vrfIpIntfStatus(intfId);
  const Ip::IpIntfStatus::PtrConst present =
      ipStatus() ? ipStatus()->notifierRaw()->ipIntfStatus(intfId) : nullptr;
  if (followed && present && followed->name() == present->name()) return;
  KIV_TRACE(hostRouteTrace, 6, *this, "removing receive routes for " << intfId.name());
  const auto changed = Obu::AddrSet::AddrSetIs(Zemit::Prefix::null());
  removeReceiveRoutes(present, intfId.name(), Kiv::validPtr(root()), changed);
  doMerge(changed);
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

void RouteSm::KivFwdStatus::onFec(const Tovan::Fib::FecId& fecId) {
  fecId_ = fecId;
  if (mayAct(Tovan::Fib::ForwardingStatus::FecAttribute::kInfo.id, &fecId)) {
    routeSm()->handleFec(fecId);
  }
}

void RouteSm::KivFwdStatus::onFec() {
  if (mayAct()) routeSm()->handleFec();
}

void RouteSm::KivRibReadyStatus::onRibReady() {
  const bool value = status_->ribReady();
  if (mayAct(RovelReady::VrfStatus::RibReadyAttribute::kInfo.id, &value)) {
    routeSm()->handleRibReady();
  }
}

void RouteSm::KivRibReadyStatus::onStartRibReadyVerification() {
  const bool value = status_->startRibReadyVerification();
  if (mayAct(RovelReady::VrfStatus::StartRibReadyVerificationAttribute::kInfo.id, &value)) {
    routeSm()->setHostRouteRibReady();
  }
}

void RouteSm::KivIpStatus::onIpIntfStatus(const Zemit::IntfId& intfId) {
  if (!mayAct() || notifierRaw() == nullptr) return;
  if (const auto& status = notifierRaw()->ipIntfStatus(intfId)) {
    routeSm()->ipIntfStatusFilterIs(status);
  } else {
    routeSm()->ipIntfStatusFilterDel(intfId);
  }
}

void RouteSm::KivIpStatus::onIpIntfStatuskivImmediate() {
  if (!mayAct() || notifierRaw() == nullptr) return;
  for (const Zemit::IntfId intfId : notifierRaw()->ipIntfStatusKeys()) onIpIntfStatus(intfId);
  for (const Zemit::IntfId intfId : routeSm()->ipIntfStatusFilterKeys()) {
    if (!notifierRaw()->ipIntfStatus(intfId)) routeSm()->ipIntfStatusFilterDel(intfId);
  }
}

RouteSm::KivIpIntfStatusFilter::KivIpIntfStatusFilter(const Kiv::ActivityConfig::Ptr& activity)
    : MachineReactor(activity), l3Status_(Kiv::make<KivL3Status>(activity, *this)) {}

void RouteSm::KivIpIntfStatusFilter::ipIntfStatusIs(const Ip::IpIntfStatus::PtrConst& status) {
  notifierIs(status);
  l3Status_->notifierIs(status->l3Status());
}

void RouteSm::KivIpIntfStatusFilter::routeSmIs(RouteSm* routeSm) noexcept {
  MachineReactor::routeSmIs(routeSm);
  l3Status_->routeSmIs(routeSm);
}

void RouteSm::KivIpIntfStatusFilter::kivFwkActivityIs(const Kiv::ActivityConfig::Ptr& activity) {
  MachineReactor::kivFwkActivityIs(activity);
  if (l3Status_) l3Status_->kivFwkActivityIs(activity);
}

void RouteSm::KivIpIntfStatusFilter::hasNotificationActiveIs(bool active) {
  MachineReactor::hasNotificationActiveIs(active);
  l3Status_->hasNotificationActiveIs(active);
}

void RouteSm::KivIpIntfStatusFilter::kivDoZombieReactors(bool zombie) {
  MachineReactor::kivDoZombieReactors(zombie);
  l3Status_->kivDoZombieReactors(zombie);
}

void RouteSm::KivIpIntfStatusFilter::handleVrf() {
  const Ip::IpIntfStatus::PtrConst status = notifier();
  const L3::VrfName& vrf = status->l3Status()->vrf();
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::KivIpIntfStatusFilter::handleVrf()"
                << " In VRF: " << vrf);
  if (vrf == routeSm()->vrfName()) {
    routeSm()->vrfIpIntfStatusIs(status);
  } else {
    routeSm()->vrfIpIntfStatusDel(status->intfId());
  }
}

void RouteSm::KivIpIntfStatusFilter::KivL3Status::onVrf() {
  if (notifierRaw() == nullptr) return;
  if (mayAct(L3::Intf::Status::VrfAttribute::kInfo.id, &notifierRaw()->vrf())) {
    filter_.handleVrf();
  }
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
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::KivIpIntfStatus::handleActiveAddrWithMask()"
                << " In VRF: " << routeSm()->vrfName());
  recomputeReceiveRoutes(RouteSm::Ptr(routeSm()), notifier());
}

void RouteSm::KivIpIntfStatus::handleActiveSecondaryWithMask(const Zemit::IpAddrWithMask&) {
  handleActiveSecondaryWithMask();
}

void RouteSm::KivIpIntfStatus::handleActiveSecondaryWithMask() {
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::KivIpIntfStatus::handleActiveSecondaryWithMask()"
                << " In VRF: " << routeSm()->vrfName());
  recomputeReceiveRoutes(RouteSm::Ptr(routeSm()), notifier());
}

void RouteSm::KivNeighborDirByIntfName::onArpIntfStatus(const Kiv::Name& name) {
  if (!mayAct() || notifierRaw() == nullptr) return;
  if (const auto& table = notifierRaw()->arpIntfStatus(name)) {
    routeSm()->arpIntfStatusIs(table);
  } else {
    routeSm()->arpIntfStatusDel(name);
  }
}

void RouteSm::KivNeighborDirByIntfName::onArpIntfStatuskivImmediate() {
  if (!mayAct() || notifierRaw() == nullptr) return;
  for (const Kiv::Name& name : notifierRaw()->arpIntfStatusKeys()) onArpIntfStatus(name);
  for (const Kiv::Name& name : routeSm()->arpIntfStatusKeys()) {
    if (!notifierRaw()->arpIntfStatus(name)) routeSm()->arpIntfStatusDel(name);
  }
}

void RouteSm::KivArpIntfStatus::onArpEntry(const Zemit::IpAddr& addr) {
  if (mayAct()) handleArpEntry(addr);
}

void RouteSm::KivArpIntfStatus::onArpEntrykivImmediate() {
  if (mayAct()) handleArpEntry();
}

void RouteSm::KivVirtualIpStatus::onVirtualIp(const Fhrp::VrfIpWithMaskPair& pair) {
  virtualIp_ = pair;
  if (mayAct(Fhrp::VirtualIpStatus::VirtualIpAttribute::kInfo.id, &pair)) {
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
