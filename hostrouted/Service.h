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
/// SIGTERM and SIGINT end it well, SIGHUP has it read its configuration again, SIGUSR1 has it write
/// its status file now. The service manager is told when the first complete pass is through, and
/// kept informed by the watchdog (sd_notify(3)).
class Service {
 public:
  struct Options {
    /// Reads the configuration again, for SIGHUP. \throws ConfigError.
    std::function<Config()> reload;
    /// Prints what it would write to the kernel after the first complete pass, and ends.
    bool isDryRun = false;
    /// Where the operations that the engine is given are recorded from the start; empty for
    /// nowhere.
    std::string recordFile;
    std::string version;  ///< of the program, for those who ask
  };

  /// \throws std::runtime_error when a socket, a directory or a table cannot be had: InUseError,
  ///   Linux::NetlinkError...
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
