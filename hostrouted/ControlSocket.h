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

/// Listens on a Unix socket, passes each request to a Control and sends its reply.
///
/// A slow or hostile client must not affect others. The length of a request and the data that waits
/// for a client are limited. The next request of a client is read after the reply to the former. A
/// client that sends or reads nothing for kPatience seconds is disconnected. There are at most
/// kMostClients clients, and at most kMostOfOneUser of one user other than root.
///
/// A child process writes each long reply. There are at most kMostWriters child processes, and at
/// most kMostWritersOfAUser for one user other than root. A request above a limit is refused.
class ControlSocket {
 public:
  static constexpr size_t kMostClients = 32;
  static constexpr size_t kRootsClients = 8;  ///< places among kMostClients for root alone
  static constexpr size_t kMostOfOneUser = 8;
  static constexpr size_t kMostWriters = 4;
  static constexpr size_t kRootsWriters = 1;  ///< places among kMostWriters for root alone
  /// The maximum number of child processes for the clients of one user other than root.
  static constexpr size_t kMostWritersOfAUser = 2;
  /// The time after which an idle client is disconnected, in seconds.
  static constexpr double kPatience = 30;

  struct Options {
    std::string path;
    std::optional<gid_t> group;       ///< its members may connect; unset: the process's own group
    std::optional<gid_t> adminGroup;  ///< its members may send requests that change something
  };

  /// Replaces a socket that a former process left. The caller makes sure that no running process
  /// uses the path.
  /// \throws std::runtime_error when the socket cannot be created.
  ControlSocket(sd_event* event, Options options, Control& control, Log& log);
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;
  /// Disconnects all clients and removes the socket.
  ~ControlSocket();

  /// Sends the waiting lines of monitors and traces. Called after each turn of the loop.
  void pump();

 private:
  class Server;
  std::unique_ptr<Server> server_;
};

}  // namespace Hostrouted
