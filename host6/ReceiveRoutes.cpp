#include "host6/ReceiveRoutes.h"

#include <algorithm>

#include "host6/Family.h"
#include "hostcore/ReceiveRoutes.h"

namespace Routing6::Host {

void removeReceiveRoutes(const Ip6::IntfStatus::PtrConst& status, const Kiv::Name& intfName,
                         const RouteSmRoot::Ptr& root, const Obu::Ip6AddrSet::Ptr& changed) {
  Kiv::validPtr(root);
  Kiv::validPtr(changed);
  KIV_TRACE(hostRoute6Trace, 8, *root,
            "removeReceiveRoutes"
                << " intfName " << intfName << " intf " << status);
  if (const auto recorded = root->intfNameToAddrWithMask(intfName)) {
    for (const auto& addrWithMask : recorded->addrWithMaskKeys()) {
      // An address that the interface has lost leaves with the record as a whole, below.
      if (status && status->addr(addrWithMask) != Ip6::AddressInfo()) {
        recorded->addrWithMaskDel(addrWithMask);
      }
      KIV_TRACE(hostRoute6Trace, 8, *root,
                "removeAddrMaskFromReceiveTable"
                    << " remove recv route: " << addrWithMask << "  intfName: " << intfName);
      const Zemit::Ip6Addr ip = addrWithMask.addr();
      if (ip.isZero()) continue;
      const auto* owner = root->receiveAddrToIntfNameFind(ip);
      if (owner == nullptr || *owner != intfName) continue;
      HostCore::eraseReceiveRoute<Ipv6>(ip, *root);
      changed->ipIs(ip, true);
    }
  }
  root->intfNameToAddrWithMaskDel(intfName);
}

void RouteSm::KivIpIntfStatus::handleActiveAddrWithMask(
    const Zemit::Ip6AddrWithMask& addrWithMask) {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__, addrWithMask));
  if (!addrWithMask.addr().isLinkLocal()) handleActiveAddrWithMask();
}

void RouteSm::KivIpIntfStatus::handleActiveAddrWithMask() {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__));
  Kiv::validPtr(routeSm());
  KIV_TRACE(hostRoute6Trace, 8, *this,
            "void Routing6::Host::RouteSm::KivIpIntfStatus::handleActiveAddrWithMask()"
                << " In VRF: " << routeSm()->vrfName());
  // A callback of a write may take the interface, and this reactor, from the machine.
  const Kiv::Ptr<KivIpIntfStatus> alive(this);
  const RouteSm::Ptr machine(routeSm());
  const Ip6::IntfStatus::PtrConst status = Kiv::validPtr(notifier());
  const Kiv::Name name = status->name();
  KIV_TRACE(hostRoute6Trace, 8, *this,
            "recomputeReceiveRoutes"
                << " for interface: " << name);
  const auto root = Kiv::validPtr(machine->root());
  const HostCore::Event<Ipv6> event(*machine, HostCore::CauseKind::Address, status->intfId());
  HostCore::MergeSet<Ipv6> merges(*machine);
  const auto& changed = merges.addrs();
  const bool isFollowed = bool(machine->vrfIpIntfStatus(status->intfId()));
  removeReceiveRoutes(status, name, root, changed);
  root->intfNameToAddrWithMaskIs(name);
  // In ascending order, so that the order of the collection decides nothing.
  auto addrs = status->addrKeys();
  std::sort(addrs.begin(), addrs.end());
  for (const auto& addrWithMask : addrs) {
    const Zemit::Ip6Addr& ip = addrWithMask.addr();
    if (ip.isLinkLocal()) continue;
    KIV_TRACE(hostRoute6Trace, 8, *this,
              "addActiveReceiveRoutes"
                  << "  addrMask: " << addrWithMask << " intfName: " << name);
    if (!ip.isZero()) {
      const auto adjacency = HostCore::receiveAdjacency<Ipv6>(status->intfId(), *root);
      HostCore::writeReceiveRoute<Ipv6>(ip, adjacency, Fib::receive_, name, *root, changed);
    }
    // Looked up again: a callback of a write may have removed the former record.
    root->intfNameToAddrWithMaskIs(name)->addrWithMaskIs(addrWithMask, true);
  }
  // A callback may have moved the interface to another VRF meanwhile.
  if (isFollowed && !machine->vrfIpIntfStatus(status->intfId())) {
    removeReceiveRoutes(status, name, root, changed);
  }
  machine->doMerge(changed);
}

}  // namespace Routing6::Host
