// A router's requests to the kernel, and its log lines.
#include "hostrouted/Router.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/hostrouted/RouterWorld.h"

namespace Hostrouted {
namespace {

bool contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

Config withVrf() {
  Config config = RouterWorld::config();
  config.tables["blue"] = {.table4 = 110, .table6 = 110};
  return config;
}

TEST(RouterTest, ARefusedRouteOfAVrfIsReportedWithItsFields) {
  RouterWorld world(withVrf());
  auto device = Linux::linkOf(9, "blue");
  device.kind = "vrf";
  device.vrfTable = 100;
  world.tell(device);
  auto port = Linux::linkOf(4, "p4");
  port.master = 9;
  world.tellPort(port, "10.0.5.", 100);
  world.kernel.refused = "10.0.5.7/32";
  world.learn("10.0.5.7", 4);
  ASSERT_FALSE(world.reports.empty());
  const auto& [message, fields] = world.reports.back();
  EXPECT_EQ(message, "the kernel refuses 10.0.5.7/32 in table 110: Network is down");
  EXPECT_EQ(fields, (std::vector<LogField>{{"PREFIX", "10.0.5.7/32"},
                                           {"TABLE", "110"},
                                           {"ERRNO", std::to_string(ENETDOWN)},
                                           {"VRF", "blue"},
                                           {"INTERFACE", "p4"}}));
  // When the port leaves the VRF, the kernel takes it down and up.
  world.kernel.refused.clear();
  world.learn("10.0.5.8", 4);
  EXPECT_EQ(world.kernel.told.back(), "route add 10.0.5.8/32 dev 4 table 110");
  port.master = 0;
  for (const bool isUp : {false, true}) {
    port.isUp = isUp;
    world.tell(port);
  }
  world.router.endTurn();
  EXPECT_EQ(world.kernel.told.back(), "route del 10.0.5.8/32 table 110");
}

TEST(RouterTest, ARouteThatIsRemovedAndAddedInOneTurnIsNotWritten) {
  RouterWorld world;
  // Both ports reach a third subnet.
  world.tell(Linux::route("10.0.9.0/24", {Linux::hop(1), Linux::hop(2)}));
  world.learn("10.0.1.7", 1);
  world.learn("10.0.2.7", 2);
  world.kernel.told.clear();
  const auto tell = [&](const std::string& addr, Linux::LinkIndex link, bool present = true) {
    world.tell(Linux::neighbor(link, addr), present);
  };
  // With this many new neighbours, routes are written before the turn ends.
  constexpr int kMany = 250;
  for (int last = 2; last < kMany; ++last) tell("10.0.9." + std::to_string(last), 1);
  tell("10.0.1.7", 1, false);
  tell("10.0.1.8", 1);
  tell("10.0.1.8", 1, false);
  world.tell(Linux::linkOf(2, "p3"));  // another interface for the engine
  for (int last = 10; last < kMany; ++last) tell("10.0.1." + std::to_string(last), 1);
  for (int last = 2; last < kMany; ++last) tell("10.0.9." + std::to_string(last), 2);
  tell("10.0.1.7", 1);
  world.router.endTurn();
  EXPECT_EQ(world.kernel.told.size(), kMany - 2 + kMany - 10U);
  for (const auto& request : world.kernel.told) {
    EXPECT_TRUE(request.starts_with("route add ")) << request;
    EXPECT_FALSE(contains(request, ".7/32") && !contains(request, "10.0.9.7")) << request;
    EXPECT_EQ(contains(request, "10.0.9."), contains(request, "nexthop")) << request;
  }
}

}  // namespace
}  // namespace Hostrouted
