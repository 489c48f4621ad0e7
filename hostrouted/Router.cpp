// The daemon without its event loop: from what the kernel tells to what the kernel is told.
#include "hostrouted/Router.h"

#include <linux/rtnetlink.h>
#include <syslog.h>

#include <algorithm>
#include <new>
#include <utility>
#include <variant>

#include "platform/kiv/Exception.h"
#include "platform/tovan/Exceptions.h"
#include "platform/tovan/Reports.h"

namespace Hostrouted {
namespace {

Linux::ProbingOptions probingOptions(const Config& config, const Linux::Mirror& mirror) {
  auto options = config.probing;
  options.isSelected = [&mirror, patterns = config.feed.interfaces](Linux::LinkIndex index) {
    const auto* link = mirror.link(index);
    return link != nullptr && Linux::isSelected(patterns, link->name);
  };
  return options;
}

/// How many seconds after one look at the shared tables the next one is.
constexpr double kTendingInterval = 5;

std::optional<double> earlier(std::optional<double> a, std::optional<double> b) {
  if (!a || !b) return a ? a : b;
  return std::min(*a, *b);
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
      feed_(mirror_, config.feed),
      switch_({.settles = true, .sharedName = config.sharedName}),
      routes_(services.channel, services.log, services.clock, config.kernelRoutes),
      exports_(switch_, feed_, routes_, config),
      probing_(mirror_, services.clock, probingOptions(config, mirror_)) {
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
  if (route == nullptr || route->protocol != config_.protocol) return false;
  if (!Linux::isHost(route->prefix)) return true;
  const auto isOutput = [&](const auto& entry) {
    const auto& tables = entry.second;
    return route->table == (Linux::familyOf(route->prefix) == 4 ? tables.table4 : tables.table6);
  };
  if (std::ranges::none_of(config_.tables, isOutput)) return true;
  const Linux::RouteKey key{route->table, route->prefix};
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
    routes_.observe(key, change.present ? std::optional(std::move(value)) : std::nullopt);
  }
  return true;
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
  } catch (const std::bad_alloc&) {
    ++counters_.failures;
    isIncomplete_ = true;
    services_.report(LOG_ERR, "the engine failed on a change: out of memory");
  } catch (const Pindo::Exception& error) {
    ++counters_.failures;
    isIncomplete_ |= dynamic_cast<const Tovan::OpenException*>(&error) != nullptr;
    services_.report(LOG_ERR, std::string("the engine failed on a change: ") + error.what());
  }
}

/// Looks for damage and refusals, and makes good what they left undone once there is room.
void Router::tendTables() {
  if (services_.clock() < nextTending_) return;
  nextTending_ = services_.clock() + kTendingInterval;
  const bool mayGrow = switch_.tendTables();
  noteTables();
  if (!isIncomplete_ || !mayGrow) return;
  isIncomplete_ = false;
  feed_.snapshot([this](const Daemon::Operation& operation) { operate(operation); });
  try {
    switch_.redo();
  } catch (const Pindo::Exception& error) {
    isIncomplete_ = true;
    services_.report(LOG_ERR, std::string("the engine failed on a change: ") + error.what());
  }
  noteTables();
  if (!isIncomplete_) services_.report(LOG_NOTICE, "the shared tables are complete again");
}

/// Reports what has befallen the shared tables since it was noted last.
void Router::noteTables() {
  const uint64_t corruptions = Tovan::corruptionCount();
  const uint64_t refusals = Tovan::refusalCount();
  if (corruptions == corruptions_ && refusals == refusals_) return;
  const bool isNewlyShort = refusals != refusals_ && !isIncomplete_;
  for (const auto& table : Tovan::tableReports()) {
    if (table.corruptions != 0 && corruptions != corruptions_) {
      services_.report(LOG_ERR, "damage, found " + std::to_string(table.corruptions) +
                                    " times, last: " + table.lastCorruption);
    }
    if (table.refusals != 0 && isNewlyShort) {
      services_.report(LOG_ERR, table.lastRefusal + ": it has " + std::to_string(table.bytes) +
                                    " bytes; host routes may be missing");
    }
  }
  corruptions_ = corruptions;
  refusals_ = refusals;
  isIncomplete_ = true;
}

void Router::endTurn() {
  // In the middle of a dump it is not known yet what is gone.
  if (phase_ == Phase::Starting || dumps_) return;
  feed_.flush([this](const Daemon::Operation& operation) { operate(operation); });
  tendTables();
  exports_.flush();
  routes_.flush();
  if (const auto probes = probing_.due(); !probes.empty()) {
    counters_.probes += probes.size();
    services_.probe(probes);
  }
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
  endTurn();
  switch_.setLoading(false);
}

void Router::reload(const Config& config) {
  Config next = config;
  next.protocol = config_.protocol;
  next.sharedName = config_.sharedName;
  next.runDir = config_.runDir;
  next.stateDir = config_.stateDir;
  config_ = std::move(next);
  feed_.setOptions(config_.feed);
  routes_.setOptions(config_.kernelRoutes);
  probing_.setOptions(probingOptions(config_, mirror_));
  exports_.setConfig(config_);
}

void Router::flushRoutes() {
  routes_.removeAll();
}

std::optional<double> Router::nextDeadline() const {
  const auto next = earlier(routes_.nextDeadline(), probing_.nextDeadline());
  return phase_ == Phase::Starting ? next : earlier(next, nextTending_);
}

}  // namespace Hostrouted
