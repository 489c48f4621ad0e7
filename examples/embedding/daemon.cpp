// A small routing daemon with the host-route engine: one VRF, IPv4. It prints the derived host
// routes. Its exit status is 1 when an expected route is missing.
#include <iostream>

#include "host/HostRouteSm.h"

namespace {

using Zemit::IpAddr;
using Zemit::Prefix;

/// The tables of one VRF and the engine that works on them.
///
/// The machine's inputs are declared before the root, which owns the machine. Members are destroyed
/// in reverse order, so the inputs outlive the machine.
struct Vrf {
  explicit Vrf(const char* name)
      : vrfName(Kiv::String(name)),
        routeStatus(Kiv::make<Tovan::Fib::RouteStatus>(name)),
        root(Routing::Host::routeSmRootFactory(name)) {
    // Set before the machine is made, because its constructor uses them.
    root->trieIs(trie);
    root->adjHelperIs(adjHelper);
    root->intfStatusDirIs(intfStatusDir);
    // The machine reports here that its routes are complete.
    readiness->newRouteStatus(RovelReady::v4Host_);
    root->newRouteSm(activity, routeStatus, forwarding, hostStatus, readiness, seqConfig, seqInfo,
                     adjHelper, ipStatus, neighborDir, root, virtualIps, vrfName);
  }

  /// Stores a FIB route and calls the machine, because the table has no reactor.
  void setRoute(const Tovan::Fib::Route& route) {
    routeStatus->routeIs(route);
    root->routeSm()->handleStatusRoute(route.key);
  }

  L3::VrfName vrfName;
  Kiv::ActivityConfig::Ptr activity = Kiv::make<Kiv::ActivityConfig>();
  Tovan::Fib::RouteStatus::Ptr routeStatus;
  Tovan::Fib::ForwardingStatus::Ptr forwarding =
      Kiv::make<Tovan::Fib::ForwardingStatus>("forwardingStatus");
  Routing::Host::Status::Ptr hostStatus = Kiv::make<Routing::Host::Status>("hostStatus");
  RovelReady::VrfStatus::Ptr readiness = Kiv::make<RovelReady::VrfStatus>(vrfName);
  Routing::SeqConfig::Ptr seqConfig = Kiv::make<Routing::SeqConfig>("seqConfig");
  Rovel::SeqInfo::Ptr seqInfo = Kiv::make<Rovel::SeqInfo>("seqInfo");
  Rovel::AdjacencyHelper::Ptr adjHelper =
      Kiv::make<Rovel::AdjacencyHelper>("adjHelper", forwarding);
  Kiv::Ptr<Routing::Trie> trie = Kiv::make<Routing::Trie>();
  Interface::AllIntfStatusDir::Ptr intfStatusDir =
      Kiv::make<Interface::AllIntfStatusDir>("intfStatusDir");
  Ip::Status::Ptr ipStatus = Kiv::make<Ip::Status>("ipStatus");
  Arp::NeighborDir::Ptr neighborDir = Kiv::make<Arp::NeighborDir>("neighborDir");
  Routing::Fhrp::VirtualIpStatus::Ptr virtualIps =
      Kiv::make<Routing::Fhrp::VirtualIpStatus>("virtualIpStatus");
  Routing::Host::RouteSmRoot::Ptr root;
};

}  // namespace

int main() {
  Vrf red("red");

  // Adds an interface with an address to the VRF. The engine derives its receive routes.
  const auto vlan10 = Zemit::IntfId::of("Vlan10");
  const auto l3Status = Kiv::make<L3::Intf::Status>(vlan10.name());
  l3Status->vrfIs(red.vrfName);
  red.ipStatus->newIpIntfStatus(vlan10, l3Status);
  const Ip::IpIntfStatus::Ptr intf = red.ipStatus->ipIntfStatus(vlan10);
  intf->activeAddrWithMaskIs(Zemit::IpAddrWithMask(*IpAddr::parse("10.1.10.1"), 24));

  // Adds the connected route. Its FEC has a direct via on the interface.
  red.forwarding->fecIs(Tovan::Fib::Fec(1, {{.hop = {}, .intf = vlan10}}));
  red.setRoute(
      {.key = *Prefix::parse("10.1.10.0/24"), .routeType = Routing::Fib::connected_, .fecId = 1});

  // All inputs are present. From now on the machine handles each change at once.
  red.root->routeSm()->initializedIs(true);
  red.readiness->startRibReadyVerificationIs(true);
  red.readiness->ribReadyIs(true);

  // Learns a neighbour. Its host route is written before the call returns.
  const auto host = *IpAddr::parse("10.1.10.5");
  red.neighborDir->newArpIntfStatus(vlan10.name())->arpEntryIs({.ipAddr = host});

  red.routeStatus->forEachRoute([](const Tovan::Fib::Route& route) {
    if (route.key.len() == Prefix::kMaxLen) std::cout << route << '\n';
  });
  const bool hasRoute = red.routeStatus->route(Prefix::host(host)).key == Prefix::host(host);
  const bool isReady = red.readiness->routeStatus(RovelReady::v4Host_)->ready();

  // The host routes stay in the tables after the machine was deleted.
  red.root->routeSmDel();
  return hasRoute && isReady && red.readiness->v4HostRoutesSynced() ? 0 : 1;
}
