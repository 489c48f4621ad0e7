// The daemon as a process: sockets, signals, timers and the service manager, on one event loop.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "hostrouted/Config.h"
#include "hostrouted/Log.h"

namespace Hostrouted {

/// Runs the daemon until a signal ends it.
///
/// SIGTERM and SIGINT end it with status 0. After SIGHUP it reads its configuration again, after
/// SIGUSR1 it writes its status file. It notifies the service manager after the first complete pass
/// and then at the intervals of the watchdog (sd_notify(3)).
class Service {
 public:
  struct Options {
    /// Reads the configuration again, for SIGHUP. \throws ConfigError.
    std::function<Config()> reload;
    /// Prints the requests of the first complete pass, does not send them, and ends.
    bool isDryRun = false;
    /// The file for a recording from the start on; empty for none.
    std::string recordFile;
    std::string version;  ///< of the program, as shown in the status
  };

  /// \throws std::runtime_error when a socket, a directory or a table is not available: InUseError,
  ///   Linux::NetlinkError and others.
  Service(const Config& config, Options options, Log& log);
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  ~Service();

  /// \return the exit status: 0 when a signal ended it.
  int run();

 private:
  class Loop;
  std::unique_ptr<Loop> loop_;
};

}  // namespace Hostrouted
