// The family IPv4 for the shared steps of host routing.
#pragma once

#include "host/ReceiveRoutes.h"
#include "host/RouteSm.h"
#include "host/RouteWriter.h"
#include "platform/kiv/runtime/Clock.h"
#include "platform/kiv/runtime/Trace.h"

namespace Routing::Host {

/// The trace facility of the IPv4 half.
extern Kiv::TraceFacility hostRouteTrace;

/// The types, constants, texts and accessors of the IPv4 half.
struct Ipv4 {
  using Addr = Zemit::IpAddr;
  using Prefix = Zemit::Prefix;
  using Route = Tovan::Fib::Route;
  using RouteType = Routing::Fib::RouteType;
  using RouteStatus = Tovan::Fib::RouteStatus;
  using ForwardingStatus = Tovan::Fib::ForwardingStatus;
  using Via = Tovan::Fib::Via;
  using ViaSet = Rovel::ViaSet;
  using HostTable = Status;
  using AddrSet = Obu::AddrSet;
  using AdjacencyHelper = Rovel::AdjacencyHelper;
  using VirtualIpStatus = Fhrp::VirtualIpStatus;
  using Neighbor = Arp::ArpEntryStatus;
  using RouteSm = Host::RouteSm;
  using RouteSmRoot = Host::RouteSmRoot;
  using Intfs = Ip::Status;
  using IntfsAttribute = Intfs::IpIntfStatusAttribute;
  using NeighborAttribute = Arp::ArpIntfStatus::ArpEntryAttribute;
  using PrefixList = Host::PrefixList;

  static Kiv::TraceFacility& trace() { return hostRouteTrace; }
  static constexpr const char* kModule = "HostRouteSm";

  static constexpr RouteType kInvalid = Fib::invalid_;
  static constexpr RouteType kAttached = Fib::attached_;
  static constexpr RovelReady::RouteType kReadyKind = RovelReady::v4Host_;
  static constexpr bool kWriterTracesTables = false;
  static constexpr bool kTracesFibRoute = true;
  static constexpr bool kMergesReceiveRoutes = true;
  static constexpr bool kTracesMergeDeletion = true;

  struct Text {
    static constexpr const char* kTypeIsValid = "routeType != Routing::Fib::invalid_";
    static constexpr const char* kEntry = "arp entry ";
    static constexpr const char* kSkippingEntry = "skipping ArpEntry ";
    static constexpr const char* kHandlingAdded = "handling an added arp entry for ";
    static constexpr const char* kNotStoring = "not storing arp entry ";
    static constexpr const char* kNoRoutesForDeleted = "no arp routes for deleted arp entry ";
    static constexpr const char* kEntriesLeft = " arpEntrys left";
    static constexpr const char* kWasNone = " was None";
    static constexpr const char* kRemovingRoute = "removing arp route for ";
    static constexpr const char* kHostFibRoute = "/32 fib route that is associated with ";
    static constexpr const char* kDroppingLast = "Dropping ref on last fecId: ";
    static constexpr const char* kNullVrfIpIntfStatus =
        "null _vrfIpIntfStatus parameter to mutator for Routing::Host::RouteSm::vrfIpIntfStatus "
        "not allowed";
    static constexpr const char* kNullArpIntfStatus =
        "null _arpIntfStatus parameter to mutator for Routing::Host::RouteSm::arpIntfStatus not "
        "allowed";
    static constexpr const char* kNullIpIntfStatusFilter =
        "null _ipIntfStatusFilter parameter to mutator for "
        "Routing::Host::RouteSm::ipIntfStatusFilter not allowed";
    static constexpr const char* kNullIpIntfStatus =
        "null _ipIntfStatus parameter to mutator for Routing::Host::RouteSm::ipIntfStatus not "
        "allowed";
  };

  static bool isOwnType(RouteType type) {
    return type == Fib::receive_ || type == Fib::attached_ || type == Fib::receiveBcast_;
  }
  static bool isBgpType(RouteType type) {
    return type == Fib::ibgp_ || type == Fib::ebgp_ || type == Fib::bgpAggregate_;
  }

  // The neighbours of a table. The argument of an IPv4 handler is the whole entry.
  static const Neighbor* findNeighbor(const Arp::ArpIntfStatus& table, const Addr& addr) {
    return table.arpEntryFind(addr);
  }
  static void prefetchNeighbor(const Arp::ArpIntfStatus& table, const Addr& addr) {
    table.arpEntryPrefetch(addr);
  }
  static auto neighbors(const Arp::ArpIntfStatus& table) { return table.arpEntryIteratorConst(); }
  static std::vector<Addr> neighborsBetween(const Arp::ArpIntfStatus& table, const Addr& first,
                                            const Addr& last) {
    return table.arpEntryKeysBetween(first, last);
  }
  static size_t neighborCount(const Arp::ArpIntfStatus& table) { return table.arpEntryCount(); }
  static const Neighbor& argument(const Neighbor& neighbor) { return neighbor; }

