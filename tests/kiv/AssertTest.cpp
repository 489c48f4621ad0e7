// Tests of assertions, and of the clock that a replay can replace.
#include "platform/kiv/runtime/Assert.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "platform/kiv/runtime/Clock.h"

namespace {

constexpr int kAssertLine = __LINE__ + 3;
struct Checked {
  static int positive(int value) {
    KIV_ASSERT("HostRouteSm", value > 0);
    KIV_ASSERT_AS("HostRouteSm", value < 10, "value.isSmall()");
    return value;
  }
};

TEST(AssertDeathTest, AFailedAssertionStopsTheProcessAndNamesItsPlace) {
  EXPECT_EQ(Checked::positive(1), 1);
  const auto place = [](int line) {
    return " \\(HostRouteSm:" + std::to_string(line) + ", .*Checked::positive\\(int\\)\\)";
  };
  EXPECT_DEATH(Checked::positive(0), "assertion failed: value > 0" + place(kAssertLine));
  EXPECT_DEATH(Checked::positive(10),
               "assertion failed: value\\.isSmall\\(\\)" + place(kAssertLine + 1));
}

TEST(ClockTest, TheSystemClockCanBeReplaced) {
  Kiv::clockIs([] { return 12.5; });
  EXPECT_EQ(Kiv::now(), 12.5);
  Kiv::clockIs(nullptr);
  EXPECT_GE(Kiv::now(), static_cast<double>(std::time(nullptr)) - 1);
}

}  // namespace
