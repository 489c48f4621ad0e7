// The daemon's configuration: one TOML file, and the command line over it.
#pragma once

#include <map>
#include <stdexcept>
#include <string>

#include "linux/Feed.h"
#include "linux/KernelRoutes.h"
#include "linux/Probing.h"

namespace Hostrouted {

/// The configuration cannot be used. what() is "FILE:LINE: KEY: what was expected".
class ConfigError : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

/// Where the host routes of one VRF go.
struct OutputTables {
  Linux::TableId table4 = 10;
  Linux::TableId table6 = 10;

  friend bool operator==(const OutputTables&, const OutputTables&) = default;
};

struct Config {
  Linux::FeedOptions feed;
  Linux::KernelRoutesOptions kernelRoutes;
  struct Probe {
    bool onDeparture = true;
    bool keepalive = false;
    double keepaliveInterval = 30;
    uint32_t rate = 100;
  } probe;
  std::map<std::string, OutputTables> tables{{"default", {}}};  ///< by VRF; others are not exported
  uint8_t protocol = 205;
  uint32_t metric4 = 0;
  uint32_t metric6 = 1024;
  std::optional<Linux::Address> preferredSource4, preferredSource6;
  bool flushesOnExit = false;
  std::string runDir = "/run/hostroute";
  std::string stateDir = "/var/lib/hostroute";
  std::string sharedName;      ///< of the tables in shared memory; empty for none
  size_t receiveBuffer = 64 << 20;
  int logLevel = 6;            ///< as syslog(3): 6 is informational
};

}  // namespace Hostrouted
