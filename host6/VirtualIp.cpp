// RouteSm: giving way to virtual IPv6 addresses.
#include "hostcore/VirtualIp.h"

#include "host6/Family.h"

namespace Routing6::Host {

// Deliberate: this handler handles the virtual addresses of its own VRF only, while the writer
// yields to those of any VRF.
bool RouteSm::handleVirtualIp6Status(const Routing::Fhrp::VrfIpPair& vrfIpPair) {
  const Zemit::Ip6Addr& addr = vrfIpPair.vrfIp();
  if (vrfIpPair.vrfName() != vrfName()) return true;
  KIV_TRACE(hostRoute6Trace, 8, *this,
            "bool Routing6::Host::RouteSm::handleVirtualIp6Status("
            "const Routing::Fhrp::VrfIpPair&)"
                << " for " << vrfName() << ", " << addr);
  const auto* status = virtualIps();
  if (status != nullptr && status->virtualIp(vrfIpPair)) {
    HostCore::VirtualIp<Ipv6>(*this).handleAdded(addr, __func__);
  } else {
    HostCore::VirtualIp<Ipv6>(*this).handleRemoved(addr);
  }
  return true;
}

void RouteSm::handleVirtualIp6Status() {
  KIV_TRACE(hostRoute6Trace, 8, *this, "void Routing6::Host::RouteSm::handleVirtualIp6Status()");
  HostCore::VirtualIp<Ipv6>(*this).handleAll(
      [this](const Routing::Fhrp::VrfIpPair& pair) { handleVirtualIp6Status(pair); });
}

}  // namespace Routing6::Host
