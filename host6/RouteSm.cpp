#include "host6/RouteSm.h"

#include <string>
#include <utility>

#include "host6/Family.h"
#include "host6/ReceiveRoutes.h"
#include "hostcore/Lifecycle.h"
#include "hostcore/Listening.h"
#include "hostcore/NeighborEntries.h"
#include "hostcore/ReceiveRoutes.h"
#include "hostcore/Tracing.h"
#include "platform/kiv/Assert.h"

namespace Routing6::Host {

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
                 const RouteSmRoot::Ptr& root, const L3::VrfName& vrfName) {
  kivFwkActivity_.setQuietly(activityConfig);
  routeStatus_.setQuietly(routeStatus);
  newFwdStatus(fwdStatus);
  hostStatus_.setQuietly(hostStatus);
  newRibReadyStatus(ribReadyStatus);
  newSeqConfig(seqConfig);
  newIpv6SeqInfo(ipv6SeqInfo);
  adjHelper_.setQuietly(adjHelper);
  newIpStatus(ipStatus);
  newNeighborDirByIntfName(neighborDirByIntfName);
  newVirtualIp6Status(virtualIp6Status);
  root_.setQuietly(root);
  vrfName_.setQuietly(vrfName);
  initialized_.setQuietly(false);
  // From here on the reactors reach the machine, whose inputs are all stored.
  inputsStored_ = true;
  forEachReactor([this](auto& reactor) { reactor.routeSmIs(this); });

  HostCore::Listening<Ipv6>(*this).begin();
  handleFec();
  if (this->ipStatus()) this->ipStatus()->onIntfkivImmediate();
  if (this->neighborDirByIntfName()) {
    this->neighborDirByIntfName()->onArpIntfStatuskivImmediate();
  }
  handleVirtualIp6Status();
}

RouteSm::~RouteSm() {
  retire();
}

void RouteSm::retire() {
  if (std::exchange(hasEnded_, true)) return;
  const Ptr alive(this);
  HostCore::tracedLevelsAre<Ipv6>(*this, 0);
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
  ipv6SeqInfo_.drop();
  ipStatus_.drop();
  neighborDirByIntfName_.drop();
  virtualIp6Status_.drop();
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
  visitOne(ipv6SeqInfo());
  visitOne(ipStatus());
  for (auto it = ipIntfStatusFilterIterator(); it; ++it) visitOne(it.value());
  for (auto it = ipIntfStatusIterator(); it; ++it) visitOne(it.value());
  visitOne(neighborDirByIntfName());
  for (auto it = arpIntfStatusIterator(); it; ++it) visitOne(it.value());
  visitOne(virtualIp6Status());
}

void RouteSm::kivFwkActivityIs(const Kiv::ActivityConfig::Ptr& activityConfig) {
  requireNotEnded();
  // What has waited is handled late.
  if (kivFwkActivityRaw() != nullptr && kivFwkActivityRaw()->queues()) {
    HostCore::Listening<Ipv6>(*this).missed();
  }
  kivFwkActivity_.set(*this, activityConfig);
  forEachReactor([&](auto& reactor) { reactor.kivFwkActivityIs(activityConfig); });
  HostCore::Listening<Ipv6>(*this).review();
}

void RouteSm::hasNotificationActiveIs(bool active) {
  requireNotEnded();
  hasNotificationActive_ = active;
  if (!active) HostCore::Listening<Ipv6>(*this).missed();
  forEachReactor([active](auto& reactor) { reactor.hasNotificationActiveIs(active); });
}

void RouteSm::kivDoZombieReactors(bool zombie) {
  if (zombie) HostCore::Listening<Ipv6>(*this).missed();
  forEachReactor([zombie](auto& reactor) { reactor.kivDoZombieReactors(zombie); });
}

void RouteSm::reportException(const Kiv::Notifiee& reactor, Kiv::AttributeId id) noexcept {
  HostCore::reportException(hostRoute6Trace, *this, reactor, id);
  HostCore::Listening<Ipv6>(*this).missed();
}

void RouteSm::missed() {
  HostCore::Listening<Ipv6>(*this).missed();
}

void RouteSm::inputReplaced(bool changed) {
  if (changed) missed();
}

Kiv::Ptr<RouteSm::KivFwdStatus> RouteSm::newFwdStatus(
    const Tovan::Fib6::ForwardingStatus::Ptr& fwdStatus) {
  requireNotEnded();
  HostCore::bindNew(fwdStatus_, *this, inputsStored_, fwdStatus);
  return fwdStatus_.get();
}

