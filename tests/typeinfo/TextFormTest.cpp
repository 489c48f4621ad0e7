// Tests of values' text forms: a written value reads back, and an error names the position of the
// first wrong character.
#include <gtest/gtest.h>

#include "typeinfo/ValueTypes.h"

namespace {

/// Reads a value from `text` and prints it again.
template <class T>
std::string again(std::string_view text) {
  try {
    return Kiv::valueToStrep(Kiv::strepToValue<T>(text));
  } catch (const Kiv::Exception& e) {
    return std::string("refused: ") + e.what();
  }
}

TEST(TextFormTest, ReadsBackWrittenValues) {
  const auto vlan10 = Zemit::IntfId::of("Vlan10");
  EXPECT_EQ(again<bool>("true"), "true");
  EXPECT_EQ(again<uint64_t>("0xfFffffffffffffff"), "18446744073709551615");
  EXPECT_EQ(again<Kiv::String>("Ethernet1/1"), "Ethernet1/1");
  EXPECT_EQ(again<Kiv::String>(R"("a \"b\" \\ c")"), R"("a \"b\" \\ c")");
  EXPECT_EQ(again<Kiv::String>(R"("")"), R"("")");
  EXPECT_EQ(again<Zemit::IpAddr>("10.0.0.5"), "10.0.0.5");
  EXPECT_EQ(again<Zemit::Ip6Addr>("2001:DB8::5"), "2001:db8::5");
  EXPECT_EQ(again<Zemit::Prefix>("10.0.0.0/24"), "10.0.0.0/24");
  EXPECT_EQ(again<Zemit::Prefix>("0.0.0.0/-1"), "0.0.0.0/-1");
  EXPECT_EQ(again<Zemit::Ip6Prefix>("2001:db8::/64"), "2001:db8::/64");
  EXPECT_EQ(again<Zemit::IpAddrWithMask>("10.0.0.5/24"), "10.0.0.5/24");
  EXPECT_EQ(again<Zemit::IntfId>("Vlan10"), vlan10.name());
  EXPECT_EQ(again<L3::VrfName>("\"a vrf\""), "\"a vrf\"");
  EXPECT_EQ(again<Tovan::Fib::Route>("10.0.0.0/24"),
            "10.0.0.0/24 invalid_ metric 0 preference 0 fec 0x0");
  EXPECT_EQ(again<Tovan::Fib6::Route>("::/0 bgp_ metric 4294967295 preference 255 fec 0x1f"),
            "::/0 bgp_ metric 4294967295 preference 255 fec 0x1f");
  EXPECT_EQ(again<Arp::ArpEntryStatus>("10.0.0.5 00:11:22:33:44:55"), "10.0.0.5 00:11:22:33:44:55");
  EXPECT_EQ(again<Routing::Fhrp::VrfIpWithMaskPair>("red 10.0.0.1/24"), "red 10.0.0.1/24");
  EXPECT_EQ(again<Routing::Fhrp::VrfIpWithMaskPair>("red 2001:db8::1/64"), "red 2001:db8::1/64");
  EXPECT_EQ(again<Routing::Fhrp::VrfIpPair>("red 2001:db8::1"), "red 2001:db8::1");
  const auto set = Kiv::typeOf<Obu::AddrSet>().strepToValue("{10.0.0.9,10.0.0.5 , 10.0.0.9}");
  EXPECT_EQ(set.text(), "{10.0.0.5, 10.0.0.9}");
  EXPECT_EQ(Kiv::typeOf<Obu::IntfDir>().strepToValue("{ }").text(), "{}");
}

// The registry keeps a name for the life of the process, so a look-up must not add the name.
TEST(TextFormTest, ALookUpDoesNotAddAnInterfaceName) {
  const auto isKept = [](const char* name) { return Zemit::IntfId::find(name).has_value(); };
  EXPECT_EQ(again<Zemit::IntfId>("Ghost1"), "refused: no Zemit::IntfId at column 1");
  EXPECT_FALSE(isKept("Ghost1"));
  EXPECT_THROW(Kiv::typeOf<Obu::IntfDir>().strepToValue("{Ghost2}"), Kiv::Exception);
  EXPECT_FALSE(isKept("Ghost2"));
  EXPECT_FALSE(Obu::IntfDir::IntfDirIs()->intfName("Ghost3"));
  EXPECT_FALSE(isKept("Ghost3"));
  const auto ghost4 = Zemit::IntfId::of("Ghost4");
  EXPECT_EQ(Zemit::IntfId::find("Ghost4"), ghost4);
  EXPECT_EQ(Kiv::typeOf<Obu::IntfDir>().strepToValue("{Ghost4}").text(), "{Ghost4}");
}

TEST(TextFormTest, RefusesInvalidValuesAndTrailingText) {
  EXPECT_EQ(again<Zemit::Prefix>("10.0.0.0/24x"),
            "refused: junk at column 12 deserializing Zemit::Prefix");
  EXPECT_EQ(again<Zemit::IpAddr>("10.0.0.5 "),
            "refused: junk at column 9 deserializing Zemit::IpAddr");
  EXPECT_EQ(again<Tovan::Fib::Route>("10.0.0.0/8 attached_ metric 1 speed 2"),
            "refused: junk at column 30 deserializing Tovan::Fib::Route");
  // Blanks must separate the fields.
  EXPECT_EQ(again<Tovan::Fib::Route>("10.0.0.0/24attached_"),
            "refused: junk at column 12 deserializing Tovan::Fib::Route");
  EXPECT_EQ(again<Tovan::Fib6::Route>("::/0 bgp_ metric 5preference 3"),
            "refused: junk at column 19 deserializing Tovan::Fib6::Route");
  EXPECT_EQ(again<Arp::ArpEntryStatus>("10.0.0.5aa:bb:cc:dd:ee:ff"),
            "refused: junk at column 9 deserializing Arp::ArpEntryStatus");
  EXPECT_EQ(again<Routing::Fhrp::VrfIpPair>("\"red\"2001:db8::1"),
            "refused: no Routing::Fhrp::VrfIpPair at column 1");
  EXPECT_EQ(again<Zemit::Prefix>("10.0.0.1/24"), "refused: no Zemit::Prefix at column 1");
  EXPECT_EQ(again<Tovan::Fib::Route>("10.0.0.0/8 preference 256"),
            "refused: no Tovan::Fib::Route at column 1");
  EXPECT_EQ(again<Kiv::String>("\"a"), "refused: no Kiv::String at column 1");
  EXPECT_EQ(again<uint64_t>("0x"), "refused: no Tovan::Fib::FecId at column 1");
  EXPECT_EQ(again<L3::VrfName>(std::string(100, 'x')), std::string(100, 'x'));
  EXPECT_EQ(again<L3::VrfName>(std::string(101, 'x')), "refused: VrfName::bytes > 100 not allowed");
  EXPECT_THROW(Kiv::typeOf<Obu::AddrSet>().strepToValue("{10.0.0.5 10.0.0.6}"), Kiv::Exception);
  EXPECT_THROW(Kiv::typeOf<Ip::Status>().strepToValue("/nowhere"), Kiv::Exception);
  EXPECT_TRUE(Kiv::typeOf<Ip::Status>().strepToValue("null").isNone());
}

TEST(TextFormTest, ReadsASequenceValueByValue) {
  Kiv::TextReader reader("10.0.0.0/24 {10.0.0.5} rest");
  EXPECT_EQ(Kiv::sequenceToValue<Zemit::Prefix>(reader), *Zemit::Prefix::parse("10.0.0.0/24"));
  reader.skipBlanks();
  EXPECT_EQ(Kiv::typeOf<Obu::AddrSet>().sequenceToValue(reader).text(), "{10.0.0.5}");
  EXPECT_EQ(reader.rest(), " rest");
}

}  // namespace
