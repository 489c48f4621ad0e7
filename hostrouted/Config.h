// The daemon's configuration: one TOML file, overridden by the command line.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "hostrouted/Recorder.h"
#include "linux/Feed.h"
#include "linux/KernelRoutes.h"
#include "linux/Probing.h"

namespace Hostrouted {

/// The configuration is invalid. what() is "FILE:LINE: KEY: MESSAGE", without the parts that do not
/// apply.
class ConfigError : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

/// The tables for the host routes of one VRF; 0 for a family that is not exported.
struct OutputTables {
  Linux::TableId table4 = 0;
  Linux::TableId table6 = 0;

  friend bool operator==(const OutputTables&, const OutputTables&) = default;
};

/// The settings of hostrouted.toml(5), with their defaults.
struct Config {
  static constexpr const char* kDefaultFile = "/etc/hostroute/hostrouted.toml";
  /// Lower protocol numbers are those of the kernel and the administrator.
  static constexpr uint8_t kFirstProtocol = 5;
  static constexpr const char* kSharedNameForm = "a name of at most 100 bytes without . and /";

  Linux::FeedOptions feed;
  Linux::KernelRoutesOptions kernelRoutes;
  Linux::ProbingOptions probing;

  std::map<std::string, OutputTables, std::less<>> tables{{"default", {10, 10}}};  ///< by VRF
  uint8_t protocol = 205;
  uint32_t metric4 = 0;
  uint32_t metric6 = 1024;
  std::optional<Linux::Address> preferredSource4;
  std::optional<Linux::Address> preferredSource6;
  bool flushesOnExit = false;

  std::string runDir = "/run/hostroute";
  std::string stateDir = "/var/lib/hostroute";
  std::string sharedName;                   ///< of the tables in shared memory; empty for none
  size_t receiveBuffer = size_t{64} << 20;  ///< of the notification socket, in bytes
  int logLevel = 6;                         ///< syslog(3): 6 is informational
  size_t historyEntries = 1024;             ///< changes for each VRF and family; 0 for none

  std::string controlGroup;  ///< whose members may query the daemon; empty for the process's own
  std::string adminGroup;    ///< whose members may also change it; empty for none
  RecordingLimits recording;

  Config();

  /// Reads the text of a file. `name` is its name in errors.
  /// \throws ConfigError.
  static Config parse(std::string_view text, const std::string& name);
  /// Reads a regular file. \throws ConfigError, also when the file is unreadable.
  static Config load(const std::string& file);

  /// Keeps the values that the daemon runs with where a change takes effect at its next start.
  /// \return the keys whose values differed.
  std::vector<std::string> keepUntilRestart(const Config& running);

  /// Refuses conflicts of several keys, such as two VRFs with one table.
  /// \throws ConfigError.
  void check() const;
};

/// The number of a routing protocol, from a number or a name of rtnetlink(7) and routing daemons
/// ("static", "zebra", "bgp"...).
std::optional<uint8_t> parseProtocol(std::string_view text);
/// The name of a log level.
const char* logLevelName(int level);
/// The number of a log level: "error", "warning", "notice", "info" or "debug".
std::optional<int> parseLogLevel(std::string_view text);

}  // namespace Hostrouted
