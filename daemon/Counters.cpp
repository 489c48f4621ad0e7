// What a switch's machines count, and how long events take.
#include "daemon/Counters.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace Daemon {

std::span<const CounterInfo> counterInfos() {
  return {};
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
