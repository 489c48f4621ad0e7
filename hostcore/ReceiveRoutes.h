// The steps for the router's own addresses that both families share.
#pragma once

#include "hostcore/Event.h"
#include "hostcore/RouteWriter.h"

namespace HostCore {

/// Writes one receive route and makes the interface its owner, even if another interface owned the
/// address. Then releases the host adjacency of the replaced route.
///
/// \param adjacency  a host adjacency of the receive table, with a reference for the route; or
///                   invalidFecId.
/// \param changed    gets the address added.
template <Family F>
void writeReceiveRoute(const typename F::Addr& ip, Tovan::Fib::FecId adjacency,
                       typename F::RouteType routeType, const Kiv::String8& intfName,
                       typename F::RouteSmRoot& root, const typename F::AddrSet::Ptr& changed) {
  const auto& table = Kiv::validPtr(root.receiveTable());
  const auto replaced = table->route(hostPrefix<F>(ip));
  RouteWriter<F>(table, nullptr, root).add({ip, adjacency, routeType}, nullptr);
  if (replaced.key == hostPrefix<F>(ip) && replaced.fecId != Tovan::Fib::invalidFecId) {
    Kiv::validPtr(root.adjHelperRaw()).doDropRefOnHostAdjacency(table, replaced.fecId);
  }
  root.receiveAddrToIntfNameIs(ip, intfName);
  changed->ipIs(ip, true);
}

/// A host adjacency of the receive table for packets that `intf` receives, with a reference.
template <Family F>
Tovan::Fib::FecId receiveAdjacency(Zemit::IntfId intf, typename F::RouteSmRoot& root) {
  typename F::ViaSet vias;
  vias.newVia({.hop = {}, .intf = intf}, 1);
  return Kiv::validPtr(root.adjHelperRaw())
      .doGetOrCreateHostAdjacency(vias, Kiv::validPtr(root.receiveTable()));
}

/// Removes one receive route and its owner.
template <Family F>
void eraseReceiveRoute(const typename F::Addr& ip, typename F::RouteSmRoot& root) {
  F::removeHostRoute(ip, root.receiveTable(), nullptr, root.adjHelper());
  root.receiveAddrToIntfNameDel(ip);
}

/// Removes the receive routes of an interface that is no longer followed in this VRF: the machine
/// or the IP status does not have the interface, or they have it under different names.
template <Family F>
void handleIpIntfStatus(typename F::RouteSm& sm, Zemit::IntfId intfId) {
  const auto& followed = sm.vrfIpIntfStatus(intfId);
  const auto present = F::intfStatus(sm, intfId);
  if (followed && present && followed->name() == present->name()) return;
  KIV_TRACE(F::trace(), 6, sm, "removing receive routes for " << intfId.name());
  MergeSet<F> changed(sm);
  F::removeReceiveRoutes(present, intfId.name(), Kiv::validPtr(sm.root()), changed.addrs());
  sm.doMerge(changed.addrs());
}

}  // namespace HostCore
