// Tests of notifications: their receivers, and changes during a notification.
#include "platform/kiv/runtime/Notifiee.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "platform/kiv/runtime/Trace.h"
#include "tests/kiv/Bridge.h"

namespace {

using Sample::Bridge;
using Sample::BridgeWatcher;
using Sample::Log;
using Sample::take;
using Hold = Kiv::Notifiee::Hold;

class NotifieeTest : public testing::Test {
 protected:
  BridgeWatcher::Ptr watcherOf(const Bridge::Ptr& watched, const char* name,
                               Hold hold = Hold::kStrong) {
    auto watcher = Kiv::make<BridgeWatcher>(log, name, hold);
    watcher->notifierIs(watched);
    log.clear();
    return watcher;
  }
  /// Announces the bridge's VLAN 1 and returns the resulting notifications.
  Log announce() {
    bridge->vlanNotify(1);
    return take(log);
  }

  Log log;
  Bridge::Ptr bridge = Kiv::make<Bridge>("br0");
};

TEST_F(NotifieeTest, BindingCatchesUpWithEachNewNotifier) {
  const auto watcher = Kiv::make<BridgeWatcher>(log);
  watcher->notifierIs(bridge);
  EXPECT_EQ(take(log), (Log{"mtu", "port*"}));
  EXPECT_TRUE(watcher->isRegisteredNotifiee());
  watcher->notifierIs(bridge);
  EXPECT_EQ(take(log), Log{});

  const auto other = Kiv::make<Bridge>("br1");
  watcher->notifierIs(other);
  EXPECT_EQ(take(log), (Log{"mtu", "port*"}));
  EXPECT_EQ(announce(), Log{});
  other->vlanNotify(1);
  EXPECT_EQ(take(log), Log{"vlan 1"});

  watcher->notifierIs(nullptr);
  other->vlanNotify(1);
  EXPECT_EQ(watcher->notifier(), nullptr);
  EXPECT_EQ(other->referenceCount(), 1);
  EXPECT_EQ(take(log), Log{});
}

// A wrong walk would call a destroyed reactor or skip a registered one.
TEST_F(NotifieeTest, AnAnnouncementReachesTheNotifieesRegisteredBeforeItAndStillRegistered) {
  std::vector<BridgeWatcher::Ptr> watchers;
  for (const char* name : {"a ", "b ", "c ", "d "}) watchers.push_back(watcherOf(bridge, name));
  BridgeWatcher::Ptr joined;
  watchers[1]->then = [&] {
    watchers[1]->then = nullptr;
    watchers[0] = nullptr;             // was already notified
    watchers[1]->notifierIs(nullptr);  // is being notified
    watchers[2] = nullptr;             // was not yet notified
    joined = Kiv::make<BridgeWatcher>(log, "e ");
    joined->notifierIs(bridge);
    bridge->vlanNotify(2);  // a nested walk
  };
  EXPECT_EQ(announce(),
            (Log{"a vlan 1", "b vlan 1", "e mtu", "e port*", "d vlan 2", "e vlan 2", "d vlan 1"}));
  EXPECT_EQ(announce(), (Log{"d vlan 1", "e vlan 1"}));
}

TEST_F(NotifieeTest, TheOrderOfNotifieesSurvivesRemovals) {
  constexpr int kCount = 64;
  std::vector<std::pair<std::string, BridgeWatcher::Ptr>> watchers;
  const auto expected = [&] {
    Log told;
    for (const auto& [name, watcher] : watchers) told.push_back(name + "vlan 1");
    return told;
  };
  const auto join = [&](int number) {
    const auto name = std::to_string(number) + ' ';
    watchers.emplace_back(name, watcherOf(bridge, name.c_str()));
    watchers.back().second->isQuietIs(number % 5 == 0);
    watchers.back().second->isQuietIs(false);
  };
  for (int i = 0; i < kCount; ++i) join(i);
  for (size_t round = 1; watchers.size() > 2; ++round) {
    const size_t leaves = round * 37 % watchers.size();
    watchers.erase(watchers.begin() + static_cast<std::ptrdiff_t>(leaves));
    if (round % 4 == 0) join(kCount + static_cast<int>(round));
    EXPECT_EQ(announce(), expected());
  }
}

TEST_F(NotifieeTest, ANotifieeMayChangeItsNotifierInItsOwnCallback) {
  auto old = Kiv::make<Bridge>("old");
  const auto mover = watcherOf(old, "");
  const auto weak = watcherOf(old, "weak ", Hold::kWeak);
  mover->then = [&] {
    mover->then = nullptr;
    mover->notifierIs(bridge);  // destroys the old notifier during its walk
  };
  Bridge& changed = *old;
  old = nullptr;
  changed.vlanNotify(1);
  EXPECT_EQ(take(log), (Log{"vlan 1", "mtu", "port*", "weak zero"}));
  EXPECT_EQ(announce(), Log{"vlan 1"});
  EXPECT_EQ(bridge->referenceCount(), 2);
}

TEST_F(NotifieeTest, TheOldNotifierMayHoldTheOnlyHandleToTheNewOne) {
  struct Outer final : Bridge {
    Outer() : Bridge("outer") {}
    Kiv::Ptr<const Bridge> inner = Kiv::make<Bridge>("inner");
  };
  auto outer = Kiv::make<Outer>();
  const auto watcher = watcherOf(outer, "");
  const auto& inner = outer->inner;
  outer = nullptr;
  watcher->notifierIs(inner);
  ASSERT_NE(watcher->notifierRaw(), nullptr);
  EXPECT_EQ(watcher->notifierRaw()->fullName(), "inner");
}

TEST_F(NotifieeTest, AThrowingCallbackIsReportedAndTheWalkContinues) {
  std::vector<BridgeWatcher::Ptr> watchers;
  for (const char* name : {"a ", "b ", "c ", "d "}) {
    watchers.push_back(watcherOf(bridge, name, Hold::kWeak));
  }
  watchers[0]->then = [] { throw std::runtime_error("a"); };
  watchers[1]->then = [&] {
    watchers[1]->notifierIs(nullptr);
    throw 1;  // NOLINT(hicpp-exception-baseclass): any type must be caught
  };
  watchers[2]->then = [&] {
    watchers[2] = nullptr;
    throw std::runtime_error("there is nobody to tell");
  };
  EXPECT_EQ(announce(), (Log{"a vlan 1", "a exception 260", "b vlan 1", "b exception 260",
                             "c vlan 1", "d vlan 1"}));
  watchers[0]->then = [&] {
    bridge = nullptr;
    throw std::runtime_error("the notifier is gone");
  };
  bridge->mtuNotify();
  EXPECT_EQ(take(log), (Log{"a mtu", "a zero", "d zero", "a exception 257"}));
}

TEST_F(NotifieeTest, NotificationsWhileDeliveryIsOffAreLost) {
  const auto watcher = watcherOf(bridge, "");
  const auto other = Kiv::make<Bridge>("br1");
  const auto expectNothingUntil = [&](const auto& on) {
    EXPECT_EQ(announce(), Log{});
    watcher->notifierIs(other);
    watcher->notifierIs(bridge);
    EXPECT_TRUE(watcher->isRegisteredNotifiee());
    on();
    EXPECT_EQ(take(log), Log{});
    EXPECT_EQ(announce(), Log{"vlan 1"});
  };
  watcher->hasNotificationActiveIs(false);
  expectNothingUntil([&] { watcher->hasNotificationActiveIs(true); });
  watcher->kivDoZombieReactors(true);
  EXPECT_FALSE(watcher->isLive());
  expectNothingUntil([&] { watcher->kivDoZombieReactors(false); });
}

TEST_F(NotifieeTest, AQuietNotifieeIsNotifiedOnlyWhileATraceLevelIsOn) {
  static Kiv::TraceFacility facility("NotifieeTest", "NotifieeTest");
  const auto first = watcherOf(bridge, "first ");
  auto second = watcherOf(bridge, "second ");
  first->isQuietIs(true);
  EXPECT_EQ(announce(), Log{"second vlan 1"});
  facility.levelIs(0, true);
  EXPECT_EQ(announce(), (Log{"first vlan 1", "second vlan 1"}));
  facility.levelIs(0, false);

  // Notifiees that become quiet or leave during an announcement.
  second->then = [&] { second = nullptr; };
  const auto third = watcherOf(bridge, "third ");
  EXPECT_EQ(announce(), (Log{"second vlan 1", "third vlan 1"}));
  EXPECT_EQ(announce(), Log{"third vlan 1"});
  first->isRegisteredNotifieeIs(false);
  third->isQuietIs(true);
  EXPECT_EQ(announce(), Log{});
  first->isRegisteredNotifieeIs(true);
  first->isQuietIs(false);
  EXPECT_EQ(announce(), Log{"first vlan 1"});
}

// The callback of one notifiee can make the current change relevant to a notifiee that was quiet.
TEST_F(NotifieeTest, ANotifieeThatStopsBeingQuietDuringAnAnnouncementReceivesIt) {
  const auto first = watcherOf(bridge, "first ");
  const auto second = watcherOf(bridge, "second ");
  const auto third = watcherOf(bridge, "third ");
  first->isQuietIs(true);
  third->isQuietIs(true);
  const auto late = Kiv::make<BridgeWatcher>(log, "late ");
  second->then = [&] {
    late->isQuietIs(true);
    late->notifierIs(bridge);
    for (const auto& watcher : {late, third, first}) watcher->isQuietIs(false);
    second->isQuietIs(true);  // it was already notified, so not again
    second->isQuietIs(false);
  };
  EXPECT_EQ(announce(),
            (Log{"second vlan 1", "late mtu", "late port*", "third vlan 1", "first vlan 1"}));
  late->notifierIs(nullptr);

  first->isQuietIs(true);
  third->isQuietIs(true);
  second->then = [&] {
    second->then = [&] { third->isQuietIs(false); };
    first->isQuietIs(false);
    bridge->vlanNotify(2);
  };
  EXPECT_EQ(announce(), (Log{"second vlan 1", "first vlan 2", "second vlan 2", "third vlan 2",
                             "third vlan 1", "first vlan 1"}));
}

// In another order, notifiees would assign other numbers than if all had been registered before.
TEST_F(NotifieeTest, AHookRegistersMissingNotifieesInTheirPlaces) {
  struct Hook final : Kiv::NotifierHook {
    Hook() : NotifierHook(true) {}
    std::function<void(bool isRepeat)> call;
    void beforeTelling(const Kiv::Entity&, Kiv::AttributeId, const void* key,
                       bool isRepeat) override {
      if (key != nullptr) call(isRepeat);
    }
    void isNeededIs(bool isNeeded) {
      NotifierHook::isNeededIs(isNeeded);
      versionIsNext();
    }
  };
  const auto hook = std::make_shared<Hook>();
  bridge->notifierList().hookIs(hook, *bridge);
  const auto present = watcherOf(bridge, "present ");
  const uint64_t between = Kiv::Notifiee::now();
  const auto last = watcherOf(bridge, "last ");
  const auto missing = [&](const char* name, const Kiv::Notifiee::Rank& rank) {
    auto watcher = Kiv::make<BridgeWatcher>(log, name);
    watcher->hasNotificationActiveIs(false);
    watcher->registersLate(rank);
    watcher->notifierIs(bridge);
    watcher->hasNotificationActiveIs(true);
    return watcher;
  };
  BridgeWatcher::Ptr first, middle;
  hook->call = [&](bool) {
    if (!first) first = missing("first ", {0, 1});
  };
  hook->isNeededIs(false);
  EXPECT_EQ(announce(), (Log{"present vlan 1", "last vlan 1"}));
  hook->isNeededIs(true);
  EXPECT_EQ(announce(), (Log{"first vlan 1", "present vlan 1", "last vlan 1"}));

  // During a walk, a late notifiee is notified in its place, or at the end if the place has passed.
  BridgeWatcher::Ptr zeroth;
  present->then = [&] {
    middle = missing("middle ", {between, 0});
    zeroth = missing("zeroth ", {0, 0});
  };
  EXPECT_EQ(announce(), (Log{"first vlan 1", "present vlan 1", "middle vlan 1", "last vlan 1",
                             "zeroth vlan 1"}));
  present->then = nullptr;
  middle = nullptr;
  zeroth = nullptr;

  // A notifiee that becomes necessary during a walk is made at the end of the walk.
  first = nullptr;
  hook->isNeededIs(false);
  last->then = [&] { hook->isNeededIs(true); };
  EXPECT_EQ(announce(), (Log{"present vlan 1", "last vlan 1", "first vlan 1"}));
}

TEST_F(NotifieeTest, AWokenQuietNotifieeIsNotifiedOnce) {
  const auto first = watcherOf(bridge, "first ");
  const auto second = watcherOf(bridge, "second ");
  const auto third = watcherOf(bridge, "third ");
  first->isQuietIs(true);
  third->isQuietIs(true);
  first->wakeOnce();
  second->then = [&] {
    third->wakeOnce();
    first->wakeOnce();  // the walk has passed it
  };
  EXPECT_EQ(announce(), (Log{"first vlan 1", "second vlan 1", "third vlan 1"}));
  second->then = nullptr;
  EXPECT_EQ(announce(), (Log{"first vlan 1", "second vlan 1"}));
  EXPECT_EQ(announce(), Log{"second vlan 1"});
}

TEST_F(NotifieeTest, AWeakNotifieeIsNotifiedOfItsNotifiersDestruction) {
  const auto weak = watcherOf(bridge, "weak ", Hold::kWeak);
  const auto off = watcherOf(bridge, "off ", Hold::kWeak);
  off->hasNotificationActiveIs(false);
  EXPECT_EQ(bridge->referenceCount(), 1);
  EXPECT_EQ(announce(), Log{"weak vlan 1"});
  bridge = nullptr;
  EXPECT_EQ(take(log), Log{"weak zero"});
  EXPECT_EQ(weak->notifier(), nullptr);
  EXPECT_EQ(off->notifier(), nullptr);
}

// An unregistered notifiee cannot be notified of the notifier's destruction, so it would keep a
// dangling pointer.
TEST_F(NotifieeTest, OnlyAStrongNotifieeKeepsItsNotifierWhenUnregistered) {
  const auto strong = watcherOf(bridge, "strong ");
  const auto weak = watcherOf(bridge, "weak ", Hold::kWeak);
  for (const auto& watcher : {strong, weak}) watcher->isRegisteredNotifieeIs(false);
  EXPECT_EQ(announce(), Log{});
  EXPECT_EQ(strong->notifier(), bridge);
  EXPECT_EQ(weak->notifier(), nullptr);
  for (const auto& watcher : {strong, weak}) watcher->isRegisteredNotifieeIs(true);
  EXPECT_EQ(announce(), Log{"strong vlan 1"});
}

}  // namespace
