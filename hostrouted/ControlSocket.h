// The socket that clients of the control protocol connect to.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include "hostrouted/Control.h"
#include "hostrouted/Log.h"

struct sd_event;

namespace Hostrouted {

/// Listens on a Unix socket, hands lines to a Control and replies to those who sent them.
///
/// A client costs the others nothing: each has a limit to what it may send and to what waits for
/// it, its next request is read when the former is answered, and it is dropped when it is silent or
/// does not read for too long. There is room for kMostClients, of which each user but root takes at
/// most kMostOfOneUser. Long answers are written by processes of their own, kMostWriters at once;
/// who asks for one more is told to come again.
class ControlSocket {
 public:
  static constexpr size_t kMostClients = 32;
  static constexpr size_t kRootsClients = 8;  ///< of these, which nobody else gets
  static constexpr size_t kMostOfOneUser = 8;
  static constexpr size_t kMostWriters = 4;
  static constexpr size_t kRootsWriters = 1;  ///< of these, which nobody else gets
  static constexpr long kMostWritersOfAUser = 2;
  /// A client that asks nothing, or does not take its answer, is dropped after so many seconds.
  static constexpr double kPatience = 30;

  struct Options {
    std::string path;
    std::optional<gid_t> group;       ///< whose members may connect; else the process's own
    std::optional<gid_t> adminGroup;  ///< whose members may change things
  };

  /// Takes the place of a socket that a former process left. Whoever calls it makes sure that no
  /// other process uses the path.
  /// \throws std::runtime_error when there can be no such socket.
  ControlSocket(sd_event* event, Options options, Control& control, Log& log);
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;
  /// Drops all clients and removes the socket.
  ~ControlSocket();

  /// Sends what feeds hold. Called after each turn of the loop.
  void pump();

 private:
  class Server;
  std::unique_ptr<Server> server_;
};

}  // namespace Hostrouted
