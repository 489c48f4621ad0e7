// Tests of prefixes and addresses with mask, in both families.
#include "platform/zemit/Prefix.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "platform/kiv/containers/Exception.h"
#include "platform/zemit/AnyAddrWithMask.h"

namespace Zemit {
namespace {

template <class A>
struct Sample;
template <>
struct Sample<IpAddr> {
  static constexpr const char* kRefusal = "Prefix::validAsPrefix != true not allowed";
  static constexpr const char* kNull = "0.0.0.0/-1";
  static constexpr const char* kPrefix = "10.0.0.0/24";
  static constexpr const char* kWithHostBits = "10.0.0.5/24";
  static constexpr const char* kSubnetEnds[] = {"10.0.0.0", "10.0.0.255"};
  static IpAddr random(std::mt19937_64& rng) { return IpAddr(static_cast<uint32_t>(rng())); }
  static bool bit(IpAddr addr, uint32_t at) { return (addr.value() >> (31 - at)) & 1; }
  static IpAddr flip(IpAddr addr, uint32_t at) { return IpAddr(addr.value() ^ (1U << (31 - at))); }
};
template <>
struct Sample<Ip6Addr> {
  static constexpr const char* kRefusal = "Ip6Prefix::validAsPrefix != true not allowed";
  static constexpr const char* kNull = "::/-1";
  static constexpr const char* kPrefix = "2001:db8::/56";
  static constexpr const char* kWithHostBits = "2001:db8::5/56";
  static constexpr const char* kSubnetEnds[] = {"2001:db8::", "2001:db8:0:ff:ffff:ffff:ffff:ffff"};
  static Ip6Addr random(std::mt19937_64& rng) { return {rng(), rng()}; }
  static bool bit(const Ip6Addr& addr, uint32_t at) {
    return ((at < 64 ? addr.high() : addr.low()) >> (63 - at % 64)) & 1;
  }
  static Ip6Addr flip(const Ip6Addr& addr, uint32_t at) {
    const uint64_t bit = uint64_t{1} << (63 - at % 64);
    return at < 64 ? Ip6Addr(addr.high() ^ bit, addr.low())
                   : Ip6Addr(addr.high(), addr.low() ^ bit);
  }
};

template <class P>
using AddrOf = typename P::Addr;
template <class P>
using WithMaskOf = BasicAddrWithMask<AddrOf<P>>;
template <class P>
using SampleOf = Sample<AddrOf<P>>;

template <class P>
class PrefixTest : public testing::Test {
 protected:
  static void expectRefused(const AddrOf<P>& addr, uint32_t len) {
    try {
      const P prefix(addr, len);
      ADD_FAILURE() << prefix;
    } catch (const Kiv::RangeException& refusal) {
      EXPECT_STREQ(refusal.what(), SampleOf<P>::kRefusal);
    }
  }

