// The daemon without its event loop: the kernel's changes in, host routes out.
#include "hostrouted/Router.h"

#include <linux/rtnetlink.h>
#include <malloc.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <new>
#include <utility>
#include <variant>

#include "platform/kiv/containers/Exception.h"
#include "platform/tovan/Exceptions.h"
#include "platform/tovan/Reports.h"

namespace Hostrouted {
namespace {

Linux::FeedOptions feedOptions(const Config& config) {
  auto options = config.feed;
  options.readyBeforeNeighbors = true;
  options.scattersNeighbors = true;
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

/// A batch of at most this many routes is written by the thread that decides on them.
constexpr size_t kMostDirect = 32;
/// After so many new neighbours, their routes are written while the next neighbours are fed.
constexpr size_t kNeighborsAhead = 256;
/// The shared tables are checked at most this often, in seconds.
constexpr double kTendingInterval{Daemon::Switch::kTendingInterval.count()};

/// Adds the duration of its lifetime to a histogram.
class Stopwatch {
 public:
  explicit Stopwatch(Daemon::LatencyHistogram& histogram) : histogram_(histogram) {}
  Stopwatch(const Stopwatch&) = delete;
  Stopwatch& operator=(const Stopwatch&) = delete;
  ~Stopwatch() {
    const auto time = std::chrono::steady_clock::now() - begin_;
    histogram_.add(static_cast<uint64_t>(std::chrono::nanoseconds(time).count()));
  }

 private:
  Daemon::LatencyHistogram& histogram_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

std::optional<double> earlier(std::optional<double> a, std::optional<double> b) {
  if (!a || !b) return a ? a : b;
  return std::min(*a, *b);
}

/// Whether a route can take the place of ours. The kernel stores a route with a type of service or
/// with a range of sources in another place.
bool standsWhereOursWould(const Linux::Route& route) {
  return route.tos == 0 && !route.hasSource;
}

/// The journal fields of the object of an operation.
std::vector<LogField> fieldsOf(const Daemon::Operation& operation) {
  std::vector<LogField> fields;
  std::visit(
      [&](const auto& op) {
        if constexpr (requires { op.vrf; }) fields.emplace_back("VRF", op.vrf);
        if constexpr (requires { op.intf; }) {
          fields.emplace_back("INTERFACE", Linux::linuxNameOf(op.intf.name().view()));
        }
        if constexpr (requires { op.neighbor; }) {
          fields.emplace_back("PREFIX", Linux::toString(Linux::hostPrefix(op.neighbor.ipAddr)));
        } else if constexpr (requires { op.route; }) {
          fields.emplace_back("PREFIX", Linux::toString(op.route.key));
        } else if constexpr (requires { op.addr; }) {
          fields.emplace_back("PREFIX", Linux::toString(Linux::hostPrefix(op.addr.addr())));
        }
      },
      operation);
  return fields;
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
      writer_(services.channel,
              services.writesApart ? kMostDirect : Linux::BackgroundWriter::kNoThread),
      routes_(writer_, services.log, services.clock, config.kernelRoutes,
              [this](const auto& key, uint32_t metric) { return isAnothers(key, metric); }),
      exports_(switch_, feed_, routes_, config),
      probing_(mirror_, services.clock, probingOptions(config, mirror_, services_)) {
  feed_.setWarningSink([this](const Linux::FeedWarning& warning) {
    std::vector<LogField> fields;
    if (const auto* link = mirror_.link(warning.link)) fields.emplace_back("INTERFACE", link->name);
    if (warning.prefix) fields.emplace_back("PREFIX", Linux::toString(*warning.prefix));
    if (warning.table != 0) fields.emplace_back("TABLE", std::to_string(warning.table));
    report(LOG_WARNING, "feed", warning.text, fields);
  });
  switch_.setLoading(true);
  if (config.historyEntries != 0) switch_.historyIs(config.historyEntries);
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

/// Takes a message about a route in one of our tables or with our protocol number. A route with our
/// protocol number is output and never input: one from a dump is adopted, and one from a
/// notification was changed by another program. \return false for a route that is input.
bool Router::takeOwnRoute(const Linux::Change& change) {
  const auto* route = std::get_if<Linux::Route>(&change.object);
  if (route == nullptr) return false;
  const bool isOurs = route->protocol == config_.protocol;
  if (!Linux::isHost(route->prefix)) return isOurs;
  const auto isOutput = [&](const auto& entry) {
    const auto& tables = entry.second;
    return route->table == (Linux::familyOf(route->prefix) == 4 ? tables.table4 : tables.table6);
  };
  const Linux::RouteKey key{route->table, route->prefix};
  // A route of ours may have stayed behind in a table of a former configuration.
  const bool isLeftBehind = isOurs && routes_.knows(key);
  if (!isLeftBehind && std::ranges::none_of(config_.tables, isOutput)) return isOurs;
  if (!isOurs) {
    if (standsWhereOursWould(*route)) routes_.observeAnother(key, route->metric, change.present);
    return false;
  }
  Linux::RouteValue value{
      .vias = {}, .metric = route->metric, .preferredSource = route->preferredSource};
  // A blackhole with our number remains from the announcement of a loss. It has no vias.
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

/// Notes the consequences of a change that the kernel does not announce: routes that it drops, and
/// hosts that may have left.
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
      routes_.distrustSource(addr->addr);
    }
  } else if (const auto* entry = std::get_if<Linux::FdbEntry>(&change.object)) {
    if (!change.present) probing_.onFdbEntryGone(*entry);
  }
}

void Router::operate(const Daemon::Operation& operation) {
  ++counters_.operations;
  if (services_.record) services_.record(operation);
  const Stopwatch stopwatch(operationTimes_);
  try {
    Daemon::apply(switch_, operation);
    if (const auto* vrf = std::get_if<Daemon::SetVrf>(&operation)) exports_.addVrf(vrf->vrf);
  } catch (const std::bad_alloc&) {
    isIncomplete_ = true;
    reportFailure(operation, "out of memory");
  } catch (const Pindo::Exception& error) {
    isIncomplete_ |= dynamic_cast<const Tovan::OpenException*>(&error) != nullptr;
    reportFailure(operation, error.what());
  }
}

void Router::report(int level, std::string_view kind, const std::string& message,
                    const std::vector<LogField>& fields) {
  services_.report(level, kind, message, fields);
}

void Router::reportFailure(const Daemon::Operation& operation, const std::string& why) {
  ++counters_.failures;
  report(LOG_ERR, "engine", "the engine failed on a change: " + why, fieldsOf(operation));
}

void Router::tend() {
  if (phase_ == Phase::Starting || dumps_) return;
  nextTending_ = 0;
  endTurn();
}

/// Checks the shared tables for damage and refusals, if the last check was long ago.
void Router::tendTables() {
  noteTables();
  switch_.setIncomplete(isIncomplete_);
  if (services_.clock() < nextTending_) return;
  nextTending_ = services_.clock() + kTendingInterval;
  const bool mayGrow = switch_.tendTables(std::exchange(checksAllTables_, false));
  noteTables();
  if (isIncomplete_ && mayGrow && switch_.tablesAreCurrent()) completeTables();
  switch_.setIncomplete(isIncomplete_);
}

/// Sets the entries again that the shared tables lost or refused.
void Router::completeTables() {
  isIncomplete_ = false;
  feed_.snapshot([this](const Daemon::Operation& operation) { operate(operation); });
  try {
    switch_.redo();
  } catch (const std::exception& error) {
    isIncomplete_ = true;
    report(LOG_ERR, "engine", std::string("the engine failed on a change: ") + error.what());
  }
  noteTables();
  exports_.noteAll();
  if (isIncomplete_) return;
  fullTables_.clear();
  report(LOG_NOTICE, "tables", "the shared tables are complete again");
}

/// Reports the damage and the refusals of the shared tables since the last report.
void Router::noteTables() {
  const uint64_t corruptions = Tovan::corruptionCount();
  const uint64_t refusals = Tovan::refusalCount();
  if (corruptions == corruptions_ && refusals == refusals_) return;
  for (const auto& table : Tovan::tableReports()) {
    if (table.corruptions != 0 && corruptions != corruptions_) {
      report(LOG_ERR, "tables",
             "damage, found " + std::to_string(table.corruptions) +
                 " times, last: " + table.lastCorruption);
    }
    if (table.refusals != 0 && refusals != refusals_ && fullTables_.insert(table.table).second) {
      report(LOG_ERR, "tables",
             table.lastRefusal + ": it has " + std::to_string(table.bytes) +
                 " bytes; host routes may be missing");
    }
  }
  corruptions_ = corruptions;
  refusals_ = refusals;
  isIncomplete_ = true;
}

void Router::endTurn() {
  // During a dump it is not yet known which objects are gone.
  if (phase_ == Phase::Starting || dumps_) return;
  const Stopwatch stopwatch(turnTimes_);
  ++counters_.turns;
  newNeighbors_ = 0;
  feed_.flush(
      [this](const Daemon::Operation& operation) {
        writeAhead(operation);
        operate(operation);
      },
      [this](Zemit::IntfId intf, const Linux::Address& address) {
        std::visit([&](const auto& addr) { switch_.expectNeighbor(intf, addr); }, address);
      });
  tendTables();
  exports_.flush();
  routes_.flush();
  reportRefusals();
  trimHeap();
  if (const auto probes = probing_.due(); !probes.empty()) {
    counters_.probes += probes.size();
    services_.probe(probes);
  }
}

/// Returns free memory to the system whenever half of many routes were removed.
void Router::trimHeap() {
  constexpr size_t kManyRoutes = 4096;
  const size_t routes = routes_.installedCount();
  mostRoutes_ = std::max(mostRoutes_, routes);
  if (mostRoutes_ < kManyRoutes || routes > mostRoutes_ / 2) return;
  mostRoutes_ = routes;
#ifdef __GLIBC__
  ::malloc_trim(0);
#endif
}

/// Writes the routes of many new neighbours while the next ones are fed. The feed hands neighbours
/// out last, and the entries of one address side by side. So these routes are final, unless the
/// next neighbour has the address of the last one.
void Router::writeAhead(const Daemon::Operation& next) {
  const auto addr = std::visit(
      []<class Op>(const Op& op) -> std::optional<Linux::Address> {
        if constexpr (requires { op.neighbor; }) {
          if (op.present) return op.neighbor.ipAddr;
        }
        return std::nullopt;
      },
      next);
  if (!addr) return;
  if (newNeighbors_ >= kNeighborsAhead && *addr != lastNeighbor_) {
    newNeighbors_ = 0;
    exports_.flush();
    routes_.flushAdditions();
  }
  ++newNeighbors_;
  lastNeighbor_ = *addr;
}

void Router::onWritten() {
  writer_.acknowledge();
  if (phase_ == Phase::Starting || dumps_) return;
  routes_.flush();
  reportRefusals();
}

/// Reports the first route that the kernel refuses. The next report follows when no route is
/// refused any more and then one is again. The status lists all refused routes.
void Router::reportRefusals() {
  if (!hasRefusals_ && routes_.counters().refused == seenRefusals_) return;
  seenRefusals_ = routes_.counters().refused;
  const auto problems = routes_.problems(1);
  const bool had = std::exchange(hasRefusals_, !problems.empty() && problems.front().error != 0);
  if (had || !hasRefusals_) return;
  const auto& [key, error, since, retryAt] = problems.front();
  const auto prefix = Linux::toString(key.prefix);
  const auto table = std::to_string(key.table);
  std::vector<LogField> fields{
      {"PREFIX", prefix}, {"TABLE", table}, {"ERRNO", std::to_string(error)}};
  const bool isV4 = Linux::familyOf(key.prefix) == 4;
  for (const auto& [vrf, tables] : config_.tables) {
    if ((isV4 ? tables.table4 : tables.table6) == key.table) fields.emplace_back("VRF", vrf);
  }
  for (const auto& via : routes_.wanted(key).vias) {
    if (const auto* link = mirror_.link(via.link)) fields.emplace_back("INTERFACE", link->name);
  }
  report(LOG_WARNING, "refused",
         "the kernel refuses " + prefix + " in table " + table + ": " + std::strerror(error),
         fields);
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
  } else {
    exports_.noteAll();
    checksAllTables_ = true;
  }
  warnOfAnEmptySelection();
  endTurn();
  routes_.flushAndWait();
  switch_.setLoading(false);
}

/// Without this warning, a wrong pattern looks like a network without hosts.
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
  report(LOG_WARNING, "selection", "no interface that there is now is selected by " + text);
}

void Router::reload(const Config& config) {
  config_ = config;
  feed_.setOptions(feedOptions(config_));
  routes_.setOptions(config_.kernelRoutes);
  probing_.setOptions(probingOptions(config_, mirror_, services_));
  exports_.setConfig(config_);
}

void Router::flushRoutes() {
  routes_.removeAll();
}

Linux::Numbers Router::numbers() const {
  using Kind = Daemon::CounterInfo::Kind;
  static constexpr Linux::CountedMember<Counters> kCounted[] = {
      {{"kernel_messages", "", Kind::Counter,
        "Messages of the kernel that were read: interfaces, addresses, neighbours, routes."},
       &Counters::changes},
      {{"operations", "", Kind::Counter, "Changes that the engine was told of."},
       &Counters::operations},
      {{"operation_failures", "", Kind::Counter, "Changes that the engine did not finish."},
       &Counters::failures},
      {{"resynchronisations", "", Kind::Counter,
        "How often all of the kernel's state was read again, because notifications were lost or "
        "the configuration changed."},
       &Counters::resynchronisations},
      {{"probes", "", Kind::Counter, "Neighbours that the kernel was made to ask."},
       &Counters::probes},
      {{"turns", "", Kind::Counter, "Turns in which changes were handled together."},
       &Counters::turns},
  };
  static constexpr Daemon::CounterInfo kNeighbors{
      "neighbors", "verdict", Kind::Gauge,
      "Neighbour entries of the kernel by what becomes of them: fed to the engine, or why not."};
  static constexpr Daemon::CounterInfo kProbeQueue{
      "probe_queue", "reason", Kind::Gauge,
      "Neighbours that wait to be asked: they may have left, or are refreshed when it is time."};
  Linux::Numbers numbers;
  for (const auto& counted : kCounted) counted.addTo(numbers, counters_);
  std::array<uint64_t, Linux::kNeighborVerdicts> verdicts{};
  mirror_.forEachLink([&](const Linux::Link& link) {
    mirror_.forEachNeighbor(link.index, [&](const Linux::Neighbor& neighbor) {
      ++verdicts[static_cast<size_t>(feed_.verdictOn(neighbor))];
    });
  });
  for (size_t i = 0; i < verdicts.size(); ++i) {
    numbers.push_back(
        {&kNeighbors, Linux::toString(static_cast<Linux::NeighborVerdict>(i)), verdicts[i]});
  }
  routes_.addTo(numbers);
  numbers.push_back({&kProbeQueue, "departure", probing_.urgentCount()});
  numbers.push_back({&kProbeQueue, "refreshment", probing_.refreshmentCount()});
  return numbers;
}

std::vector<Router::Times> Router::times() const {
  return {{"turn_seconds", "The time of a turn: from the kernel's messages to the kernel's tables.",
           turnTimes_},
          {"operation_seconds", "The time that the engine takes for one change.", operationTimes_}};
}

std::optional<double> Router::nextDeadline() const {
  if (dumps_) return std::nullopt;  // a turn would do nothing
  const auto next = earlier(routes_.nextDeadline(), probing_.nextDeadline());
  const bool tends = isIncomplete_ || checksAllTables_;
  return phase_ == Phase::Starting || !tends ? next : earlier(next, nextTending_);
}

}  // namespace Hostrouted
