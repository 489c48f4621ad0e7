// The daemon without its event loop: from what the kernel tells to what the kernel is told.
#include "hostrouted/Router.h"

#include <linux/rtnetlink.h>
#include <syslog.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <variant>

#include "platform/kiv/Exception.h"

namespace Hostrouted {
namespace {

Linux::FeedOptions feedOptions(const Config& config) {
  auto options = config.feed;
  options.readyBeforeNeighbors = true;
  return options;
}

Linux::ProbingOptions probingOptions(const Config& config, const Linux::Mirror& mirror,
                                     const Router::Services& services) {
  auto options = config.probing;
  options.collects = services.collects;
  options.isSelected = [&mirror, patterns = config.feed.interfaces](Linux::LinkIndex index) {
    const auto* link = mirror.link(index);
    return link != nullptr && Linux::isSelected(patterns, link->name);
  };
  return options;
}

std::optional<double> earlier(std::optional<double> a, std::optional<double> b) {
  if (!a || !b) return a ? a : b;
  return std::min(*a, *b);
}

/// The kernel keeps routes for one type of service or one range of sources apart.
bool standsWhereOursWould(const Linux::Route& route) {
  return route.tos == 0 && !route.hasSource;
}

}  // namespace

const char* phaseName(Phase phase) {
  switch (phase) {
    case Phase::Starting:
      return "starting";
    case Phase::Ready:
      return "ready";
    case Phase::Resynchronising:
      return "resynchronising";
  }
  return "";
}

Router::Router(const Config& config, const Services& services)
    : config_(config),
      services_(services),
      mirror_(config.protocol),
      feed_(mirror_, feedOptions(config)),
      switch_({.settles = true, .sharedName = config.sharedName}),
      routes_(services.channel, services.log, services.clock, config.kernelRoutes,
              [this](const auto& key, uint32_t metric) { return isAnothers(key, metric); }),
      exports_(switch_, feed_, routes_, config),
      probing_(mirror_, services.clock, probingOptions(config, mirror_, services_)) {
  feed_.setWarningSink(
      [this](const Linux::FeedWarning& warning) { services_.report(LOG_WARNING, warning.text); });
  switch_.setLoading(true);
}

Router::~Router() = default;

void Router::apply(const Linux::Change& change) {
  ++counters_.changes;
  if (takeOwnRoute(change)) return;
  if (phase_ != Phase::Starting) noteDepartures(change);
  mirror_.apply(change);
  if (const auto* neighbor = std::get_if<Linux::Neighbor>(&change.object)) {
    probing_.onNeighbor(neighbor->link, neighbor->addr);
  }
}

/// Routes with our protocol number are our output: found in a dump they are adopted, told of
/// otherwise they were changed by somebody else. Never are they input.
bool Router::takeOwnRoute(const Linux::Change& change) {
  const auto* route = std::get_if<Linux::Route>(&change.object);
  if (route == nullptr) return false;
  const bool isOurs = route->protocol == config_.protocol;
  if (!Linux::isHost(route->prefix)) return isOurs;
  const auto isOutput = [&](const auto& entry) {
    const auto& tables = entry.second;
    return route->table == (Linux::familyOf(route->prefix) == 4 ? tables.table4 : tables.table6);
  };
  if (std::ranges::none_of(config_.tables, isOutput)) return isOurs;
  const Linux::RouteKey key{route->table, route->prefix};
  if (!isOurs) {
    if (standsWhereOursWould(*route)) routes_.observeAnother(key, route->metric, change.present);
    return false;
  }
  Linux::RouteValue value{
      .vias = {}, .metric = route->metric, .preferredSource = route->preferredSource};
  // A blackhole of ours is left from the announcement of a loss, and has no vias.
  if (route->type == RTN_UNICAST) {
    for (const auto& hop : route->hops) value.vias.push_back({hop.link, hop.gateway});
  }
  std::ranges::sort(value.vias);
  if (dumps_ && change.present) {
    routes_.adopt(key, std::move(value));
  } else {
    routes_.observe(key, change.present ? std::optional(std::move(value)) : std::nullopt,
                    change.replaces);
  }
  return true;
}

bool Router::isAnothers(const Linux::RouteKey& key, uint32_t metric) const {
  return std::ranges::any_of(mirror_.routes(key.table, key.prefix),
                             [metric](const Linux::Route& route) {
                               return route.metric == metric && standsWhereOursWould(route);
                             });
}

/// Some changes say more than they name: routes that the kernel drops without a word, hosts that
/// may have left.
void Router::noteDepartures(const Linux::Change& change) {
  if (const auto* link = std::get_if<Linux::Link>(&change.object)) {
    const auto* former = mirror_.link(link->index);
    if (former == nullptr) return;
    if (former->isUp && (!change.present || !link->isUp)) routes_.distrust(link->index);
    if (former->hasCarrier && change.present && !link->hasCarrier) {
      probing_.onCarrierLost(link->index);
    }
    if (change.present && !former->isUp && link->isUp) routes_.linkChanged(link->index);
  } else if (const auto* addr = std::get_if<Linux::InterfaceAddress>(&change.object)) {
    if (change.present) {
      routes_.linkChanged(addr->link);
    } else if (Linux::familyOf(addr->addr) == 4) {
      routes_.distrust(addr->link);
    }
  } else if (const auto* entry = std::get_if<Linux::FdbEntry>(&change.object)) {
    if (!change.present) probing_.onFdbEntryGone(*entry);
  }
}

void Router::operate(const Daemon::Operation& operation) {
  ++counters_.operations;
  if (services_.record) services_.record(operation);
  try {
    Daemon::apply(switch_, operation);
    if (const auto* vrf = std::get_if<Daemon::SetVrf>(&operation)) exports_.addVrf(vrf->vrf);
  } catch (const Pindo::Exception& error) {
    ++counters_.failures;
    services_.report(LOG_ERR, std::string("the engine failed on a change: ") + error.what());
  }
}

void Router::endTurn() {
  // In the middle of a dump it is not known yet what is gone.
  if (phase_ == Phase::Starting || dumps_) return;
  feed_.flush([this](const Daemon::Operation& operation) { operate(operation); });
  exports_.flush();
  routes_.flush();
  tellOfRefusals();
  if (const auto probes = probing_.due(); !probes.empty()) {
    counters_.probes += probes.size();
    services_.probe(probes);
  }
}

/// Tells the log of the first route that the kernel refuses, until none is; the status has them
/// all.
void Router::tellOfRefusals() {
  if (!hasRefusals_ && routes_.counters().refused == seenRefusals_) return;
  seenRefusals_ = routes_.counters().refused;
  const auto problems = routes_.problems(1);
  const bool had = std::exchange(hasRefusals_, !problems.empty() && problems.front().error != 0);
  if (had || !hasRefusals_) return;
  const auto& [key, error, since, retryAt] = problems.front();
  services_.report(LOG_WARNING, "the kernel refuses " + Linux::toString(key.prefix) + " in table " +
                                    std::to_string(key.table) + ": " + std::strerror(error));
}

void Router::beginDump() {
  if (phase_ != Phase::Starting) {
    phase_ = Phase::Resynchronising;
    ++counters_.resynchronisations;
  }
  dumps_ = true;
  mirror_.beginDump();
  routes_.beginDump();
}

void Router::endDump() {
  mirror_.endDump();
  routes_.endDump();
  dumps_ = false;
  const bool isFirst = phase_ == Phase::Starting;
  phase_ = Phase::Ready;
  if (isFirst) {
    feed_.setComplete();
    routes_.start();
  }
  warnOfAnEmptySelection();
  endTurn();
  switch_.setLoading(false);
}

/// A wrong pattern is easily taken for a network without hosts.
void Router::warnOfAnEmptySelection() {
  const auto& patterns = config_.feed.interfaces;
  bool selectsAny = patterns.empty();
  mirror_.forEachLink([&](const Linux::Link& link) {
    selectsAny = selectsAny || (!link.isLoopback && Linux::isSelected(patterns, link.name));
  });
  if (selectsAny || patterns == warnedPatterns_) return;
  warnedPatterns_ = patterns;
  std::string text;
  for (const auto& pattern : patterns) text += (text.empty() ? "\"" : ", \"") + pattern + '"';
  services_.report(LOG_WARNING, "no interface that there is now is selected by " + text);
}

void Router::reload(const Config& config) {
  Config next = config;
  next.protocol = config_.protocol;
  next.sharedName = config_.sharedName;
  next.runDir = config_.runDir;
  next.stateDir = config_.stateDir;
  config_ = std::move(next);
  feed_.setOptions(feedOptions(config_));
  routes_.setOptions(config_.kernelRoutes);
  probing_.setOptions(probingOptions(config_, mirror_, services_));
  exports_.setConfig(config_);
}

void Router::flushRoutes() {
  routes_.removeAll();
}

std::optional<double> Router::nextDeadline() const {
  return earlier(routes_.nextDeadline(), probing_.nextDeadline());
}

}  // namespace Hostrouted
