// What the kernel has, kept up to date by its messages.
#pragma once

#include <cstdint>
#include <functional>

#include "linux/Values.h"

namespace Linux {

/// The kernel's interfaces, addresses, neighbours, forwarding databases, routes and nexthop objects
/// of one network namespace, as far as this process was told. Does no I/O.
///
/// Filled by the answers to dump requests, kept by notifications. When notifications were lost, a
/// new dump of everything between beginDump() and endDump() brings it up to date: what the dump
/// did not name is gone then.
class Mirror {
 public:
  /// Told of each object that is new, differs or went, after the mirror has changed.
  class Observer {
   public:
    virtual ~Observer() = default;
    virtual void onLink(LinkIndex) {}
    virtual void onAddress(const InterfaceAddress&) {}
    virtual void onNeighbor(LinkIndex, const Address&) {}
    virtual void onFdbEntry(const FdbEntry&, bool /*present*/) {}
    /// The routes of one table to one prefix are others than before, or use another nexthop.
    virtual void onRoute(TableId, const Prefix&) {}
  };

  /// Takes the kernel's word on one object.
  void apply(const Change& change);

  /// A dump of everything begins: from here to endDump() every object named is marked as seen.
  void beginDump();
  /// The dump is complete: what was there before and was not named since beginDump() is removed.
  void endDump();
};

}  // namespace Linux
