// The host routes that a switch derives, on their way to the kernel's tables.
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
/// A change is only noted when it happens. flush() looks at what the table holds by then, so a
/// route that went and came back in between is no change.
class Exports {
 public:
  /// All outlive it.
  Exports(Daemon::Switch& sw, const Linux::Feed& feed, Linux::KernelRoutes& routes, Config config);
  ~Exports();

  /// Watches the route tables of a VRF, from the routes that they hold already on.
  void addVrf(const std::string& vrf);
  /// Hands the routes that changed since the last time to the kernel's routes.
  void flush();
  /// Has all host routes looked at again, for changes that nobody announced.
  void noteAll();
  /// Takes another configuration: all routes are handed on again, and those of tables that are no
  /// longer ours are wanted no more.
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