const Tovan::Fib6::ForwardingStatus* RouteSm::forwardingStatus() const noexcept {
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

Kiv::Ptr<RouteSm::KivIpv6SeqInfo> RouteSm::newIpv6SeqInfo(const Rovel::SeqInfo::Ptr& ipv6SeqInfo) {
  requireNotEnded();
  HostCore::bindNew(ipv6SeqInfo_, *this, inputsStored_, ipv6SeqInfo);
  return ipv6SeqInfo_.get();
}

Kiv::Ptr<RouteSm::KivIpStatus> RouteSm::newIpStatus(const Ip6::Status::PtrConst& ipStatus) {
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

Kiv::Ptr<RouteSm::KivVirtualIp6Status> RouteSm::newVirtualIp6Status(
    const Routing::Fhrp::VirtualIp6Status::PtrConst& virtualIp6Status) {
  requireNotEnded();
  HostCore::bindNew(virtualIp6Status_, *this, inputsStored_, virtualIp6Status);
  inputReplaced(inputsStored_);
  return virtualIp6Status_.get();
}

const Routing::Fhrp::VirtualIp6Status* RouteSm::virtualIps() const noexcept {
  return HostCore::watchedBy(virtualIp6Status());
}

const Arp::ArpIntfStatus* RouteSm::neighborTable(Zemit::IntfId intf) const {
  const auto* dir = HostCore::watchedBy(neighborDirByIntfName());
  return dir == nullptr ? nullptr : dir->tableOf(intf);
}

void RouteSm::vrfIpIntfStatusIs(const Ip6::IntfStatus::PtrConst& ipIntfStatus) {
  requireNotEnded();
  KIV_REQUIRE(ipIntfStatus,
              "null _vrfIpIntfStatus parameter to mutator for "
              "Routing6::Host::RouteSm::vrfIpIntfStatus not allowed");
  const Zemit::IntfId intfId = ipIntfStatus->intfId();
  const HostCore::Event<Ipv6> event(*this, HostCore::CauseKind::Interface, intfId);
  vrfIpIntfStatus_.set(*this, intfId, ipIntfStatus);
  handleIpIntfStatus(intfId);
  // A callback may have removed the interface, or replaced its status.
  if (vrfIpIntfStatus(intfId) == ipIntfStatus) ipIntfStatusIs(ipIntfStatus);
}

void RouteSm::vrfIpIntfStatusDel(Zemit::IntfId intfId) {
  if (!vrfIpIntfStatus_.del(*this, intfId)) return;
  const HostCore::Event<Ipv6> event(*this, HostCore::CauseKind::Interface, intfId);
  handleIpIntfStatus(intfId);
  if (!vrfIpIntfStatus(intfId)) ipIntfStatusDel(intfId);
}

void RouteSm::ipIntfStatusFilterIs(const Ip6::IntfStatus::PtrConst& ipIntfStatus) {
  requireNotEnded();
  KIV_REQUIRE(ipIntfStatus,
              "null _ipIntfStatusFilter parameter to mutator for "
              "Routing6::Host::RouteSm::ipIntfStatusFilter not allowed");
  HostCore::bindMember(ipIntfStatusFilter_, *this, ipIntfStatus->intfId(), ipIntfStatus);
}

Kiv::Ptr<RouteSm::KivIpIntfStatusFilter> RouteSm::newIpIntfStatusFilter(
    const Ip6::IntfStatus::PtrConst& ipIntfStatus) {
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

void RouteSm::ipIntfStatusIs(const Ip6::IntfStatus::PtrConst& ipIntfStatus) {
  requireNotEnded();
  KIV_REQUIRE(ipIntfStatus,
              "null _ipIntfStatus parameter to mutator for "
              "Routing6::Host::RouteSm::ipIntfStatus not allowed");
  HostCore::bindMember(ipIntfStatus_, *this, ipIntfStatus->intfId(), ipIntfStatus);
}

Kiv::Ptr<RouteSm::KivIpIntfStatus> RouteSm::newIpIntfStatus(
    const Ip6::IntfStatus::PtrConst& ipIntfStatus) {
  if (ipIntfStatus) HostCore::renewMember(ipIntfStatus_, *this, ipIntfStatus->intfId());
  ipIntfStatusIs(ipIntfStatus);  // refuses null
  return this->ipIntfStatus(ipIntfStatus->intfId());
}

void RouteSm::arpIntfStatusIs(const ArpTable& arpIntfStatus) {
  requireNotEnded();
  KIV_REQUIRE(arpIntfStatus,
              "null _arpIntfStatus parameter to mutator for "
              "Routing6::Host::RouteSm::arpIntfStatus not allowed");
  const ArpTable former =
      HostCore::bindMember(arpIntfStatus_, *this, arpIntfStatus->name(), arpIntfStatus);
  HostCore::Listening<Ipv6>(*this).review(arpIntfStatus->intfId());
  if (former && former != arpIntfStatus) {
    HostCore::NeighborEntries<Ipv6>(*this).handleReplacedArpIntfStatus(*former, arpIntfStatus);
  }
}

Kiv::Ptr<RouteSm::KivArpIntfStatus> RouteSm::newArpIntfStatus(const ArpTable& arpIntfStatus) {
  ArpTable former;
  if (arpIntfStatus) {
    former = HostCore::renewMember(arpIntfStatus_, *this, arpIntfStatus->name());
  }
  arpIntfStatusIs(arpIntfStatus);  // refuses null
  if (former && former != arpIntfStatus) {
    HostCore::NeighborEntries<Ipv6>(*this).handleReplacedArpIntfStatus(*former, arpIntfStatus);
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
  HostCore::Listening<Ipv6>(*this).review();
  handleInitialized();
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
  HostCore::followInterfaces(*routeSm(), notifierRaw()->intfKeys(),
                             [this](Zemit::IntfId intfId) { onIntf(intfId); });
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
  return Kiv::make<RouteSm>(activityConfig, routeStatus, fwdStatus, hostStatus, ribReadyStatus,
                            seqConfig, ipv6SeqInfo, adjHelper, ipStatus, neighborDirByIntfName,
                            virtualIp6Status, root, vrfName);
}

}  // namespace Routing6::Host
