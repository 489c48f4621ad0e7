// A copy of the kernel's objects, updated by its messages.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "linux/Values.h"

namespace Linux {

/// The kernel's interfaces, addresses, neighbours, forwarding databases, routes and nexthop objects
/// of one network namespace. Does no I/O.
///
/// Dumps fill it, and notifications update it. After a loss of notifications, a new dump of
/// everything between beginDump() and endDump() corrects it: objects that are not in the dump are
/// removed. Notifications that are older than the dump may be applied after it, because later
/// notifications restore the current state.
///
/// The kernel drops some objects without a notification, or with a notification about the interface
/// only. The mirror drops them, too:
///
/// - IPv4 routes when their interface goes down or loses its last IPv4 address, or when their
///   preferred source is removed;
/// - nexthop objects, with their routes, when their interface goes down or loses its carrier;
/// - all objects on an interface that is deleted or moved to another namespace.
///
/// A dead or `linkdown` next hop of a multipath route is marked as such.
///
/// Some objects are not stored, because the kernel creates them without a notification: neighbour
/// entries without a usable address (INCOMPLETE, FAILED, NOARP), and the forwarding databases of
/// interfaces. Proxy entries of neighbour tables are not stored either.
class Mirror {
 public:
  /// Receives the key of each object that was added, changed or removed, after the change.
  class Observer {
   public:
    virtual ~Observer() = default;
    /// The interface was added, changed or removed. If an index returns with another name or kind,
    /// the removal is reported first.
    virtual void onLink(LinkIndex) {}
    virtual void onAddress(LinkIndex, const Address&) {}
    virtual void onNeighbor(LinkIndex, const Address&) {}
    virtual void onFdbEntry(const FdbEntry&, bool /*present*/) {}
    /// The routes of one table to one prefix changed, or their nexthop objects did.
    virtual void onRoute(TableId, const Prefix&) {}
  };

  /// \param ownProtocol  routes of this protocol number are our own output and are skipped.
  explicit Mirror(uint8_t ownProtocol = 0);
  ~Mirror();

  /// Sets the only observer, which outlives the mirror; nullptr removes it.
  void setObserver(Observer* observer);

  /// Takes a message of the kernel about one object.
  void apply(const Change& change);
  /// A dump of everything begins. Until endDump(), each object that is applied is marked as seen.
  void beginDump();
  /// The dump is complete. Removes all objects that were not applied since beginDump().
  void endDump();

  /// The object, or null. Pointers are valid until the next change.
  const Link* link(LinkIndex index) const;
  const Link* linkByName(std::string_view name) const;
  /// If the interface has the address with several lengths or peers: one of them.
  const InterfaceAddress* address(LinkIndex link, const Address& addr) const;
  const Neighbor* neighbor(LinkIndex link, const Address& addr) const;
  /// The routes of a table to a prefix, of lowest metric first; those of equal metric in the order
  /// in which the kernel tries them. Next hops of a nexthop object or group are resolved. Those of
  /// IPv6 routes are sorted, and their preferred sources are not kept.
  std::vector<Route> routes(TableId table, const Prefix& prefix) const;
  const Nexthop* nexthop(uint32_t id) const;

  /// Each calls `visit` with every object, in no order.
  void forEachLink(const std::function<void(const Link&)>& visit) const;
  void forEachAddress(LinkIndex link, const std::function<void(const InterfaceAddress&)>&) const;
  void forEachNeighbor(LinkIndex link, const std::function<void(const Neighbor&)>&) const;
  void forEachFdbEntry(const std::function<void(const FdbEntry&)>& visit) const;
  /// Each prefix of each table once.
  void forEachRoute(const std::function<void(TableId, const Prefix&)>& visit) const;
  void forEachNexthop(const std::function<void(const Nexthop&)>& visit) const;

 private:
  class State;
  std::unique_ptr<State> state_;
};

/// The next hops of a route, with its nexthop object, group and weights resolved; none for a route
/// that drops packets. If the nexthop object is not known, the next hops in the route's message.
std::vector<NextHop> resolvedHops(const Mirror& mirror, const Route& route);

}  // namespace Linux
