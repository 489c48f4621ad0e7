#include "linux/Probing.h"

#include <gtest/gtest.h>
#include <linux/neighbour.h>

#include <algorithm>
#include <set>
#include <string>

namespace Linux {
namespace {

constexpr LinkIndex kBridge = 1, kPort = 2, kVlan10 = 3, kVlan20 = 4, kRouted = 5, kOther = 6;

Zemit::EthAddr mac(uint8_t number) { return Zemit::EthAddr({2, 0, 0, 0, 0, number}); }
Address host(uint32_t number) { return Zemit::IpAddr(0x0A000000 + number); }

class ProbingTest : public testing::Test {
 protected:
  ProbingTest() {
    add(Link{.index = kBridge, .name = "br0", .kind = "bridge"});
    add(Link{.index = kPort, .name = "swp1", .master = kBridge, .masterKind = "bridge"});
    add(Link{.index = kVlan10, .name = "br0.10", .kind = "vlan", .lower = kBridge, .vlan = 10});
    add(Link{.index = kVlan20, .name = "br0.20", .kind = "vlan", .lower = kBridge, .vlan = 20});
    add(Link{.index = kRouted, .name = "swp2"});
    add(Link{.index = kOther, .name = "swp3"});
    options.isSelected = [](LinkIndex link) { return link != kOther; };
  }

  void add(Object object) {
    mirror.apply({.object = std::move(object)});
  }
  void neighbor(LinkIndex link, uint32_t number, uint16_t state = NUD_REACHABLE) {
    add(Neighbor{.link = link, .addr = host(number), .mac = mac(static_cast<uint8_t>(number)),
                 .state = state});
    if (probing) probing->onNeighbor(link, host(number));
  }
  Probing& start() { return probing.emplace(mirror, [this] { return now; }, options); }
  /// The hosts that are probed now, by their numbers.
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

TEST_F(ProbingTest, AsksTheHostsBehindAMacThatTheBridgeForgot) {
  neighbor(kBridge, 1);
  neighbor(kVlan10, 1 + 256);
  neighbor(kVlan20, 1 + 512);
  neighbor(kBridge, 2);
  start();
  EXPECT_EQ(probing->nextDeadline(), std::nullopt);
  const FdbEntry gone{.port = kPort, .bridge = kBridge, .mac = mac(1), .vlan = 10};
  probing->onFdbEntryGone(gone);
  probing->onFdbEntryGone(gone);
  ASSERT_TRUE(probing->nextDeadline());
  EXPECT_LE(*probing->nextDeadline(), now);
  EXPECT_EQ(probed(), (Hosts{1, 1 + 256}));
  EXPECT_EQ(probed(), Hosts{});
  EXPECT_EQ(probing->nextDeadline(), std::nullopt);
  // A bridge without VLANs carries those of the interfaces on it.
  probing->onFdbEntryGone({.port = kPort, .bridge = kBridge, .mac = mac(1)});
  EXPECT_EQ(probed(), (Hosts{1, 1 + 256, 1 + 512}));
  probing->onFdbEntryGone({.port = kPort, .bridge = kBridge, .mac = mac(2), .isPermanent = true});
  EXPECT_EQ(probed(), Hosts{});
}

TEST_F(ProbingTest, AsksTheHostsBehindAPortWithoutCarrier) {
  neighbor(kBridge, 1);
  neighbor(kBridge, 2);
  neighbor(kRouted, 3);
  neighbor(kOther, 4);
  add(FdbEntry{.port = kPort, .bridge = kBridge, .mac = mac(1)});
  start();
  probing->onCarrierLost(kPort);
  EXPECT_EQ(probed(), Hosts{1});
  probing->onCarrierLost(kRouted);
  probing->onCarrierLost(kOther);
  EXPECT_EQ(probed(), Hosts{3});
}

TEST_F(ProbingTest, LeavesAloneWhatItMustNotProbe) {
  for (const uint16_t state : {NUD_PERMANENT, NUD_NOARP, NUD_FAILED, NUD_INCOMPLETE, NUD_PROBE}) {
    neighbor(kRouted, 1 + state, state);
  }
  add(Neighbor{.link = kRouted, .addr = host(2), .mac = mac(2), .state = NUD_REACHABLE,
               .isLearnedByControlPlane = true});
  start();
  probing->onCarrierLost(kRouted);
  EXPECT_EQ(probed(), Hosts{});
  options.onDeparture = false;
  neighbor(kRouted, 3);
  start();
  probing->onCarrierLost(kRouted);
  probing->onFdbEntryGone({.port = kPort, .bridge = kBridge, .mac = mac(3)});
  EXPECT_EQ(probing->nextDeadline(), std::nullopt);
}

TEST_F(ProbingTest, KeepsToItsRate) {
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
  // Its age is not known: it is asked at once, and not again while that is fresh.
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
  // One that went is forgotten.
  now += 40;
  mirror.apply({.object = Neighbor{.link = kRouted, .addr = host(1)}, .present = false});
  probing->onNeighbor(kRouted, host(1));
  EXPECT_EQ(probed(), Hosts{});
  EXPECT_EQ(probing->nextDeadline(), std::nullopt);
  // Switched on later, it begins with what is there.
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
