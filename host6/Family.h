// The family IPv6 for the shared steps of host routing.
#pragma once

#include <ostream>
#include <tuple>

#include "host6/ReceiveRoutes.h"
#include "host6/RouteSm.h"
#include "host6/RouteWriter.h"
#include "platform/kiv/runtime/Clock.h"
#include "platform/kiv/runtime/Trace.h"

namespace Routing6::Host {

/// The trace facility of the IPv6 half.
extern Kiv::TraceFacility hostRoute6Trace;

/// How an entry trace of this half names its handler: the object whose method it is, the method and
/// its first address, prefix or route key if it has one: "0x55d0::handleRoute( ::/0 )".
template <class... Argument>
class Entry {
 public:
  Entry(const void* object, const char* method, const Argument&... argument)
      : object_(object), method_(method), argument_(argument...) {}

  friend std::ostream& operator<<(std::ostream& os, const Entry& entry) {
    os << entry.object_ << "::" << entry.method_;
    if constexpr (sizeof...(Argument) == 0) {
      return os << "()";
    } else {
      return os << "( " << std::get<0>(entry.argument_) << " )";
    }
  }

 private:
  const void* object_;
  const char* method_;
  std::tuple<const Argument&...> argument_;
};

/// The types, constants, texts and accessors of the IPv6 half.
struct Ipv6 {
  using Addr = Zemit::Ip6Addr;
  using Prefix = Zemit::Ip6Prefix;
  using Route = Tovan::Fib6::Route;
  using RouteType = Routing6::Fib::RouteType;
  using RouteStatus = Tovan::Fib6::RouteStatus;
  using ForwardingStatus = Tovan::Fib6::ForwardingStatus;
  using Via = Tovan::Fib6::Via;
  using ViaSet = Rovel::Via6Set;
  using HostTable = Status;
  using AddrSet = Obu::Ip6AddrSet;
  using AdjacencyHelper = Rovel::Adjacency6Helper;
  using VirtualIpStatus = Routing::Fhrp::VirtualIp6Status;
  using Neighbor = Arp::Ip6NeighborEntryStatus;
  using RouteSm = Host::RouteSm;
  using RouteSmRoot = Host::RouteSmRoot;
  using Intfs = Ip6::Status;
  using IntfsAttribute = Intfs::IntfAttribute;
  using NeighborAttribute = Arp::ArpIntfStatus::Ip6NeighborEntryAttribute;
  using PrefixList = Host::PrefixList;

  static Kiv::TraceFacility& trace() { return hostRoute6Trace; }
  static constexpr const char* kModule = "HostRoute6Sm";

  static constexpr RouteType kInvalid = Fib::invalid_;
  static constexpr RouteType kAttached = Fib::attached_;
  static constexpr RovelReady::RouteType kReadyKind = RovelReady::v6Host_;
  static constexpr bool kWriterTracesTables = true;
  static constexpr bool kTracesFibRoute = false;
  static constexpr bool kMergesReceiveRoutes = false;
  static constexpr bool kTracesMergeDeletion = false;

  struct Text {
    static constexpr const char* kTypeIsValid = "routeType != Routing6::Fib::invalid_";
    static constexpr const char* kEntry = "neigh entry for ";
    static constexpr const char* kSkippingEntry = "skipping Neigh Entry for ";
    static constexpr const char* kHandlingAdded = "handling an added neigh entry for ";
    static constexpr const char* kNotStoring = "not storing neigh entry for ";
    static constexpr const char* kNoRoutesForDeleted = "no arp routes for deleted neigh entry for";
    static constexpr const char* kEntriesLeft = " neighEntrys left";
    static constexpr const char* kWasNone = " was None ";
    static constexpr const char* kRemovingRoute = "removing neigh route for ";
    static constexpr const char* kHostFibRoute = "/128 fib route that is associated with ";
    static constexpr const char* kDroppingLast =
        " Dropping ref on last fec id: "
        " fecId: ";
    static constexpr const char* kNullVrfIpIntfStatus =
        "null _vrfIpIntfStatus parameter to mutator for Routing6::Host::RouteSm::vrfIpIntfStatus "
        "not allowed";
    static constexpr const char* kNullArpIntfStatus =
        "null _arpIntfStatus parameter to mutator for Routing6::Host::RouteSm::arpIntfStatus not "
        "allowed";
    static constexpr const char* kNullIpIntfStatusFilter =
        "null _ipIntfStatusFilter parameter to mutator for "
        "Routing6::Host::RouteSm::ipIntfStatusFilter not allowed";
    static constexpr const char* kNullIpIntfStatus =
        "null _ipIntfStatus parameter to mutator for Routing6::Host::RouteSm::ipIntfStatus not "
        "allowed";
  };

  static bool isOwnType(RouteType type) { return type == Fib::receive_ || type == Fib::attached_; }
  static bool isBgpType(RouteType type) { return type == Fib::bgp_ || type == Fib::bgpAggregate_; }

