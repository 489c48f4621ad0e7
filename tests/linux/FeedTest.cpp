// Tests of the feed, which turns the kernel's objects into operations on a switch.
#include "linux/Feed.h"

#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "replay/Recording.h"
#include "tests/linux/Samples.h"

namespace Linux {
namespace {

using Daemon::Operation;

Link link(LinkIndex index, const std::string& name, LinkIndex master = 0) {
  Link link = linkOf(index, name);
  link.master = master;
  return link;
}
Link vrfDevice(LinkIndex index, const std::string& name, TableId table) {
  Link device = link(index, name);
  device.kind = "vrf";
  device.vrfTable = table;
  device.isNoArp = true;
  return device;
}
InterfaceAddress address(LinkIndex link, const std::string& text, uint32_t len) {
  InterfaceAddress address;
  address.link = link;
  address.addr = addrOf(text);
  address.len = len;
  return address;
}

/// A mirror and its feed. The operations are also applied to a switch, so that a wrong order
/// changes the tables.
class FeedTest : public testing::Test {
 protected:
  FeedTest() {
    feed.setWarningSink([this](const FeedWarning& warning) { warnings.push_back(warning.text); });
  }

  void put(Object object) { mirror.apply({.object = std::move(object)}); }
  void drop(Object object) { mirror.apply({.object = std::move(object), .present = false}); }

  /// Flushes the feed. Returns the operations as replay lines without "op" and the outer braces.
  std::string flush() {
    std::string text;
    feed.flush([&](const Operation& operation) {
      Daemon::apply(sw, operation);
      text += Replay::linesOf(operation);
    });
    return shortened(text);
  }
  static std::string shortened(const std::string& lines) {
    std::istringstream in(lines);
    std::string text;
    for (std::string line; std::getline(in, line);) {
      text += line.substr(7, line.size() - 8);  // {"op":"...", ...}
      text += '\n';
    }
    std::erase(text, '"');
    return text;
  }
  /// The host routes of the neighbours in a VRF.
  template <class F = Daemon::Ipv4>
  std::string hosts(const std::string& vrf = "default") {
    std::string text;
    for (auto& prefix : hostPrefixes<F>(vrf)) text += (text.empty() ? "" : " ") + prefix;
    return text;
  }
  template <class F>
  std::vector<std::string> hostPrefixes(const std::string& vrf) {
    std::vector<std::string> found;
    sw.vrf(vrf).routing<F>().routeStatus->forEachRoute([&](const typename F::Route& r) {
      if (Routing::routeTypeName(r.routeType) == "attached_") {
        found.push_back(Zemit::toString(r.key.addr()));
      }
    });
    std::ranges::sort(found);
    return found;
  }

  /// Adds a port with a subnet and its route, and initializes the switch.
  void bringUp() {
    put(link(1, "swp1"));
    put(address(1, "10.0.0.1", 24));
    put(route("10.0.0.0/24", {hop(1)}, RTPROT_KERNEL));
    feed.setComplete();
    flush();
  }

