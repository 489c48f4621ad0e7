// Tests of the attributes of entities: storage, notifications and ownership.
#include "platform/kiv/runtime/Attributes.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/kiv/Bridge.h"

namespace {

using Sample::Bridge;
using Sample::BridgeWatcher;
using Sample::Log;
using Sample::Port;
using Sample::take;

/// Logs the destruction of a port that it does not own.
class PortWatcher final : public Port::NotifieeConst {
 public:
  explicit PortWatcher(Log& log) : NotifieeConst(Hold::kWeak), log_(log) {}
  void onZeroReferences() noexcept override { log_.push_back("destroyed"); }

 private:
  Log& log_;
};

class AttributesTest : public testing::Test {
 protected:
  AttributesTest() {
    watcher->notifierIs(bridge);
    log.clear();
  }

  /// Adds a new port and logs its destruction.
  void portIs(const Kiv::Name& name) {
    const auto port = Kiv::make<Port>(name);
    portWatcher->notifierIs(port);
    bridge->portIs(port);
    log.clear();
  }

  Log log;
  Bridge::Ptr bridge = Kiv::make<Bridge>("br0");
  BridgeWatcher::Ptr watcher = Kiv::make<BridgeWatcher>(log);
  Kiv::Ptr<PortWatcher> portWatcher = Kiv::make<PortWatcher>(log);
};

// Announcing a value that did not change wastes work, and can cause an endless loop of reactors.
TEST_F(AttributesTest, SettingStoresAndAnnouncesChangesOnly) {
  const auto port = Kiv::make<Port>("eth1");
  for (int i = 0; i < 2; ++i) {
    bridge->mtuIs(1500);
    bridge->uplinkIs(port);
    bridge->vlanIs(7, true);
    bridge->stationIs(0xa, "eth1");
    bridge->portIs(port);
    EXPECT_EQ(take(log),
              i != 0 ? Log{} : (Log{"mtu", "uplink", "vlan 7", "station 10", "port eth1"}));
  }
  EXPECT_EQ(bridge->mtu(), 1500u);
  EXPECT_EQ(bridge->uplink(), port);
  EXPECT_TRUE(bridge->vlan(7));
  EXPECT_EQ(bridge->station(0xa), Kiv::Name("eth1"));
  EXPECT_EQ(bridge->port("eth1"), port);

  bridge->stationIs(0xa, "eth2");
  bridge->stationIs(0xb, "");  // an entry is new even when its value is empty
  bridge->newCpuPort("cpu");
  bridge->newVlan(8, true);
  bridge->vlanIs(8, false);
  bridge->uplinkIs(nullptr);
  EXPECT_EQ(take(log), (Log{"station 10", "station 11", "cpuPort", "vlan 8", "vlan 8", "uplink"}));
  EXPECT_EQ(bridge->station(0xa), Kiv::Name("eth2"));
  EXPECT_EQ(bridge->stationCount(), 2u);

  bridge->mtuNotify();
  bridge->vlanNotify(7);
  bridge->vlanNotify();
  bridge->portNotify("eth9");
  bridge->uplinkNotify();
  bridge->cpuPortNotify();
  EXPECT_EQ(take(log), (Log{"mtu", "vlan 7", "vlan*", "port eth9", "uplink", "cpuPort"}));
}

TEST_F(AttributesTest, AbsentValuesReadAsTheEmptyValue) {
  EXPECT_EQ(bridge->cpuPort(), nullptr);
  EXPECT_EQ(bridge->uplink(), nullptr);
  EXPECT_EQ(bridge->port("eth1"), nullptr);
  EXPECT_EQ(bridge->portFind("eth1"), nullptr);
  EXPECT_EQ(bridge->station(1), Kiv::Name());
  EXPECT_FALSE(bridge->vlan(1));
  EXPECT_FALSE(bridge->portDel("eth1"));
  EXPECT_FALSE(bridge->vlanDel(1));
  bridge->cpuPortDel();
  bridge->vlanDelAll();
  EXPECT_EQ(log, Log{});
}

// A pointer attribute that owned its object would keep the tables of a deleted VRF alive.
TEST_F(AttributesTest, OnlyOwnedEntitiesAreKeptAliveAndKnowTheirOwner) {
  const auto port = Kiv::make<Port>("eth 1/é");
  bridge->uplinkIs(port);
  EXPECT_EQ(port->referenceCount(), 1);
  EXPECT_EQ(port->parent(), nullptr);
  EXPECT_EQ(port->uriPath(), "/eth%201%2F%C3%A9");

  bridge->portIs(port);
  EXPECT_EQ(port->referenceCount(), 2);
  EXPECT_EQ(port->parent(), bridge.get());
  EXPECT_EQ(port->parentAttr(), "port");
  EXPECT_EQ(port->parentAttrId(), 262u);
  EXPECT_EQ(port->fullName(), "br0/eth 1/é");
  EXPECT_EQ(port->uriPath(), "/br0/port/eth%201%2F%C3%A9");

  // A cycle of owners must not make a path endless.
  bridge->parentIs(port.get(), &Bridge::PortAttribute::kInfo);
  EXPECT_EQ(port->fullName(), "br0/eth 1/é");
  EXPECT_EQ(bridge->uriPath(), "/eth%201%2F%C3%A9/port/br0");
  bridge->parentIs(nullptr, nullptr);

  const auto expectNoOwner = [](const Port& former) {
    EXPECT_EQ(former.parent(), nullptr);
    EXPECT_EQ(former.parentAttr(), "");
    EXPECT_EQ(former.parentAttrId(), 0u);
    EXPECT_EQ(former.fullName(), former.name().view());
  };
  bridge->portDel(port->name());
  expectNoOwner(*port);
  const auto replaced = Kiv::make<Port>("eth2");
  bridge->portIs(replaced);
  bridge->portIs(Kiv::make<Port>("eth2"));
  expectNoOwner(*replaced);
  const auto cpuPort = bridge->newCpuPort("cpu");
  EXPECT_EQ(cpuPort->uriPath(), "/br0/cpuPort/cpu");
  bridge->portIs(port);
  watcher->notifierIs(nullptr);
  bridge = nullptr;
  expectNoOwner(*port);
  expectNoOwner(*cpuPort);
}

TEST_F(AttributesTest, DeletionsAnnounceEachKeyOnce) {
  const auto fill = [this] {
    for (const uint32_t vlan : {1u, 2u, 3u}) bridge->vlanIs(vlan, true);
    for (const char* name : {"eth1", "eth2", "eth3"}) bridge->portIs(Kiv::make<Port>(name));
    log.clear();
  };
  const auto sorted = [this] {
    std::sort(log.begin(), log.end());
    return take(log);
  };
  fill();
  EXPECT_TRUE(bridge->vlanDel(2));
  EXPECT_TRUE(bridge->portDel("eth2"));
  EXPECT_EQ(take(log), (Log{"vlan 2", "port eth2"}));

  fill();
  for (auto it = bridge->vlanIterator(); it; ++it) {
    if (it.key() != 2) bridge->vlanDel(it);
  }
  for (auto it = bridge->portIterator(); it; ++it) {
    if (it.ptr()->name() != Kiv::Name("eth2")) bridge->portDel(it);
  }
  EXPECT_EQ(sorted(), (Log{"port eth1", "port eth3", "vlan 1", "vlan 3"}));
  EXPECT_EQ(bridge->vlanKeys(), std::vector{2u});
  EXPECT_EQ(bridge->portIteratorConst().key(), Kiv::Name("eth2"));

  fill();
  bridge->vlanDelAll();
  bridge->portDelAll();
  EXPECT_EQ(sorted(), (Log{"port eth1", "port eth2", "port eth3", "vlan 1", "vlan 2", "vlan 3"}));

  fill();
  watcher->notifierIs(nullptr);
  bridge->vlanDelAll();
  bridge->portDelAll();
  EXPECT_EQ(bridge->vlanCount() + bridge->portCount(), 0u);
}

// A reactor may still need an object when it is notified of the object's removal.
TEST_F(AttributesTest, ARemovedObjectLivesUntilItsRemovalWasAnnounced) {
  portIs("eth1");
  bridge->portDel("eth1");
  EXPECT_EQ(take(log), (Log{"port eth1", "destroyed"}));
  portIs("eth1");
  bridge->portIs(Kiv::make<Port>("eth1"));
  EXPECT_EQ(take(log), (Log{"port eth1", "destroyed"}));
  portIs("eth1");
  bridge->portDelAll();
  EXPECT_EQ(take(log), (Log{"port eth1", "destroyed"}));
  portWatcher->notifierIs(bridge->newCpuPort("cpu"));
  bridge->cpuPortDel();
  EXPECT_EQ(take(log), (Log{"cpuPort", "cpuPort", "destroyed"}));
}

// The caller's key may be a variable that a callback changes. All notifiees must get the same key.
TEST_F(AttributesTest, CallbacksMayChangeTheVariableThatHoldsTheirKey) {
  const auto second = Kiv::make<BridgeWatcher>(log, "second ");
  second->notifierIs(bridge);
  log.clear();
  uint64_t mac = 10;
  watcher->then = [&] { ++mac; };
  bridge->stationIs(mac, "eth1");
  bridge->stationNotify(mac);
  EXPECT_EQ(log, (Log{"station 10", "second station 10", "station 11", "second station 11"}));
}

TEST_F(AttributesTest, CallbacksMayChangeTheCollectionThatIsEmptied) {
  for (const uint32_t vlan : {1u, 2u, 3u}) bridge->vlanIs(vlan, true);
  log.clear();
  watcher->then = [this] {
    watcher->then = nullptr;
    bridge->vlanIs(4, true);
    for (const uint32_t vlan : {1u, 2u, 3u}) bridge->vlanDel(vlan);
  };
  bridge->vlanDelAll();
  std::sort(log.begin(), log.end());
  EXPECT_EQ(log, (Log{"vlan 1", "vlan 2", "vlan 3", "vlan 4"}));
  EXPECT_EQ(bridge->vlanKeys(), std::vector{4u});
}

TEST_F(AttributesTest, CallbacksMayDropTheLastHandleToTheEntity) {
  const auto weak = Kiv::make<BridgeWatcher>(log, "", Kiv::Notifiee::Hold::kWeak);
  weak->notifierIs(bridge);
  watcher->notifierIs(nullptr);
  for (const char* name : {"eth1", "eth2"}) bridge->portIs(Kiv::make<Port>(name));
  log.clear();
  Bridge* const emptied = bridge.get();
  weak->then = [this] { bridge = nullptr; };
  emptied->portDelAll();
  EXPECT_EQ(weak->notifier(), nullptr);
  EXPECT_EQ(log.back(), "zero");
  EXPECT_EQ(log.size(), 3u);
}

}  // namespace
