// Tests of activities: queued notifications and their delivery.
#include "platform/kiv/runtime/Activity.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/kiv/Bridge.h"
#include "tests/kiv/ShortMemory.h"

namespace {

using Kiv::QueueingActivity;
using Sample::Bridge;
using Sample::BridgeWatcher;
using Sample::Log;
using Sample::take;

class ActivityTest : public testing::Test {
 protected:
  ActivityTest() { log.clear(); }

  BridgeWatcher::Ptr watcherOn(const Kiv::ActivityConfig::Ptr& scheduling, const char* name) {
    auto made = Kiv::make<BridgeWatcher>(log, name);
    made->kivFwkActivityIs(scheduling);
    made->notifierIs(bridge);
    log.clear();
    return made;
  }
  /// Runs the activity and returns the notifications that it delivered.
  Log run() {
    const size_t delivered = activity->run();
    EXPECT_EQ(delivered == 0, log.empty());
    return take(log);
  }

  Log log;
  Bridge::Ptr bridge = Kiv::make<Bridge>("br0");
  QueueingActivity::Ptr activity = Kiv::make<QueueingActivity>();
  BridgeWatcher::Ptr watcher = watcherOn(activity, "");
};

TEST_F(ActivityTest, QueuedNotificationsAreDeliveredOnceInTheOrderOfFirstArrival) {
  const auto other = watcherOn(activity, "other ");
  bridge->vlanNotify(2);
  bridge->stationNotify(2);
  other->notifierIs(nullptr);
  for (int i = 0; i < 2; ++i) {
    bridge->vlanNotify(1);
    bridge->vlanNotify(2);
    bridge->mtuNotify();
    bridge->vlanNotify();
  }
  EXPECT_EQ(take(log), Log{});
  EXPECT_EQ(activity->pending(), 5u);
  EXPECT_EQ(run(), (Log{"vlan 2", "station 2", "vlan 1", "mtu", "vlan*"}));
  EXPECT_EQ(activity->pending(), 0u);
  EXPECT_EQ(run(), Log{});
}

// If such notifications were delivered in the same run, the run might never end.
TEST_F(ActivityTest, AnnouncementsOfACallbackWaitForTheNextRun) {
  const auto second = watcherOn(activity, "second ");
  watcher->then = [this] {
    bridge->vlanNotify(1);
    EXPECT_EQ(activity->run(), 0u) << "a run within a run";
  };
  bridge->vlanNotify(1);
  EXPECT_EQ(run(), (Log{"vlan 1", "second vlan 1"}));
  // The second reactor's notification was still queued when the callback announced the change
  // again, so the second reactor gets it only once.
  EXPECT_EQ(run(), Log{"vlan 1"});
  watcher->then = nullptr;
  EXPECT_EQ(run(), (Log{"vlan 1", "second vlan 1"}));
}

TEST_F(ActivityTest, NothingIsDeliveredToAReactorThatUnregistered) {
  const auto zombie = watcherOn(activity, "zombie ");
  const auto off = watcherOn(activity, "off ");
  const auto moved = watcherOn(activity, "moved ");
  const auto unregistered = watcherOn(activity, "unregistered ");
  auto destroyed = watcherOn(activity, "destroyed ");
  auto destroyedInTheRun = watcherOn(activity, "destroyed in the run ");
  bridge->vlanNotify(1);
  zombie->kivDoZombieReactors(true);
  off->hasNotificationActiveIs(false);
  moved->notifierIs(Kiv::make<Bridge>("br1"));
  unregistered->isRegisteredNotifieeIs(false);
  destroyed = nullptr;
  watcher->then = [&] { destroyedInTheRun = nullptr; };
  log.clear();
  EXPECT_EQ(run(), Log{"vlan 1"});
  // A new reactor may get the address of a destroyed one.
  const auto successor = watcherOn(activity, "successor ");
  bridge->vlanNotify(1);
  EXPECT_EQ(run(), (Log{"vlan 1", "successor vlan 1"}));
}

// A queued notification that is lost would leave a wrong route permanently.
TEST_F(ActivityTest, AReactorThatChangesItsActivityKeepsItsQueuedNotifications) {
  const auto next = Kiv::make<QueueingActivity>();
  const auto staying = watcherOn(activity, "staying ");
  for (const uint32_t vlan : {1u, 2u}) bridge->vlanNotify(vlan);
  watcher->kivFwkActivityIs(next);
  EXPECT_EQ(run(), (Log{"staying vlan 1", "staying vlan 2"}));
  EXPECT_EQ(next->pending(), 2u);
  bridge->vlanNotify(2);
  EXPECT_EQ(next->pending(), 2u);
  watcher->kivFwkActivityIs(nullptr);
  EXPECT_EQ(take(log), (Log{"vlan 1", "vlan 2"}));
  bridge->vlanNotify(3);
  EXPECT_EQ(take(log), Log{"vlan 3"});
  EXPECT_EQ(next->run(), 0u);
}

TEST_F(ActivityTest, AFailedAllocationLeavesTheQueueUnchanged) {
  constexpr uint32_t kVlans = 300;
  for (uint32_t vlan = 0; vlan < kVlans; ++vlan) {
    for (size_t allocation : {1U, 2U, 3U, 4U}) {
      const Sample::ShortMemory memory(allocation);
      bridge->vlanNotify(vlan);
    }
  }
  EXPECT_EQ(activity->pending(), kVlans);
  EXPECT_EQ(activity->run(), kVlans);
  EXPECT_EQ(activity->pending(), 0u);
}

TEST_F(ActivityTest, ExceptionsAreReportedAndTheRunContinues) {
  struct Entered final : BridgeWatcher {
    using BridgeWatcher::BridgeWatcher;
    void handleNotification(Kiv::ActivityConfig& config) override {
      BridgeWatcher::handleNotification(config);
      throw std::runtime_error("raised beside the callback");
    }
  };
  const auto entered = Kiv::make<Entered>(log, "entered ");
  entered->kivFwkActivityIs(activity);
  entered->notifierIs(bridge);
  log.clear();
  watcher->then = [] { throw std::runtime_error("raised by the callback"); };
  bridge->vlanNotify(1);
  bridge->mtuNotify();
  EXPECT_EQ(run(), (Log{"vlan 1", "exception 260", "entered vlan 1", "entered exception 260", "mtu",
                        "exception 257", "entered mtu", "entered exception 257"}));
}

TEST_F(ActivityTest, ACallbackMayDropTheLastHandles) {
  watcher->then = [this] {
    watcher = nullptr;
    activity = nullptr;
    bridge = nullptr;
  };
  for (const uint32_t vlan : {1u, 2u}) bridge->vlanNotify(vlan);
  QueueingActivity* const running = activity.get();
  EXPECT_EQ(running->run(), 1u);
  EXPECT_EQ(log, Log{"vlan 1"});
}

}  // namespace
