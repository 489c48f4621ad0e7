// Asks a running hostrouted by its control socket, as docs/control-socket.md describes.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace CLI {
class App;
}

namespace Cli {

using Json = nlohmann::ordered_json;

/// Which daemon a command asks.
struct ControlOptions {
  std::string socket = "/run/hostroute/control.sock";
};
/// Adds --socket, which may also come from HOSTROUTE_SOCKET.
void addSocketOption(CLI::App& command, ControlOptions& options);

/// A connection to the daemon, for one request after the other.
class ControlClient {
 public:
  /// \param place  what errors call the command.
  /// \throws CommandError when no daemon answers there, or this user may not ask it.
  ControlClient(const ControlOptions& options, std::string place);
  ControlClient(const ControlClient&) = delete;
  ControlClient& operator=(const ControlClient&) = delete;
  ~ControlClient();

  /// Sends a request, whose version is added, and gives the first line of the reply.
  /// \throws CommandError when the daemon refuses it, or does not answer.
  Json ask(Json request);
  /// The next line of a reply that has many; nothing at its end. Waits for a line for ever where
  /// `waits` says so. \throws CommandError when the connection ends before the reply.
  std::optional<Json> next(bool waits = false);

 private:
  [[noreturn]] void fail(const std::string& what) const;
  std::string readLine(bool waits);

  const std::string place_;
  const std::string path_;
  int fd_ = -1;
  std::string buffer_;
  size_t taken_ = 0;  // of the buffer
};

/// Asks for something that is answered by one line.
Json askOnce(const ControlOptions& options, const std::string& place, Json request);

}  // namespace Cli
