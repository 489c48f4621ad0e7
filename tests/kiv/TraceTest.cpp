// Tests of tracing: the trace records and their destination, and the cost of disabled statements.
#include "platform/kiv/runtime/Trace.h"

#include <gtest/gtest.h>

#include <sstream>

#include "platform/kiv/containers/Exception.h"
#include "tests/kiv/Bridge.h"

namespace {

using Sample::Bridge;
using Sample::BridgeWatcher;
using Sample::Log;
using Sample::take;

Kiv::TraceFacility facility("TraceTest", "TraceTestSm");

class TraceTest : public testing::Test {
 protected:
  TraceTest() {
    Kiv::Tracer::sinkIs([this](const Kiv::TraceRecord& record) {
      std::ostringstream line;
      line << record << " (" << record.sourceModule << ':' << record.line << ')';
      log.push_back(line.str());
    });
  }
  ~TraceTest() override {
    Kiv::Tracer::sinkIs(nullptr);
    Kiv::Tracer::coverageIs(nullptr);
    for (unsigned level = 0; level < Kiv::TraceFacility::kLevels; ++level) {
      facility.levelIs(level, false);
    }
  }

  /// Runs a trace statement of each level. Returns their line number.
  int traceAll() {
    for (unsigned level = 0; level < Kiv::TraceFacility::kLevels; ++level) {
      KIV_TRACE(facility, level, *bridge, "level " << level << (++evaluated, ""));
    }
    return __LINE__ - 2;
  }

  Log log;
  int evaluated = 0;
  Bridge::Ptr bridge = Kiv::make<Bridge>("br0");
};

TEST_F(TraceTest, EachLevelAndTheFacilityHaveTheirOwnSwitch) {
  traceAll();
  EXPECT_EQ(take(log), Log{});
  EXPECT_EQ(evaluated, 0) << "a disabled statement evaluated its message";
  for (unsigned level = 0; level < Kiv::TraceFacility::kLevels; ++level) {
    facility.levelIs(level, true);
    const std::string line = std::to_string(traceAll());
    const std::string text = std::to_string(level);
    EXPECT_EQ(take(log), Log{"TraceTest " + text + " br0 traceAll: level " + text +
                             " (TraceTestSm:" + line + ")"});
    facility.levelIs(level, false);
  }
  EXPECT_EQ(evaluated, 10);

  for (const unsigned level : {0u, 9u}) facility.levelIs(level, true);
  facility.enabledIs(false);
  traceAll();
  EXPECT_EQ(take(log), Log{});
  facility.enabledIs(true);
  traceAll();
  EXPECT_EQ(log.size(), 2u);
  EXPECT_THROW(facility.levelIs(10, true), Kiv::RangeException);
}

TEST_F(TraceTest, RecordsNameTheNotifierOfAReactorAndTheHandlerOfAHelper) {
  facility.levelIs(5, true);
  const auto watcher = Kiv::make<BridgeWatcher>(log);
  KIV_TRACE_AS(facility, 5, *watcher, "handleFec", "nothing watched");
  watcher->notifierIs(bridge);
  log.clear();
  KIV_TRACE_AS(facility, 5, *watcher, "handleFec", "removing " << 7 << ' ' << bridge);
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].substr(0, log[0].find(" (")), "TraceTest 5 br0 handleFec: removing 7 br0");
}

TEST_F(TraceTest, WithoutASinkRecordsGoToStandardError) {
  Kiv::Tracer::sinkIs(nullptr);
  facility.levelIs(2, true);
  testing::internal::CaptureStderr();
  traceAll();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "TraceTest 2 br0 traceAll: level 2\n");
}

TEST_F(TraceTest, CoverageBuildsEveryMessageAndLeavesTheSinkAlone) {
  std::ostringstream covered;
  Kiv::Tracer::coverageIs(&covered);
  static Kiv::TraceFacility late("LateTraceTest", "LateTestSm");
  facility.levelIs(3, true);
  const std::string line = std::to_string(traceAll());
  EXPECT_EQ(evaluated, 10);
  EXPECT_EQ(log.size(), 1u);
  EXPECT_NE(covered.str().find("TraceTestSm:" + line + " traceAll 9: level 9\n"), std::string::npos)
      << covered.str();
  covered.str("");
  KIV_TRACE(late, 0, *bridge, "loaded while coverage was on");
  EXPECT_NE(covered.str().find("LateTestSm"), std::string::npos);
  EXPECT_EQ(Kiv::TraceFacility::find("LateTraceTest"), &late);
  EXPECT_EQ(Kiv::TraceFacility::find("TraceTest"), &facility);
  EXPECT_EQ(Kiv::TraceFacility::find("Trace"), nullptr);

  Kiv::Tracer::coverageIs(nullptr);
  traceAll();
  EXPECT_EQ(evaluated, 11);
}

}  // namespace
