#include "linux/RequestSocket.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <array>
#include <cerrno>
#include <optional>
#include <string>

#include "linux/Netlink.h"
#include "tests/Files.h"
#include "tests/netns/Namespace.h"

namespace Linux {
namespace {

constexpr uint8_t kProtocol = 205;
constexpr TableId kTable = 1000;  // needs more than the eight bits of rtm_table
using Verb = RouteRequest::Verb;

RouteKey key4(uint32_t host) {
  return {kTable, Zemit::Prefix::host(Zemit::IpAddr(0x0A000000 + host))};
}
RouteKey key6(uint32_t host) {
  return {kTable, Zemit::Ip6Prefix::host(Zemit::Ip6Addr(0x20010DB800000000, host))};
}

std::string run(const std::string& command) {
  return runShell(command + " 2>&1").text;
}

class RequestSocketTest : public testing::Test {
 protected:
  void SetUp() override {
    SKIP_WITHOUT_NAMESPACES();
    space.emplace();
    space->ip(
        "link set lo up\n"
        "link add h0 type veth peer name p0\n"
        "link add h1 type veth peer name p1\n"
        "link set h0 up\nlink set h1 up\nlink set p0 up\nlink set p1 up\n"
        "addr add 10.0.0.1/8 dev h0\n"
        "addr add 2001:db8::1/64 dev h0 nodad\n");
    Namespace::awaitCarrier("h0");
    Namespace::awaitCarrier("h1");
    h0 = ::if_nametoindex("h0");
    h1 = ::if_nametoindex("h1");
    socket.emplace(kProtocol);
  }

  RouteValue direct(LinkIndex link, uint32_t metric = 0) const {
    return {.vias = {{.link = link, .gateway = {}}}, .metric = metric, .preferredSource = {}};
  }
  std::vector<int> perform(const std::vector<RouteRequest>& requests) {
    std::vector<int> results(requests.size(), -2);
    socket->perform(requests, results);
    return results;
  }

