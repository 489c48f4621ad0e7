// What the daemon answers those who ask over its control socket: requests in, replies out.
#pragma once

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>

#include "hostrouted/Log.h"
#include "hostrouted/Recorder.h"
#include "hostrouted/Router.h"
#include "hostrouted/Status.h"

namespace Hostrouted {

/// The version of the protocol, which docs/control-socket.md describes.
inline constexpr int kControlVersion = 1;

/// What a client may do.
struct Peer {
  bool isRoot = false;
  bool mayChange = false;  ///< whether it may ask for more than answers
};

/// Lines that come as things happen, until the client goes or they end.
///
/// What a client does not take waits, up to kMostWaiting bytes; what is over that is counted and
/// told as {"lost":N} once there is room again.
class Feedline {
 public:
  static constexpr size_t kMostWaiting = size_t{1} << 20;

  virtual ~Feedline() = default;
  /// Adds a line, without its newline.
  void add(std::string_view line);
  /// Moves what waits to the end of `out`.
  void take(std::string& out);
  bool isEmpty() const { return waiting_.empty() && lost_ == 0; }
  /// Whether nothing will be added any more, at the clock's time `now`.
  virtual bool hasEnded(double now) const = 0;

 private:
  std::string waiting_;
  size_t lost_ = 0;
};

/// What a request is answered with.
struct Reply {
  /// Lines, each with its newline. The first says whether all is well.
  std::string text;
  /// Writes the many lines that follow, from the state as it is now; empty where none do. Another
  /// process does it, so that it holds the daemon up neither by its size nor by a slow reader.
  std::function<void(std::ostream&)> bulk;
  /// What follows as it happens; null where nothing does.
  std::unique_ptr<Feedline> feed;
};

/// Answers requests. Does no I/O but through what it is lent.
class Control {
 public:
  /// Longer requests are refused.
  static constexpr size_t kMaxRequestBytes = 4096;

  /// What the answers are about. All outlive it.
  struct Services {
    Router& router;
    Log& log;
    Recorder& recorder;
    std::function<double()> clock;           ///< seconds, never going back
    std::function<ProcessStatus()> process;  ///< beside the router
    std::function<void()> resynchronise;     ///< reads all of the kernel's state again
    /// Reads the configuration again. \return why it was refused; empty when it was not.
    std::function<std::string()> reload;
    std::string recordingDirectory;  ///< where recordings without a directory go
  };

  explicit Control(Services services);
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;
  ~Control();

  /// Answers a line without its newline. Whatever it holds, there is a reply.
  Reply handle(std::string_view line, const Peer& peer);
  /// The reply to a request that cannot be answered; `isMalformed`: whoever sent it has mistyped
  /// it.
  static std::string refusal(std::string_view why, bool isMalformed = false);

 private:
  class Work;
  std::unique_ptr<Work> work_;
};

}  // namespace Hostrouted
