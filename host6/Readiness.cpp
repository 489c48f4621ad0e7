// RouteSm: telling the daemon that the VRF's IPv6 host routes are complete.
#include "hostcore/Readiness.h"

#include "host6/Family.h"

namespace Routing6::Host {

void RouteSm::handleRibReady() {
  const HostCore::Readiness<Ipv6> steps(*this);
  if (!steps.isRibReady()) return;
  KIV_TRACE(hostRoute6Trace, 8, *this, "void Routing6::Host::RouteSm::handleRibReady()");
  steps.mergeRib();
}

void RouteSm::setHostRouteRibReady() {
  static constexpr const char* kSignature = "void Routing6::Host::RouteSm::setHostRouteRibReady()";
  KIV_TRACE(hostRoute6Trace, 8, *this, kSignature);
  const HostCore::Readiness<Ipv6> steps(*this);
  if (!steps.isVerificationStarted()) {
    KIV_TRACE(hostRoute6Trace, 8, *this,
              kSignature << " Returning without setting RIB ready for"
                         << " v6 host routes as startRibReadyVerification not set yet");
    return;
  }
  steps.runFullPasses();
  const auto entry = steps.unreadyEntry();
  if (!entry) return;
  KIV_TRACE(hostRoute6Trace, 8, *this, kSignature << " Setting RIB ready for v6 host routes");
  HostCore::becomeReady(*entry);
}

}  // namespace Routing6::Host
