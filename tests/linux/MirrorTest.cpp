// Tests of the mirror in situations that a namespace of this kernel cannot produce: VRFs, old
// kernels, losses.
#include "linux/Mirror.h"

#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/linux/MirrorText.h"
#include "tests/linux/Samples.h"

namespace Linux {
namespace {

Link link(LinkIndex index, const char* name, bool isUp = true) {
  Link link = linkOf(index, name);
  link.isUp = link.hasCarrier = isUp;
  return link;
}

InterfaceAddress address(LinkIndex link, const char* addr) {
  return {.link = link, .addr = addrOf(addr), .len = 24, .peer = {}};
}

/// Records its notifications.
class Recorder final : public Mirror::Observer {
 public:
  explicit Recorder(const Mirror& mirror) : mirror_(mirror) {}

  void onLink(LinkIndex index) override {
    const Link* found = mirror_.link(index);
    add("link " + std::to_string(index) + (found == nullptr ? " gone" : " " + found->name));
  }
  void onAddress(LinkIndex link, const Address& addr) override {
    add("address " + toString(addr) + (mirror_.address(link, addr) == nullptr ? " gone" : ""));
  }
  void onNeighbor(LinkIndex link, const Address& addr) override {
    add("neighbor " + toString(addr) + (mirror_.neighbor(link, addr) == nullptr ? " gone" : ""));
  }
  void onFdbEntry(const FdbEntry& entry, bool present) override {
    add("fdb " + std::to_string(entry.port) + (present ? "" : " gone"));
  }
  void onRoute(TableId table, const Prefix& prefix) override {
    std::string text = "route " + toString(prefix);
    for (const Route& route : mirror_.routes(table, prefix)) {
      for (const NextHop& hop : route.hops) text += " [" + toString(hop) + "]";
    }
    add(text);
  }
  /// The notifications since the last call.
  std::vector<std::string> take() { return std::exchange(told_, {}); }

 private:
  void add(std::string text) { told_.push_back(std::move(text)); }

  const Mirror& mirror_;
  std::vector<std::string> told_;
};

class MirrorTest : public testing::Test {
 protected:
  MirrorTest() { mirror.setObserver(&recorder); }

  void add(Object object) { mirror.apply({.object = std::move(object)}); }
  void replace(Object object) { mirror.apply({.object = std::move(object), .replaces = true}); }
  void remove(Object object) { mirror.apply({.object = std::move(object), .present = false}); }
  void dump(const std::vector<Object>& objects) {
    mirror.beginDump();
    for (const Object& object : objects) add(object);
    mirror.endDump();
  }
  std::vector<std::string> told() { return recorder.take(); }
  std::string hopsOf(const char* prefix) {
    std::string text;
    for (const Route& route : mirror.routes(RT_TABLE_MAIN, prefixOf(prefix))) {
      for (const NextHop& hop : route.hops) text += "[" + toString(hop) + "]";
      text += ";";
    }
    return text;
  }

