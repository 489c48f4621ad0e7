// The route tables that another process keeps in shared memory, as they are now.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "daemon/Family.h"
#include "daemon/SharedNames.h"
#include "replay/ShownRoute.h"

namespace Cli {

/// Told of damage in a table.
using DamageReport = std::function<void(const std::string&)>;

/// One route table with the FECs that its routes point at.
template <class F>
class LiveRoutes {
 public:
  using Route = typename F::Route;
  using Prefix = typename F::Prefix;
  using Shown = std::vector<Replay::ShownRoute<F>>;

  /// \throws Tovan::OpenException.
  LiveRoutes(const std::string& name, const std::string& vrf)
      : routes_(Kiv::make<typename F::RouteStatus>(Daemon::sharedRouteStatusName(name, vrf),
                                                   Tovan::Access::Read)),
        forwarding_(Kiv::make<typename F::ForwardingStatus>(name, Tovan::Access::Read)) {}

  Tovan::RouteTableState state() const { return routes_->state(); }
  /// Whether a process keeps the table up to date.
  bool isLive() const { return routes_->hasOtherWriter(); }
  size_t size() const { return routes_->routeCount(); }

  /// All routes by prefix. What is damaged is reported and left out, or is shown without next hops.
  Shown all(const DamageReport& report) const;
  /// The route with this prefix and those around it, the longest prefix first.
  Shown covering(const Prefix& prefix, const DamageReport& report) const;

 private:
  std::optional<Replay::ShownRoute<F>> resolved(Route route) const;
  void add(const Route& route, Shown& shown, const DamageReport& report) const;

  typename F::RouteStatus::Ptr routes_;
  typename F::ForwardingStatus::Ptr forwarding_;
};

/// A route with its next hops, or nothing when the route has gone. The writer may replace both
/// while they are read: a route whose FEC is not there is looked up again.
template <class F>
std::optional<Replay::ShownRoute<F>> LiveRoutes<F>::resolved(Route route) const {
  for (;;) {
    auto vias = Replay::viasOf<F>(*forwarding_, route.fecId);
    if (!vias.empty() || route.fecId == 0) return {{route, std::move(vias)}};
    const auto now = routes_->route(route.key);
    if (now.key != route.key) return std::nullopt;
    if (now == route) return {{route, {}}};
    route = now;
  }
}

template <class F>
void LiveRoutes<F>::add(const Route& route, Shown& shown, const DamageReport& report) const {
  try {
    if (auto found = resolved(route)) shown.push_back(std::move(*found));
  } catch (const Tovan::CorruptionDetectedException& damage) {
    report(damage.what());
    shown.push_back({route, {}});
  }
}

template <class F>
typename LiveRoutes<F>::Shown LiveRoutes<F>::all(const DamageReport& report) const {
  Shown shown;
  try {
    routes_->map().forEachSound(
        [&](const auto& item) { add(item.value.withKey(item.key), shown, report); }, report);
  } catch (const Tovan::CorruptionDetectedException& damage) {
    report(damage.what());
  }
  std::sort(shown.begin(), shown.end(),
            [](const auto& a, const auto& b) { return a.route.key < b.route.key; });
  return shown;
}

template <class F>
typename LiveRoutes<F>::Shown LiveRoutes<F>::covering(const Prefix& prefix,
                                                      const DamageReport& report) const {
  Shown shown;
  for (uint32_t lengths = prefix.len() + 1; lengths > 0; --lengths) {
    const auto around = Prefix::enclosing(prefix.addr(), lengths - 1);
    try {
      const Route route = routes_->route(around);
      if (route.key == around) add(route, shown, report);
    } catch (const Tovan::CorruptionDetectedException& damage) {
      report(damage.what());
    }
  }
  return shown;
}

}  // namespace Cli