  // The neighbours of a table. The argument of an IPv6 handler is the address.
  static const Neighbor* findNeighbor(const Arp::ArpIntfStatus& table, const Addr& addr) {
    return table.ip6NeighborEntryFind(addr);
  }
  static void prefetchNeighbor(const Arp::ArpIntfStatus& table, const Addr& addr) {
    table.ip6NeighborEntryPrefetch(addr);
  }
  static auto neighbors(const Arp::ArpIntfStatus& table) {
    return table.ip6NeighborEntryIteratorConst();
  }
  static std::vector<Addr> neighborsBetween(const Arp::ArpIntfStatus& table, const Addr& first,
                                            const Addr& last) {
    return table.ip6NeighborEntryKeysBetween(first, last);
  }
  static size_t neighborCount(const Arp::ArpIntfStatus& table) {
    return table.ip6NeighborEntryCount();
  }
  static const Addr& argument(const Neighbor& neighbor) { return neighbor.ipAddr; }

  // The root's data about neighbours.
  static const HostTable::Ptr& neighborTable(const RouteSmRoot& root) { return root.neighTable(); }
  /// The neighbours filed under a prefix; null for none.
  static AddrSet::Ptr neighborSet(const RouteSmRoot& root, const Prefix& prefix) {
    return root.neighRouteIfMade(prefix);
  }
  /// Makes the entry of a prefix. Its set is made at the first look-up.
  static void neighborSetReserve(RouteSmRoot& root, const Prefix& prefix) {
    root.neighRouteReserve(prefix);
  }
  static AddrSet::Ptr neighborSetIs(RouteSmRoot& root, const Prefix& prefix) {
    return root.neighRouteIs(prefix);
  }
  static void neighborSetDel(RouteSmRoot& root, const Prefix& prefix) {
    root.neighRouteDel(prefix);
  }

  // Members of the entities under a neutral name.
  static auto& seqInfoSlot(RouteSm& sm) { return sm.ipv6SeqInfo_; }
  static auto& virtualIpSlot(RouteSm& sm) { return sm.virtualIp6Status_; }
  static auto& routeSmSlot(RouteSmRoot& root) { return root.routeSm_; }
  static auto& deferredMerges(const RouteSmRoot& root) { return root.toMerge_; }
  static auto& deferredMerges(RouteSmRoot& root) { return root.toMerge_; }
  static auto& tableReactors(RouteSm& sm) { return sm.arpIntfStatus_; }
  static auto& filterReactors(RouteSm& sm) { return sm.ipIntfStatusFilter_; }
  static void handleVirtualIps(RouteSm& sm) { sm.handleVirtualIp6Status(); }
  static void followInterfaces(RouteSm::KivIpStatus& reactor) { reactor.onIntfkivImmediate(); }
  /// Reports the VRF's host routes synchronised as of now, unless that was done before.
  static void hostRoutesSyncedNow(RovelReady::VrfStatus& readiness) {
    if (readiness.v6HostRoutesSynced()) return;
    readiness.v6HostRoutesSyncedTimeIs(Kiv::now());
    readiness.v6HostRoutesSyncedIs(true);
  }

  // The interfaces, and their receive routes.
  static auto intfIterator(const Intfs& intfs) { return intfs.intfIteratorConst(); }
  static Ip6::IntfStatus::PtrConst intfStatus(const Intfs& intfs, Zemit::IntfId intf) {
    return intfs.intf(intf);
  }
  static Ip6::IntfStatus::PtrConst intfStatus(const RouteSm& sm, Zemit::IntfId intfId) {
    const auto* intfs = HostCore::watchedBy(sm.ipStatus());
    if (intfs == nullptr) return nullptr;
    return intfStatus(*intfs, intfId);
  }
  static void removeReceiveRoutes(const Ip6::IntfStatus::PtrConst& status,
                                  const Kiv::Name& intfName, const Kiv::Ptr<RouteSmRoot>& root,
                                  const AddrSet::Ptr& changed) {
    Host::removeReceiveRoutes(status, intfName, root, changed);
  }

  static Obu::IntfDir::Ptr intfs(const ForwardingStatus* fwdStatus, Tovan::Fib::FecId fecId);
  static Route routeAbove(const Prefix& prefix, const RouteStatus* routeStatus,
                          const Routing6::Trie* trie);
  static bool nonemptyIntersection(const RouteSmRoot& root, const Obu::IntfDir::Ptr& a,
                                   const Obu::IntfDir::Ptr& b);
  static Obu::IntfDir::Ptr subtract(const RouteSmRoot& root, const Obu::IntfDir::Ptr& a,
                                    const Obu::IntfDir::Ptr& b);

  /// Withdraws a host route in a handler, which merges the address.
  static void removeHostRoute(const Addr& ip, const HostTable::Ptr& hostTable,
                              const AddrSet::Ptr& addrSet, const AdjacencyHelper::Ptr& adjHelper);
  /// The entry trace of a look-up of a neighbour's address.
  static void traceCheck(const RouteSm& sm, const Addr& ip);
  // Traces that only one half has, or that differ between the halves.
  static void traceCoveringRoute(const RouteSm& sm, const Prefix& prefix, const Prefix& above);
  static void traceTakenFrom(const RouteSm& sm, const Addr& addr, const Prefix& above);
  static void traceStoredVia(const RouteSm&, const Addr&, const Via&) {}
};

}  // namespace Routing6::Host
