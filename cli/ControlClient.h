// Asks a running hostrouted by its control socket, as docs/control-socket.md describes.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "cli/Terminal.h"

namespace CLI {
class App;
}

namespace Cli {

/// Which daemon a command asks.
struct ControlOptions {
  std::string socket = "/run/hostroute/control.sock";
  /// How long the daemon may take to take a request, and for each line of the answer.
  std::chrono::milliseconds patience{30000};
};
/// Adds --socket, which may also come from HOSTROUTE_SOCKET.
void addSocketOption(CLI::App& command, ControlOptions& options);

/// What a command does that asks the daemon. `place` is what errors call it.
/// \returns the exit status.
using AskDaemon = std::function<int(const std::string& place)>;
/// Does that. \throws CommandError also where an answer has another form than is expected.
int runLive(const ControlOptions& options, const std::string& place, const AskDaemon& ask);
/// Has a command do that and nothing else; adds --socket.
void addLiveCommand(CLI::App& command, ControlOptions& options, int& exitCode, AskDaemon ask);

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
  /// The next line of a reply that has many; nothing at its end. Waits for ever until a line begins
  /// where `waits` says so. A line that tells what the daemon could not read is printed as an
  /// error, and the one behind it given. \throws CommandError when the connection ends before the
  /// reply.
  std::optional<Json> next(bool waits = false);
  /// All lines were taken and printed.
  /// \throws CommandError when the output cannot be written, or the daemon left something out.
  void finish() const;

 private:
  [[noreturn]] void fail(const std::string& what) const;
  std::string readLine(bool waits);

  const std::string place_;
  const std::string path_;
  const std::chrono::milliseconds patience_;
  int fd_ = -1;
  std::string buffer_;
  size_t taken_ = 0;     // of the buffer
  bool isWhole_ = true;  // the daemon could read all that it was asked for
};

/// Asks for something that is answered by one line.
Json askOnce(const ControlOptions& options, const std::string& place, Json request);

}  // namespace Cli
