#include "host6/Family.h"

#include "hostcore/Family.h"
#include "platform/obu/FibLookup.h"

namespace Routing6::Host {

static_assert(HostCore::Family<Ipv6>);

Kiv::TraceFacility hostRoute6Trace("HostRoute6", Ipv6::kModule);

Obu::IntfDir::Ptr Ipv6::intfs(const ForwardingStatus* fwdStatus, Tovan::Fib::FecId fecId) {
  return Obu::getIp6Intfs(fwdStatus, fecId);
}

Ipv6::Route Ipv6::routeAbove(const Prefix& prefix, const RouteStatus* routeStatus,
                             const Routing6::Trie* trie) {
  return Obu::getTovanIp6RouteAbove(prefix, routeStatus, Kiv::validPtr(trie));
}

void Ipv6::traceCoveringRoute(const RouteSm& sm, const Prefix& prefix, const Prefix& above) {
  if (prefix.len() != Addr::kBits) return;
  KIV_TRACE_AS(trace(), 8, sm, "handleAdjacency", "prefix:" << prefix << " oldPrefix :" << above);
}

void Ipv6::traceTakenFrom(const RouteSm& sm, const Addr& addr, const Prefix& /*above*/) {
  if (!trace().builds(6, sm)) return;
  const auto& table = Kiv::validPtr(Kiv::validPtr(sm.rootRaw()).neighTable());
  const auto& vias = table->adjIndexToViaSet(table->route(Prefix::host(addr)).fecId);
  const std::string_view intf =
      vias.empty() ? std::string_view("<unknown>") : vias.begin()->via.intf.name().view();
  KIV_TRACE_AS(trace(), 6, sm, "handleAdjacency",
               Text::kRemovingRoute << addr << " from address set of " << intf);
}

}  // namespace Routing6::Host
