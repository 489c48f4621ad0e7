// Tests that an idle daemon repairs its shared tables.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "platform/tovan/RouteTableReader.h"
#include "platform/tovan/TableMemory.h"
#include "tests/hostrouted/RouterWorld.h"
#include "tests/kiv/SmallFiles.h"
#include "tests/tovan/Damage.h"

namespace Hostrouted {
namespace {

class SharedTablesTest : public testing::Test {
 protected:
  SharedTablesTest() {
    for (int host = 5; host < 10; ++host) world.learn("10.0.1." + std::to_string(host), 1);
  }
  Config config() const {
    Config config = RouterWorld::config();
    config.sharedName = name;
    return config;
  }
  static Zemit::Prefix host(uint32_t n) {
    return Zemit::Prefix::host(Zemit::IpAddr(0x0A000100 + n));
  }
  /// Runs a wake-up of the watchdog, and the turns that the router requests within some seconds.
  void idle() {
    EXPECT_FALSE(world.router.nextDeadline()) << "a wake-up with nothing to do";
    world.now += 15;
    world.router.tend();
    for (const double end = world.now + 15; world.router.nextDeadline().value_or(end) < end;) {
      world.now = std::max(world.now, *world.router.nextDeadline());
      world.router.endTurn();
    }
  }
  /// Checks that a new reader finds the route of each host, and its next hop.
  void expectWhole(const char* what) const {
    const Tovan::Fib::RouteTableReader reader(name, "default");
    for (uint32_t n = 5; n < 10; ++n) {
      const auto found = reader.find(host(n));
      ASSERT_TRUE(found) << what << ": host " << n;
      EXPECT_EQ(found->fec.begin()->intf, Zemit::IntfId::of("p1")) << what << ": host " << n;
    }
  }

  uint64_t adjacencyOf(uint32_t n) const {
    const auto found = Tovan::Fib::RouteTableReader(name, "default").find(host(n));
    return found ? found->route.fecId : 0;
  }

  const std::string name = "idle" + std::to_string(::getpid());
  RouterWorld world{config()};
};

TEST_F(SharedTablesTest, AreRepairedWithoutEvents) {
  expectWhole("at first");
  ASSERT_EQ(Tovan::damage(name + ".default.route4", host(7), Tovan::kValue<Zemit::Prefix>), 1u);
  EXPECT_THROW(expectWhole("damaged"), Tovan::CorruptionDetectedException);
  idle();
  expectWhole("a damaged route");
  EXPECT_FALSE(world.router.isIncomplete());

  const uint64_t adjacency = adjacencyOf(7);
  uint64_t text = 0;  // the name that the next hops show
  std::memcpy(&text, "p1\0\0\0\0\0", sizeof(text));
  ASSERT_EQ(Tovan::damage(name + ".intf4", text, 0), 1u);
  ASSERT_EQ(Tovan::damage(name + ".fec4", adjacency, Tovan::kValue<uint64_t>), 1u);
  idle();
  expectWhole("a damaged name and adjacency");

  for (const std::string& table : Tovan::tablesOf(name)) {
    ::shm_unlink(("/hostroute-" + table).c_str());
  }
  idle();
  expectWhole("removed tables");
}

TEST_F(SharedTablesTest, ReadersSeeThatRoutesAreMissing) {
  const Tovan::Fib::RouteTableReader reader(name, "default");
  EXPECT_FALSE(reader.state().incomplete);
  {
    const Sample::SmallFiles full(4210000);  // the size of a new table
    for (const uint32_t link : {1U, 2U}) {
      for (uint32_t n = 2; n < 250; ++n) {
        world.learn("10.0." + std::to_string(link) + "." + std::to_string(n), link);
      }
    }
    EXPECT_TRUE(reader.state().incomplete);
  }
  world.router.tend();
  EXPECT_FALSE(reader.state().incomplete);
  for (uint32_t n = 2; n < 250; ++n)
    EXPECT_TRUE(reader.find(host(n)) && reader.find(host(256 + n)));
}

}  // namespace
}  // namespace Hostrouted