  // The root's data about neighbours.
  static const HostTable::Ptr& neighborTable(const RouteSmRoot& root) { return root.arpTable(); }
  /// The neighbours filed under a prefix; null for none.
  static AddrSet::Ptr neighborSet(const RouteSmRoot& root, const Prefix& prefix) {
    return root.arpRouteIfMade(prefix);
  }
  /// Makes the entry of a prefix. Its set is made at the first look-up.
  static void neighborSetReserve(RouteSmRoot& root, const Prefix& prefix) {
    root.arpRouteReserve(prefix);
  }
  static AddrSet::Ptr neighborSetIs(RouteSmRoot& root, const Prefix& prefix) {
    return root.arpRouteIs(prefix);
  }
  static void neighborSetDel(RouteSmRoot& root, const Prefix& prefix) { root.arpRouteDel(prefix); }

  // Members of the entities under a neutral name.
  static auto& seqInfoSlot(RouteSm& sm) { return sm.ipv4SeqInfo_; }
  static auto& virtualIpSlot(RouteSm& sm) { return sm.virtualIpStatus_; }
  static auto& routeSmSlot(RouteSmRoot& root) { return root.routeSm_; }
  static auto& deferredMerges(const RouteSmRoot& root) { return root.toMerge_; }
  static auto& deferredMerges(RouteSmRoot& root) { return root.toMerge_; }
  static auto& tableReactors(RouteSm& sm) { return sm.arpIntfStatus_; }
  static auto& filterReactors(RouteSm& sm) { return sm.ipIntfStatusFilter_; }
  static void handleVirtualIps(RouteSm& sm) { sm.handleVirtualIpStatus(); }
  static void followInterfaces(RouteSm::KivIpStatus& reactor) {
    reactor.onIpIntfStatuskivImmediate();
  }
  /// Reports the VRF's host routes synchronised as of now, unless that was done before.
  static void hostRoutesSyncedNow(RovelReady::VrfStatus& readiness) {
    if (readiness.v4HostRoutesSynced()) return;
    readiness.v4HostRoutesSyncedTimeIs(Kiv::now());
    readiness.v4HostRoutesSyncedIs(true);
  }

  // The interfaces, and their receive routes.
  static auto intfIterator(const Intfs& intfs) { return intfs.ipIntfStatusIteratorConst(); }
  static Ip::IpIntfStatus::PtrConst intfStatus(const Intfs& intfs, Zemit::IntfId intf) {
    return intfs.ipIntfStatus(intf);
  }
  static Ip::IpIntfStatus::PtrConst intfStatus(const RouteSm& sm, Zemit::IntfId intfId) {
    const auto* intfs = HostCore::watchedBy(sm.ipStatus());
    if (intfs == nullptr) return nullptr;
    return intfStatus(*intfs, intfId);
  }
  static void removeReceiveRoutes(const Ip::IpIntfStatus::PtrConst& status,
                                  const Kiv::Name& intfName, const Kiv::Ptr<RouteSmRoot>& root,
                                  const AddrSet::Ptr& changed) {
    Host::removeReceiveRoutes(status, intfName, root, changed);
  }

  static Obu::IntfDir::Ptr intfs(const ForwardingStatus* fwdStatus, Tovan::Fib::FecId fecId);
  static Route routeAbove(const Prefix& prefix, const RouteStatus* routeStatus,
                          const Routing::Trie* trie);
  static bool nonemptyIntersection(const RouteSmRoot& root, const Obu::IntfDir::Ptr& a,
                                   const Obu::IntfDir::Ptr& b);
  static Obu::IntfDir::Ptr subtract(const RouteSmRoot& root, const Obu::IntfDir::Ptr& a,
                                    const Obu::IntfDir::Ptr& b);

  /// Withdraws a host route in a handler, which merges the address.
  static void removeHostRoute(const Addr& ip, const HostTable::Ptr& hostTable,
                              const AddrSet::Ptr& addrSet, const AdjacencyHelper::Ptr& adjHelper);
  /// The vias of a receive route in the route table; a broadcast one has no interface.
  static ViaSet receiveVias(const HostTable& table, const Route& receiveRoute);

  /// The entry trace of a look-up of a neighbour's address.
  static void traceCheck(const RouteSm& sm, const Addr& ip);
  // Traces that only one half has, or that differ between the halves.
  static void traceCoveringRoute(const RouteSm&, const Prefix&, const Prefix&) {}
  static void traceTakenFrom(const RouteSm& sm, const Addr& addr, const Prefix& above);
  static void traceStoredVia(const RouteSm& sm, const Addr& ip, const Via& via);
};

}  // namespace Routing::Host
