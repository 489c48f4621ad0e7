// The text for monitoring systems.
#include "cli/OpenMetrics.h"

#include <gtest/gtest.h>

namespace Cli {
namespace {

TEST(OpenMetricsTest, EachFamilyHasATypeAHelpTextAndSamples) {
  const auto metrics = nlohmann::ordered_json::parse(R"([
    {"name":"a","type":"counter","help":"How \"often\".\nOr not.",
     "samples":[{"labels":{"vrf":"b\"l\\ue","family":"ipv4"},"value":18446744073709551615}]},
    {"name":"b","type":"gauge","help":"H.","samples":[{"labels":{},"value":3}]},
    {"name":"c_seconds","type":"histogram","help":"T.",
     "buckets":[{"le":0.001,"count":1},{"le":0.5,"count":2}],"count":3,"sum":4.25,"max":4}])");
  EXPECT_EQ(openMetrics(metrics), R"(# TYPE a counter
# HELP a How \"often\".\nOr not.
a_total{vrf="b\"l\\ue",family="ipv4"} 18446744073709551615
# TYPE b gauge
# HELP b H.
b 3
# TYPE c_seconds histogram
# UNIT c_seconds seconds
# HELP c_seconds T.
c_seconds_bucket{le="0.001"} 1
c_seconds_bucket{le="0.5"} 2
c_seconds_bucket{le="+Inf"} 3
c_seconds_count 3
c_seconds_sum 4.25
# EOF
)");
}

}  // namespace
}  // namespace Cli
