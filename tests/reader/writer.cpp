// Keeps the routes of a VRF in shared memory, for the tests of those who read them: writer TABLES
// VRF
//
// Takes lines from standard input until it ends, and then removes the tables:
//   set PREFIX INTERFACE METRIC   a route, attached to an interface
//   remove PREFIX
//   initialized                   says so in the tables
#include <iostream>
#include <sstream>
#include <string>

#include "platform/rovel/AdjacencyHelper.h"
#include "platform/tovan/SharedNames.h"

namespace {

/// The tables of one family.
template <class S, class W, class Helper>
struct Owner {
  Owner(const std::string& tables, const std::string& vrf)
      : forwarding(Kiv::make<W>(tables, Tovan::Access::Write)),
        routes(Kiv::make<S>(Tovan::sharedRouteStatusName(tables, vrf), Tovan::Access::Write)),
        adjacencies(Kiv::make<Helper>("adjHelper", forwarding)) {}

  void set(const typename S::Prefix& prefix, const std::string& intf, uint32_t metric) {
    typename S::Route route{.key = prefix, .metricPref = {.metric = metric}, .routeType = {}};
    route.routeType = *Routing::parseRouteType<decltype(route.routeType)>("attached_");
    typename Helper::ViaSet vias;
    vias.newVia({.hop = {}, .intf = Zemit::IntfId::of(std::string_view(intf))}, 1);
    route.fecId = adjacencies->doGetOrCreateFibAdjacency(vias);
    const auto former = routes->route(prefix).fecId;
    routes->routeIs(route);
    adjacencies->doDropRefOnFibAdjacency(former);
  }
  void remove(const typename S::Prefix& prefix) {
    adjacencies->doDropRefOnFibAdjacency(routes->routeDel(prefix).fecId);
  }

  typename W::Ptr forwarding;
  typename S::Ptr routes;
  typename Helper::Ptr adjacencies;
};

using Owner4 = Owner<Tovan::Fib::RouteStatus, Tovan::Fib::ForwardingStatus, Rovel::AdjacencyHelper>;
using Owner6 =
    Owner<Tovan::Fib6::RouteStatus, Tovan::Fib6::ForwardingStatus, Rovel::Adjacency6Helper>;

void follow(Owner4& ipv4, Owner6& ipv6, std::istream& in) {
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string what, prefix, intf;
    uint32_t metric = 0;
    words >> what >> prefix >> intf >> metric;
    const auto apply = [&](auto& owner, const auto& parsed) {
      if (what == "set") owner.set(parsed, intf, metric);
      if (what == "remove") owner.remove(parsed);
    };
    if (const auto prefix4 = Zemit::Prefix::parse(prefix)) apply(ipv4, *prefix4);
    if (const auto prefix6 = Zemit::Ip6Prefix::parse(prefix)) apply(ipv6, *prefix6);
    if (what == "initialized") {
      ipv4.routes->stateIs({.initialized = true});
      ipv6.routes->stateIs({.initialized = true});
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const std::string tables = argv[1];
  // As a daemon does that starts again: what the former one left is nobody's any more.
  Tovan::removeTablesOf(tables);
  Owner4 ipv4(tables, argv[2]);
  Owner6 ipv6(tables, argv[2]);
  follow(ipv4, ipv6, std::cin);
  Tovan::removeTablesOf(tables);
  return 0;
}
