#include "host6/ReceiveRoutes.h"

#include <algorithm>

#include "host6/Family.h"
#include "hostcore/ReceiveRoutes.h"

namespace Routing6::Host {

void removeReceiveRoutes(const Ip6::IntfStatus::PtrConst& status, const Kiv::Name& intfName,
                         const RouteSmRoot::Ptr& root, const Obu::Ip6AddrSet::Ptr& changed) {
  KIV_TRACE(hostRoute6Trace, 8, *Kiv::validPtr(root),
            "removeReceiveRoutes"
                << " intfName " << intfName << " intf " << status);
  HostCore::stepTaken<Ipv6>(*Kiv::validPtr(root));
  if (const auto recorded = root->intfNameToAddrWithMask(intfName)) {
    for (const auto& addrWithMask : recorded->addrWithMaskKeys()) {
      // What the interface has no more leaves with the record as a whole, below.
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
  KIV_TRACE(hostRoute6Trace, 8, *this,
            "void Routing6::Host::RouteSm::KivIpIntfStatus::handleActiveAddrWithMask()"
                << " In VRF: " << routeSm()->vrfName());
  // A callback of what is written here may take the interface, and this reactor, from the machine.
  const Kiv::Ptr<KivIpIntfStatus> alive(this);
  const Ip6::IntfStatus::PtrConst status = notifier();
  const Kiv::Name name = status->name();
  KIV_TRACE(hostRoute6Trace, 8, *this,
            "recomputeReceiveRoutes"
                << " for interface: " << name);
  const auto root = Kiv::validPtr(routeSm()->root());
  const HostCore::Listening<Ipv6>::Handling handling(*routeSm());
  const auto changed = Obu::Ip6AddrSet::AddrSetIs(Zemit::Ip6Prefix::null());
  removeReceiveRoutes(status, name, root, changed);
  root->intfNameToAddrWithMaskIs(name);
  const auto recorded = root->intfNameToAddrWithMask(name);
  // In ascending order, so that the order of the collection decides nothing.
  auto addrs = status->addrKeys();
  std::sort(addrs.begin(), addrs.end());
  for (const auto& addrWithMask : addrs) {
    const Zemit::Ip6Addr& ip = addrWithMask.addr();
    if (ip.isLinkLocal()) continue;
    // Who was told of it, or of what was written, may have taken the record away.
    if (!recorded || root->intfNameToAddrWithMask(name) != recorded) break;
    KIV_TRACE(hostRoute6Trace, 8, *this,
              "addActiveReceiveRoutes"
                  << "  addrMask: " << addrWithMask << " intfName: " << name);
    if (!ip.isZero()) {
      const auto adjacency = HostCore::receiveAdjacency<Ipv6>(status->intfId(), *root);
      HostCore::writeReceiveRoute<Ipv6>(ip, adjacency, Fib::receive_, name, *root, changed);
    }
    recorded->addrWithMaskIs(addrWithMask, true);
  }
  routeSm()->doMerge(changed);
}

}  // namespace Routing6::Host
