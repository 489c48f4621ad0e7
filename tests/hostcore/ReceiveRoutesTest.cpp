// The routes of the router's own addresses.
#include "tests/hostcore/World.h"

namespace {

// The address 0.0.0.0 gets no receive route. Its network and broadcast address are still removed.
TEST(ReceiveRoutesTest, RemovesTheNetworkAndBroadcastAddressOfTheZeroAddress) {
  World<Daemon::Ipv4> world;
  world.startWithSubnet();
  const Zemit::IpAddr network(0);
  const Zemit::IpAddr broadcast(0xFF);
  const Zemit::IpAddr foreign(0xFE);
  for (const Zemit::IpAddr ip : {network, broadcast, foreign}) {
    world.root->receiveTable()->routeIs(
        {.key = Zemit::Prefix::host(ip), .routeType = Routing::Fib::receiveBcast_});
    world.root->receiveAddrToIntfNameIs(ip, "Ethernet1");
  }
  const auto changed = Obu::AddrSet::AddrSetIs(Zemit::Prefix::null());
  const auto remove = [&](const char* intfName, uint32_t len) {
    Routing::Host::removeAddrMaskFromReceiveTable(Zemit::IpAddrWithMask(network, len), intfName,
                                                  changed, world.root);
  };
  remove("Ethernet2", 24);
  remove("Ethernet1", 31);
  EXPECT_EQ(changed->ipCount(), 0u) << "another interface's, or of a length without them";
  remove("Ethernet1", 24);
  EXPECT_TRUE(changed->ip(network));
  EXPECT_TRUE(changed->ip(broadcast));
  EXPECT_EQ(world.root->receiveAddrToIntfNameKeys(), std::vector{foreign});
  EXPECT_EQ(world.root->receiveTable()->routeKeys(), std::vector{Zemit::Prefix::host(foreign)});
}

}  // namespace