  Mirror mirror;
  Daemon::Switch sw{{.settles = true}};
  FeedOptions options;
  std::vector<std::string> warnings;
  Feed feed{mirror, options};
};

TEST_F(FeedTest, TheFirstFlushHasAllOperationsInOrder) {
  put(neighbor(2, "2001:db8::5"));
  put(route("2001:db8::/64", {hop(2)}, RTPROT_KERNEL, 10));
  put(route("10.9.0.0/16", {hop(1, "10.0.0.9")}));
  put(route("10.0.0.0/24", {hop(1)}, RTPROT_KERNEL));
  put(neighbor(1, "10.0.0.6"));
  put(neighbor(1, "10.0.0.5"));
  put(address(1, "10.0.0.1", 24));
  put(link(2, "swp2", 3));
  put(vrfDevice(3, "blue", 10));
  put(link(1, "swp1"));
  feed.setComplete();
  EXPECT_EQ(flush(),
            "vrf,name:blue\n"
            "intf,name:swp1\n"
            "intf,vrf:blue,name:swp2\n"
            "intf,vrf:blue,name:blue\n"
            "addr,intf:swp1,addr:10.0.0.1/24\n"
            "fec,id:1,family:4,vias:[{intf:swp1}]\n"
            "fec,id:2,family:4,vias:[{intf:swp1,hop:10.0.0.9}]\n"
            "fec,id:3,family:6,vias:[{intf:swp2}]\n"
            "route,prefix:10.0.0.0/24,type:connected_,fec:1\n"
            "route,prefix:10.9.0.0/16,type:staticConfig_,fec:2\n"
            "route,vrf:blue,prefix:2001:db8::/64,type:connected_,fec:3\n"
            "neighborTable,intf:swp1\n"
            "neighborTable,intf:swp2\n"
            "neighbor,intf:swp1,ip:10.0.0.5,mac:02:00:00:00:00:05\n"
            "neighbor,intf:swp1,ip:10.0.0.6,mac:02:00:00:00:00:05\n"
            "neighbor,intf:swp2,ip:2001:db8::5,mac:02:00:00:00:00:05\n"
            "initialized,value:true\n"
            "ribReady,value:true\n"
            "startRibReadyVerification,value:true\n"
            "initialized,vrf:blue,value:true\n"
            "ribReady,vrf:blue,value:true\n"
            "startRibReadyVerification,vrf:blue,value:true\n");
  EXPECT_EQ(hosts(), "10.0.0.5 10.0.0.6");
  EXPECT_EQ(hosts<Daemon::Ipv6>("blue"), "2001:db8::5");
  EXPECT_EQ(flush(), "");
}

TEST_F(FeedTest, NeighborsCountWhileTheyAreUsable) {
  bringUp();
  for (const int state : {NUD_REACHABLE, NUD_STALE, NUD_DELAY, NUD_PROBE, NUD_PERMANENT}) {
    put(neighbor(1, "10.0.0.5", state));
    flush();
    EXPECT_EQ(hosts(), "10.0.0.5") << state;
  }
  Neighbor moved = neighbor(1, "10.0.0.5");
  moved.mac = *Zemit::EthAddr::parse("02:00:00:00:00:06");
  put(moved);
  EXPECT_EQ(flush(), "neighbor,intf:swp1,ip:10.0.0.5,mac:02:00:00:00:00:06\n");
  for (const int state : {NUD_INCOMPLETE, NUD_FAILED, NUD_NOARP, NUD_NONE}) {
    put(neighbor(1, "10.0.0.5"));
    flush();
    put(neighbor(1, "10.0.0.5", state));
    EXPECT_EQ(flush(), "neighbor,intf:swp1,ip:10.0.0.5,present:false\n") << state;
  }
  Neighbor learned = neighbor(1, "10.0.0.7");
  learned.isLearnedByControlPlane = true;
  put(learned);
  for (const char* nobody : {"fe80::1", "169.254.0.1", "224.0.0.5", "ff02::1", "127.0.0.1"}) {
    put(neighbor(1, nobody, NUD_PERMANENT));
  }
  EXPECT_EQ(flush(), "");
}

TEST_F(FeedTest, AChangeUndoneBeforeTheFlushGivesNoOperation) {
  bringUp();
  put(neighbor(1, "10.0.0.5"));
  drop(neighbor(1, "10.0.0.5"));
  put(route("10.1.0.0/24", {hop(1, "10.0.0.9")}));
  drop(route("10.1.0.0/24", {hop(1, "10.0.0.9")}));
  EXPECT_EQ(flush(), "");
}

TEST_F(FeedTest, AnInterfaceKeepsItsNeighborsThroughEveryMove) {
  put(vrfDevice(8, "blue", 10));
  put(vrfDevice(9, "red", 20));
  bringUp();
  put(neighbor(1, "10.0.0.5"));
  flush();
  EXPECT_EQ(feed.vrfOf(1), "default");

  // The interface joins a VRF; the kernel moves its routes.
  drop(route("10.0.0.0/24", {hop(1)}, RTPROT_KERNEL));
  put(link(1, "swp1", 8));
  put(route("10.0.0.0/24", {hop(1)}, RTPROT_KERNEL, 10));
  flush();
  EXPECT_EQ(hosts() + "|" + hosts("blue"), "|10.0.0.5");
  EXPECT_EQ(feed.vrfOf(1), "blue");

  // The interface and the VRF device are renamed.
  put(link(1, "left", 8));
  drop(vrfDevice(8, "blue", 10));
  put(vrfDevice(8, "green", 10));
  flush();
  EXPECT_EQ(hosts("blue") + "|" + hosts("green"), "|10.0.0.5");
  EXPECT_EQ(feed.linkOf(Zemit::IntfId::of(Kiv::String8("left"))), 1u);
  EXPECT_EQ(feed.linkOf(Zemit::IntfId::of(Kiv::String8("swp1"))), 0u);

  // The VRFs exchange their tables.
  put(vrfDevice(8, "green", 20));
  put(vrfDevice(9, "red", 10));
  put(link(1, "left", 9));
  flush();
  EXPECT_EQ(hosts("green") + "|" + hosts("red"), "|10.0.0.5");

  // The interface becomes a port of a bridge and leaves it again.
  Link bridge = link(7, "br0");
  bridge.kind = "bridge";
  put(bridge);
  put(link(1, "left", 7));
  flush();
  EXPECT_EQ(hosts("red"), "");
  EXPECT_EQ(feed.vrfOf(1), "");
  put(link(1, "left", 9));
  flush();
  EXPECT_EQ(hosts("red"), "10.0.0.5");

  // The interface is deleted and created again with the same name and another index.
  drop(link(1, "left"));
  EXPECT_EQ(flush(),
            "neighborTable,intf:left,present:false\n"
            "intf,vrf:red,name:left,present:false\n"
            "route,vrf:red,prefix:10.0.0.0/24,present:false\n"
            "fec,id:1,family:4,present:false\n");
  put(link(5, "left"));
  put(address(5, "10.0.0.1", 24));
  put(route("10.0.0.0/24", {hop(5)}, RTPROT_KERNEL));
  put(neighbor(5, "10.0.0.5"));
  flush();
  EXPECT_EQ(hosts() + "|" + hosts("red"), "10.0.0.5|");
}

TEST_F(FeedTest, InterfacesMayExchangeTheirNames) {
  bringUp();
  put(link(2, "swp2"));
  put(address(2, "10.2.0.1", 24));
  put(route("10.2.0.0/24", {hop(2)}, RTPROT_KERNEL));
  put(neighbor(1, "10.0.0.5"));
  put(neighbor(2, "10.2.0.5"));
  flush();
  put(link(1, "other"));
  put(link(2, "swp1"));
  put(link(1, "swp2"));
  flush();
  EXPECT_EQ(hosts(), "10.0.0.5 10.2.0.5");
  EXPECT_EQ(feed.linkOf(Zemit::IntfId::of(Kiv::String8("swp1"))), 2u);
  // Each route has a new FEC, and no FEC changed its vias.
  std::string told;
  feed.snapshot([&](const Operation& operation) { told += Replay::linesOf(operation); });
  EXPECT_EQ(shortened(told),
            "intf,name:swp2\n"
            "intf,name:swp1\n"
            "addr,intf:swp2,addr:10.0.0.1/24\n"
            "addr,intf:swp1,addr:10.2.0.1/24\n"
            "fec,id:1,family:4,vias:[{intf:swp1}]\n"
            "fec,id:2,family:4,vias:[{intf:swp2}]\n"
            "route,prefix:10.0.0.0/24,type:connected_,fec:2\n"
            "route,prefix:10.2.0.0/24,type:connected_,fec:1\n"
            "neighborTable,intf:swp2\n"
            "neighborTable,intf:swp1\n"
            "neighbor,intf:swp2,ip:10.0.0.5,mac:02:00:00:00:00:05\n"
            "neighbor,intf:swp1,ip:10.2.0.5,mac:02:00:00:00:00:05\n"
            "initialized,value:true\n"
            "ribReady,value:true\n"
            "startRibReadyVerification,value:true\n");
}

TEST_F(FeedTest, OneAddressIsPrimaryAndSomeAreIgnored) {
  bringUp();
  put(address(1, "10.2.0.1", 24));
  put(address(1, "10.1.0.1", 24));
  InterfaceAddress tentative = address(1, "2001:db8::1", 64);
  tentative.isTentative = true;
  put(tentative);
  InterfaceAddress duplicate = address(1, "2001:db8::2", 64);
  duplicate.isDuplicate = true;
  put(duplicate);
  put(address(1, "127.0.0.5", 8));
  EXPECT_EQ(flush(),
            "addr,intf:swp1,addr:10.1.0.1/24,secondary:true\n"
            "addr,intf:swp1,addr:10.2.0.1/24,secondary:true\n");
  EXPECT_EQ(warnings,
            std::vector<std::string>{"swp1: an address left out: 2001:db8::2 is dadfailed"});
  put(address(1, "2001:db8::1", 64));
  drop(address(1, "10.0.0.1", 24));
  EXPECT_EQ(flush(),
            "addr,intf:swp1,addr:10.0.0.1/24,present:false\n"
            "addr,intf:swp1,addr:10.1.0.1/24,secondary:true,present:false\n"
            "addr,intf:swp1,addr:10.1.0.1/24\n"
            "addr,intf:swp1,addr:2001:db8::1/64\n");
  Link down = link(1, "swp1");
  down.isUp = false;
  put(down);
  flush();
  EXPECT_EQ(sw.vrf("default").routing<Daemon::Ipv4>().root->receiveAddrToIntfName(
                *Zemit::IpAddr::parse("10.1.0.1")),
            Kiv::String8());
}

TEST_F(FeedTest, TheKernelsBestRouteIsFedWithItsUsableHops) {
  bringUp();
  put(link(2, "swp2"));
  flush();
  const auto told = [&](Route use) {
    put(use);
    const auto text = flush();
    drop(use);
    flush();
    return text;
  };
  NextHop tunnelled = hop(1), dead = hop(2), linkDown = hop(2);
  tunnelled.isTunnelled = dead.isDead = linkDown.isLinkDown = true;
  EXPECT_EQ(told(route("10.1.0.0/24", {tunnelled})),
            "route,prefix:10.1.0.0/24,type:staticConfig_\n");
  EXPECT_EQ(told(route("10.1.0.0/24", {linkDown}, RTPROT_KERNEL)),
            "route,prefix:10.1.0.0/24,type:connected_\n");
  EXPECT_EQ(told(route("10.1.0.0/24", {hop(1), dead})),
            "route,prefix:10.1.0.0/24,type:staticConfig_,fec:1\n");
  EXPECT_EQ(told(route("10.1.0.0/24", {hop(1, "fe80::1"), hop(2, "fe80::2")}, RTPROT_BGP)),
            "fec,id:2,family:4,vias:[{intf:swp1,hop:ipv6},{intf:swp2,hop:ipv6}]\n"
            "route,prefix:10.1.0.0/24,type:ebgp_,fec:2\n");
  Route blackhole = route("10.1.0.0/24", {});
  blackhole.type = RTN_BLACKHOLE;
  EXPECT_EQ(told(blackhole), "route,prefix:10.1.0.0/24,type:staticConfig_\n");
  EXPECT_EQ(told(route("10.1.0.0/24", {hop(1)}, RTPROT_STATIC, 77)), "");
  for (const char* nobodys : {"fe80::/64", "ff00::/8", "224.0.0.0/4", "127.0.0.0/8"}) {
    EXPECT_EQ(told(route(nobodys, {hop(1)})), "") << nobodys;
  }
  // Of several routes, the one with the lowest metric counts.
  Route worse = route("10.1.0.0/24", {hop(2)}), better = route("10.1.0.0/24", {hop(1)});
  worse.metric = 200;
  better.metric = 100;
  put(worse);
  flush();
  put(better);
  EXPECT_EQ(flush(),
            "route,prefix:10.1.0.0/24,type:staticConfig_,fec:1,metric:100\n"
            "fec,id:2,family:4,present:false\n");
}

TEST_F(FeedTest, AnUnusedFecIdIsReused) {
  bringUp();
  put(route("10.1.0.0/24", {hop(1, "10.0.0.8")}));
  put(route("10.2.0.0/24", {hop(1, "10.0.0.8")}));
  put(route("10.3.0.0/24", {hop(1, "10.0.0.9")}));
  flush();
  drop(route("10.1.0.0/24", {hop(1, "10.0.0.8")}));
  EXPECT_EQ(flush(), "route,prefix:10.1.0.0/24,present:false\n");
  drop(route("10.2.0.0/24", {hop(1, "10.0.0.8")}));
  put(route("10.4.0.0/24", {hop(1, "10.0.0.7")}));
  EXPECT_EQ(flush(),
            "fec,id:4,family:4,vias:[{intf:swp1,hop:10.0.0.7}]\n"
            "route,prefix:10.2.0.0/24,present:false\n"
            "route,prefix:10.4.0.0/24,type:staticConfig_,fec:4\n"
            "fec,id:2,family:4,present:false\n");
  put(route("10.5.0.0/24", {hop(1, "10.0.0.6")}));
  EXPECT_EQ(flush(),
            "fec,id:2,family:4,vias:[{intf:swp1,hop:10.0.0.6}]\n"
            "route,prefix:10.5.0.0/24,type:staticConfig_,fec:2\n");
}

TEST_F(FeedTest, HostRoutesOfIgnoredProtocolsAndOwnAddressesAreNotFed) {
  options.ignoredHostRouteProtocols = {RTPROT_BGP};
  feed.setOptions(options);
  bringUp();
  put(route("10.0.0.5/32", {hop(1, "10.0.0.9")}, RTPROT_BGP));
  EXPECT_EQ(flush(), "");
  put(route("10.1.0.0/24", {hop(1, "10.0.0.9")}, RTPROT_BGP));
  put(route("10.0.0.6/32", {hop(1, "10.0.0.9")}, RTPROT_STATIC));
  EXPECT_EQ(flush(),
            "fec,id:2,family:4,vias:[{intf:swp1,hop:10.0.0.9}]\n"
            "route,prefix:10.1.0.0/24,type:ebgp_,fec:2\n"
            "route,prefix:10.0.0.6/32,type:staticConfig_,fec:2\n");
  // The kernel's route to an own address does not count, whether the route or the address comes
  // first.
  put(route("2001:db8::1/128", {hop(1)}, RTPROT_KERNEL));
  put(address(1, "2001:db8::1", 128));
  EXPECT_EQ(flush(), "addr,intf:swp1,addr:2001:db8::1/128\n");
  drop(address(1, "2001:db8::1", 128));
  EXPECT_EQ(flush(),
            "addr,intf:swp1,addr:2001:db8::1/128,present:false\n"
            "fec,id:3,family:6,vias:[{intf:swp1}]\n"
            "route,prefix:2001:db8::1/128,type:connected_,fec:3\n");
}

TEST_F(FeedTest, AnObjectThatCannotBeFedIsReportedOnce) {
  bringUp();
  put(link(3, "b\xFF\x01"));
  Route local = route("10.6.0.0/24", {hop(1)}, RTPROT_BOOT, RT_TABLE_LOCAL);
  local.type = RTN_LOCAL;
  put(local);
  put(route("10.10.0.0/24", {hop(1)}, RTPROT_BOOT, RT_TABLE_LOCAL));
  Route typeOfService = route("10.7.0.0/24", {hop(1)});
  typeOfService.tos = 16;
  put(typeOfService);
  Route weighted = route("10.8.0.0/24", {hop(1, "10.0.0.8"), hop(1, "10.0.0.9")});
  weighted.hops[0].weight = 3;
  put(weighted);
  Route nameless = route("10.9.0.0/24", {});
  nameless.nexthop = 5;
  put(nameless);
  flush();
  put(address(1, "10.5.0.1", 24));
  options.interfaces = {"swp*"};
  feed.setOptions(options);
  flush();
  std::ranges::sort(warnings);
  EXPECT_EQ(warnings, (std::vector<std::string>{
                          "10.10.0.0/24 left out: it stands in the table local",
                          "10.6.0.0/24 left out: the machine itself answers for it (a local route)",
                          "10.7.0.0/24 left out: it is for one type of service only",
                          "10.8.0.0/24: the weights of its next hops are left out",
                          "10.9.0.0/24 left out: there is no nexthop object 5",
                          "interface 3 left out: its name is not UTF-8"}));
}

TEST_F(FeedTest, NewOptionsGiveOnlyTheDifference) {
  put(link(2, "swp2"));
  bringUp();
  put(neighbor(1, "10.0.0.5"));
  put(neighbor(2, "10.0.0.6"));
  flush();
  options.interfaces = {"swp*", "!swp2"};
  feed.setOptions(options);
  EXPECT_EQ(flush(), "neighborTable,intf:swp2,present:false\n");
  options.interfaces = {"!swp1"};
  feed.setOptions(options);
  EXPECT_EQ(flush(),
            "neighborTable,intf:swp1,present:false\n"
            "neighborTable,intf:swp2\n"
            "neighbor,intf:swp2,ip:10.0.0.6,mac:02:00:00:00:00:05\n");
  options.interfaces.clear();
  options.covers = {{.prefix = prefixOf("10.0.0.0/24"), .interfaces = {"swp*"}},
                    {.vrf = "none", .prefix = prefixOf("10.0.0.0/24"), .interfaces = {"swp*"}}};
  options.virtualAddresses = {{.addr = addrOf("10.0.0.9"), .len = 24}, {.addr = addrOf("fd00::9")}};
  feed.setOptions(options);
  EXPECT_EQ(flush(),
            "fec,id:2,family:4,vias:[{intf:swp1},{intf:swp2}]\n"
            "route,prefix:10.0.0.0/24,type:connected_,fec:2\n"
            "fec,id:1,family:4,present:false\n"
            "neighborTable,intf:swp1\n"
            "neighbor,intf:swp1,ip:10.0.0.5,mac:02:00:00:00:00:05\n"
            "virtualIp,addr:10.0.0.9/24\n"
            "virtualIp,addr:fd00::9\n");
  EXPECT_EQ(hosts(), "10.0.0.5 10.0.0.6");
  Link down = link(2, "swp2");
  down.hasCarrier = false;
  put(down);
  EXPECT_EQ(flush(),
            "fec,id:1,family:4,vias:[{intf:swp1}]\n"
            "route,prefix:10.0.0.0/24,type:connected_,fec:1\n"
            "fec,id:2,family:4,present:false\n");
  EXPECT_EQ(hosts(), "10.0.0.5");
  feed.setOptions({});
  EXPECT_EQ(flush(),
            "virtualIp,addr:10.0.0.9/24,present:false\n"
            "virtualIp,addr:fd00::9,present:false\n");
}

TEST_F(FeedTest, AddressesOfVirtualRoutersAreVirtual) {
  bringUp();
  Link router = link(4, "vrrp4-1-7");
  router.kind = "macvlan";
  router.lower = 1;
  router.mac = *Zemit::EthAddr::parse("00:00:5e:00:01:07");
  put(router);
  put(address(4, "10.0.0.254", 24));
  put(address(4, "fe80::1", 64));
  put(neighbor(1, "10.0.0.254"));
  EXPECT_EQ(flush(),
            "intf,name:vrrp4-1-7\n"
            "addr,intf:vrrp4-1-7,addr:10.0.0.254/24\n"
            "addr,intf:vrrp4-1-7,addr:fe80::1/64\n"
            "neighborTable,intf:vrrp4-1-7\n"
            "neighbor,intf:swp1,ip:10.0.0.254,mac:02:00:00:00:00:05\n"
            "virtualIp,addr:10.0.0.254/24\n");
  EXPECT_EQ(hosts(), "");
  router.mac = *Zemit::EthAddr::parse("02:00:5e:00:01:07");
  put(router);
  EXPECT_EQ(flush(), "virtualIp,addr:10.0.0.254/24,present:false\n");
}

TEST_F(FeedTest, ReadinessBeforeTheNeighborsGivesTheSameResult) {
  options.readyBeforeNeighbors = true;
  options.virtualAddresses = {{.addr = addrOf("10.0.0.6")}};
  feed.setOptions(options);
  put(neighbor(1, "10.0.0.5"));
  put(neighbor(1, "10.0.0.6"));
  put(neighbor(1, "10.0.9.5"));
  bringUp();
  EXPECT_EQ(hosts(), "10.0.0.5");
}

TEST_F(FeedTest, ScatteredNeighborsFollowTheLastBitsOfTheirAddresses) {
  options.scattersNeighbors = true;
  feed.setOptions(options);
  for (const char* addr : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"}) put(neighbor(1, addr));
  put(link(1, "swp1"));
  feed.setComplete();
  const std::string text = flush();
  std::string order;
  for (size_t at = 0; (at = text.find("ip:10.0.0.", at)) != std::string::npos; at += 10) {
    order += text[at + 10];
  }
  EXPECT_EQ(order, "4213");
}

TEST_F(FeedTest, NamesWithAMeaningForASwitchAreReplaced) {
  put(vrfDevice(2, "default", 10));
  put(link(1, "Management1"));
  put(route("10.0.0.0/24", {hop(1)}, RTPROT_KERNEL));
  put(neighbor(1, "10.0.0.5"));
  feed.setComplete();
  flush();
  EXPECT_EQ(hosts(), "10.0.0.5");
  EXPECT_EQ(feed.linkOf(Zemit::IntfId::of(Kiv::String8("linux:Management1"))), 1u);
  EXPECT_EQ(feed.vrfOf(2), "linux:default");
}

}  // namespace
}  // namespace Linux
