// One daemon for each kernel table.
#pragma once

#include <map>
#include <stdexcept>
#include <string>

#include "hostrouted/Config.h"

namespace Hostrouted {

/// Another daemon writes to a table. what() names the table.
class InUseError : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

/// Claims the kernel tables of a configuration for this process, in its network namespace.
///
/// A claim is a socket with an abstract address (unix(7)). Such an address belongs to the network
/// namespace, as the tables do, and ends with the process in any case.
class InstanceLock {
 public:
  InstanceLock() = default;
  InstanceLock(const InstanceLock&) = delete;
  InstanceLock& operator=(const InstanceLock&) = delete;
  ~InstanceLock();

  /// Claims the tables of `config` and releases the others.
  /// \throws InUseError when another process has claimed one of them. The claims are unchanged
  /// then.
  void claim(const Config& config);

 private:
  std::map<std::string, int> sockets_;  // by the claimed table
};

}  // namespace Hostrouted
