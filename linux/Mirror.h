// What the kernel has, kept up to date by its messages.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "linux/Values.h"

namespace Linux {

/// The kernel's interfaces, addresses, neighbours, forwarding databases, routes and nexthop objects
/// of one network namespace, as far as this process was told. Does no I/O.
///
/// Filled by the answers to dump requests, kept by notifications. When notifications were lost, a
/// new dump of everything between beginDump() and endDump() brings it up to date: an object that
/// the dump did not name is gone then. Notifications that are older than a dump may be applied
/// after it: what they undo, later ones restore.
///
/// The kernel drops some objects without a word, or with a word on the interface only: IPv4 routes
/// whose interface goes down or loses its last IPv4 address, or whose preferred source goes;
/// nexthop objects, with their routes, whose interface goes down or loses its carrier; everything
/// on an interface that is deleted or moved to another namespace. The mirror drops them as the
/// kernel does. A dead or `linkdown` next hop of several is marked as one.
///
/// Not kept is what the kernel creates without a word: neighbour entries without a usable address
/// (INCOMPLETE, FAILED, NOARP), and forwarding databases of interfaces themselves. Proxy entries of
/// neighbour tables are passed over, too.
class Mirror {
 public:
  /// Told of each object that is new, differs or went, after the mirror has changed.
  class Observer {
   public:
    virtual ~Observer() = default;
    /// The interface is new, differs or went. An index that comes back under another name or kind
    /// is told as gone first.
    virtual void onLink(LinkIndex) {}
    virtual void onAddress(LinkIndex, const Address&) {}
    virtual void onNeighbor(LinkIndex, const Address&) {}
    virtual void onFdbEntry(const FdbEntry&, bool /*present*/) {}
    /// The routes of one table to one prefix are others than before, or use another nexthop.
    virtual void onRoute(TableId, const Prefix&) {}
  };

  /// \param ownProtocol  routes of this protocol number are our own output: they are passed over.
  explicit Mirror(uint8_t ownProtocol = 0);
  ~Mirror();

  /// At most one; it outlives the mirror or is taken back with nullptr.
  void setObserver(Observer* observer);

  /// Takes the kernel's word on one object.
  void apply(const Change& change);
  /// A dump of everything begins: from here to endDump() each object named is marked as seen.
  void beginDump();
  /// The dump is complete: what was there before and was not named since beginDump() is removed.
  void endDump();

  /// Null where there is no such object. Pointers are good until the next change.
  const Link* link(LinkIndex index) const;
  const Link* linkByName(std::string_view name) const;
  /// Where the interface has it with several lengths or peers: one of them.
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

/// The next hops of a route once its nexthop object, group and weights are resolved; nothing for a
/// route that drops what it matches. Those told with the route where the object is not known.
std::vector<NextHop> resolvedHops(const Mirror& mirror, const Route& route);

}  // namespace Linux
