#include "linux/Probing.h"

#include <gtest/gtest.h>
#include <linux/neighbour.h>

#include <algorithm>
#include <set>
#include <string>

#include "tests/linux/Samples.h"

namespace Linux {
namespace {

constexpr LinkIndex kBridge = 1, kPort = 2, kVlan10 = 3, kVlan20 = 4, kRouted = 5, kOther = 6;

Zemit::EthAddr mac(uint8_t number) {
  return Zemit::EthAddr({2, 0, 0, 0, 0, number});
}
Address host(uint32_t number) {
  return Zemit::IpAddr(0x0A000000 + number);
}

class ProbingTest : public testing::Test {
 protected:
  ProbingTest() {
    link(kBridge, "br0");
    link(kVlan10, "br0.10", kBridge, 10);
    link(kVlan20, "br0.20", kBridge, 20);
    link(kPort, "swp1");
    link(kRouted, "swp2");
    link(kOther, "swp3");
    options.isSelected = [](LinkIndex link) { return link != kOther; };
  }

  void link(LinkIndex index, const char* name, LinkIndex lower = 0, uint16_t vlan = 0) {
    Link link = linkOf(index, name);
    link.lower = lower;
    link.vlan = vlan;
    add(link);
  }
  void add(Object object, bool present = true) {
    mirror.apply({.object = std::move(object), .present = present});
  }
  void neighbor(LinkIndex link, uint32_t number, int state = NUD_REACHABLE) {
    Neighbor neighbor;
    neighbor.link = link;
    neighbor.addr = host(number);
    neighbor.mac = mac(static_cast<uint8_t>(number));
    neighbor.state = static_cast<uint16_t>(state);
    add(neighbor, state != NUD_NONE);
    if (probing) probing->onNeighbor(link, host(number));
  }
  static FdbEntry fdbEntry(uint8_t number, uint16_t vlan = 0) {
    return {.port = kPort, .bridge = kBridge, .mac = mac(number), .vlan = vlan};
  }
  Probing& start() {
    return probing.emplace(
        mirror, [this] { return now; }, options);
  }
  /// The numbers of the hosts that are probed now.
  std::multiset<uint32_t> probed() {
    std::multiset<uint32_t> hosts;
    for (const auto& probe : probing->due()) {
      hosts.insert(std::get<Zemit::IpAddr>(probe.addr).value() - 0x0A000000);
    }
    return hosts;
  }

