// The routes of the router's own IPv6 addresses.
#pragma once

#include "host6/RouteSm.h"
#include "platform/kiv/containers/Export.h"

namespace Routing6::Host {

/// Removes all receive routes that are recorded for an interface, and the record. Addresses that
/// another interface owns are left alone.
///
/// \param status   the interface's status; null when it was removed.
/// \param changed  gains each address that the interface owned.
KIV_EXPORT void removeReceiveRoutes(const Ip6::IntfStatus::PtrConst& status,
                                    const Kiv::Name& intfName, const RouteSmRoot::Ptr& root,
                                    const Obu::Ip6AddrSet::Ptr& changed);

}  // namespace Routing6::Host
