// RouteSm: telling the daemon that the VRF's IPv4 host routes are complete.
#include "hostcore/Readiness.h"

#include "host/Family.h"

namespace Routing::Host {

void RouteSm::handleRibReady() {
  const HostCore::Readiness<Ipv4> steps(*this);
  if (!steps.isRibReady()) return;
  KIV_TRACE(hostRouteTrace, 8, *this, "void Routing::Host::RouteSm::handleRibReady()");
  steps.mergeRib();
}

void RouteSm::setHostRouteRibReady() {
  static constexpr const char* kSignature = "void Routing::Host::RouteSm::setHostRouteRibReady()";
  KIV_TRACE(hostRouteTrace, 8, *this, kSignature << " for vrf " << vrfName());
  const HostCore::Readiness<Ipv4> steps(*this);
  if (!steps.isVerificationStarted()) {
    KIV_TRACE(hostRouteTrace, 8, *this,
              kSignature << " Returning without setting RIB ready for"
                         << " v4 host routes as startRibReadyVerification not set yet for vrf "
                         << vrfName());
    return;
  }
  steps.runFullPasses();
  const auto entry = steps.unreadyEntry();
  if (!entry) return;
  KIV_TRACE(hostRouteTrace, 8, *this,
            kSignature << " Setting RIB ready for v4 host routes for vrf " << vrfName());
  HostCore::becomeReady(*entry);
}

}  // namespace Routing::Host
