// Changes of host routes with their causes.
#include "daemon/History.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "daemon/HopText.h"
#include "daemon/Switch.h"
#include "platform/kiv/containers/Exception.h"
#include "platform/routing/RouteTypes.h"

namespace Daemon {
namespace {

template <class F>
using RouteLog = typename F::RouteSm::Account::Log;

template <class F>
HistoryEntry entryOf(const std::string& vrf, const typename RouteLog<F>::Change& change) {
  using Kind = typename RouteLog<F>::Change::Kind;
  using Change = HistoryEntry::Change;
  HistoryEntry entry{
      .time = std::llround(change.time * 1e9),
      .vrf = vrf,
      .family = F::kNumber,
      .prefix = toString(change.route.key),
      .change = change.kind == Kind::Added     ? Change::Added
                : change.kind == Kind::Changed ? Change::Changed
                                               : Change::Removed,
      .cause = change.cause.kind,
      .causeIntf = std::string(change.cause.intf.name().view()),
      .causePrefix = isNull(change.cause.prefix) ? "" : toString(change.cause.prefix),
      .causeFec = change.cause.fec,
  };
  if (change.kind == Kind::Removed) return entry;
  entry.type = Routing::routeTypeName(change.route.routeType);
  if (change.route.fecId < F::ForwardingStatus::kFirstAdjacency) entry.fec = change.route.fecId;
  entry.vias = viasText(change.vias);
  return entry;
}

/// The prefix that `text` means when it is an address or a prefix of the family.
template <class Prefix>
std::optional<Prefix> parsePrefix(std::string_view text) {
  if (const auto addr = Prefix::Addr::parse(text)) return Prefix::host(*addr);
  return Prefix::parse(text);
}

}  // namespace

PrefixFilter::PrefixFilter(std::string_view text)
    : ipv4_(parsePrefix<Zemit::Prefix>(text)), ipv6_(parsePrefix<Zemit::Ip6Prefix>(text)) {
  KIV_REQUIRE(ipv4_ || ipv6_, "\"" + std::string(text) + "\" is neither a prefix nor an address");
}

bool PrefixFilter::contains(const HistoryEntry& entry) const {
  if (entry.family == 4) {
    const auto prefix = Zemit::Prefix::parse(entry.prefix);
    return prefix && contains(prefix->addr());
  }
  const auto prefix = Zemit::Ip6Prefix::parse(entry.prefix);
  return prefix && contains(prefix->addr());
}

std::string_view nameOf(CauseKind kind) {
  switch (kind) {
    case CauseKind::Unknown:
      return "unknown";
    case CauseKind::NeighborLearned:
      return "neighborLearned";
    case CauseKind::NeighborChanged:
      return "neighborChanged";
    case CauseKind::NeighborLost:
      return "neighborLost";
    case CauseKind::NeighborTable:
      return "neighborTable";
    case CauseKind::Route:
      return "route";
    case CauseKind::Fec:
      return "fec";
    case CauseKind::Address:
      return "address";
    case CauseKind::Interface:
      return "interface";
    case CauseKind::VirtualIp:
      return "virtualIp";
    case CauseKind::Initialization:
      return "initialization";
    case CauseKind::RibReady:
      return "ribReady";
    case CauseKind::Settling:
      return "settling";
  }
  return "unknown";
}

std::string_view nameOf(HistoryEntry::Change change) {
  switch (change) {
    case HistoryEntry::Change::Added:
      return "added";
    case HistoryEntry::Change::Changed:
      return "changed";
    case HistoryEntry::Change::Removed:
      return "removed";
  }
  return {};
}

std::string causeText(const HistoryEntry& entry) {
  switch (entry.cause) {
    case CauseKind::Unknown:
      return "no event";
    case CauseKind::NeighborLearned:
      return "neighbour learned on " + entry.causeIntf;
    case CauseKind::NeighborChanged:
      return "neighbour changed on " + entry.causeIntf;
    case CauseKind::NeighborLost:
      return "neighbour lost on " + entry.causeIntf;
    case CauseKind::NeighborTable:
      return "neighbour table of " + entry.causeIntf;
    case CauseKind::Route:
      return "route " + entry.causePrefix +
             (entry.causeFec == 0 ? "" : " (FEC " + std::to_string(entry.causeFec) + ")");
    case CauseKind::Fec:
      return "FEC " + std::to_string(entry.causeFec);
    case CauseKind::Address:
      return "address of " + entry.causeIntf;
    case CauseKind::Interface:
      return "VRF of " + entry.causeIntf;
    case CauseKind::VirtualIp:
      return "virtual address " + entry.causePrefix;
    case CauseKind::Initialization:
      return "initialization";
    case CauseKind::RibReady:
      return "RIB ready";
    case CauseKind::Settling:
      return "settling on " + entry.causeIntf;
  }
  return {};
}

std::string changeText(const HistoryEntry& entry) {
  if (entry.change == HistoryEntry::Change::Removed) return "removed";
  return entry.type + (entry.vias == "-" ? "" : " through " + entry.vias) +
         (entry.fec == 0 ? "" : " (FEC " + std::to_string(entry.fec) + ")");
}

void Switch::openHistory(const std::string& name, Vrf& vrf, bool forgets) {
  forEachFamily([&](auto family) {
    using F = decltype(family);
    auto* machine = vrf.routing<F>().machine();
    if (machine == nullptr) return;
    auto& log = machine->account().log;
    if (historyEntries_ == 0 && !historyObserver_) {
      log = nullptr;
      return;
    }
    if (log == nullptr || forgets) log = std::make_unique<RouteLog<F>>(historyEntries_);
    if (!historyObserver_) return log->observerIs({});
    log->observerIs(
        [this, &name](const auto& change) { historyObserver_(entryOf<F>(name, change)); });
  });
}

void Switch::historyIs(std::size_t entriesPerVrf) {
  historyEntries_ = entriesPerVrf;
  for (auto& [name, vrf] : vrfs_) openHistory(name, vrf, true);
}

void Switch::historyObserverIs(std::function<void(const HistoryEntry&)> observer) {
  historyObserver_ = std::move(observer);
  for (auto& [name, vrf] : vrfs_) openHistory(name, vrf, false);
}

std::vector<HistoryEntry> Switch::history(std::string_view vrf, std::string_view prefix) const {
  std::vector<HistoryEntry> entries;
  const PrefixFilter wanted(prefix);
  const auto known = vrfs_.find(vrf);
  if (known == vrfs_.end()) return entries;
  forEachFamily([&](auto family) {
    using F = decltype(family);
    const auto* machine = known->second.template routing<F>().machine();
    if (machine == nullptr || machine->account().log == nullptr) return;
    machine->account().log->forEach([&](const auto& change) {
      if (wanted.contains(change.route.key.addr())) {
        entries.push_back(entryOf<F>(known->first, change));
      }
    });
  });
  return entries;
}

}  // namespace Daemon
