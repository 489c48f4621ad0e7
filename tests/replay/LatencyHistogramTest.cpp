// Compares quantiles of a histogram with those of the sorted list of its values.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "daemon/Counters.h"

namespace {

TEST(LatencyHistogramTest, QuantilesAreAtMostASixteenthTooLarge) {
  Daemon::LatencyHistogram histogram;
  EXPECT_EQ(histogram.quantile(0.5), 0u);
  std::mt19937_64 random(1);
  std::vector<uint64_t> times;
  for (unsigned i = 0; i < 20000; ++i) {
    times.push_back(random() >> (24 + i % 40));  // values in each power of two up to 2^40
    histogram.add(times.back());
  }
  std::sort(times.begin(), times.end());
  for (const double share : {0.0001, 0.01, 0.5, 0.9, 0.99, 0.9999, 1.0}) {
    const auto rank = static_cast<size_t>(std::ceil(share * static_cast<double>(times.size())));
    const uint64_t exact = times[rank - 1];
    EXPECT_GE(histogram.quantile(share), exact) << share;
    EXPECT_LE(histogram.quantile(share), exact + exact / 16) << share;
  }
  EXPECT_EQ(histogram.quantile(1), times.back());
  EXPECT_EQ(histogram.max(), times.back());
  EXPECT_EQ(histogram.count(), times.size());
  for (unsigned bits = 0; bits <= 40; ++bits) {
    const uint64_t limit = (uint64_t{1} << bits) - 1;
    const auto counted = std::upper_bound(times.begin(), times.end(), limit) - times.begin();
    EXPECT_EQ(histogram.countUpTo(limit), static_cast<uint64_t>(counted)) << limit;
  }
}

TEST(LatencyHistogramTest, ValuesAboveAllBucketsReadAsTheLongestValue) {
  Daemon::LatencyHistogram histogram;
  histogram.add(uint64_t{1} << 50);
  EXPECT_EQ(histogram.max(), uint64_t{1} << 50);
  EXPECT_LE(histogram.quantile(0.5), histogram.max());
  EXPECT_EQ(histogram.countUpTo(UINT64_MAX), 1u);
}

}  // namespace
