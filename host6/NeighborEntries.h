// Which neighbour tables count, and sets of interfaces.
#pragma once

#include "platform/arp/NeighborDir.h"
#include "platform/kiv/containers/Export.h"
#include "platform/obu/IntfDir.h"

namespace Routing6::Host {

/// True when the table's neighbours yield no host routes: the interface's name begins with
/// "Management".
KIV_EXPORT bool skipInterface(const Arp::ArpIntfStatus::PtrConst& arpIntfStatus);

/// True when the two sets share an interface.
KIV_EXPORT bool nonemptyIntersection(const Obu::IntfDir::PtrConst& a,
                                     const Obu::IntfDir::PtrConst& b);

/// The interfaces that `b` has and `a` lacks.
KIV_EXPORT Obu::IntfDir::Ptr subtract(const Obu::IntfDir::PtrConst& a,
                                      const Obu::IntfDir::PtrConst& b);

}  // namespace Routing6::Host
