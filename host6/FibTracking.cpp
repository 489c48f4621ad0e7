// RouteSm: following the FIB's routes.
#include "hostcore/FibTracking.h"

#include "host6/Family.h"
#include "host6/NeighborEntries.h"

namespace Routing6::Host {

namespace {

using Steps = HostCore::FibTracking<Ipv6>;

/// The traced object of functions that get none.
class Module final : public Kiv::NamedEntity {
 public:
  Module() : NamedEntity(Ipv6::kModule) {}
};
const Kiv::Entity& thisModule() {
  static const auto kModule = Kiv::make<Module>();
  return *kModule;
}

bool intersect(const Kiv::Entity& object, const Obu::IntfDir::PtrConst& a,
               const Obu::IntfDir::PtrConst& b) {
  KIV_TRACE_AS(hostRoute6Trace, 8, object, "nonemptyIntersection",
               "bool Routing6::Host::nonemptyIntersection(Obu::IntfDir::PtrConst, "
               "Obu::IntfDir::PtrConst)");
  return HostCore::intersects(*Kiv::validPtr(a), *Kiv::validPtr(b));
}

Obu::IntfDir::Ptr lacking(const Kiv::Entity& object, const Obu::IntfDir::PtrConst& a,
                          const Obu::IntfDir::PtrConst& b) {
  KIV_TRACE_AS(hostRoute6Trace, 8, object, "subtract",
               "Obu::IntfDir::Ptr Routing6::Host::subtract(Obu::IntfDir::PtrConst, "
               "Obu::IntfDir::PtrConst)");
  return HostCore::lackingIn(*Kiv::validPtr(a), *Kiv::validPtr(b));
}

}  // namespace

bool Ipv6::nonemptyIntersection(const RouteSmRoot& root, const Obu::IntfDir::Ptr& a,
                                const Obu::IntfDir::Ptr& b) {
  return intersect(root, a, b);
}

Obu::IntfDir::Ptr Ipv6::subtract(const RouteSmRoot& root, const Obu::IntfDir::Ptr& a,
                                 const Obu::IntfDir::Ptr& b) {
  return lacking(root, a, b);
}

bool nonemptyIntersection(const Obu::IntfDir::PtrConst& a, const Obu::IntfDir::PtrConst& b) {
  return intersect(thisModule(), a, b);
}

Obu::IntfDir::Ptr subtract(const Obu::IntfDir::PtrConst& a, const Obu::IntfDir::PtrConst& b) {
  return lacking(thisModule(), a, b);
}

void RouteSm::handleStatusRoute(const Zemit::Ip6Prefix& prefix) {
  const HostCore::About<Ipv6> about(*this, prefix);
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__, prefix));
  Steps(*this).handleStatusRoute(prefix);
}

void RouteSm::handleStatusRoute() {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__));
  Steps(*this).handleStatusRoute();
}

void RouteSm::handleHostStatusRoute(const Zemit::Ip6Prefix& prefix) {
  const HostCore::About<Ipv6> about(*this, prefix);
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__, prefix));
  KIV_ASSERT_AS(Ipv6::kModule, prefix.len() == Zemit::Ip6Prefix::kMaxLen, "prefix.len() == 128");
  Steps(*this).handleHostStatusRoute(prefix);
}

void RouteSm::handleHostStatusRoute() {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__));
  Steps(*this).handleHostStatusRoute();
}

void RouteSm::handleRoute(const Zemit::Ip6Prefix& prefix, const Tovan::Fib6::Route& fibRoute) {
  const HostCore::About<Ipv6> about(*this, prefix);
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__, prefix));
  Steps(*this).handleRoute(prefix, fibRoute);
}

void RouteSm::handleDeletedRoute(const Tovan::Fib6::Route& oldFibRoute) {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__, oldFibRoute.key));
  Steps(*this).handleDeletedRoute(oldFibRoute);
}

}  // namespace Routing6::Host
