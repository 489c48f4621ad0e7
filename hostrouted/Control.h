// The control protocol: handles the requests of the control socket.
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

/// The rights of a client.
struct Peer {
  bool isRoot = false;
  bool mayChange = false;  ///< whether it may send requests that change something
};

/// Lines about events, sent to a client as the events happen.
///
/// Lines wait until the client reads them, at most kMostWaiting bytes. Further lines are dropped
/// and counted. When there is room again, a line {"lost":N} reports their number.
class Feedline {
 public:
  static constexpr size_t kMostWaiting = size_t{1} << 20;

  virtual ~Feedline() = default;
  /// Adds a line. `line` has no line feed.
  void add(std::string_view line);
  /// Moves the waiting lines to the end of `out`.
  void take(std::string& out);
  bool isEmpty() const { return waiting_.empty() && lost_ == 0; }
  /// True when no more lines will follow. `now` is the time of Services::clock.
  virtual bool hasEnded(double now) const = 0;

 private:
  std::string waiting_;
  size_t lost_ = 0;
};

/// The reply to a request.
struct Reply {
  /// The first lines, each with a line feed. The first line says whether the request succeeded.
  std::string text;
  /// Writes the further lines of a long reply; empty for a short one. It is called in a child
  /// process, which has a copy of the present state. So neither the length of the reply nor a slow
  /// client delays the daemon.
  std::function<void(std::ostream&)> bulk;
  /// The lines of a monitor or a trace; null for other requests.
  std::unique_ptr<Feedline> feed;
};

/// Handles requests. All input and output goes through its services.
class Control {
 public:
  /// The maximum length of a request.
  static constexpr size_t kMaxRequestBytes = 4096;

  /// The parts of the daemon that requests read or change. They outlive the Control.
  struct Services {
    Router& router;
    Log& log;
    Recorder& recorder;
    std::function<double()> clock;           ///< a monotonic clock, in seconds
    std::function<ProcessStatus()> process;  ///< the status of the process
    std::function<void()> resynchronise;     ///< reads all of the kernel's state again
    /// Reads the configuration again. \return the error; empty on success.
    std::function<std::string()> reload;
    std::string recordingDirectory;  ///< the directory of recordings that name no directory
  };

  explicit Control(Services services);
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;
  ~Control();

  /// Handles a request. `line` has no line feed. A malformed line also gets a reply.
  Reply handle(std::string_view line, const Peer& peer);
  /// The reply to a request that failed. `isMalformed`: a value of the request is wrong.
  static std::string refusal(std::string_view why, bool isMalformed = false);

 private:
  class Work;
  std::unique_ptr<Work> work_;
};

}  // namespace Hostrouted
