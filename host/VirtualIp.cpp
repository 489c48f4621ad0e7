// RouteSm: giving way to virtual IPv4 addresses.
#include "hostcore/VirtualIp.h"

#include "host/Family.h"
#include "hostcore/Listening.h"

namespace Routing::Host {

// Deliberate: this handler minds its own VRF's virtual addresses only, while the writer gives way
// to those of any VRF.
bool RouteSm::handleVirtualIpStatus(const Fhrp::VrfIpWithMaskPair& vrfIpWithMask) {
  const auto addr = vrfIpWithMask.v4Addr();
  if (!addr) return true;
  if (vrfIpWithMask.vrfName() != vrfName()) {
    HostCore::Listening<Ipv4>(*this).foreignVirtualIpChanged(*addr);
    return true;
  }
  KIV_TRACE(hostRouteTrace, 8, *this,
            "bool Routing::Host::RouteSm::handleVirtualIpStatus("
            "const Routing::Fhrp::VrfIpWithMaskPair&)"
                << " for " << vrfName() << ", " << *addr);
  const auto* status = virtualIps();
  if (status != nullptr && status->virtualIp(vrfIpWithMask)) {
    HostCore::VirtualIp<Ipv4>(*this).handleAdded(*addr, __func__);
  } else {
    HostCore::VirtualIp<Ipv4>(*this).handleRemoved(*addr);
  }
  return true;
}

void RouteSm::handleVirtualIpStatus() {
  KIV_TRACE(hostRouteTrace, 8, *this, "void Routing::Host::RouteSm::handleVirtualIpStatus()");
  const auto* status = virtualIps();
  if (status == nullptr) return;
  for (auto it = status->virtualIpIteratorConst(); it; ++it) handleVirtualIpStatus(it.key());
}

}  // namespace Routing::Host
