// A small routing daemon with the host-route engine in it: one VRF, IPv4. It prints the host routes
// that the engine derives, and ends with status 1 when one that must be there is not.
#include <iostream>

#include "host/HostRouteSm.h"

namespace {

using Zemit::IpAddr;
using Zemit::Prefix;

/// The tables of one VRF, and the engine over them.
///
/// What the machine is lent is declared before the root that owns it: members go in the opposite
/// order, so the machine goes first and its inputs outlive it.
struct Vrf {
  explicit Vrf(const char* name)
      : vrfName(Kiv::String(name)),
        routeStatus(Kiv::make<Tovan::Fib::RouteStatus>(name)),
        root(Routing::Host::routeSmRootFactory(name)) {
    // The daemon's helpers first: the machine uses them from its constructor on.
    root->trieIs(trie);
    root->adjHelperIs(adjHelper);
    root->intfStatusDirIs(intfStatusDir);
    // Where the machine reports that its routes are complete.
    readiness->newRouteStatus(RovelReady::v4Host_);
    root->newRouteSm(activity, routeStatus, forwarding, hostStatus, readiness, seqConfig, seqInfo,
                     adjHelper, ipStatus, neighborDir, root, virtualIps, vrfName);
  }

  /// A FIB route is told to the machine by whoever changes it: the table has no reactor on it.
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

  // An interface in the VRF, with an address: its receive routes follow.
  const auto vlan10 = Zemit::IntfId::of("Vlan10");
  const auto l3Status = Kiv::make<L3::Intf::Status>(vlan10.name());
  l3Status->vrfIs(red.vrfName);
  red.ipStatus->newIpIntfStatus(vlan10, l3Status);
  const Ip::IpIntfStatus::Ptr intf = red.ipStatus->ipIntfStatus(vlan10);
  intf->activeAddrWithMaskIs(Zemit::IpAddrWithMask(*IpAddr::parse("10.1.10.1"), 24));

  // The connected route, over a FEC that leaves through the interface.
  red.forwarding->fecIs(Tovan::Fib::Fec(1, {{.hop = {}, .intf = vlan10}}));
  red.setRoute(
      {.key = *Prefix::parse("10.1.10.0/24"), .routeType = Routing::Fib::connected_, .fecId = 1});

  // All inputs are there. From now on each change is handled as it comes.
  red.root->routeSm()->initializedIs(true);
  red.readiness->startRibReadyVerificationIs(true);
  red.readiness->ribReadyIs(true);

  // A neighbour is learned: its host route is written before this returns.
  const auto host = *IpAddr::parse("10.1.10.5");
  red.neighborDir->newArpIntfStatus(vlan10.name())->arpEntryIs({.ipAddr = host});

  red.routeStatus->forEachRoute([](const Tovan::Fib::Route& route) {
    if (route.key.len() == Prefix::kMaxLen) std::cout << route << '\n';
  });
  const bool hasRoute = red.routeStatus->route(Prefix::host(host)).key == Prefix::host(host);
  const bool isReady = red.readiness->routeStatus(RovelReady::v4Host_)->ready();

  // Without its machine the VRF keeps the host routes that were written.
  red.root->routeSmDel();
  return hasRoute && isReady && red.readiness->v4HostRoutesSynced() ? 0 : 1;
}
