// The counters of a switch's machines, and a histogram of durations.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Daemon {

/// The description of a counter. The values of one counter differ in a label.
struct CounterInfo {
  enum class Kind {
    Counter,  ///< only increases, from the start of the VRF
    Gauge,    ///< a present number
  };

  const char* name;   ///< such as "events"; a program adds its own prefix
  const char* label;  ///< the name of the label, such as "kind"; "" when there is none
  Kind kind;
  const char* help;  ///< the meaning, as a sentence
};

/// One value of a counter.
struct CounterValue {
  const CounterInfo* info;      ///< valid as long as the program runs
  std::string_view labelValue;  ///< "" without a label; valid as long as the program runs
  int family;                   ///< 4 or 6
  uint64_t value;
};

/// The values of one VRF: first IPv4, then IPv6. Within a family, the values of one counter follow
/// one another. A machine that was torn down has no values.
struct Counters {
  std::vector<CounterValue> values;

  /// The sum of the values that match. An empty label value and family 0 match all.
  uint64_t sum(std::string_view name, std::string_view labelValue = {}, int family = 0) const;
};

/// A histogram of durations. The range of each power of two has 16 buckets, so a quantile is at
/// most 1/16 above the measured value.
class LatencyHistogram {
 public:
  /// Durations from 2^40 ns (18 minutes) on share the last bucket.
  static constexpr unsigned kMaxBits = 40;

  void add(uint64_t nanoseconds) noexcept {
    ++buckets_[bucketOf(nanoseconds)];
    ++count_;
    sum_ += nanoseconds;
    if (nanoseconds > max_) max_ = nanoseconds;
  }
  uint64_t count() const noexcept { return count_; }
  uint64_t sum() const noexcept { return sum_; }
  /// The exact maximum.
  uint64_t max() const noexcept { return max_; }
  /// A quantile, such as 0.99, in nanoseconds. It is rounded up to the end of its bucket, but not
  /// above max(). 0 without a measurement.
  uint64_t quantile(double quantile) const noexcept;
  /// The number of durations up to this one. Exact when a bucket ends there, as at a power of two.
  uint64_t countUpTo(uint64_t nanoseconds) const noexcept;

 private:
  static constexpr unsigned kSubBits = 4;
  static constexpr size_t kBuckets = (kMaxBits - kSubBits + 1) << kSubBits;

  static size_t bucketOf(uint64_t nanoseconds) noexcept;
  /// The longest duration of a bucket.
  static uint64_t endOf(size_t bucket) noexcept;

  std::array<uint64_t, kBuckets> buckets_{};
  uint64_t count_ = 0;
  uint64_t sum_ = 0;
  uint64_t max_ = 0;
};

}  // namespace Daemon
