// A copy of the FIB's routes and FECs in a switch's tables.
#pragma once

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "daemon/Switch.h"

namespace Daemon {

/// The FIB routes and FECs that a switch has in shared tables, in private memory, so that they can
/// be set again after the tables lost some to damage. The FIB's host routes are not among them: the
/// switch has these in private memory already.
class FibInputs {
 public:
  /// Copies what can be read. Damage is reported to its table.
  explicit FibInputs(const Switch& sw);

  /// Sets those routes and FECs again that are missing or differ. \throws as Switch::setRoute();
  ///   Tovan::CorruptionDetectedException when a table has damage that is not yet repaired.
  void restore(Switch& sw) const;

 private:
  template <class F>
  struct Inputs {
    std::vector<typename F::ForwardingStatus::Fec> fecs;
    std::map<std::string, std::vector<typename F::Route>> routes;  // by VRF
  };

  std::tuple<Inputs<Ipv4>, Inputs<Ipv6>> inputs_;
};

}  // namespace Daemon
