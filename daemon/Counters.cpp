// The counters of a switch's machines, and a histogram of durations.
#include "daemon/Counters.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "daemon/RootTables.h"
#include "daemon/Switch.h"
#include "platform/routing/RouteTypes.h"

namespace Daemon {

namespace {

using InfoKind = CounterInfo::Kind;

constexpr CounterInfo kEvents{
    "events", "kind", InfoKind::Counter,
    "Events that reached the machine, by their kind. A neighbour on an interface through which no "
    "route of the VRF leaves does not reach it."};
constexpr CounterInfo kRefused{
    "neighbors_refused", "reason", InfoKind::Counter,
    "Neighbours whose look-up gave no host route, by the reason. Each look-up counts."};
constexpr CounterInfo kRepairs{"repairs", "", InfoKind::Counter,
                               "Neighbours that were filed under a FIB route."};
constexpr CounterInfo kMerges{
    "merges", "", InfoKind::Counter,
    "Merged addresses: the best host route was selected. A merge that would change nothing is "
    "skipped, and not counted."};
constexpr CounterInfo kExceptions{"exceptions", "", InfoKind::Counter,
                                  "Events that the machine could not complete. A value other than "
                                  "0 is a fault; please report it."};
constexpr CounterInfo kHostRoutes{"host_routes", "type", InfoKind::Gauge,
                                  "Host routes in the route table, by their type."};
constexpr CounterInfo kNeighborRoutes{
    "neighbor_routes", "", InfoKind::Gauge,
    "Neighbours that have a host route, also if another route is preferred."};
constexpr CounterInfo kOwnAddresses{
    "own_addresses", "", InfoKind::Gauge,
    "Addresses for which receive routes are kept: the router's own, and the network and broadcast "
    "addresses of its IPv4 subnets."};
constexpr CounterInfo kTrackedRoutes{"tracked_routes", "", InfoKind::Gauge,
                                     "FIB routes that the machine follows."};
constexpr CounterInfo kDeferred{"deferred_merges", "", InfoKind::Gauge,
                                "Addresses that wait to be merged until the VRF is initialized."};

/// The label of a reason.
constexpr std::string_view nameOf(HostCore::Lack lack) {
  using HostCore::Lack;
  switch (lack) {
    case Lack::None:
      return "none";
    case Lack::RouteStatus:
    case Lack::HostStatus:
    case Lack::Table:
      return "input";
    case Lack::Cover:
      return "cover";
    case Lack::Record:
      return "coverRecord";
    case Lack::Fec:
      return "coverFec";
    case Lack::Interface:
      return "otherInterface";
    case Lack::DirectVia:
      return "directVia";
    case Lack::Skipped:
      return "managementPort";
  }
  return {};
}
// The reasons that can occur in a switch. Its machines have all their inputs.
constexpr HostCore::Lack kLacks[] = {HostCore::Lack::Cover,     HostCore::Lack::Record,
                                     HostCore::Lack::Fec,       HostCore::Lack::Interface,
                                     HostCore::Lack::DirectVia, HostCore::Lack::Skipped};

/// Adds the values of one machine.
template <class F>
void collect(const typename F::RouteSm& sm, const typename F::RouteSmRoot& root,
             std::vector<CounterValue>& values) {
  const auto add = [&](const CounterInfo& info, uint64_t value, std::string_view label = {}) {
    values.push_back({&info, label, F::kNumber, value});
  };
  const auto& counts = sm.account().counts;
  const RootTables<F> tables(root);
  for (size_t number = 0; number < HostCore::kCauseKinds; ++number) {
    const auto kind = static_cast<CauseKind>(number);
    if (kind != CauseKind::Unknown) add(kEvents, counts.events[number], Daemon::nameOf(kind));
  }
  for (const auto lack : kLacks) {
    add(kRefused, counts.refused[static_cast<size_t>(lack)], nameOf(lack));
  }
  add(kRepairs, counts.repairs);
  add(kMerges, counts.merges);
  add(kExceptions, counts.exceptions);
  for (size_t number = 0; number < counts.hostRoutes.size(); ++number) {
    const auto type = static_cast<typename F::RouteType>(number);
    if (counts.hostRoutes[number] == 0 && !F::isOwnType(type)) continue;
    add(kHostRoutes, counts.hostRoutes[number], Routing::routeTypeName(type));
  }
  add(kNeighborRoutes, tables.neighbors->routeCount());
  add(kOwnAddresses, tables.received->routeCount());
  add(kTrackedRoutes, root.prefixToRouteCount());
  add(kDeferred, tables.waiting->ipCount());
}

}  // namespace

Counters Switch::counters(std::string_view vrf) const {
  Counters counters;
  const auto known = vrfs_.find(vrf);
  if (known == vrfs_.end()) return counters;
  forEachFamily([&](auto family) {
    using F = decltype(family);
    const auto& routing = known->second.template routing<F>();
    if (const auto* machine = routing.machine()) {
      collect<F>(*machine, *routing.root, counters.values);
    }
  });
  return counters;
}

uint64_t Counters::sum(std::string_view name, std::string_view labelValue, int family) const {
  uint64_t sum = 0;
  for (const CounterValue& each : values) {
    if (each.info->name == name && (labelValue.empty() || each.labelValue == labelValue) &&
        (family == 0 || each.family == family)) {
      sum += each.value;
    }
  }
  return sum;
}

size_t LatencyHistogram::bucketOf(uint64_t nanoseconds) noexcept {
  constexpr uint64_t kLongest = (uint64_t{1} << kMaxBits) - 1;
  const uint64_t time = std::min(nanoseconds, kLongest);
  if (time < uint64_t{1} << kSubBits) return time;  // each has its own bucket
  // The highest bit selects the range. The bits after it select the bucket.
  const auto shift = static_cast<unsigned>(std::bit_width(time)) - 1 - kSubBits;
  return (size_t{shift} << kSubBits) + (time >> shift);
}

uint64_t LatencyHistogram::endOf(size_t bucket) noexcept {
  if (bucket < size_t{2} << kSubBits) return bucket;
  const auto shift = (bucket >> kSubBits) - 1;
  const uint64_t start = (bucket & ((1U << kSubBits) - 1)) + (1U << kSubBits);
  return ((start + 1) << shift) - 1;
}

uint64_t LatencyHistogram::quantile(double quantile) const noexcept {
  if (count_ == 0) return 0;
  const auto rank = std::clamp<uint64_t>(
      static_cast<uint64_t>(std::ceil(quantile * static_cast<double>(count_))), 1, count_);
  uint64_t seen = 0;
  for (size_t bucket = 0; bucket < kBuckets; ++bucket) {
    seen += buckets_[bucket];
    if (seen >= rank) return std::min(endOf(bucket), max_);
  }
  return max_;
}

uint64_t LatencyHistogram::countUpTo(uint64_t nanoseconds) const noexcept {
  uint64_t count = 0;
  for (size_t bucket = 0; bucket < kBuckets && endOf(bucket) <= nanoseconds; ++bucket) {
    count += buckets_[bucket];
  }
  return count;
}

}  // namespace Daemon
