// Tests that anonymous recordings keep their structure and lead to the same tables.
#include "cli/Anonymizer.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "daemon/Switch.h"
#include "replay/Event.h"
#include "replay/Output.h"
#include "replay/Player.h"
#include "tests/Paths.h"
#include "tests/replay/JsonLines.h"

namespace Cli {
namespace {

using nlohmann::json;

/// The number of common leading bits of two addresses.
template <class Addr>
uint32_t commonBits(const Addr& a, const Addr& b) {
  uint32_t len = 0;
  while (len < Addr::kBits && a.subnetFirst(len + 1) == b.subnetFirst(len + 1)) ++len;
  return len;
}

template <class Addr>
class AnonymousAddressTest : public testing::Test {};
struct Samples4 {
  using Addr = Zemit::IpAddr;
  static Addr draw(std::mt19937& random, uint32_t depth) {
    const Addr near(0x0A000000);
    return Addr(near.value() ^ static_cast<uint32_t>(depth == 0 ? random() : random() >> depth));
  }
};
struct Samples6 {
  using Addr = Zemit::Ip6Addr;
  static Addr draw(std::mt19937& random, uint32_t depth) {
    const uint64_t low = uint64_t{random()} << 32 | random();
    return {0x20010DB800000000 ^ (depth < 8 ? uint64_t{random()} : 0), low >> depth};
  }
};
using Families = testing::Types<Samples4, Samples6>;
TYPED_TEST_SUITE(AnonymousAddressTest, Families);

TYPED_TEST(AnonymousAddressTest, KeepCommonLeadingBitsAndDifferFromTheOriginals) {
  const Anonymizer anonymizer(Anonymizer::keyOf("key"));
  std::mt19937 random(1);
  std::vector<typename TypeParam::Addr> addrs;
  for (uint32_t depth = 0; depth < 32; ++depth) addrs.push_back(TypeParam::draw(random, depth));
  size_t unchanged = 0;
  for (const auto& a : addrs) {
    unchanged += anonymizer.address(a) == a ? 1 : 0;
    for (const auto& b : addrs) {
      EXPECT_EQ(commonBits(anonymizer.address(a), anonymizer.address(b)), commonBits(a, b))
          << toString(a) << ' ' << toString(b);
    }
  }
  EXPECT_LE(unchanged, 1U);
}

TEST(AnonymizerTest, SpecialAddressesAndNamesKeepTheirMeaning) {
  Anonymizer anonymizer(Anonymizer::keyOf("key"));
  for (const char* kept : {"0.0.0.0/0", "::/0", "0.0.0.0", "127.0.0.0/8", "169.254.0.0/16",
                           "224.0.0.0/4", "240.0.0.0/4", "255.255.255.255", "192.0.0.8", "::1",
                           "fe80::/10", "fe80::/64", "ff00::/8", "ipv6"}) {
    EXPECT_EQ(anonymizer.addressText(kept), kept);
  }
  EXPECT_TRUE(Zemit::Ip6Addr::parse(anonymizer.addressText("fe80::1"))->isLinkLocal());
  // The first and last addresses of nested interface subnets.
  for (const char* addr : {"10.1.2.3/24", "10.1.2.77/26", "10.1.0.1/16"}) {
    anonymizer.note(json{{"op", "addr"}, {"intf", "i"}, {"addr", addr}}.dump());
    const auto with = *Zemit::IpAddrWithMask::parse(addr);
    const auto mapped = [&](const Zemit::IpAddr& a) { return anonymizer.address(a); };
    EXPECT_EQ(mapped(with.addr().subnetFirst(with.len())),
              mapped(with.addr()).subnetFirst(with.len()));
    EXPECT_EQ(mapped(with.addr().subnetLast(with.len())),
              mapped(with.addr()).subnetLast(with.len()));
  }
  EXPECT_EQ(anonymizer.vrfName("default"), "default");
  EXPECT_TRUE(anonymizer.interfaceName("Management1").starts_with("Management"));
}

TEST(AnonymizerTest, RefusesUnknownMembersAndValues) {
  const Anonymizer anonymizer(Anonymizer::keyOf("key"));
  for (const char* line :
       {"{", R"({"op":"neighbor","intf":"a","ip":"10.0.0.5","comment":"Anna's desk"})",
        R"({"op":"neighbor","intf":"a","ip":"anna"})", R"({"op":"neighbor","intf":7})",
        R"({"op":"intf","name":"a","value":{"secret":"x"}})",
        R"({"op":"fec","id":1,"family":4,"vias":[{"intf":"a","secret":"x"}]})"}) {
    EXPECT_THROW(anonymizer.line(line), Replay::EventError) << line;
  }
}

/// The dumps of a switch after these lines.
std::vector<json> dumpsOf(const std::vector<std::string>& lines) {
  std::ostringstream out;
  const auto output = Replay::jsonOutput(out);
  Daemon::Switch sw({.settles = true});
  Replay::Player player(sw, *output, {});
  for (const auto& line : lines) player.apply(line);
  player.dumpAll();
  return Replay::jsonLines(out.str());
}

/// A dump with its names and addresses replaced.
json mapped(const Anonymizer& anonymizer, const json& value, const std::string& key = "") {
  if (value.is_object()) {
    json object = json::object();
    for (const auto& [name, member] : value.items())
      object[name] = mapped(anonymizer, member, name);
    return object;
  }
  if (value.is_array()) {
    json list = json::array();
    for (const auto& element : value) list.push_back(mapped(anonymizer, element, key));
    return list;
  }
  if (!value.is_string()) return value;
  const auto text = value.get<std::string>();
  if (key == "intf") return anonymizer.interfaceName(text);
  if (key == "vrf") return anonymizer.vrfName(text);
  return key == "prefix" || key == "hop" ? json(anonymizer.addressText(text)) : value;
}

TEST(AnonymizerTest, AnAnonymousRecordingEndsInTheSameTables) {
  std::ifstream in(sourcePath("examples/leaf.jsonl"));
  Anonymizer anonymizer(Anonymizer::keyOf("another"));
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    lines.push_back(line);
    anonymizer.note(line);
  }
  std::vector<std::string> anonymous;
  for (const auto& line : lines) anonymous.push_back(anonymizer.line(line));
  auto dumps = dumpsOf(lines);
  for (auto& dump : dumps) dump = mapped(anonymizer, dump);
  const auto expected = Replay::routesOf(dumps);
  EXPECT_EQ(Replay::routesOf(dumpsOf(anonymous)), expected);
  EXPECT_GT(expected.size(), 10U);
}

}  // namespace
}  // namespace Cli
