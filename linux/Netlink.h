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
  /// \param error  the errno of the call.
  NetlinkError(const std::string& call, int error);
  int number() const { return number_; }

 private:
  int number_;
};

using TakeChange = std::function<void(const Change&)>;
/// Receives a description of each unreadable message, which is skipped.
using Warn = std::function<void(const std::string&)>;

struct CloseSocket {
  void operator()(mnl_socket* socket) const;
};
using SocketPtr = std::unique_ptr<mnl_socket, CloseSocket>;

/// Receives notifications of all kinds that this system uses: links, addresses, neighbours,
/// forwarding databases, routes and nexthop objects.
class NotificationSocket {
 public:
  struct Options {
    size_t receiveBuffer = 64 << 20;  ///< bytes; SO_RCVBUFFORCE where allowed
    /// The kernel filters out notifications of routes that were written through the socket with
    /// this netlink port, so they take no room in the receive buffer. 0: no filter.
    uint32_t ownPort = 0;
    Warn warn;
  };
  /// Receives notifications from now on. \throws NetlinkError
  explicit NotificationSocket(const Options& options);
  ~NotificationSocket();

  int fd() const;
  /// The size of the receive buffer in bytes, as granted by the kernel.
  size_t receiveBuffer() const;
  /// Reads the waiting messages, up to about `most`, and hands each change to `take`.
  ///
  /// After a loss, the waiting messages are discarded. A dump that begins after this call contains
  /// their effects, and later notifications are received.
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

/// Dumps all objects of the kernel, kind by kind, each object after those that it refers to.
///
/// While objects are deleted, a dump may omit other objects, and the kernel does not always report
/// this. The same happens when the kernel enlarges its hash table of neighbours, which all
/// namespaces share. So the dump of a kind is repeated, at most a few times, after deletions of its
/// objects and after a change of the hash table. The state of an object may be outdated: changes
/// during the dump must be read from a NotificationSocket that was opened before.
///
/// \return false when a dump was interrupted by changes again and again (NLM_F_DUMP_INTR).
/// \throws NetlinkError
bool dumpAll(const TakeChange& take, const Warn& warn = {});

/// Whether the kernel may soon drop unused neighbours of a family (4 or 6): its table has at least
/// half of gc_thresh1 entries. True if the kernel does not report the numbers.
/// \throws NetlinkError
bool mayCollectNeighbors(int family);

}  // namespace Linux