  std::optional<Namespace> space;
  std::optional<RequestSocket> socket;
  LinkIndex h0 = 0, h1 = 0;
};

TEST_F(RequestSocketTest, WritesTheWantedRoutes) {
  EXPECT_NE(socket->port(), 0u);
  const Address gateway4 = Zemit::IpAddr(0x0A0000FE), source4 = Zemit::IpAddr(0x0A000001);
  const Address gateway6 = Zemit::Ip6Addr(0x20010DB800000000, 0xFE);
  const std::vector<RouteRequest> requests{
      {Verb::Add, key4(1), {{{h0, {}}}, 0, source4}},
      {Verb::Add, key4(2), {{{h0, {}}, {h1, {}}}, 20, {}}},
      {Verb::Add, key4(3), {{{h0, gateway4}, {h1, {}}}, 0, {}}},
      {Verb::AddBlackhole, key4(4), {}},
      {Verb::Add, key6(1), direct(h0, 1024)},
      {Verb::Add, key6(2), {{{h0, gateway6}}, 1024, {}}},
      {Verb::Add, key4(5), {{{h0, gateway6}}, 0, {}}},
  };
  EXPECT_EQ(perform(requests), std::vector<int>(requests.size(), 0));
  EXPECT_EQ(run("ip route show table 1000 | sed 's/ *$//'"),
            "10.0.0.1 dev h0 proto 205 scope link src 10.0.0.1\n"
            "10.0.0.2 proto 205 scope link metric 20\n"
            "\tnexthop dev h0 weight 1\n"
            "\tnexthop dev h1 weight 1\n"
            "10.0.0.3 proto 205\n"
            "\tnexthop via 10.0.0.254 dev h0 weight 1\n"
            "\tnexthop dev h1 weight 1\n"
            "blackhole 10.0.0.4 proto 205\n"
            "10.0.0.5 via inet6 2001:db8::fe dev h0 proto 205\n");
  EXPECT_EQ(run("ip -6 route show table 1000 | sed 's/ pref medium//'"),
            "2001:db8::1 dev h0 proto 205 metric 1024\n"
            "2001:db8::2 via 2001:db8::fe dev h0 proto 205 metric 1024\n");
}

// A result that is matched to the wrong request would cause the deletion of a right route.
TEST_F(RequestSocketTest, MatchesRefusalsInBatchesOfAnySize) {
  run("ip route add 10.1.0.0/32 dev h0 table 1000 proto static");
  for (const uint32_t count : {1U, 2U, 1023U, 1024U, 1025U, 6000U}) {
    std::vector<RouteRequest> requests;
    std::vector<int> expected;
    const auto request = [&](Verb verb, const RouteKey& key, const RouteValue& value, int result) {
      requests.push_back({verb, key, value});
      expected.push_back(result);
    };
    for (uint32_t i = 0; i < count; ++i) {
      switch (i % 7) {
        case 0:
          request(Verb::Add, key4(0x20000 + i), direct(h0), 0);
          break;
        case 1:
          request(Verb::Add, key4(0x20000 + i - 1), direct(h1), EEXIST);
          break;
        case 2:
          request(Verb::Delete, key4(0x30000), {}, ESRCH);
          break;
        case 3:
          request(Verb::Add, key6(i), direct(4711, 1024), ENODEV);
          break;
        case 4:
          // The route of another protocol.
          request(Verb::Delete, key4(0x10000), {}, ESRCH);
          break;
        case 5:
          request(Verb::Add, key4(0x30000), {}, EINVAL);
          break;
        default:
          request(Verb::Delete, key4(0x20000 + i - 6), {}, 0);
      }
    }
    EXPECT_EQ(perform(requests), expected) << count;
    EXPECT_EQ(run("ip route show table 1000 proto 205 | wc -l"), count % 7 == 0 ? "0\n" : "1\n")
        << count;
    run("ip route flush table 1000 proto 205");
  }
  EXPECT_NE(run("ip route show table 1000"), "");
  // The kernel refuses all requests of a large batch. The socket must have room for all answers.
  const std::vector<RouteRequest> requests(20000, {Verb::Delete, key4(7), {}});
  EXPECT_EQ(perform(requests), std::vector<int>(requests.size(), ESRCH));
}

// The daemon relies on this behaviour of the kernel.
TEST_F(RequestSocketTest, FindsRoutesThatTheKernelDroppedWithoutANotification) {
  const RouteKey key = key4(1);
  perform({{Verb::Add, key, direct(h0)}, {Verb::Add, key6(1), direct(h0, 1024)}});
  EXPECT_EQ(perform({{Verb::AddBlackhole, key, {}}}), std::vector{EEXIST});
  run("ip link set h0 down");
  EXPECT_EQ(perform({{Verb::Add, key, direct(h0)}}), std::vector{ENETDOWN});
  EXPECT_EQ(perform({{Verb::Delete, key, {}}}), std::vector{ESRCH});
  // The announcement as other listeners receive it.
  NotificationSocket listener({.warn = {}});
  EXPECT_EQ(perform({{Verb::AddBlackhole, key, {}}, {Verb::DeleteBlackhole, key, {}}}),
            (std::vector{0, 0}));
  std::vector<bool> heard;
  EXPECT_TRUE(listener.read(SIZE_MAX, [&](const Change& change) {
    const auto* route = std::get_if<Route>(&change.object);
    if (route == nullptr || route->table != kTable) return;
    EXPECT_EQ(route->type, RTN_BLACKHOLE);
    EXPECT_EQ(route->prefix, key.prefix);
    heard.push_back(change.present);
  }));
  EXPECT_EQ(heard, (std::vector{true, false}));
  run("ip link set h0 up");
  EXPECT_EQ(perform({{Verb::Add, key, direct(h0)}}), std::vector{0});
  run("ip addr flush dev h0");
  EXPECT_EQ(perform({{Verb::AddBlackhole, key, {}}}), std::vector{0});
  run("ip link del h1");
  EXPECT_EQ(perform({{Verb::Add, key6(2), direct(h1, 1024)}}), std::vector{ENODEV});
}

TEST_F(RequestSocketTest, ProbesExistingNeighbours) {
  // There is no answer, so the kernel continues to probe.
  for (const char* family : {"ipv4", "ipv6"}) {
    Namespace::setSysctl(std::string(family) + "/neigh/h0/ucast_solicit", "100000");
  }
  run("ip link set p0 down; ip link set p0 address 02:00:00:00:00:01; ip link set p0 up; "
      "ip neigh add 10.0.0.7 dev h0 lladdr 02:00:00:00:00:07 nud stale; "
      "ip neigh add 2001:db8::7 dev h0 lladdr 02:00:00:00:00:07 nud stale router");
  const std::vector<Probe> probes{{h0, Zemit::IpAddr(0x0A000007)},
                                  {h0, Zemit::IpAddr(0x0A000008)},
                                  {h0, Zemit::Ip6Addr(0x20010DB800000000, 7)}};
  socket->probe(probes);
  EXPECT_EQ(run("ip neigh show dev h0 | grep -v fe80 | sort | sed 's/ *$//'"),
            "10.0.0.7 lladdr 02:00:00:00:00:07 PROBE\n"
            "2001:db8::7 lladdr 02:00:00:00:00:07 router PROBE\n");
}

}  // namespace
}  // namespace Linux
