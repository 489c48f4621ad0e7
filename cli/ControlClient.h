// The client of the control socket, which docs/control-socket.md describes.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "cli/Command.h"
#include "cli/Terminal.h"

namespace CLI {
class App;
}

namespace Cli {

/// The daemon that a command asks.
struct ControlOptions {
  std::string socket = "/run/hostroute/control.sock";
  /// The time limit for sending a request, and for each line of the answer.
  std::chrono::milliseconds patience{30000};
};
/// Adds --socket. Its default may come from the environment variable HOSTROUTE_SOCKET.
void addSocketOption(CLI::App& command, ControlOptions& options);

/// No daemon listens on the control socket.
class NoDaemonError : public CommandError {
 public:
  using CommandError::CommandError;
};

/// The body of a command that asks the daemon. `place` is the command's name in error messages.
/// \returns the exit status.
using AskDaemon = std::function<int(const std::string& place)>;
/// Runs the body of a command. \throws CommandError also when the daemon's answer has an unexpected
/// form.
int runLive(const ControlOptions& options, const std::string& place, const AskDaemon& ask);
/// Adds --socket to a command, and makes `ask` its body.
void addLiveCommand(CLI::App& command, ControlOptions& options, int& exitCode, AskDaemon ask);

/// A connection to the daemon. Requests are sent one after the other.
class ControlClient {
 public:
  /// \param place  the command's name in error messages.
  /// \throws NoDaemonError when no daemon listens on the socket.
  /// \throws CommandError when this user may not connect.
  ControlClient(const ControlOptions& options, std::string place);
  ControlClient(const ControlClient&) = delete;
  ControlClient& operator=(const ControlClient&) = delete;
  ~ControlClient();

  /// Sends a request, to which it adds the protocol version. Returns the first line of the reply.
  /// \throws CommandError when the daemon refuses the request or does not answer.
  Json ask(Json request);
  /// The next line of a reply with several lines; nothing at its end. When the daemon reports that
  /// it could not read something, prints this as an error and returns the line after it.
  /// \param waits  whether to wait for the first byte of the line without a limit of time.
  /// \throws CommandError when the connection ends before the reply.
  std::optional<Json> next(bool waits = false);
  /// Call it after all lines were printed.
  /// \throws CommandError when the output cannot be written or the daemon could not read all.
  void finish() const;

 private:
  [[noreturn]] void fail(const std::string& what) const;
  std::string readLine(bool waits);

  const std::string place_;
  const std::string path_;
  const std::chrono::milliseconds patience_;
  int fd_ = -1;
  std::string buffer_;
  size_t taken_ = 0;     // the number of bytes of the buffer that were returned
  bool isWhole_ = true;  // false once the daemon has reported that it could not read something
};

/// Sends a request and returns its reply of one line.
Json askOnce(const ControlOptions& options, const std::string& place, Json request);

}  // namespace Cli
