// The kernel's routes, with the changes that it makes without notifications.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "linux/UserIndex.h"
#include "linux/Values.h"
#include "platform/kiv/containers/NumberIndex.h"

namespace Linux {

/// The kernel's routes by table and prefix.
///
/// The common part of many routes - next hops, protocol, type - is stored once, as in the kernel.
/// So an event of an interface finds its routes without a search of a million others.
///
/// The kernel sends no notifications when it drops IPv4 routes with their interface, with its last
/// address or with their preferred source, nor when it changes flags of next hops. The methods for
/// these events make the same changes here. They may be called more than once for an event.
class RouteTable {
 public:
  /// Receives each prefix in a table whose routes changed, after the change.
  using Changed = std::function<void(TableId, const Prefix&)>;
  explicit RouteTable(Changed changed) : changed_(std::move(changed)) {}

  /// Adds or changes a route, or replaces another one (see Change).
  void put(const Route& route, bool replaces, bool appends);
  /// Removes the route that was replaced by a route of ours, which is not stored.
  void dropReplaced(const Route& route);
  void erase(const Route& route);

  void beginDump() {
    ++dump_;
    isDumping_ = true;
  }
  /// Removes the routes that were not in the dump.
  void endDump();

  /// Takes the state of an interface. \param isRevived  it was down or without carrier before.
  void linkIs(const Link& link, bool isRevived);
  void linkGone(LinkIndex link);
  /// The interface got an IPv4 address.
  void ipv4Enabled(const Link& link);
  /// The last IPv4 address of an interface is gone.
  void ipv4Disabled(LinkIndex link);
  /// This machine has the address no longer, as far as the routes of `table` are concerned.
  void preferredSourceGone(TableId table, Zemit::IpAddr addr);
  bool isPreferredSource(Zemit::IpAddr addr) const { return !bySource_.of(addr).empty(); }
  void nexthopChanged(uint32_t id);
  void nexthopGone(uint32_t id);

  /// The routes of a prefix, sorted by metric.
  std::vector<Route> routes(TableId table, const Prefix& prefix) const;
  void forEach(const std::function<void(TableId, const Prefix&)>& visit) const;
  size_t size() const { return nodes_.size() - freeNodes_.size(); }

 private:
  using Number = uint32_t;
  static constexpr Number kNone = UINT32_MAX;

  struct Node {
    Prefix prefix;
    TableId table = 0;
    uint32_t metric = 0;
    Number body = kNone;  ///< kNone when the node is free
    Number previousOfBody = kNone;
    Number nextOfBody = kNone;
    Number nextOfPrefix = kNone;
    uint16_t dump = 0;  ///< in which it was last seen
    uint8_t tos = 0;
    bool hasSource : 1 = false;
    bool isFirst : 1 = false;  ///< of its prefix
  };
  /// The common part of routes.
  struct Body {
    int family = 0;
    uint8_t protocol = 0;
    uint8_t type = 0;
    uint32_t nexthop = 0;
    Zemit::IpAddr source;  ///< of IPv4; zero for none
    std::vector<NextHop> hops;
    uint32_t hash = 0;
    bool isIndexed = false;  ///< false if another one is equal
    size_t routes = 0;
    Number firstRoute = kNone;

    bool isEqual(const Body& other) const;
    /// Whether its next hop can become a next hop of another IPv6 route.
    bool canJoin() const;
  };

  static Body bodyOf(const Route& route);
  static uint32_t hashOfBody(const Body& body);

  Number firstOf(TableId table, const Prefix& prefix) const;
  template <class Test>
  Number find(const Route& route, const Test& isSought) const;
  Number findSame(const Route& route, const Body& body) const;
  Number findReplaced(const Route& route, const Body& body) const;
  /// Adds a new node at its position among those of its prefix.
  void insert(const Route& route, Body body, bool inFront);
  void link(Number number, bool inFront);
  void unlink(Number number);
  void remove(Number number);
  /// Gives a node another body. \return whether it differs.
  bool setBody(Number number, Body body);
  void attach(Number number, Body body);
  void detach(Number number);
  void touch(Number number) { nodes_[number].dump = dump_; }
  void changed(Number number) { changed_(nodes_[number].table, nodes_[number].prefix); }
  void mergeIpv6(const Route& route, Body body);

  Number share(Body body);
  void index(Number body);
  void unindex(Number body);
  void release(Number number);
  /// The routes of a body, by number.
  std::vector<Number> routesOf(Number body) const;
  void removeRoutesOf(Number body);
  /// Calls `change(hop)` for each next hop of a body on an interface.
  template <class Change>
  void changeHopsOn(LinkIndex link, Number body, const Change& change);
  /// Calls `change(hops)`, which returns whether it changed the next hops of the body. Removes the
  /// routes of the body if no next hop is left alive.
  template <class Change>
  void changeHops(Number number, const Change& change);

  Changed changed_;
  std::deque<Node> nodes_;
  std::vector<Number> freeNodes_;
  Kiv::NumberIndex byPrefix_;  // the first node of each prefix in a table
  std::deque<Body> bodies_;
  std::vector<Number> freeBodies_;
  Kiv::NumberIndex byContent_;
  UserIndex<LinkIndex> byLink_;  // bodies
  UserIndex<Zemit::IpAddr> bySource_;
  UserIndex<uint32_t> byNexthop_;
  uint16_t dump_ = 0;
  bool isDumping_ = false;
};

}  // namespace Linux
