// Exports the host routes of a switch to the kernel's tables.
#include "hostrouted/Exports.h"

#include <algorithm>
#include <utility>

#include "platform/tovan/Exceptions.h"

namespace Hostrouted {

/// Watches one route table.
template <class F>
class Exports::Watch final : public F::RouteStatus::NotifieeConst {
 public:
  Watch(const Daemon::HostRouting<F>& routing, Linux::TableId table)
      : routing_(routing), table_(table) {
    noteAll();
    this->notifierIs(routing.routeStatus);
  }

  void onRoute(const typename F::Prefix& prefix) override { note(prefix); }
  /// Marks a host route as changed.
  void note(const typename F::Prefix& prefix) {
    if (prefix.len() == F::Prefix::kMaxLen) changed_.push_back(prefix);
  }
  void noteAll() {
    for (const auto& prefix : routing_.routeStatus->routeKeys()) onRoute(prefix);
  }

  const Daemon::HostRouting<F>& routing() const { return routing_; }
  Linux::TableId table() const { return table_; }
  void setTable(Linux::TableId table) { table_ = table; }
  std::vector<typename F::Prefix> takeChanged() { return std::exchange(changed_, {}); }

 private:
  const Daemon::HostRouting<F>& routing_;
  Linux::TableId table_;  // 0: not exported
  std::vector<typename F::Prefix> changed_;
};

namespace {

template <class F>
Linux::TableId tableOf(const Config& config, const std::string& vrf) {
  const auto output = config.tables.find(vrf);
  if (output == config.tables.end()) return 0;
  return F::kNumber == 4 ? output->second.table4 : output->second.table6;
}

}  // namespace

Exports::Exports(Daemon::Switch& sw, const Linux::Feed& feed, Linux::KernelRoutes& routes,
                 Config config)
    : sw_(sw), feed_(feed), routes_(routes), config_(std::move(config)) {
  for (const auto& [name, vrf] : sw.vrfs()) addVrf(name);
}

Exports::~Exports() = default;

void Exports::addVrf(const std::string& vrf) {
  Daemon::forEachFamily([&](auto family) { addFamily<decltype(family)>(vrf); });
}

template <class F>
void Exports::addFamily(const std::string& vrf) {
  auto& watch = std::get<Watches<F>>(watches_)[vrf];
  if (watch) return;
  watch = std::make_unique<Watch<F>>(sw_.vrf(vrf).template routing<F>(), tableOf<F>(config_, vrf));
}

void Exports::flush() {
  Daemon::forEachFamily([&](auto family) { flushFamily<decltype(family)>(); });
}

template <class F>
void Exports::flushFamily() {
  for (auto& [vrf, watch] : std::get<Watches<F>>(watches_)) {
    for (const auto& prefix : watch->takeChanged()) {
      if (watch->table() == 0) continue;
      try {
        routes_.want({watch->table(), prefix}, exported(*watch, prefix));
      } catch (const Tovan::CorruptionDetectedException& damage) {
        // The state of the host is unknown. Its kernel route stays until the entry is readable.
        watch->routing().routeStatus->corruptionDetected(damage.what());
        watch->note(prefix);
      }
    }
  }
}

void Exports::noteAll() {
  Daemon::forEachFamily([&](auto family) {
    for (auto& [vrf, watch] : std::get<Watches<decltype(family)>>(watches_)) watch->noteAll();
  });
}

/// The wanted kernel route of a host prefix; nothing unless its route is attached_.
/// \throws Tovan::CorruptionDetectedException when the entry is damaged.
template <class F>
std::optional<Linux::RouteValue> Exports::exported(const Watch<F>& watch,
                                                   const typename F::Prefix& prefix) const {
  const auto route = watch.routing().routeStatus->route(prefix);
  if (route.key != prefix || route.routeType != F::kAttached) return std::nullopt;
  Linux::RouteValue value;
  const auto fec = sw_.shared<F>().forwarding->fec(route.fecId);
  if (fec.viaCount() == 0) {
    throw Tovan::CorruptionDetectedException("the next hop of " + toString(prefix) + " is lost");
  }
  for (const auto& via : fec) {
    Linux::RouteVia hop{.link = feed_.linkOf(via.intf), .gateway = {}};
    if (hop.link == 0) continue;
    if (!via.hop.isZero() && via.hop != prefix.addr()) hop.gateway = via.hop;
    value.vias.push_back(hop);
  }
  if (value.vias.empty()) return std::nullopt;
  std::ranges::sort(value.vias);
  const bool isV4 = F::kNumber == 4;
  value.metric = isV4 ? config_.metric4 : config_.metric6;
  value.preferredSource = isV4 ? config_.preferredSource4 : config_.preferredSource6;
  return value;
}

void Exports::setConfig(const Config& config) {
  config_ = config;
  Daemon::forEachFamily([&](auto family) {
    using F = decltype(family);
    for (auto& [vrf, watch] : std::get<Watches<F>>(watches_)) {
      const auto table = tableOf<F>(config_, vrf);
      if (table != watch->table() && watch->table() != 0) {
        for (const auto& prefix : watch->routing().routeStatus->routeKeys()) {
          if (prefix.len() == F::Prefix::kMaxLen) {
            routes_.want({watch->table(), prefix}, std::nullopt);
          }
        }
      }
      watch->setTable(table);
      watch->noteAll();
    }
  });
}

}  // namespace Hostrouted
