// The configuration file: the meaning of each key, and the places that errors name.
#include "hostrouted/Config.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/Files.h"
#include "tests/Paths.h"

namespace Hostrouted {
namespace {

std::string refusal(const std::string& text) {
  try {
    Config::parse(text, "f.toml");
  } catch (const ConfigError& error) {
    return error.what();
  }
  return "accepted";
}

TEST(ConfigTest, TheExampleHasTheDefaults) {
  const auto example =
      Config::parse(contents(sourcePath("hostrouted/hostrouted.toml")), "hostrouted.toml");
  const Config defaults;
  EXPECT_EQ(example.feed, defaults.feed);
  EXPECT_EQ(example.kernelRoutes, defaults.kernelRoutes);
  EXPECT_EQ(example.tables, defaults.tables);
  EXPECT_EQ(example.receiveBuffer, defaults.receiveBuffer);
  EXPECT_EQ(example.probing.rate, defaults.probing.rate);
  EXPECT_EQ(example.logLevel, defaults.logLevel);
  EXPECT_EQ(example.stateDir, defaults.stateDir);
}

TEST(ConfigTest, EachKeySetsItsOption) {
  const auto config = Config::parse(R"(
[neighbors]
interfaces = ["swp*", "!swp48"]
ignored-host-route-protocols = ["bgp", 99]
[export]
table = 20
table6 = 254
protocol = 201
metric6 = 7
preferred-source6 = "2001:db8::1"
on-exit = "flush"
[export.vrf.blue]
table = 110
[[cover]]
prefix = "10.0.0.0/24"
interfaces = ["swp1"]
vrf = "blue"
[[virtual-address]]
address = "10.0.0.1/24"
[[virtual-address]]
address = "2001:db8::fe"
[damping]
changes = 5
quiet = 2.5
)",
                                    "f.toml");
  EXPECT_EQ(config.feed.interfaces, (std::vector<std::string>{"swp*", "!swp48"}));
  EXPECT_EQ(config.feed.ignoredHostRouteProtocols, (std::set<uint8_t>{99, 186}));
  EXPECT_EQ(config.tables.at("default"), (OutputTables{20, 254}));
  EXPECT_EQ(config.tables.at("blue"), (OutputTables{110, 0}));
  EXPECT_EQ(config.protocol, 201);
  EXPECT_EQ(config.metric6, 7u);
  EXPECT_EQ(config.preferredSource6, Linux::Address(*Zemit::Ip6Addr::parse("2001:db8::1")));
  EXPECT_TRUE(config.flushesOnExit);
  ASSERT_EQ(config.feed.covers.size(), 1u);
  EXPECT_EQ(config.feed.covers[0].vrf, "blue");
  EXPECT_EQ(Linux::toString(config.feed.covers[0].prefix), "10.0.0.0/24");
  ASSERT_EQ(config.feed.virtualAddresses.size(), 2u);
  EXPECT_EQ(config.feed.virtualAddresses[0].len, 24u);
  EXPECT_EQ(config.feed.virtualAddresses[1].len, 128u);
  EXPECT_EQ(config.kernelRoutes.dampingChanges, 5u);
  EXPECT_EQ(config.kernelRoutes.dampingQuiet, 2.5);
}

TEST(ConfigTest, ErrorsNameFileLineKeyAndTheExpectedValue) {
  const std::pair<const char*, const char*> cases[] = {
      {"[export]\ntable = \"ten\"",
       "f.toml:2: export.table: expected a whole number from 0 to 4294967295"},
      {"[export]\n\nprotocol = 4",
       "f.toml:3: export.protocol: expected a whole number from 5 to 255"},
      {"[export]\ntabel = 1", "f.toml:2: export.tabel: there is no such key"},
      {"[exports]", "f.toml:1: exports: there is no such key"},
      {"[export.vrf.blue]\ntable = -1",
       "f.toml:2: export.vrf.blue.table: expected a whole number from 0 to 4294967295"},
      {"[neighbors]\ninterfaces = [1]",
       "f.toml:2: neighbors.interfaces: expected names of interfaces, such as \"swp*\""},
      {"[[cover]]\nprefix = \"10.0.0.1/24\"\ninterfaces = []",
       "f.toml:2: cover.prefix: expected a prefix without host bits, such as \"10.0.0.0/24\""},
      {"[[cover]]\nprefix = \"10.0.0.0/24\"", "f.toml:1: cover: interfaces is missing"},
      {"[[cover]]\nprefix = \"10.0.0.0/24\"\ninterfaces = [\"a\"]\n"
       "[[cover]]\nprefix = \"10.0.0.0/24\"\ninterfaces = [\"b\"]",
       "f.toml:5: cover.prefix: expected one cover of a prefix, with all its interfaces"},
      {"[export]\npreferred-source = \"2001:db8::1\"",
       "f.toml:2: export.preferred-source: expected an IPv4 address"},
      {"[probe]\nkeepalive = 1", "f.toml:2: probe.keepalive: expected true or false"},
      {"[damping]\nwindow = -1", "f.toml:2: damping.window: expected a number of seconds from"},
      {"[export]\ntable6 = 255",
       "f.toml:2: export.table6: table 255 (local) belongs to the kernel"},
      {"[export.vrf.blue]\ntable = 10",
       "f.toml: VRF default: table 10 is that of the VRF blue already"},
      {"[daemon]\nshared-tables = \"a/b\"",
       "f.toml:2: daemon.shared-tables: expected a name of at most 100 bytes without . and /"},
      {"[export", "f.toml:1: "},
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(refusal(text).substr(0, std::string_view(expected).size()), expected) << text;
  }
  for (const char* file : {"/", "/no such file"}) EXPECT_THROW(Config::load(file), ConfigError);
}

TEST(ConfigTest, KeysOfTheNextStartKeepTheirValues) {
  const Config running;
  auto next =
      Config::parse("[export]\nprotocol = 206\nmetric = 7\n[daemon]\nhistory = 5", "f.toml");
  EXPECT_EQ(next.keepUntilRestart(running),
            (std::vector<std::string>{"export.protocol", "daemon.history"}));
  EXPECT_EQ(next.protocol, running.protocol);
  EXPECT_EQ(next.historyEntries, running.historyEntries);
  EXPECT_EQ(next.metric4, 7u);
  EXPECT_EQ(next.keepUntilRestart(running), std::vector<std::string>());
}

TEST(ConfigTest, AnIrregularFileIsRefusedAtOnce) {
  const auto fifo = testing::TempDir() + "/config-" + std::to_string(::getpid());
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& file : {fifo, std::string("/dev/zero"), testing::TempDir()}) {
    try {
      Config::load(file);
      ADD_FAILURE() << file;
    } catch (const ConfigError& error) {
      EXPECT_EQ(error.what(), file + ": expected a regular file");
    }
  }
  ::unlink(fifo.c_str());
}

}  // namespace
}  // namespace Hostrouted
