// Invariants of every switch between two events.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "daemon/Switch.h"
#include "replay/ShownRoute.h"

/// The reference count of each host adjacency of the table is the number of routes that use it.
template <class F>
void checkHostAdjacencies(const typename F::HostTable& table) {
  std::map<Tovan::Fib::FecId, uint32_t> users;
  table.forEachRoute([&](const auto& route) {
    if (route.fecId != 0) ++users[route.fecId];
  });
  EXPECT_EQ(users.size(), table.adjacencies().size()) << table.name();
  for (const auto& [fecId, count] : users) {
    EXPECT_EQ(table.adjacencies().users(static_cast<uint32_t>(fecId)), count)
        << table.name() << " adjacency " << fecId;
  }
}

/// The reference count of each FIB adjacency of this VRF is the number of routes that use it.
template <class F>
void checkFibAdjacencies(const Daemon::Switch& sw, const Daemon::HostRouting<F>& routing) {
  std::map<Replay::Vias<F>, uint32_t> users;
  routing.routeStatus->forEachRoute([&](const auto& route) {
    if (route.fecId >= F::ForwardingStatus::kFirstAdjacency) {
      ++users[Replay::viasOf<F>(*sw.shared<F>().forwarding, route.fecId)];
    }
  });
  std::map<Replay::Vias<F>, uint32_t> counted;
  routing.adjHelper->fibAdjacencies().forEach(
      [&](const auto& vias, uint32_t count) { counted[Replay::viasOf<F>(vias)] = count; });
  EXPECT_EQ(users, counted);
}

/// prefixToAdjacency and adjacencyToPrefix agree, and no list is empty.
///
/// A prefix may also be in lists of other FECs: the list of its former FEC keeps it as long as the
/// list has other prefixes.
template <class F>
void checkFilings(const typename F::RouteSmRoot& root) {
  for (auto it = root.adjacencyToPrefixIteratorConst(); it; ++it) {
    EXPECT_GT(it.value()->prefixCount(), 0u) << "FEC " << it.key();
  }
}

/// An address has an owner exactly when it has a receive route.
template <class F>
void checkReceiveOwners(const typename F::RouteSmRoot& root) {
  EXPECT_EQ(root.receiveTable()->routeCount(), root.receiveAddrToIntfNameCount());
  root.receiveTable()->forEachRoute([&](const auto& route) {
    EXPECT_NE(root.receiveAddrToIntfNameFind(route.key.addr()), nullptr) << route.key;
  });
}

template <class F>
void checkInvariants(const Daemon::Switch& sw, const Daemon::Vrf& vrf) {
  SCOPED_TRACE(std::string(vrf.name.value().view()) + " " + F::kName);
  const auto& routing = vrf.routing<F>();
  const auto& root = *routing.root;
  checkHostAdjacencies<F>(*root.receiveTable());
  checkHostAdjacencies<F>(*F::neighborTable(root));
  checkFibAdjacencies<F>(sw, routing);
  checkFilings<F>(root);
  checkReceiveOwners<F>(root);
  if (routing.machine() != nullptr && routing.machine()->initialized()) {
    EXPECT_EQ(root.toMerge()->ipCount(), 0u);
  }
}

inline void checkInvariants(const Daemon::Switch& sw) {
  for (const auto& [name, vrf] : sw.vrfs()) {
    checkInvariants<Daemon::Ipv4>(sw, vrf);
    checkInvariants<Daemon::Ipv6>(sw, vrf);
  }
}
