// The interface of an address family, as the steps of host routing use it.
#pragma once

#include <concepts>

#include "platform/arp/NeighborDir.h"
#include "platform/kiv/runtime/Assert.h"
#include "platform/kiv/runtime/Trace.h"
#include "platform/obu/IntfDir.h"
#include "platform/rovel/Readiness.h"
#include "platform/tovan/Exceptions.h"
#include "platform/tovan/FibTypes.h"

namespace HostCore {

/// The types of a family.
template <class F>
concept FamilyTypes = requires {
  typename F::Addr;
  typename F::Prefix;
  typename F::Route;
  typename F::RouteType;
  typename F::RouteStatus;
  typename F::ForwardingStatus;
  typename F::Via;
  typename F::ViaSet;
  typename F::HostTable;
  typename F::AddrSet;
  typename F::AdjacencyHelper;
  typename F::VirtualIpStatus;
  typename F::Neighbor;
  typename F::PrefixList;
  typename F::RouteSm;
  typename F::RouteSm::Inputs;
  typename F::RouteSmRoot;
  typename F::Intfs;              // the interfaces with the family enabled
  typename F::IntfsAttribute;     // the attribute that has them
  typename F::NeighborAttribute;  // the attribute of Arp::ArpIntfStatus that has the neighbours
};

/// The constants of a family, and the parts of its messages that differ.
template <class F>
concept FamilyConstants = requires {
  requires std::convertible_to<decltype(F::kModule), const char*>;
  requires std::convertible_to<decltype(F::kInvalid), typename F::RouteType>;
  requires std::convertible_to<decltype(F::kAttached), typename F::RouteType>;
  requires std::convertible_to<decltype(F::kReadyKind), RovelReady::RouteType>;
  // Switches for steps that only one half takes.
  requires std::same_as<decltype(F::kWriterTracesTables), const bool>;
  requires std::same_as<decltype(F::kTracesFibRoute), const bool>;
  requires std::same_as<decltype(F::kMergesReceiveRoutes), const bool>;
  requires std::same_as<decltype(F::kTracesMergeDeletion), const bool>;
  // const char*, each
  F::Text::kTypeIsValid, F::Text::kEntry, F::Text::kSkippingEntry, F::Text::kHandlingAdded,
      F::Text::kNotStoring, F::Text::kNoRoutesForDeleted, F::Text::kEntriesLeft, F::Text::kWasNone,
      F::Text::kRemovingRoute, F::Text::kHostFibRoute, F::Text::kDroppingLast,
      F::Text::kNullVrfIpIntfStatus, F::Text::kNullArpIntfStatus, F::Text::kNullIpIntfStatusFilter,
      F::Text::kNullIpIntfStatus;
};

/// Members that the halves name differently, under a neutral name.
template <class F>
concept FamilyAccessors = requires(typename F::RouteSm& sm, typename F::RouteSmRoot& root,
                                   const Arp::ArpIntfStatus& table, const typename F::Addr& addr,
                                   const typename F::Prefix& prefix,
                                   const typename F::Neighbor& neighbor,
                                   RovelReady::VrfStatus& readiness, Zemit::IntfId intf) {
  // The neighbours of a table, and the argument that a handler gets for one.
  { F::findNeighbor(table, addr) } -> std::same_as<const typename F::Neighbor*>;
  F::prefetchNeighbor(table, addr);
  F::neighbors(table);
  // The addresses from the first to the last, in ascending order.
  F::neighborsBetween(table, addr, addr);
  { F::neighborCount(table) } -> std::convertible_to<size_t>;
  F::argument(neighbor);
  // The root's data about neighbours: their host routes, and the neighbours by FIB prefix.
  { F::neighborTable(root) } -> std::convertible_to<typename F::HostTable::Ptr>;
  { F::neighborSet(root, prefix) } -> std::same_as<typename F::AddrSet::Ptr>;
  { F::neighborSetIs(root, prefix) } -> std::same_as<typename F::AddrSet::Ptr>;
  F::neighborSetReserve(root, prefix);
  F::neighborSetDel(root, prefix);
  // Inputs and reactors.
  F::intfStatus(sm, intf);
  F::intfStatus(*sm.ipStatus()->notifierRaw(), intf);
  F::intfIterator(*sm.ipStatus()->notifierRaw());
  F::tableReactors(sm);
  F::filterReactors(sm);
  F::deferredMerges(root);
  F::seqInfoSlot(sm);
  F::virtualIpSlot(sm);
  F::routeSmSlot(root);
  F::handleVirtualIps(sm);
  F::followInterfaces(*sm.ipStatus());
  F::hostRoutesSyncedNow(readiness);
};

/// Functions that differ between the halves, and traces that only one of them has, or has in
/// another form.
template <class F>
concept FamilySteps = requires(typename F::RouteSm& sm, const typename F::RouteSmRoot& root,
                               const Kiv::Ptr<typename F::RouteSmRoot>& rootPtr,
                               const typename F::Addr& addr, const typename F::Prefix& prefix,
                               const typename F::AddrSet::Ptr& addrs,
                               const Obu::IntfDir::Ptr& intfs, Zemit::IntfId intf,
                               const typename F::Via& via) {
  { F::trace() } -> std::same_as<Kiv::TraceFacility&>;
  // The route types that this system writes, and those of routes learned by BGP.
  { F::isOwnType(F::kAttached) } -> std::same_as<bool>;
  { F::isBgpType(F::kAttached) } -> std::same_as<bool>;
  { F::intfs(sm.forwardingStatus(), 1) } -> std::same_as<Obu::IntfDir::Ptr>;
  { F::routeAbove(prefix, sm.routeStatusRaw(), root.trieRaw()) } -> std::same_as<typename F::Route>;
  { F::nonemptyIntersection(root, intfs, intfs) } -> std::same_as<bool>;
  { F::subtract(root, intfs, intfs) } -> std::same_as<Obu::IntfDir::Ptr>;
  F::removeHostRoute(addr, F::neighborTable(root), addrs, sm.adjHelper());
  F::removeReceiveRoutes(F::intfStatus(sm, intf), intf.name(), rootPtr, addrs);
  F::traceCheck(sm, addr);
  F::traceCoveringRoute(sm, prefix, prefix);
  F::traceTakenFrom(sm, addr, prefix);
  F::traceStoredVia(sm, addr, via);
  // The vias of a receive route in the route table, in the half that merges them.
  requires !F::kMergesReceiveRoutes || requires(const typename F::Route& route) {
    { F::receiveVias(*root.receiveTable(), route) } -> std::same_as<typename F::ViaSet>;
  };
};

/// The whole interface of a family.
template <class F>
concept Family = FamilyTypes<F> && FamilyConstants<F> && FamilyAccessors<F> && FamilySteps<F>;

/// The FIB route that covers an address, with its FEC. Without a route its key is the null prefix.
template <class R, class Fec>
struct Cover {
  R route{.key = decltype(R::key)::null()};
  Fec fec;

  friend bool operator==(const Cover&, const Cover&) = default;
};
template <class F>
using CoverOf = Cover<typename F::Route, typename F::ForwardingStatus::Fec>;

/// The host prefix of an address. Tables have the records of an address under it.
template <Family F>
typename F::Prefix hostPrefix(const typename F::Addr& addr) {
  return F::Prefix::host(addr);
}

/// True when a FIB host route can be written into the route table.
template <Family F>
bool isComplete(const typename F::Route& fibRoute) {
  return fibRoute.fecId != Tovan::Fib::invalidFecId && fibRoute.routeType != F::kInvalid;
}

}  // namespace HostCore