  Mirror mirror{205};
  Recorder recorder{mirror};
};

using Told = std::vector<std::string>;

TEST_F(MirrorTest, ADumpReplacesAllObjects) {
  const FdbEntry entry{.port = 2, .bridge = 9, .mac = {}};
  Link port = link(2, "e2");
  port.master = 9;
  add(port);
  add(link(3, "e3"));
  add(link(9, "br0"));
  add(entry);
  add(address(3, "10.0.3.1"));
  add(neighbor(3, "10.0.3.2"));
  add(neighbor(3, "10.0.3.3"));
  add(route("10.0.3.0/24", {hop(3)}));
  add(route("10.9.0.0/24", {hop(3, "10.0.3.2")}));
  told();
  dump({port, link(3, "e3"), link(9, "br0"), address(3, "10.0.3.1"), neighbor(3, "10.0.3.2"),
        neighbor(3, "10.0.3.4"), route("10.9.0.0/24", {hop(3, "10.0.3.4")})});
  Told changes = told();
  std::sort(changes.begin(), changes.end());
  EXPECT_EQ(changes, (Told{"fdb 2 gone", "neighbor 10.0.3.3 gone", "neighbor 10.0.3.4",
                           "route 10.0.3.0/24", "route 10.9.0.0/24 [link 3 via 10.0.3.4]",
                           "route 10.9.0.0/24 [link 3 via 10.0.3.4] [link 3 via 10.0.3.2]"}));
  dump({});
  EXPECT_EQ(textOf(mirror), (std::set<std::string>{}));
}

TEST_F(MirrorTest, AnIndexWithAnotherNameIsAnotherInterface) {
  add(link(2, "old"));
  add(link(2, "new"));
  EXPECT_EQ(told(), (Told{"link 2 old", "link 2 gone", "link 2 new"}));
  Link bridge = link(2, "new");
  bridge.kind = "bridge";
  add(bridge);
  bridge.isUp = false;
  add(bridge);
  EXPECT_EQ(told(), (Told{"link 2 gone", "link 2 new", "link 2 new"}));
}

TEST_F(MirrorTest, KeepsBothOfTwoEqualIpv6RoutesWithoutGateway) {
  add(route("2001:db8::/64", {hop(2)}));
  add(route("2001:db8::/64", {hop(3)}));
  // The new route replaces the first one.
  replace(route("2001:db8::/64", {hop(3)}));
  EXPECT_EQ(hopsOf("2001:db8::/64"), "[link 3];[link 3];");
  remove(route("2001:db8::/64", {hop(3)}));
  EXPECT_EQ(hopsOf("2001:db8::/64"), "[link 3];");
}

// Notifications that wait in the socket during a dump are older than the dump.
TEST_F(MirrorTest, OldNotificationsAfterADumpDoNotHarm) {
  // A route was added and then removed with its interface. The kernel announces only the removal of
  // the interface.
  dump({link(2, "e2", false), link(3, "e3")});
  add(route("10.1.0.0/24", {hop(2)}));
  add(link(2, "e2", false));
  EXPECT_EQ(hopsOf("10.1.0.0/24"), "");

  // A route was replaced twice. The dump had the last one.
  dump({link(3, "e3"), route("10.2.0.0/24", {hop(3, "10.0.0.3")})});
  add(route("10.2.0.0/24", {hop(3, "10.0.0.1")}));
  replace(route("10.2.0.0/24", {hop(3, "10.0.0.2")}));
  replace(route("10.2.0.0/24", {hop(3, "10.0.0.3")}));
  EXPECT_EQ(hopsOf("10.2.0.0/24"), "[link 3 via 10.0.0.3];");

  // A former route was deleted. Another route of the same prefix stayed.
  dump({link(3, "e3"), route("10.3.0.0/24", {hop(3, "10.0.0.3")})});
  remove(route("10.3.0.0/24", {hop(3, "10.0.0.1")}));
  EXPECT_EQ(hopsOf("10.3.0.0/24"), "[link 3 via 10.0.0.3];");

  // The last address was removed and added again with its routes.
  dump({link(3, "e3"), address(3, "10.0.3.1"), route("10.4.0.0/24", {hop(3)})});
  remove(address(3, "10.0.3.1"));
  EXPECT_EQ(hopsOf("10.4.0.0/24"), "");
  add(address(3, "10.0.3.1"));
  add(route("10.4.0.0/24", {hop(3)}));
  EXPECT_EQ(hopsOf("10.4.0.0/24"), "[link 3];");
}

// A dead next hop leaves its group, and then the dump lacks the whole group.
TEST_F(MirrorTest, DropsAGroupThatIsNotInTheDump) {
  const Nexthop one{.id = 1, .family = 4, .hop = hop(2), .group = {}};
  const Nexthop two{.id = 2, .family = 4, .hop = hop(3), .group = {}};
  Route user = route("10.1.0.0/24", {});
  user.nexthop = 10;
  dump({link(2, "e2"), link(3, "e3"), one, two,
        Nexthop{.id = 10, .hop = {}, .group = {{1, 1}, {2, 5}}}, user});
  EXPECT_EQ(hopsOf("10.1.0.0/24"), "[link 2][link 3 weight 5];");
  dump({link(2, "e2", false), link(3, "e3"), two});
  EXPECT_EQ(mirror.nexthop(1), nullptr);
  EXPECT_EQ(mirror.nexthop(10), nullptr);
  EXPECT_EQ(hopsOf("10.1.0.0/24"), "");
}

TEST_F(MirrorTest, ResolvesNexthopObjectsThatComeLater) {
  Route user = route("10.1.0.0/24", {hop(2, "10.0.2.1")});
  user.nexthop = 10;
  add(user);
  EXPECT_EQ(hopsOf("10.1.0.0/24"), "[link 2 via 10.0.2.1];") << "as told beside the id";
  told();
  add(Nexthop{.id = 10, .hop = {}, .group = {{1, 3}}});
  add(Nexthop{.id = 1, .family = 4, .hop = hop(2, "10.0.2.9"), .group = {}});
  EXPECT_EQ(told(),
            (Told{"route 10.1.0.0/24", "route 10.1.0.0/24 [link 2 via 10.0.2.9 weight 3]"}));
  user.hops.clear();
  user.type = RTN_BLACKHOLE;
  add(Nexthop{.id = 10, .isBlackhole = true, .hop = {}, .group = {}});
  EXPECT_EQ(hopsOf("10.1.0.0/24"), ";");
  remove(link(2, "e2"));
  EXPECT_EQ(mirror.nexthop(1), nullptr);
  EXPECT_NE(mirror.nexthop(10), nullptr);
  add(Nexthop{.id = 3, .family = 4, .hop = hop(3), .group = {}});
  add(Nexthop{.id = 11, .hop = {}, .group = {{3, 1}, {3, 1}}});
  remove(link(3, "e3"));
  EXPECT_EQ(mirror.nexthop(11), nullptr) << "a group with one member twice";
}

// Kernels before 4.11 announce each next hop of an IPv6 route in a message of its own.
TEST_F(MirrorTest, JoinsIpv6NextHopsOfSeparateMessages) {
  const char* const prefix = "2001:db8::/64";
  add(route(prefix, {hop(2, "fe80::1")}));
  add(route(prefix, {hop(3, "fe80::1")}));
  add(route(prefix, {hop(2)}));
  EXPECT_EQ(hopsOf(prefix), "[link 2 via fe80::1][link 3 via fe80::1];[link 2];")
      << "a connected one stands by itself";
  remove(route(prefix, {hop(2, "fe80::1")}));
  EXPECT_EQ(hopsOf(prefix), "[link 3 via fe80::1];[link 2];");

  dump({route(prefix, {hop(4, "fe80::1")}), route(prefix, {hop(5, "fe80::1")})});
  EXPECT_EQ(hopsOf(prefix), "[link 4 via fe80::1][link 5 via fe80::1];");
  dump({route(prefix, {hop(5, "fe80::1")})});
  EXPECT_EQ(hopsOf(prefix), "[link 5 via fe80::1];") << "a dump joins only what it names";
  // A message with all next hops replaces the single ones.
  add(route(prefix, {hop(7, "fe80::1"), hop(5, "fe80::1")}));
  EXPECT_EQ(hopsOf(prefix), "[link 5 via fe80::1][link 7 via fe80::1];");
  replace(route(prefix, {hop(8, "fe80::1")}));
  EXPECT_EQ(hopsOf(prefix), "[link 8 via fe80::1];");
}

TEST_F(MirrorTest, IgnoresOurOwnRoutesAndEntriesThatAreNoNeighbors) {
  Route own = route("10.1.0.0/24", {hop(2)});
  own.protocol = 205;
  add(route("10.1.0.0/24", {hop(3)}));
  add(own);
  EXPECT_EQ(hopsOf("10.1.0.0/24"), "[link 3];");
  remove(own);
  EXPECT_EQ(hopsOf("10.1.0.0/24"), "[link 3];");
  replace(own);
  EXPECT_EQ(hopsOf("10.1.0.0/24"), "") << "it stands in the place of the other";
  told();
  Neighbor proxy = neighbor(2, "10.0.0.2");
  add(proxy);
  proxy.isProxy = true;
  remove(proxy);
  EXPECT_NE(mirror.neighbor(2, addrOf("10.0.0.2")), nullptr);
  for (const int state : {NUD_NONE, NUD_INCOMPLETE, NUD_FAILED, NUD_NOARP})
    add(neighbor(2, "10.0.0.3", static_cast<uint16_t>(state)));
  EXPECT_EQ(told(), (Told{"neighbor 10.0.0.2"}));
  add(neighbor(2, "10.0.0.2", NUD_FAILED));
  EXPECT_EQ(told(), (Told{"neighbor 10.0.0.2 gone"}));
}

// When an address is removed, the kernel looks for the same address on the other interfaces of the
// VRF. If there is none, it drops the routes of the VRF's table with this preferred source.
TEST_F(MirrorTest, DropsRoutesWithTheirPreferredSourceWithinAVrf) {
  Link vrf = link(9, "red");
  vrf.kind = "vrf";
  vrf.vrfTable = 1001;
  Link port = link(2, "e2");
  port.master = 9;
  for (const Link& each : {vrf, port, link(3, "e3")}) add(each);
  for (const LinkIndex index : {2U, 3U}) {
    add(address(index, "10.0.0.1"));
    add(address(index, "10.0.0.9"));
  }
  Route main = route("10.1.0.0/24", {hop(3, "10.0.0.2")});
  main.preferredSource = addrOf("10.0.0.1");
  Route inVrf = main;
  inVrf.table = 1001;
  inVrf.hops = {hop(2, "10.0.0.2")};
  add(main);
  add(inVrf);
  remove(address(2, "10.0.0.1"));
  EXPECT_TRUE(mirror.routes(1001, inVrf.prefix).empty());
  EXPECT_EQ(hopsOf("10.1.0.0/24"), "[link 3 via 10.0.0.2];");
  add(address(2, "10.0.0.1"));
  remove(address(3, "10.0.0.1"));
  EXPECT_EQ(hopsOf("10.1.0.0/24"), "") << "that of the VRF is another";
}

// Adds and removes many routes through many next hops, and compares with a plain map.
TEST_F(MirrorTest, KeepsManyRoutesApart) {
  mirror.setObserver(nullptr);
  std::map<std::pair<uint32_t, uint32_t>, std::set<LinkIndex>> expected;  // key: number and metric
  uint64_t random = 1;
  const auto draw = [&](uint64_t below) {
    random = random * 6364136223846793005U + 1442695040888963407U;
    return static_cast<uint32_t>((random >> 33) % below);
  };
  for (int i = 0; i < 20000; ++i) {
    const uint32_t number = draw(300);
    Route r = route("0.0.0.0/0", {hop(draw(5) + 1)});
    r.prefix = Zemit::Prefix::host(Zemit::IpAddr(number));
    r.metric = draw(3);
    auto& links = expected[{number, r.metric}];
    if (draw(2000) == 0) {
      const LinkIndex down = draw(5) + 1;
      add(link(down, "e", false));
      for (auto& [key, all] : expected) all.erase(down);
    } else if (draw(2) == 0) {
      remove(r);
      links.erase(r.hops[0].link);
    } else {
      add(r);
      links.insert(r.hops[0].link);
    }
  }
  size_t found = 0;
  mirror.forEachRoute([&](TableId table, const Prefix& prefix) {
    uint32_t metric = 0;
    for (const Route& r : mirror.routes(table, prefix)) {
      EXPECT_LE(metric, r.metric);
      metric = r.metric;
      const uint32_t number = std::get<Zemit::Prefix>(prefix).addr().value();
      EXPECT_TRUE((expected[{number, metric}].contains(r.hops.at(0).link)));
      ++found;
    }
  });
  size_t sum = 0;
  for (const auto& [key, links] : expected) sum += links.size();
  EXPECT_EQ(found, sum);
  EXPECT_GT(sum, 500U);
}

}  // namespace
}  // namespace Linux
