#include "host/ReceiveRoutes.h"

#include <algorithm>
#include <array>

#include "host/Family.h"
#include "hostcore/ReceiveRoutes.h"

namespace Routing::Host {

namespace {

/// An interface address, with the network and the broadcast address of its subnet. A subnet of 31
/// bits has neither (RFC 3021). 0.0.0.0 is no address.
class DerivedAddresses {
 public:
  DerivedAddresses() = default;
  explicit DerivedAddresses(const Zemit::IpAddrWithMask& of) {
    if (!of.addr().isZero()) addrs_[count_++] = of.addr();
    if (of.len() > 30) return;
    addrs_[count_++] = of.subnetAddr();
    addrs_[count_++] = of.allOnesAddr();
  }

  const Zemit::IpAddr* begin() const { return addrs_.data(); }
  const Zemit::IpAddr* end() const { return addrs_.data() + count_; }
  bool contain(Zemit::IpAddr addr) const { return std::find(begin(), end(), addr) != end(); }

 private:
  std::array<Zemit::IpAddr, 3> addrs_;
  size_t count_ = 0;
};

/// The addresses for which an interface address gets receive routes. 0.0.0.0 gets none.
DerivedAddresses yieldedBy(const Zemit::IpAddrWithMask& addrWithMask) {
  return addrWithMask.addr().isZero() ? DerivedAddresses() : DerivedAddresses(addrWithMask);
}

}  // namespace

void addActiveReceiveRoutes(const Ip::IpIntfStatus::PtrConst& status,
                            const Zemit::IpAddrWithMask& addrWithMask, const RouteSmRoot::Ptr& root,
                            const Obu::AddrSet::Ptr& changed) {
  const auto name = Kiv::validPtr(status)->name();
  Kiv::validPtr(root);
  Kiv::validPtr(changed);
  KIV_TRACE(hostRouteTrace, 8, *root,
            "addActiveReceiveRoutes"
                << "  addrMask: " << addrWithMask << " intfName: " << name);
  bool isOwn = true;  // the first one, also where the network's address is the same
  for (const Zemit::IpAddr ip : yieldedBy(addrWithMask)) {
    const auto adjacency = isOwn ? HostCore::receiveAdjacency<Ipv4>(status->intfId(), *root)
                                 : Tovan::Fib::invalidFecId;
    HostCore::writeReceiveRoute<Ipv4>(ip, adjacency, isOwn ? Fib::receive_ : Fib::receiveBcast_,
                                      name, *root, changed);
    isOwn = false;
  }
}

void removeReceiveRoutes(const Ip::IpIntfStatus::PtrConst& /*status*/, const Kiv::Name& intfName,
                         const RouteSmRoot::Ptr& root, const Obu::AddrSet::Ptr& changed) {
  Kiv::validPtr(root);
  Kiv::validPtr(changed);
  KIV_TRACE(hostRouteTrace, 8, *root,
            "removeReceiveRoutes"
                << "  intf: " << intfName);
  // Each address leaves the record before its routes go, so that only those that remain count as
  // overlapping.
  if (const auto* recorded = root->intfNameToAddrWithMaskFind(intfName)) {
    const auto primary = *recorded;
    root->intfNameToAddrWithMaskDel(intfName);
    removeAddrMaskFromReceiveTable(primary, intfName, changed, root);
  }
  if (const auto secondaries = root->intfNameToSecondaryAddrWithMask(intfName)) {
    for (const auto& secondary : secondaries->addrWithMaskKeys()) {
      secondaries->addrWithMaskDel(secondary);
      removeAddrMaskFromReceiveTable(secondary, intfName, changed, root);
    }
    root->intfNameToSecondaryAddrWithMaskDel(intfName);
  }
}

void removeAddrMaskFromReceiveTable(const Zemit::IpAddrWithMask& addrWithMask,
                                    const Kiv::Name& intfName, const Obu::AddrSet::Ptr& changed,
                                    const RouteSmRoot::Ptr& root) {
  Kiv::validPtr(root);
  Kiv::validPtr(changed);
  KIV_TRACE(hostRouteTrace, 8, *root,
            "removeAddrMaskFromReceiveTable"
                << " remove recv route: " << addrWithMask);
  for (const Zemit::IpAddr ip : DerivedAddresses(addrWithMask)) {
    const auto* owner = root->receiveAddrToIntfNameFind(ip);
    if (owner == nullptr || *owner != intfName) continue;
    removeReceiveRoute(ip, intfName, root);
    changed->ipIs(ip, true);
  }
}

void removeReceiveRoute(Zemit::IpAddr ip, const Kiv::Name& intfName, const RouteSmRoot::Ptr& root) {
  Kiv::validPtr(root);
  KIV_TRACE(hostRouteTrace, 8, *root,
            "void Routing::Host::removeReceiveRoute(Zemit::IpAddr, const Kiv::Name&, "
            "const Routing::Host::RouteSmRoot::Ptr&)"
                << " remove recv route: " << ip);
  if (yieldedBy(root->intfNameToAddrWithMask(intfName)).contain(ip)) {
    KIV_TRACE(hostRouteTrace, 8, *root, " found overlapping addr ");
    return;
  }
  if (const auto secondaries = root->intfNameToSecondaryAddrWithMask(intfName)) {
    for (auto it = secondaries->addrWithMaskIteratorConst(); it; ++it) {
      if (!yieldedBy(it.key()).contain(ip)) continue;
      KIV_TRACE(hostRouteTrace, 8, *root, " found overlapping addr ");
      return;
    }
  }
  HostCore::eraseReceiveRoute<Ipv4>(ip, *root);
}

void recomputeReceiveRoutes(const RouteSm::Ptr& routeSm, const Ip::IpIntfStatus::PtrConst& status) {
  const auto root = Kiv::validPtr(Kiv::validPtr(routeSm)->root());
  const HostCore::Event<Ipv4> event(*routeSm, HostCore::CauseKind::Address,
                                    Kiv::validPtr(status)->intfId());
  HostCore::MergeSet<Ipv4> merges(*routeSm);
  const auto& changed = merges.addrs();
  const auto name = Kiv::validPtr(status)->name();
  KIV_TRACE(hostRouteTrace, 8, *root,
            "recomputeReceiveRoutes"
                << " for interface: " << name);
  const bool isFollowed = bool(routeSm->vrfIpIntfStatus(status->intfId()));
  removeReceiveRoutes(status, name, root, changed);
  const Zemit::IpAddrWithMask primary = status->activeAddrWithMask();
  if (primary != root->intfNameToAddrWithMask(name)) {
    addActiveReceiveRoutes(status, primary, root, changed);
    root->intfNameToAddrWithMaskIs(name, primary);
  }
  // In ascending order: of addresses that yield the same one, the last decides its type.
  auto secondaries = status->activeSecondaryWithMaskKeys();
  std::sort(secondaries.begin(), secondaries.end());
  for (const auto& secondary : secondaries) {
    if (root->intfNameToSecondaryAddrWithMaskIs(name)->addrWithMask(secondary)) continue;
    addActiveReceiveRoutes(status, secondary, root, changed);
    // Looked up again: a callback of a write may have removed the former record.
    root->intfNameToSecondaryAddrWithMaskIs(name)->addrWithMaskIs(secondary, true);
  }
  // A callback may have moved the interface to another VRF meanwhile.
  if (isFollowed && !routeSm->vrfIpIntfStatus(status->intfId())) {
    removeReceiveRoutes(status, name, root, changed);
  }
  routeSm->doMerge(changed);
}

}  // namespace Routing::Host