  using Hosts = std::multiset<uint32_t>;
  double now = 100;
  Mirror mirror;
  ProbingOptions options;
  std::optional<Probing> probing;
};

TEST_F(ProbingTest, ProbesTheHostsOfAMacThatLeftTheFdb) {
  neighbor(kBridge, 1);
  neighbor(kVlan10, 1 + 256);
  neighbor(kVlan20, 1 + 512);
  neighbor(kBridge, 2);
  start();
  EXPECT_EQ(probing->nextDeadline(), std::nullopt);
  probing->onFdbEntryGone(fdbEntry(1, 10));
  probing->onFdbEntryGone(fdbEntry(1, 10));
  ASSERT_TRUE(probing->nextDeadline());
  EXPECT_LE(*probing->nextDeadline(), now);
  EXPECT_EQ(probed(), (Hosts{1, 1 + 256}));
  EXPECT_EQ(probed(), Hosts{});
  EXPECT_EQ(probing->nextDeadline(), std::nullopt);
  // An FDB entry without VLAN also concerns the VLAN interfaces on the bridge.
  probing->onFdbEntryGone(fdbEntry(1));
  EXPECT_EQ(probed(), (Hosts{1, 1 + 256, 1 + 512}));
  auto own = fdbEntry(2);
  own.isPermanent = true;
  probing->onFdbEntryGone(own);
  EXPECT_EQ(probed(), Hosts{});
}

TEST_F(ProbingTest, ProbesTheHostsOfAPortWithoutCarrier) {
  neighbor(kBridge, 1);
  neighbor(kBridge, 2);
  neighbor(kRouted, 3);
  neighbor(kOther, 4);
  add(fdbEntry(1));
  start();
  probing->onCarrierLost(kPort);
  EXPECT_EQ(probed(), Hosts{1});
  probing->onCarrierLost(kRouted);
  probing->onCarrierLost(kOther);
  EXPECT_EQ(probed(), Hosts{3});
}

TEST_F(ProbingTest, DoesNotProbeExcludedEntries) {
  for (const int state : {NUD_PERMANENT, NUD_NOARP, NUD_FAILED, NUD_INCOMPLETE, NUD_PROBE}) {
    neighbor(kRouted, 1000U + static_cast<uint32_t>(state), state);
  }
  Neighbor learned;
  learned.link = kRouted;
  learned.addr = host(2);
  learned.state = NUD_REACHABLE;
  learned.isLearnedByControlPlane = true;
  add(learned);
  start();
  probing->onCarrierLost(kRouted);
  EXPECT_EQ(probed(), Hosts{});
  options.onDeparture = false;
  neighbor(kRouted, 3);
  start();
  probing->onCarrierLost(kRouted);
  probing->onFdbEntryGone(fdbEntry(3));
  EXPECT_EQ(probing->nextDeadline(), std::nullopt);
}

TEST_F(ProbingTest, RefreshesOnlyWhileTheKernelDropsEntries) {
  std::set<int> collected;
  int asked = 0;
  options.keepalive = true;
  options.collects = [&](int family) {
    ++asked;
    return collected.contains(family);
  };
  start();
  neighbor(kRouted, 1, NUD_STALE);
  Neighbor neighbor6;
  neighbor6.link = kRouted;
  neighbor6.addr = Zemit::Ip6Addr(0x20010DB800000000, 9);
  neighbor6.state = NUD_STALE;
  add(neighbor6);
  probing->onNeighbor(kRouted, neighbor6.addr);
  EXPECT_TRUE(probing->due().empty());
  // While the kernel has room for all entries, it is asked rarely.
  ASSERT_TRUE(probing->nextDeadline());
  EXPECT_GE(*probing->nextDeadline(), now + 1);
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(probing->due().empty());
  EXPECT_EQ(asked, 2);
  collected = {6};
  now = *probing->nextDeadline();
  const auto probes = probing->due();
  ASSERT_EQ(probes.size(), 1u);
  EXPECT_EQ(probes[0].addr, neighbor6.addr);
  collected = {4};
  now = *probing->nextDeadline();
  EXPECT_EQ(probed(), Hosts{1});
}

TEST_F(ProbingTest, KeepsItsRate) {
  for (uint32_t i = 1; i <= 50; ++i) neighbor(kRouted, i);
  options.rate = 20;
  start();
  probing->onCarrierLost(kRouted);
  EXPECT_EQ(probed().size(), 20u);
  size_t count = 20;
  const double begin = now;
  while (probing->nextDeadline()) {
    ASSERT_GT(*probing->nextDeadline(), now);
    now = *probing->nextDeadline() + 1e-6;
    count += probed().size();
  }
  EXPECT_EQ(count, 50u);
  EXPECT_NEAR(now - begin, 1.5, 0.01);
}

TEST_F(ProbingTest, RefreshesStaleEntriesInTime) {
  options.keepalive = true;
  start();
  neighbor(kRouted, 1);
  EXPECT_EQ(probing->nextDeadline(), std::nullopt);
  // The age of the entry is unknown, so the host is probed at once, and not again while the answer
  // is fresh.
  neighbor(kRouted, 1, NUD_STALE);
  neighbor(kRouted, 2, NUD_STALE);
  neighbor(kRouted, 2, NUD_DELAY);
  neighbor(kOther, 3, NUD_STALE);
  EXPECT_EQ(probed(), Hosts{1});
  neighbor(kRouted, 1, NUD_REACHABLE);
  now += 15;
  for (int i = 0; i < 3; ++i) neighbor(kRouted, 1, NUD_STALE);
  EXPECT_EQ(probed(), Hosts{});
  EXPECT_EQ(probing->nextDeadline(), now + 15);
  now += 15;
  EXPECT_EQ(probed(), Hosts{1});
  // A removed entry is forgotten.
  now += 40;
  neighbor(kRouted, 1, NUD_NONE);
  EXPECT_EQ(probed(), Hosts{});
  EXPECT_EQ(probing->nextDeadline(), std::nullopt);
  // When keepalive is enabled later, it starts with the present entries.
  options.keepalive = false;
  start();
  neighbor(kRouted, 4, NUD_STALE);
  EXPECT_EQ(probed(), Hosts{});
  options.keepalive = true;
  probing->setOptions(options);
  EXPECT_EQ(probed(), Hosts{4});
}

}  // namespace
}  // namespace Linux
