// What a switch's machines count, with the meaning of each number, and how long events take.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Daemon {

/// What is counted. Numbers of one name differ in a label.
struct CounterInfo {
  enum class Kind {
    Counter,  ///< only grows, from the start of the VRF
    Gauge,    ///< what there is now
  };

  const char* name;   ///< "events"; a program puts its own name before it
  const char* label;  ///< what the numbers of this name differ in, such as "kind"; "" for nothing
  Kind kind;
  const char* help;  ///< the meaning, a sentence
};

/// One number.
struct CounterValue {
  const CounterInfo* info;      ///< lives as long as the program
  std::string_view labelValue;  ///< "" where the row has no label; lives as long as the program
  int family;                   ///< 4 or 6
  uint64_t value;
};

/// The numbers of one VRF, those of IPv4 first. Within a family those of one name stand together. A
/// machine that has ended has none.
struct Counters {
  std::vector<CounterValue> values;

  /// The sum over what the arguments leave open: an empty label or family 0 stands for any.
  uint64_t sum(std::string_view name, std::string_view labelValue = {}, int family = 0) const;
};

/// How often what took how long: the range of each power of two is cut into 16 buckets, so that a
/// number read from it is at most 1/16 over what was measured.
class LatencyHistogram {
 public:
  /// The longest time that is told apart: 2^40 ns, 18 minutes. What is longer counts as that.
  static constexpr unsigned kMaxBits = 40;

  void add(uint64_t nanoseconds) noexcept {
    ++buckets_[bucketOf(nanoseconds)];
    ++count_;
    sum_ += nanoseconds;
    if (nanoseconds > max_) max_ = nanoseconds;
  }
  uint64_t count() const noexcept { return count_; }
  uint64_t sum() const noexcept { return sum_; }
  /// The longest, exactly.
  uint64_t max() const noexcept { return max_; }
  /// The time that the share `quantile` (0.99) did not exceed, rounded up to its bucket's end but
  /// not over max(); 0 when nothing was measured.
  uint64_t quantile(double quantile) const noexcept;
  /// How many took at most this long; exact where a bucket ends there, as at each power of two.
  uint64_t countUpTo(uint64_t nanoseconds) const noexcept;

 private:
  static constexpr unsigned kSubBits = 4;
  static constexpr size_t kBuckets = (kMaxBits - kSubBits + 1) << kSubBits;

  static size_t bucketOf(uint64_t nanoseconds) noexcept;
  /// The longest time that falls into a bucket.
  static uint64_t endOf(size_t bucket) noexcept;

  std::array<uint64_t, kBuckets> buckets_{};
  uint64_t count_ = 0;
  uint64_t sum_ = 0;
  uint64_t max_ = 0;
};

}  // namespace Daemon