  std::mt19937_64 rng{1};
};
using Families = testing::Types<Prefix, Ip6Prefix>;
TYPED_TEST_SUITE(PrefixTest, Families);

TYPED_TEST(PrefixTest, RefusesHostBitsAndInvalidLengths) {
  using P = TypeParam;
  const auto addr = WithMaskOf<P>::parse(SampleOf<P>::kWithHostBits)->addr();
  this->expectRefused(addr, P::kMaxLen - 8);
  this->expectRefused(addr, 0);
  this->expectRefused(AddrOf<P>(), P::kMaxLen + 1);
  this->expectRefused(AddrOf<P>(), P::kNullLen - 1);
  this->expectRefused(addr, P::kNullLen);
  EXPECT_EQ(P(addr, P::kMaxLen), P::host(addr));
}

// Tests each bit of each length: a mask with one wrong bit would lose or invent routes.
TYPED_TEST(PrefixTest, ContainsAddressesWithItsLeadingBits) {
  using P = TypeParam;
  using S = SampleOf<P>;
  for (uint32_t len = 0; len <= P::kMaxLen; ++len) {
    const AddrOf<P> addr = S::random(this->rng);
    const P prefix = P::enclosing(addr, len);
    EXPECT_EQ(prefix, P(addr.subnetFirst(len), len));
    for (uint32_t at = 0; at < P::kMaxLen; ++at) {
      EXPECT_EQ(S::bit(addr.subnetFirst(len), at), at < len && S::bit(addr, at)) << prefix;
      EXPECT_EQ(S::bit(addr.subnetLast(len), at), at >= len || S::bit(addr, at)) << prefix;
      const AddrOf<P> other = S::flip(addr, at);
      EXPECT_EQ(prefix.contains(other), at >= len) << prefix << ' ' << other;
      const P shorter = P::enclosing(other, at);
      EXPECT_EQ(prefix.contains(shorter), at >= len) << prefix << ' ' << shorter;
      EXPECT_EQ(shorter.contains(prefix), at <= len) << prefix << ' ' << shorter;
    }
  }
}

TYPED_TEST(PrefixTest, TheNullPrefixDiffersFromAllOthers) {
  using P = TypeParam;
  constexpr P kNull = P::null();
  EXPECT_EQ(kNull, P(AddrOf<P>(), 0xFFFFFFFF));
  EXPECT_TRUE(isNull(kNull));
  EXPECT_FALSE(isNull(P()));
  EXPECT_NE(kNull, P());
  EXPECT_LT(P(), kNull);
  EXPECT_FALSE(kNull.contains(AddrOf<P>()));
  EXPECT_FALSE(kNull.contains(kNull));
  EXPECT_FALSE(kNull.contains(P::host(AddrOf<P>())));
  EXPECT_FALSE(P().contains(kNull));
  EXPECT_EQ(toString(kNull), SampleOf<P>::kNull);
}

TYPED_TEST(PrefixTest, ReadsAddressAndLength) {
  using P = TypeParam;
  using S = SampleOf<P>;
  using WithMask = WithMaskOf<P>;
  EXPECT_EQ(toString(P::parse(S::kPrefix).value()), S::kPrefix);
  EXPECT_EQ(P::parse(toString(P())), P());
  EXPECT_FALSE(P::parse(S::kWithHostBits));
  EXPECT_EQ(toString(WithMask::parse(S::kWithHostBits).value()), S::kWithHostBits);
  const std::string zero = toString(AddrOf<P>());
  const std::string tooLong = "/" + std::to_string(P::kMaxLen + 1);
  for (const std::string& text :
       {zero, zero + "/", zero + "/-1", zero + "/+8", zero + "/08", zero + "/8 ", zero + "/ 8",
        zero + "/0x8", zero + "/8/8", zero + tooLong, zero + "/4294967304", std::string("/8"),
        std::string("/"), std::string(), "x" + zero + "/8"}) {
    EXPECT_FALSE(P::parse(text)) << text;
    EXPECT_FALSE(WithMask::parse(text)) << text;
  }
}

TYPED_TEST(PrefixTest, SortsAndHashesByAddressAndLength) {
  using P = TypeParam;
  const AddrOf<P> addr = SampleOf<P>::random(this->rng);
  std::set<P> prefixes;
  std::set<uint32_t> hashes;
  for (uint32_t len = P::kMaxLen; len-- > 0;) {
    const P prefix = P::enclosing(addr, len);
    prefixes.insert(prefix);
    hashes.insert(prefix.hash());
    EXPECT_EQ(prefix.hash(), P(prefix).hash());
  }
  EXPECT_EQ(prefixes.size(), P::kMaxLen);
  EXPECT_GT(hashes.size(), P::kMaxLen - 3);
  // A prefix sorts directly before the prefixes that it contains.
  uint32_t len = 0;
  for (const P& prefix : prefixes) EXPECT_EQ(prefix.len(), len++);
}

TYPED_TEST(PrefixTest, AnAddressWithMaskKeepsItsHostBitsAndKnowsItsSubnet) {
  using S = SampleOf<TypeParam>;
  using WithMask = WithMaskOf<TypeParam>;
  const WithMask addr = WithMask::parse(S::kWithHostBits).value();
  EXPECT_EQ(toString(addr.subnetAddr()), S::kSubnetEnds[0]);
  EXPECT_EQ(toString(addr.allOnesAddr()), S::kSubnetEnds[1]);
  EXPECT_EQ(WithMask(addr.addr(), WithMask::kMaxLen).subnetAddr(), addr.addr());
  EXPECT_EQ(WithMask(addr.addr(), WithMask::kMaxLen).allOnesAddr(), addr.addr());
  EXPECT_THROW(WithMask(addr.addr(), WithMask::kMaxLen + 1), Kiv::RangeException);
  EXPECT_EQ(AnyAddrWithMask(addr).hash(), addr.hash());
  EXPECT_EQ(toString(AnyAddrWithMask(addr)), S::kWithHostBits);
}

TEST(AnyAddrWithMaskTest, OnlyAnIpv4AddressHasAnIpv4Address) {
  const IpAddrWithMask v4(IpAddr(7), 24);
  EXPECT_EQ(AnyAddrWithMask(v4).v4Addr(), IpAddr(7));
  EXPECT_EQ(AnyAddrWithMask(Ip6AddrWithMask(Ip6Addr(0, 7), 24)).v4Addr(), std::nullopt);
  EXPECT_NE(AnyAddrWithMask(IpAddrWithMask()), AnyAddrWithMask(Ip6AddrWithMask()));
}

}  // namespace
}  // namespace Zemit
