// RouteSm: following the FIB's routes.
#include "hostcore/FibTracking.h"

#include "host6/Family.h"
#include "host6/NeighborEntries.h"

namespace Routing6::Host {

namespace {
using Steps = HostCore::FibTracking<Ipv6>;
}

bool Ipv6::nonemptyIntersection(const RouteSmRoot& root, const Obu::IntfDir::Ptr& a,
                                const Obu::IntfDir::Ptr& b) {
  KIV_TRACE(trace(), 8, root,
            "bool Routing6::Host::nonemptyIntersection(Obu::IntfDir::PtrConst, "
            "Obu::IntfDir::PtrConst)");
  return Host::nonemptyIntersection(a, b);
}

Obu::IntfDir::Ptr Ipv6::subtract(const RouteSmRoot& root, const Obu::IntfDir::Ptr& a,
                                 const Obu::IntfDir::Ptr& b) {
  KIV_TRACE(trace(), 8, root,
            "Obu::IntfDir::Ptr Routing6::Host::subtract(Obu::IntfDir::PtrConst, "
            "Obu::IntfDir::PtrConst)");
  return Host::subtract(a, b);
}

bool nonemptyIntersection(const Obu::IntfDir::PtrConst& a, const Obu::IntfDir::PtrConst& b) {
  return HostCore::intersects(*a, *b);
}

Obu::IntfDir::Ptr subtract(const Obu::IntfDir::PtrConst& a, const Obu::IntfDir::PtrConst& b) {
  return HostCore::lackingIn(*a, *b);
}

void RouteSm::handleStatusRoute(const Zemit::Ip6Prefix& prefix) {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__, prefix));
  Steps(*this).handleStatusRoute(prefix);
}

void RouteSm::handleStatusRoute() {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__));
  Steps(*this).handleStatusRoute();
}

void RouteSm::handleHostStatusRoute(const Zemit::Ip6Prefix& prefix) {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__, prefix));
  KIV_ASSERT_AS(Ipv6::kModule, prefix.len() == Zemit::Ip6Prefix::kMaxLen, "prefix.len() == 128");
  Steps(*this).handleHostStatusRoute(prefix);
}

void RouteSm::handleHostStatusRoute() {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__));
  Steps(*this).handleHostStatusRoute();
}

void RouteSm::handleRoute(const Zemit::Ip6Prefix& prefix, const Tovan::Fib6::Route& fibRoute) {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__, prefix));
  Steps(*this).handleRoute(prefix, fibRoute);
}

void RouteSm::handleDeletedRoute(const Tovan::Fib6::Route& oldFibRoute) {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__, oldFibRoute.key));
  Steps(*this).handleDeletedRoute(oldFibRoute);
}

}  // namespace Routing6::Host
