// RouteSm: following the FIB's routes.
#include "hostcore/FibTracking.h"

#include "host/Family.h"
#include "host/NeighborEntries.h"

namespace Routing::Host {

namespace {
using Steps = HostCore::FibTracking<Ipv4>;
}

bool Ipv4::nonemptyIntersection(const RouteSmRoot& /*root*/, const Obu::IntfDir::Ptr& a,
                                const Obu::IntfDir::Ptr& b) {
  return Host::nonemptyIntersection(a, b);
}

Obu::IntfDir::Ptr Ipv4::subtract(const RouteSmRoot& /*root*/, const Obu::IntfDir::Ptr& a,
                                 const Obu::IntfDir::Ptr& b) {
  return Host::subtract(a, b);
}

bool nonemptyIntersection(const Obu::IntfDir::PtrConst& a, const Obu::IntfDir::PtrConst& b) {
  return HostCore::intersects(*Kiv::validPtr(a), *Kiv::validPtr(b));
}

Obu::IntfDir::Ptr subtract(const Obu::IntfDir::PtrConst& a, const Obu::IntfDir::PtrConst& b) {
  return HostCore::lackingIn(*Kiv::validPtr(a), *Kiv::validPtr(b));
}

void RouteSm::handleStatusRoute(const Zemit::Prefix& prefix) {
  const HostCore::About<Ipv4> about(*this, prefix);
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::handleStatusRoute(const Zemit::Prefix&)"
                << ", prefix: " << prefix);
  Steps(*this).handleStatusRoute(prefix);
}

void RouteSm::handleStatusRoute() {
  KIV_TRACE(hostRouteTrace, 8, *this, "void Routing::Host::RouteSm::handleStatusRoute()");
  Steps(*this).handleStatusRoute();
}

void RouteSm::handleHostStatusRoute(const Zemit::Prefix& prefix) {
  const HostCore::About<Ipv4> about(*this, prefix);
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::handleHostStatusRoute(const Zemit::Prefix&)"
                << ", prefix: " << prefix);
  KIV_ASSERT_AS(Ipv4::kModule, prefix.len() == Zemit::Prefix::kMaxLen, "prefix.len() == 32");
  Steps(*this).handleHostStatusRoute(prefix);
}

void RouteSm::handleHostStatusRoute() {
  KIV_TRACE(hostRouteTrace, 8, *this, "void Routing::Host::RouteSm::handleHostStatusRoute()");
  Steps(*this).handleHostStatusRoute();
}

void RouteSm::handleRoute(const Zemit::Prefix& prefix, const Tovan::Fib::Route& fibRoute) {
  const HostCore::About<Ipv4> about(*this, prefix);
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::handleRoute(const Zemit::Prefix&, "
            "const Tovan::Fib::Route&)");
  Steps(*this).handleRoute(prefix, fibRoute);
}

void RouteSm::handleDeletedRoute(const Tovan::Fib::Route& oldFibRoute) {
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::handleDeletedRoute(const Tovan::Fib::Route&)");
  Steps(*this).handleDeletedRoute(oldFibRoute);
}

}  // namespace Routing::Host
