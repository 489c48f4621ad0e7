// One host-route state machine of the golden model, with its root, its tables and its inputs.
#pragma once

#include <array>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/model/Values.h"

namespace Golden {

/// One interface's addresses, as in `Ip::Status` and `Ip6::Status`.
struct Interface {
  AddrLen primary;
  std::set<AddrLen> secondary;
  std::set<AddrLen> addrs6;
};

/// One interface's neighbours for each family: the MAC address by IP address.
using Neighbors = std::array<std::map<Bits, std::string>, 2>;

/// The state that all VRFs share.
struct World {
  std::map<std::string, Interface> intfs;
  std::map<std::string, std::string> l3Vrf;
  std::map<std::string, Neighbors> neighborDir;
  std::array<std::map<FecId, std::vector<Via>>, 2> fecs;
  std::array<std::set<std::pair<std::string, AddrLen>>, 2> virtualIps;
};

/// A VRF's readiness record.
struct Readiness {
  bool ribReady = false;
  bool startRibReadyVerification = false;
  std::array<bool, 2> hostRoutesSynced{};
  std::array<bool, 2> ready{};
};

/// Reference-counted adjacencies by via set. Ids are never reused.
class Adjacencies {
 public:
  struct Adjacency {
    ViaSet vias;
    int refs = 0;
  };

  FecId getOrCreate(const ViaSet& vias);
  /// Does nothing for an id that was not allocated here.
  void drop(FecId id);
  /// Empty for an unknown id.
  ViaSet vias(FecId id) const;
  const std::map<FecId, Adjacency>& all() const { return byId_; }

 private:
  std::map<FecId, Adjacency> byId_;
  FecId next_ = FecId{1} << 32;
};

/// A host-route table of the root, with its host adjacencies.
struct HostTable {
  RouteTable routes;
  Adjacencies adjacencies;
};

using AddrSet = std::set<Bits>;
using IntfSet = std::set<std::string>;

/// The state machine of one VRF and family together with its root.
///
/// The handlers have the same names as the engine's. The model calls them as notifications: after
/// the change, and only on a machine that was not torn down.
class Machine {
 public:
  Machine(const Family& family, const World& world, Readiness& readiness, std::string vrf);

  RouteTable routeStatus;  ///< the route table: FIB routes, and the host routes written here
  RouteTable hostStatus;   ///< the FIB's host routes
  bool alive = true;       ///< false after the teardown; the root stays

  const Family& family() const { return family_; }
  bool hasNeighborRoute(Bits addr) const { return neighborTable_.routes.contains(host(addr)); }
  nlohmann::json dump() const;

  void initializedIs(bool value);
  void handleStatusRoute(const Prefix& prefix);
  void handleHostStatusRoute(const Prefix& prefix);
  void handleFec(FecId fec);
  void handleVirtualIp(const std::pair<std::string, AddrLen>& virtualIp);
  void handleRibReady();
  void setHostRouteRibReady();
  /// The interface was added or removed, or changed its VRF.
  void handleVrf(const std::string& intf);
  /// The addresses of the interface changed. Does nothing for an interface of another VRF.
  void handleAddresses(const std::string& intf);
  void handleArpEntry(const std::string& intf, Bits addr);
  void handleArpEntries(const std::string& intf);
  /// The interface's neighbour table was removed. `left` has the neighbours that it had.
  void handleDeletedTable(const std::string& intf, const Neighbors& left);

 private:
  Prefix host(Bits addr) const { return {addr, family_.width}; }
  bool owns(const Route& route) const { return family_.ownTypes.contains(route.type); }

  std::optional<Route> doFibLookup(const Prefix& prefix) const;
  std::optional<Prefix> checkIpAddressAgainstFib(Bits addr, const std::string& intf) const;
  std::optional<Route> routeAbove(const Prefix& prefix) const;
  std::vector<Via> fecVias(FecId fec) const;
  IntfSet getIntfs(FecId fec) const;
  bool isVirtual(Bits addr) const;

  void addRouteToRouteTable(RouteTable& table, bool toRouteTable, Bits addr, FecId fec,
                            const std::string& type);
  void removeHostRoute(Bits addr, HostTable& table);
  void fileUnder(FecId fec, const Prefix& prefix) { adjacencyToPrefix_[fec].insert(prefix); }
  void unfile(FecId fec, const Prefix& prefix);

  void handleInitialized();
  void handleStatusRoute();
  void handleHostStatusRoute();
  void handleArpEntries();
  void handleRoute(const Prefix& prefix, const std::optional<Route>& route);
  void handleDeletedRoute(const Route& route);
  void handleAdjacency(const Route& route);
  AddrSet handleDeletedAdjacency(const Prefix& prefix);
  void handleAddedArpEntry(Bits addr, const std::string& intf);
  void handleDeletedArpEntry(Bits addr, const std::string& intf);
  void fixupArpRoute(Bits addr, const Route& route);
  AddrSet promoteArpEntries(const IntfSet& intfs, const Route& route);
  void doMerge(const AddrSet& changed);

  void handleIpIntfStatus(const std::string& intf);
  void recomputeReceiveRoutes(const std::string& intf);
  void addActiveReceiveRoutes(const std::string& intf, const AddrLen& addr, AddrSet& changed);
  void addReceiveRoute(const std::string& intf, Bits addr, const std::string& type,
                       AddrSet& changed);
  void removeReceiveRoutes(const std::string& intf, AddrSet& changed);
  void removeAddrMask(const std::string& intf, const AddrLen& addr, AddrSet& changed);
  void removeReceiveRoute(const std::string& intf, Bits addr);

  nlohmann::json show(const Route& route, const ViaSet& vias) const;
  nlohmann::json show(const HostTable& table) const;
  nlohmann::json show(const ViaSet& vias) const;
  /// Of addresses or of prefixes.
  template <class Value>
  nlohmann::json show(const std::set<Value>& values) const;
  ViaSet resolve(FecId fec) const;

  const Family& family_;
  const World& world_;
  Readiness& readiness_;
  const std::string vrf_;
  bool initialized_ = false;
  IntfSet vrfIntfs_;
  Adjacencies fibAdjacencies_;

  HostTable receiveTable_;
  HostTable neighborTable_;
  std::set<Prefix> trie_;
  std::map<Prefix, AddrSet> neighborRoute_;
  std::map<Prefix, Route> prefixToRoute_;
  std::map<Prefix, FecId> prefixToAdjacency_;
  std::map<FecId, std::set<Prefix>> adjacencyToPrefix_;
  std::map<std::string, AddrLen> intfNameToPrimary_;              // IPv4
  std::map<std::string, std::set<AddrLen>> intfNameToSecondary_;  // IPv4
  std::map<std::string, std::set<AddrLen>> intfNameToAddrs_;      // IPv6
  std::map<Bits, std::string> receiveAddrToIntfName_;
  AddrSet toMerge_;
};

}  // namespace Golden
