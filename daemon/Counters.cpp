// What a switch's machines count, and how long events take.
#include "daemon/Counters.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <iterator>

#include "daemon/RootTables.h"
#include "daemon/Switch.h"
#include "platform/routing/RouteTypes.h"

namespace Daemon {

namespace {

using InfoKind = CounterInfo::Kind;

// The rows of the table, by what fills them.
enum class Row : size_t {
  kEvents,
  kRefused,
  kRepairs,
  kMerges,
  kExceptions,
  kHostRoutes,
  kNeighborRoutes,
  kOwnAddresses,
  kTrackedRoutes,
  kDeferred,
};

constexpr CounterInfo kInfos[] = {
    {"events", "kind", InfoKind::Counter,
     "Events that reached the machine, by what they were. A neighbour on an interface through "
     "which no route of the VRF leaves does not reach it."},
    {"neighbors_refused", "reason", InfoKind::Counter,
     "Neighbours that got no host route when they were looked up, by the reason. One that is "
     "looked up again counts again."},
    {"repairs", "", InfoKind::Counter, "Neighbours that were filed under a FIB route."},
    {"merges", "", InfoKind::Counter,
     "Addresses for which it was settled which host route wins. A merge that could change nothing "
     "is spared, and not counted."},
    {"exceptions", "", InfoKind::Counter,
     "Events that the machine could not handle to the end. Any but 0 is a fault worth a report."},
    {"host_routes", "type", InfoKind::Gauge, "Host routes in the route table, by their type."},
    {"neighbor_routes", "", InfoKind::Gauge,
     "Neighbours that have a host route, whether or not it wins."},
    {"own_addresses", "", InfoKind::Gauge,
     "Addresses for which receive routes are kept: the router's own, and the network and "
     "broadcast addresses of its IPv4 subnets."},
    {"tracked_routes", "", InfoKind::Gauge, "FIB routes that the machine follows."},
    {"deferred_merges", "", InfoKind::Gauge,
     "Addresses that wait to be merged until the VRF is initialized."},
};

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
// Those that can be met in a switch, whose machines have all their inputs.
constexpr HostCore::Lack kLacks[] = {HostCore::Lack::Cover,     HostCore::Lack::Record,
                                     HostCore::Lack::Fec,       HostCore::Lack::Interface,
                                     HostCore::Lack::DirectVia, HostCore::Lack::Skipped};

/// Collects the numbers of one machine, row by row.
template <class F>
class Collector {
 public:
  Collector(const typename F::RouteSm& sm, const typename F::RouteSmRoot& root,
            std::vector<CounterValue>& values)
      : counts_(sm.account().counts), root_(root), values_(values) {}

  void add(Row row) {
    switch (row) {
      case Row::kEvents:
        for (size_t kind = 0; kind < HostCore::kCauseKinds; ++kind) {
          if (static_cast<CauseKind>(kind) == CauseKind::Unknown) continue;
          add(row, Daemon::nameOf(static_cast<CauseKind>(kind)), counts_.events[kind]);
        }
        break;
      case Row::kRefused:
        for (const auto lack : kLacks) {
          add(row, nameOf(lack), counts_.refused[static_cast<size_t>(lack)]);
        }
        break;
      case Row::kRepairs:
        return add(row, {}, counts_.repairs);
      case Row::kMerges:
        return add(row, {}, counts_.merges);
      case Row::kExceptions:
        return add(row, {}, counts_.exceptions);
      case Row::kHostRoutes:
        for (size_t number = 0; number < counts_.hostRoutes.size(); ++number) {
          const auto type = static_cast<typename F::RouteType>(number);
          if (counts_.hostRoutes[number] == 0 && !F::isOwnType(type)) continue;
          add(row, Routing::routeTypeName(type), counts_.hostRoutes[number]);
        }
        break;
      case Row::kNeighborRoutes:
        return add(row, {}, RootTables<F>(root_).neighbors->routeCount());
      case Row::kOwnAddresses:
        return add(row, {}, RootTables<F>(root_).received->routeCount());
      case Row::kTrackedRoutes:
        return add(row, {}, root_.prefixToRouteCount());
      case Row::kDeferred:
        return add(row, {}, RootTables<F>(root_).waiting->ipCount());
    }
  }

 private:
  void add(Row row, std::string_view labelValue, uint64_t value) {
    values_.push_back({&kInfos[static_cast<size_t>(row)], labelValue, F::kNumber, value});
  }

  const HostCore::Counts& counts_;
  const typename F::RouteSmRoot& root_;
  std::vector<CounterValue>& values_;
};

}  // namespace

std::span<const CounterInfo> counterInfos() {
  return kInfos;
}

Counters Switch::counters(std::string_view vrf) const {
  Counters counters;
  const auto known = vrfs_.find(vrf);
  if (known == vrfs_.end()) return counters;
  for (size_t row = 0; row < std::size(kInfos); ++row) {
    forEachFamily([&](auto family) {
      using F = decltype(family);
      const auto& routing = known->second.template routing<F>();
      const auto* machine = routing.machine();
      if (machine == nullptr) return;
      Collector<F>(*machine, *routing.root, counters.values).add(static_cast<Row>(row));
    });
  }
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
  if (time < uint64_t{1} << kSubBits) return time;  // told apart one by one
  // The bits behind the first one choose the bucket in the range of that one.
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
