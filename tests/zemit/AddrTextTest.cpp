// Tests of addresses' text forms: reading and printing.
#include <gtest/gtest.h>

#include <sstream>

#include "platform/zemit/AnyAddrWithMask.h"
#include "platform/zemit/EthAddr.h"
#include "platform/zemit/Prefix.h"

namespace Zemit {
namespace {

template <class T>
void expectReadsAndPrints(const char* text) {
  const auto value = T::parse(text);
  ASSERT_TRUE(value) << text;
  EXPECT_EQ(toString(*value), text);
}

template <class T>
void expectRefuses(std::initializer_list<std::string_view> texts) {
  for (const auto text : texts) EXPECT_FALSE(T::parse(text)) << '"' << text << '"';
}

TEST(IpAddrTest, ReadsFourDecimalOctetsAndNothingElse) {
  for (const char* text : {"0.0.0.0", "10.0.0.5", "255.255.255.255", "1.20.103.9"}) {
    expectReadsAndPrints<IpAddr>(text);
  }
  EXPECT_EQ(IpAddr::parse("10.0.0.5"), IpAddr(0x0A000005));
  expectRefuses<IpAddr>({"", "10", "10.0.0", "10.0.0.", "10.0.0.5.", "10.0.0.5.6", "10.0.0.256",
                         "10.0.0.05", "10.0..5", "10.0.0.5 ", " 10.0.0.5", "10.0.0.-5", "10.0.0.+5",
                         "0x0a.0.0.5", "10.0.0.a", "10.0.0.5/32", std::string_view("10.0.0.5\0", 9),
                         "10.0.0.99999999999999999999"});
}

TEST(Ip6AddrTest, PrintsTheCanonicalForm) {
  for (const char* text : {"::", "::1", "1::", "2001:db8::1", "2001:db8:1:2:3:4:5:6",
                           "::ffff:10.0.0.5", "::1:2", "fe80::200:ff:fe00:1", "0:1::", "1:0:2::3",
                           "2001:db8:0:1:1:1:1:1", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}) {
    expectReadsAndPrints<Ip6Addr>(text);
  }
  const std::pair<const char*, const char*> canonical[] = {
      {"2001:DB8:0:0:0:0:0:1", "2001:db8::1"},          // lower case, no leading zeros
      {"2001:0db8::0001", "2001:db8::1"},               //
      {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},    // the first of equally long runs
      {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},          // the longest run
      {"2001:db8::1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},  // a single group is not shortened
      {"64:ff9b::192.0.2.1", "64:ff9b::c000:201"},
  };
  for (const auto& [given, printed] : canonical) {
    EXPECT_EQ(toString(Ip6Addr::parse(given).value()), printed) << given;
  }
  EXPECT_EQ(Ip6Addr::parse("2001:db8::1"), Ip6Addr(0x20010DB800000000, 1));
}

TEST(Ip6AddrTest, RefusesMalformedText) {
  for (const auto* text : {"", ":", ":::", "1", "1:2:3:4:5:6:7", "1:2:3:4:5:6:7:8:9", "1::2::3",
                           "1:2:3:4:5:6:7:8::9", "g::", "12345::", ":1::", "1:", "fe80::1%eth0",
                           "10.0.0.5", "::ffff:10.0.0.256", " ::1", "::1 ", "::1/128", "[::1]"}) {
    expectRefuses<Ip6Addr>({text});
  }
  expectRefuses<Ip6Addr>({std::string_view("::1\0", 4)});
  EXPECT_FALSE(Ip6Addr::parse(std::string(1000, '1')));
}

TEST(Ip6AddrTest, LinkLocalIsFe80WithTenBits) {
  for (const char* text : {"fe80::", "fe80::1", "febf:ffff::1"}) {
    EXPECT_TRUE(Ip6Addr::parse(text)->isLinkLocal()) << text;
  }
  for (const char* text : {"::", "fec0::", "fe7f:ffff::", "2001:db8::1", "ff02::1"}) {
    EXPECT_FALSE(Ip6Addr::parse(text)->isLinkLocal()) << text;
  }
}

TEST(EthAddrTest, ReadsSixPairsOfDigits) {
  expectReadsAndPrints<EthAddr>("00:11:22:aa:bb:cc");
  EXPECT_EQ(EthAddr::parse("00:11:22:AA:BB:CC"), EthAddr({0, 0x11, 0x22, 0xAA, 0xBB, 0xCC}));
  EXPECT_TRUE(EthAddr::parse("00:00:00:00:00:00")->isZero());
  expectRefuses<EthAddr>({"", "00:11:22:33:44", "00:11:22:33:44:5", "00:11:22:33:44:55:66",
                          "00-11-22-33-44-55", "00:11:22:33:44:5g", "00:11:22:33:44:-5",
                          "001:1:22:33:44:55", "00:11:22:33:44:555"});
}

// Trace messages set a stream to hexadecimal for FEC ids.
TEST(TextTest, DoesNotDependOnTheNumberBaseOfTheStream) {
  std::ostringstream os;
  os << std::hex << std::showbase << IpAddr(0x0A0A0A0A) << ' ' << Prefix::host(IpAddr(17)) << ' '
     << AnyAddrWithMask(Ip6AddrWithMask(Ip6Addr(), 64));
  EXPECT_EQ(os.str(), "10.10.10.10 0.0.0.17/32 ::/64");
}

}  // namespace
}  // namespace Zemit
