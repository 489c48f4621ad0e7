// The routes of the router's own IPv4 addresses.
#pragma once

#include "host/RouteSm.h"
#include "platform/kiv/containers/Export.h"

namespace Routing::Host {

/// Writes the receive routes of one interface address: the address itself and, for a mask of 30
/// bits or less, the network and the broadcast address of its subnet. 0.0.0.0 yields nothing.
///
/// The interface becomes the owner of each address, also of one that another interface owned.
///
/// \param changed  gains each address written.
KIV_EXPORT void addActiveReceiveRoutes(const Ip::IpIntfStatus::PtrConst& status,
                                       const Zemit::IpAddrWithMask& addrWithMask,
                                       const RouteSmRoot::Ptr& root,
                                       const Obu::AddrSet::Ptr& changed);

/// Removes all receive routes that are recorded for an interface, and the record.
///
/// \param status   not consulted; null when the interface was removed.
/// \param changed  gains each address that the interface owned.
KIV_EXPORT void removeReceiveRoutes(const Ip::IpIntfStatus::PtrConst& status,
                                    const Kiv::Name& intfName, const RouteSmRoot::Ptr& root,
                                    const Obu::AddrSet::Ptr& changed);

/// Removes the receive routes of one interface address. The caller has already removed the record
/// of the address. Receive routes that another interface owns stay.
KIV_EXPORT void removeAddrMaskFromReceiveTable(const Zemit::IpAddrWithMask& addrWithMask,
                                               const Kiv::Name& intfName,
                                               const Obu::AddrSet::Ptr& changed,
                                               const RouteSmRoot::Ptr& root);

/// Removes one receive address, unless another address recorded for the interface yields it too.
KIV_EXPORT void removeReceiveRoute(Zemit::IpAddr ip, const Kiv::Name& intfName,
                                   const RouteSmRoot::Ptr& root);

/// Rebuilds an interface's receive routes from scratch and merges their addresses.
KIV_EXPORT void recomputeReceiveRoutes(const RouteSm::Ptr& routeSm,
                                       const Ip::IpIntfStatus::PtrConst& status);

}  // namespace Routing::Host
