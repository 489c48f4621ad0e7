// Look-ups in the FIB's tables. A damaged table reads as empty.
#pragma once

#include <algorithm>

#include "platform/kiv/containers/Ptr.h"
#include "platform/obu/IntfDir.h"
#include "platform/routing/Trie.h"
#include "platform/tovan/Exceptions.h"
#include "platform/tovan/ForwardingStatus.h"
#include "platform/tovan/RouteStatus.h"

namespace Obu {

/// The table's route with exactly this prefix, or a record whose key is the null prefix.
///
/// Null reads as an empty table. Damage is reported to the table and reads as "no such route".
template <class RouteStatus, class Prefix>
typename RouteStatus::Route readRoute(const RouteStatus* table, const Prefix& prefix) {
  if (table == nullptr) return Tovan::noRoute<typename RouteStatus::Route>(prefix);
  try {
    return table->route(prefix);
  } catch (const Tovan::CorruptionDetectedException& damage) {
    table->corruptionDetected(damage.what());
    return Tovan::noRoute<typename RouteStatus::Route>(prefix);
  }
}

/// The FEC; one without vias when there is none. Null reads as an empty table, damage as "no such
/// FEC".
template <class ForwardingStatus>
typename ForwardingStatus::Fec readFec(const ForwardingStatus* table, Tovan::Fib::FecId fecId) {
  if (table == nullptr) return {};
  try {
    return table->fec(fecId);
  } catch (const Tovan::CorruptionDetectedException& damage) {
    table->corruptionDetected(damage.what());
    return {};
  }
}

/// True when `intf` is the outgoing interface of a via of the FEC.
template <class Fec>
bool leavesThrough(const Fec& fec, Zemit::IntfId intf) {
  return std::any_of(fec.begin(), fec.end(), [intf](const auto& via) { return via.intf == intf; });
}

/// The outgoing interfaces of the FEC's vias.
template <class ForwardingStatus>
IntfDir::Ptr intfsOf(const ForwardingStatus* table, Tovan::Fib::FecId fecId) {
  auto intfs = IntfDir::IntfDirIs();
  const auto fec = readFec(table, fecId);
  for (const auto& via : fec) intfs->intfIs(via.intf);
  return intfs;
}
inline IntfDir::Ptr getIntfs(const Tovan::Fib::ForwardingStatus* table, Tovan::Fib::FecId fecId) {
  return intfsOf(table, fecId);
}
inline IntfDir::Ptr getIp6Intfs(const Tovan::Fib6::ForwardingStatus* table,
                                Tovan::Fib::FecId fecId) {
  return intfsOf(table, fecId);
}

/// The table's route with the longest prefix that contains `prefix` and is shorter, or a record
/// whose key is the null prefix. Skips a prefix of the trie that has no route in the table.
template <class RouteStatus, class TrieType, class Prefix>
typename RouteStatus::Route routeAbove(const Prefix& prefix, const RouteStatus* table,
                                       const TrieType& trie) {
  auto above = trie.longestStrictlyShorter(prefix);
  while (!isNull(above)) {
    auto route = readRoute(table, above);
    if (route.key == above) return route;
    above = trie.longestStrictlyShorter(above);
  }
  return Tovan::noRoute<typename RouteStatus::Route>(Prefix());
}
inline Tovan::Fib::Route getTovanRouteAbove(const Zemit::Prefix& prefix,
                                            const Tovan::Fib::RouteStatus* table,
                                            const Routing::Trie& trie) {
  return routeAbove(prefix, table, trie);
}
inline Tovan::Fib6::Route getTovanIp6RouteAbove(const Zemit::Ip6Prefix& prefix,
                                                const Tovan::Fib6::RouteStatus* table,
                                                const Routing6::Trie& trie) {
  return routeAbove(prefix, table, trie);
}

}  // namespace Obu
