// Tests that a mirror updated by notifications always equals one filled by a dump.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include <array>
#include <atomic>
#include <chrono>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "linux/Mirror.h"
#include "linux/Netlink.h"
#include "tests/Files.h"
#include "tests/Paths.h"
#include "tests/linux/MirrorText.h"
#include "tests/netns/Namespace.h"

namespace Linux {
namespace {

using std::chrono::steady_clock;
using namespace std::chrono_literals;

void fill(Mirror& mirror) {
  mirror.beginDump();
  while (!dumpAll([&](const Change& change) { mirror.apply(change); })) mirror.beginDump();
  mirror.endDump();
}

/// The mirror's objects as text. An IPv6 next hop without a carrier is not `dead` there: whether
/// the kernel revives it when its interface comes up depends on how soon the carrier is lost again.
std::set<std::string> comparableTextOf(const Mirror& mirror) {
  std::set<std::string> result;
  for (std::string line : textOf(mirror)) {
    constexpr std::string_view kDead = " dead linkdown";
    if (line.find("::") != std::string::npos) {
      for (size_t at = 0; (at = line.find(kDead, at)) != std::string::npos;) line.erase(at, 5);
    }
    result.insert(std::move(line));
  }
  return result;
}

/// A mirror of the test's namespace, updated by notifications.
class Kept {
 public:
  explicit Kept(const NotificationSocket::Options& options = {.warn = {}}) : socket_(options) {
    fill(mirror_);
  }

  /// Reads all waiting notifications. After a loss, fills the mirror from a dump.
  void read() {
    const auto take = [this](const Change& change) {
      ++changes;
      mirror_.apply(change);
    };
    while (!socket_.read(SIZE_MAX, take)) {
      ++losses;
      fill(mirror_);
    }
  }
  /// True when the mirror equals a newly filled one within half a minute. The kernel makes some
  /// changes with a delay.
  testing::AssertionResult equalsFresh() {
    const auto end = steady_clock::now() + 30s;
    for (;;) {
      read();
      Mirror fresh;
      fill(fresh);
      read();
      const std::string found = difference(comparableTextOf(mirror_), comparableTextOf(fresh));
      if (found.empty()) return testing::AssertionSuccess();
      if (steady_clock::now() > end)
        return testing::AssertionFailure() << "kept -, fresh +\n" << found;
      std::this_thread::sleep_for(20ms);
    }
  }

  size_t changes = 0;
  size_t losses = 0;
  Mirror mirror_;
  NotificationSocket socket_;
};

/// Adds the ports e1 and e2 with their hosts, and a bridge with the port e3.
void addPorts(const Namespace& space) {
  space.ip(kPorts);
  space.ip(
      "link add br0 type bridge\nlink add e3 type veth peer name h3\nlink set e3 master br0\n"
      "link set e3 up\nlink set h3 up\nlink set br0 up");
  for (const char* name : {"e1", "e2", "e3", "br0"}) Namespace::awaitCarrier(name);
}

/// A file of commands of `ip` in this folder, in parts that begin with a line "# TITLE".
std::vector<std::string> partsOf(const char* name) {
  std::istringstream in(contents(sourcePath(std::string("tests/netns/") + name)));
  std::vector<std::string> parts;
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with("# ") || parts.empty()) parts.emplace_back();
    parts.back() += line + '\n';
  }
  return parts;
}

TEST(MirrorNetns, FollowsAnnouncedAndUnannouncedChanges) {
  SKIP_WITHOUT_NAMESPACES();
  const Namespace space;
  addPorts(space);
  Kept kept;
  EXPECT_TRUE(kept.equalsFresh()) << "after the start";
  for (const std::string& step : partsOf("mirror-steps.ip")) {
    space.ip(step);
    EXPECT_TRUE(kept.equalsFresh()) << "after: " << step;
  }
  EXPECT_GT(kept.changes, 200U);
  EXPECT_EQ(kept.losses, 0U);
}

TEST(MirrorNetns, FollowsRandomCommands) {
  SKIP_WITHOUT_NAMESPACES();
  const Namespace space;
  addPorts(space);
  Kept kept;
  std::istringstream in(contents(sourcePath("tests/netns/mirror-commands.ip")));
  std::vector<std::string> all;
  for (std::string line; std::getline(in, line);) {
    if (!line.starts_with("#")) all.push_back(line + '\n');
  }
  ASSERT_GT(all.size(), 50U);
  std::mt19937 random(static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed()));
  std::string done;
  for (int round = 0; round < 40 && !HasFailure(); ++round) {
    std::string commands;
    for (size_t i = 0; i < 8; ++i) commands += all[random() % all.size()];
    space.ipAnyway(commands);
    done += commands + "-\n";
    EXPECT_TRUE(kept.equalsFresh()) << "after:\n" << done;
  }
  EXPECT_EQ(kept.losses, 0U);
}

TEST(MirrorNetns, FollowsAnInterfaceIntoAnotherNamespace) {
  SKIP_WITHOUT_NAMESPACES();
  const Namespace space;
  addPorts(space);
  Kept kept;
  const std::string other = "hostroute-test-" + std::to_string(getpid());
  ASSERT_EQ(std::system(("ip netns add " + other).c_str()), 0);
  space.ipAnyway(
      "route add 10.9.0.0/24 nexthop via 10.0.1.2 nexthop via 10.0.2.2\n"
      "neigh add 10.0.1.50 lladdr 02:00:00:00:00:01 dev e1\n"
      "link set e1 netns " +
      other);
  EXPECT_TRUE(kept.equalsFresh());
  EXPECT_EQ(kept.mirror_.linkByName("e1"), nullptr);
  EXPECT_EQ(std::system(("ip netns del " + other).c_str()), 0);
}

