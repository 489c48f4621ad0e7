// Exports the host routes of a switch to the kernel's tables.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "daemon/Switch.h"
#include "hostrouted/Config.h"
#include "linux/Feed.h"
#include "linux/KernelRoutes.h"

namespace Hostrouted {

/// Watches the route tables of a switch's VRFs and wants each attached_ host route in the kernel
/// table of its VRF and family.
///
/// A change is only noted. flush() compares the contents of the table at that time, so a route that
/// was removed and added again in between did not change.
class Exports {
 public:
  /// All arguments outlive it.
  Exports(Daemon::Switch& sw, const Linux::Feed& feed, Linux::KernelRoutes& routes, Config config);
  ~Exports();

  /// Watches the route tables of a VRF, including the routes that they have already.
  void addVrf(const std::string& vrf);
  /// Hands the routes that changed since the last flush() to KernelRoutes.
  void flush();
  /// Marks all host routes as changed, for changes without a notification.
  void noteAll();
  /// Takes another configuration. Marks all routes as changed, and removes the routes of former
  /// tables from the wanted ones.
  void setConfig(const Config& config);

 private:
  template <class F>
  class Watch;
  template <class F>
  using Watches = std::map<std::string, std::unique_ptr<Watch<F>>>;

  template <class F>
  void addFamily(const std::string& vrf);
  template <class F>
  void flushFamily();
  template <class F>
  std::optional<Linux::RouteValue> exported(const Watch<F>& watch,
                                            const typename F::Prefix& prefix) const;

  Daemon::Switch& sw_;
  const Linux::Feed& feed_;
  Linux::KernelRoutes& routes_;
  Config config_;
  std::tuple<Watches<Daemon::Ipv4>, Watches<Daemon::Ipv6>> watches_;
};

}  // namespace Hostrouted
