// rtnetlink sockets, on libmnl.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "linux/Values.h"

struct mnl_socket;

namespace Linux {

/// A netlink socket cannot be opened or used. what() says which call and why.
class NetlinkError : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

using TakeChange = std::function<void(const Change&)>;
/// Told of each message that cannot be read, which is passed over, and why.
using Warn = std::function<void(const std::string&)>;

struct CloseSocket {
  void operator()(mnl_socket* socket) const;
};
using SocketPtr = std::unique_ptr<mnl_socket, CloseSocket>;

/// Hears of every change that this system follows: links, addresses, neighbours, forwarding
/// databases, routes and nexthop objects.
class NotificationSocket {
 public:
  struct Options {
    size_t receiveBuffer = 64 << 20;  ///< bytes; SO_RCVBUFFORCE where allowed
    /// Routes that are written through the socket with this netlink port are not told. They are
    /// passed over in the kernel and take no room in the receive buffer. 0: all are told.
    uint32_t ownPort = 0;
    Warn warn;
  };
  /// Hears of all that happens from here on. \throws NetlinkError
  explicit NotificationSocket(const Options& options);
  ~NotificationSocket();

  int fd() const;
  /// Bytes of messages that the kernel keeps for us, by its own count. It may have granted less
  /// than was asked for.
  size_t receiveBuffer() const;
  /// Reads what there is, up to about `most` messages, and hands each change to `take`.
  ///
  /// After a loss, what is still in the socket is thrown away: a dump that begins after this call
  /// knows of it, and what comes from here on is told.
  ///
  /// \return false when the kernel dropped notifications (ENOBUFS): a new dump is needed.
  /// \throws NetlinkError
  bool read(size_t most, const TakeChange& take);

 private:
  struct Buffers;

  bool drain();

  Warn warn_;
  SocketPtr socket_;
  std::unique_ptr<Buffers> buffers_;
};

/// Asks the kernel for everything there is, kind by kind, in an order in which each object comes
/// after those it refers to.
///
/// While objects are deleted, a dump may pass over others that are there, and the kernel does not
/// always say so. A kind of which something was deleted meanwhile is therefore asked for again, a
/// few times at most. What was told of an object may thus be outdated: changes that happen during
/// the dump must be read from a NotificationSocket that was opened before.
///
/// \return false when a dump was interrupted by changes again and again (NLM_F_DUMP_INTR).
/// \throws NetlinkError
bool dumpAll(const TakeChange& take, const Warn& warn = {});

/// Whether the kernel drops neighbours of a family (4 or 6) that are not in use: its table has as
/// many entries as gc_thresh1 allows, or more. It does, where it does not say.
bool collectsNeighbors(int family);

}  // namespace Linux