TEST(MirrorNetns, FollowsABridge) {
  SKIP_WITHOUT_NAMESPACES();
  const Namespace space;
  addPorts(space);
  Kept kept;
  space.bridge(
      "fdb add 02:00:00:00:00:11 dev e3 master dynamic\n"
      "fdb add 02:00:00:00:00:12 dev e3 master static\n"
      "fdb add 02:00:00:00:00:13 dev e3 self permanent\n"
      "fdb replace 02:00:00:00:00:11 dev e3 master static\n");
  EXPECT_TRUE(kept.equalsFresh());
  space.bridge("fdb del 02:00:00:00:00:12 dev e3 master\n");
  space.ip("link set e3 down\nlink set e3 up");
  EXPECT_TRUE(kept.equalsFresh());
  space.ip("link del br0");
  EXPECT_TRUE(kept.equalsFresh());
}

/// Lines for `ip -batch` with many neighbours.
std::string neighbors(std::string_view verb, uint32_t from, uint32_t to, std::string_view rest) {
  std::string lines;
  for (uint32_t i = from; i < to; ++i) {
    const std::string addr = Zemit::toString(Zemit::IpAddr(0x0A400000 + i));
    lines.append("neigh ").append(verb).append(" ").append(addr).append(" dev e1 ");
    lines.append(rest).append("\n");
  }
  return lines;
}

TEST(MirrorNetns, ReportsLostNotificationsAndRecovers) {
  SKIP_WITHOUT_NAMESPACES();
  const Namespace space;
  addPorts(space);
  Kept kept({.receiveBuffer = 4096, .warn = {}});
  ASSERT_LE(kept.socket_.receiveBuffer(), 65536U);
  for (const std::string& commands :
       {neighbors("add", 0, 50000, "lladdr 02:00:00:00:00:01 nud permanent"),
        neighbors("change", 10000, 30000, "lladdr 02:00:00:00:00:02 nud permanent"),
        neighbors("del", 20000, 40000, "")}) {
    const size_t losses = kept.losses;
    space.ip(commands);  // the mirror does not read meanwhile, so the buffer overflows
    kept.read();
    EXPECT_GT(kept.losses, losses);
  }
  // Changes during the dump that follows a loss.
  std::atomic<bool> isOver = false;
  std::thread burst([&] {
    space.ip(neighbors("add", 50000, 100000, "lladdr 02:00:00:00:00:03 nud permanent"));
    isOver = true;
  });
  while (!isOver) kept.read();
  burst.join();
  EXPECT_TRUE(kept.equalsFresh());
  size_t count = 0;
  const Link* const port = kept.mirror_.linkByName("e1");
  ASSERT_NE(port, nullptr);
  kept.mirror_.forEachNeighbor(port->index, [&](const Neighbor&) { ++count; });
  EXPECT_EQ(count, 80000U);
}

TEST(MirrorNetns, ReceivesNoNotificationsOfOurOwnRoutes) {
  SKIP_WITHOUT_NAMESPACES();
  const Namespace space;
  addPorts(space);
  const SocketPtr writer(mnl_socket_open(NETLINK_ROUTE));
  ASSERT_TRUE(writer && mnl_socket_bind(writer.get(), 0, MNL_SOCKET_AUTOPID) == 0);
  NotificationSocket deaf({.ownPort = mnl_socket_get_portid(writer.get()), .warn = {}});
  NotificationSocket hearing({.warn = {}});
  const auto write = [&](uint16_t type, uint16_t flags) {
    std::array<char, 256> buffer{};
    nlmsghdr* const message = mnl_nlmsg_put_header(buffer.data());
    message->nlmsg_type = type;
    message->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
    auto* const head = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(rtmsg)));
    head->rtm_family = AF_INET;
    head->rtm_dst_len = 32;
    head->rtm_table = RT_TABLE_MAIN;
    head->rtm_protocol = RTPROT_STATIC;
    head->rtm_type = RTN_BLACKHOLE;
    mnl_attr_put_u32(message, RTA_DST, htonl(0x0A010203));
    EXPECT_GT(mnl_socket_sendto(writer.get(), message, message->nlmsg_len), 0);
    std::array<char, 4096> answer{};
    EXPECT_GT(mnl_socket_recvfrom(writer.get(), answer.data(), answer.size()), 0);
  };
  write(RTM_NEWROUTE, NLM_F_CREATE | NLM_F_EXCL);
  write(RTM_DELROUTE, 0);
  space.ip("route add blackhole 10.1.2.4/32");
  const auto routesHeardBy = [](NotificationSocket& socket) {
    std::vector<std::string> heard;
    EXPECT_TRUE(socket.read(SIZE_MAX, [&](const Change& change) {
      if (const auto* route = std::get_if<Route>(&change.object);
          route && familyOf(route->prefix) == 4)
        heard.push_back((change.present ? "+" : "-") + toString(route->prefix));
    }));
    return heard;
  };
  EXPECT_EQ(routesHeardBy(hearing),
            (std::vector<std::string>{"+10.1.2.3/32", "-10.1.2.3/32", "+10.1.2.4/32"}));
  EXPECT_EQ(routesHeardBy(deaf), (std::vector<std::string>{"+10.1.2.4/32"}));
}

}  // namespace
}  // namespace Linux
