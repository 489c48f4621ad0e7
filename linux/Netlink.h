// rtnetlink sockets, on libmnl.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>

#include "linux/Values.h"

namespace Linux {

/// A netlink socket cannot be opened or used. what() says which call and why.
class NetlinkError : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

/// Hears of every change that this system follows: links, addresses, neighbours, forwarding
/// databases, routes and nexthop objects.
class NotificationSocket {
 public:
  struct Options {
    size_t receiveBuffer = 64 << 20;  ///< bytes; SO_RCVBUFFORCE where allowed
    /// Our own route writes are not told: those of this netlink port and this protocol number.
    uint32_t ownPort = 0;
  };
  explicit NotificationSocket(const Options& options);

  int fd() const;
  /// Reads what there is, up to `most` datagrams, and hands each change to `take`.
  /// \return false when the kernel dropped notifications (ENOBUFS): a new dump is needed.
  bool read(size_t most, const std::function<void(const Change&)>& take);
};

/// Asks the kernel for everything there is, kind by kind, in an order in which each object comes
/// after those it refers to. \return false when a dump was interrupted by a change
/// (NLM_F_DUMP_INTR) and is to be asked for again. \throws NetlinkError.
bool dumpAll(const std::function<void(const Change&)>& take);

}  // namespace Linux
