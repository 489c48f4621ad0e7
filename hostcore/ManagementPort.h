// Management ports, which have no host routes.
#pragma once

#include "platform/arp/NeighborDir.h"

namespace HostCore {

/// True when the table's neighbours yield no host routes: those of a management port.
inline bool skipInterface(const Arp::ArpIntfStatus& table) {
  return table.isOfManagementPort();
}

}  // namespace HostCore
