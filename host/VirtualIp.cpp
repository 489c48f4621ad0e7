// RouteSm: giving way to virtual IPv4 addresses.
#include "hostcore/VirtualIp.h"

#include "host/Family.h"

namespace Routing::Host {

// Deliberate: this handler handles the virtual addresses of its own VRF only, while the writer
// yields to those of any VRF.
bool RouteSm::handleVirtualIpStatus(const Fhrp::VrfIpWithMaskPair& vrfIpWithMask) {
  const auto addr = vrfIpWithMask.v4Addr();
  if (!addr) return true;
  if (vrfIpWithMask.vrfName() != vrfName()) return true;
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
  HostCore::VirtualIp<Ipv4>(*this).handleAll(
      [this](const Fhrp::VrfIpWithMaskPair& pair) { handleVirtualIpStatus(pair); });
}

}  // namespace Routing::Host
