#include "host6/RouteSm.h"

#include "host6/Family.h"
#include "host6/ReceiveRoutes.h"
#include "hostcore/Lifecycle.h"
#include "hostcore/Listening.h"
#include "hostcore/NeighborEntries.h"
#include "hostcore/ReceiveRoutes.h"
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
  visitOne(ipv6SeqInfo());
  visitOne(ipStatus());
  for (auto it = ipIntfStatusFilterIterator(); it; ++it) visitOne(it.value());
  for (auto it = ipIntfStatusIterator(); it; ++it) visitOne(it.value());
  visitOne(neighborDirByIntfName());
  for (auto it = arpIntfStatusIterator(); it; ++it) visitOne(it.value());
  visitOne(virtualIp6Status());
}

void RouteSm::kivFwkActivityIs(const Kiv::ActivityConfig::Ptr& activityConfig) {
  // What has waited is handled late.
  if (kivFwkActivityRaw() != nullptr && kivFwkActivityRaw()->queues()) {
    HostCore::Listening<Ipv6>(*this).missed();
  }
  kivFwkActivity_.set(*this, activityConfig);
  forEachReactor([&](auto& reactor) { reactor.kivFwkActivityIs(activityConfig); });
  HostCore::Listening<Ipv6>(*this).review();
}

void RouteSm::hasNotificationActiveIs(bool active) {
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

void RouteSm::newFwdStatus(const Tovan::Fib6::ForwardingStatus::Ptr& fwdStatus) {
  HostCore::bindNew(fwdStatus_, *this, inputsStored_, fwdStatus);
}

const Tovan::Fib6::ForwardingStatus* RouteSm::forwardingStatus() const noexcept {
  return HostCore::watchedBy(fwdStatus());
}

void RouteSm::newRibReadyStatus(const RovelReady::VrfStatus::Ptr& ribReadyStatus) {
  HostCore::bindNew(ribReadyStatus_, *this, inputsStored_, ribReadyStatus);
}

RovelReady::VrfStatus* RouteSm::vrfReadiness() const noexcept {
  return ribReadyStatus() ? ribReadyStatus()->status() : nullptr;
}

void RouteSm::newSeqConfig(const Routing::SeqConfig::Ptr& seqConfig) {
  HostCore::bindNew(seqConfig_, *this, inputsStored_, seqConfig);
}

void RouteSm::newIpv6SeqInfo(const Rovel::SeqInfo::Ptr& ipv6SeqInfo) {
  HostCore::bindNew(ipv6SeqInfo_, *this, inputsStored_, ipv6SeqInfo);
}

void RouteSm::newIpStatus(const Ip6::Status::PtrConst& ipStatus) {
  HostCore::bindNew(ipStatus_, *this, inputsStored_, ipStatus);
}

void RouteSm::newNeighborDirByIntfName(const Arp::NeighborDir::PtrConst& neighborDirByIntfName) {
  HostCore::bindNew(neighborDirByIntfName_, *this, inputsStored_, neighborDirByIntfName);
}

void RouteSm::newVirtualIp6Status(
    const Routing::Fhrp::VirtualIp6Status::PtrConst& virtualIp6Status) {
  HostCore::bindNew(virtualIp6Status_, *this, inputsStored_, virtualIp6Status);
  inputReplaced(inputsStored_);
}

const Routing::Fhrp::VirtualIp6Status* RouteSm::virtualIps() const noexcept {
  return HostCore::watchedBy(virtualIp6Status());
}

const Arp::ArpIntfStatus* RouteSm::neighborTable(Zemit::IntfId intf) const {
  const auto* dir = HostCore::watchedBy(neighborDirByIntfName());
  return dir == nullptr ? nullptr : dir->tableOf(intf);
}

void RouteSm::vrfIpIntfStatusIs(const Ip6::IntfStatus::PtrConst& ipIntfStatus) {
  KIV_REQUIRE(ipIntfStatus,
              "null _vrfIpIntfStatus parameter to mutator for "
              "Routing6::Host::RouteSm::vrfIpIntfStatus not allowed");
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

void RouteSm::ipIntfStatusFilterIs(const Ip6::IntfStatus::PtrConst& ipIntfStatus) {
  KIV_REQUIRE(ipIntfStatus,
              "null _ipIntfStatusFilter parameter to mutator for "
              "Routing6::Host::RouteSm::ipIntfStatusFilter not allowed");
  HostCore::bindMember(ipIntfStatusFilter_, *this, ipIntfStatus->intfId(), ipIntfStatus);
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

void RouteSm::ipIntfStatusIs(const Ip6::IntfStatus::PtrConst& ipIntfStatus) {
  KIV_REQUIRE(ipIntfStatus,
              "null _ipIntfStatus parameter to mutator for "
              "Routing6::Host::RouteSm::ipIntfStatus not allowed");
  HostCore::bindMember(ipIntfStatus_, *this, ipIntfStatus->intfId(), ipIntfStatus);
}

void RouteSm::arpIntfStatusIs(const ArpTable& arpIntfStatus) {
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
  if (const auto& status = notifierRaw()->intf(intfId)) {
    routeSm()->ipIntfStatusFilterIs(status);
  } else {
    routeSm()->ipIntfStatusFilterDel(intfId);
  }
}

void RouteSm::KivIpStatus::onIntfkivImmediate() {
  if (!mayAct()) return;
  HostCore::followInterfaces(*routeSm(), notifierRaw()->intfKeys(),
                             [this](Zemit::IntfId intfId) { onIntf(intfId); });
}

void RouteSm::KivIpIntfStatusFilter::handleVrf() {
  KIV_TRACE(hostRoute6Trace, 8, *this,
            "void Routing6::Host::RouteSm::KivIpIntfStatusFilter::handleVrf()"
                << " In VRF: " << notifierRaw()->l3Status()->vrf());
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
