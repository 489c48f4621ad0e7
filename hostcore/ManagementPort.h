// Management ports, which have no host routes.
#pragma once

#include "platform/arp/NeighborDir.h"
#include "platform/zemit/IntfId.h"

namespace HostCore {

inline bool isManagementPort(Zemit::IntfId intf) {
  return intf.name().view().starts_with("Management");
}
/// True when the table's neighbours yield no host routes: those of a management port.
inline bool skipInterface(const Arp::ArpIntfStatus& table) {
  return isManagementPort(table.intfId());
}

}  // namespace HostCore
