// Management ports, which have no host routes.
#pragma once

#include <bit>
#include <vector>

#include "platform/arp/NeighborDir.h"
#include "platform/zemit/IntfId.h"

namespace HostCore {

inline bool isManagementPort(Zemit::IntfId intf) {
  // A byte for each interface: each neighbour's event asks, and the name is two cache lines away.
  enum : char { kUnknown, kNo, kYes };
  thread_local std::vector<char> known;  // index: the interface's id
  if (intf.value() >= known.size()) known.resize(std::bit_ceil(size_t{intf.value()} + 1));
  char& answer = known[intf.value()];
  if (answer == kUnknown) answer = intf.name().view().starts_with("Management") ? kYes : kNo;
  return answer == kYes;
}
/// True when the table's neighbours yield no host routes: those of a management port.
inline bool skipInterface(const Arp::ArpIntfStatus& table) {
  return isManagementPort(table.intfId());
}

}  // namespace HostCore
