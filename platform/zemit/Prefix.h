// Prefixes of both families, and the null prefix.
#pragma once

#include <compare>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>

#include "platform/zemit/Ip6Addr.h"
#include "platform/zemit/IpAddr.h"

namespace Zemit {

/// A set of addresses with the same leading bits, such as 10.0.0.0/24. Holds the first address of
/// the set and the number of those bits. All other bits of the address are zero.
///
/// The default value is 0.0.0.0/0 (::/0), which contains every address. The null prefix means "no
/// such prefix". Its length is kNullLen, which no real prefix has.
template <class A>
class BasicPrefix {
 public:
  using Addr = A;
  static constexpr uint32_t kMaxLen = A::kBits;
  /// The length of the null prefix.
  static constexpr uint32_t kNullLen = std::numeric_limits<uint32_t>::max();
  static constexpr size_t kMaxText = A::kMaxText + 4;

  constexpr BasicPrefix() = default;
  /// Address zero with length kNullLen is the null prefix.
  /// \throws Kiv::RangeException when `len` is over kMaxLen or `addr` has host bits set.
  constexpr BasicPrefix(const A& addr, uint32_t len) : addr_(addr), len_(len) {
    if (!isValid(addr, len)) [[unlikely]]
      refuse();
  }
  /// "No such prefix".
  static constexpr BasicPrefix null() { return {A(), kNullLen}; }
  /// The host prefix of `addr`, a /32 or /128.
  static constexpr BasicPrefix host(const A& addr) {
    BasicPrefix prefix;
    prefix.addr_ = addr;
    prefix.len_ = kMaxLen;
    return prefix;
  }
  /// The prefix of length `len`, at most kMaxLen, that contains `addr`.
  static constexpr BasicPrefix enclosing(const A& addr, uint32_t len) {
    return {addr.subnetFirst(len), len};
  }
  /// Reads "ADDR/LEN". Refuses the null prefix and an address with host bits set.
  static std::optional<BasicPrefix> parse(std::string_view text) {
    const auto len = detail::takeLength(text, kMaxLen);
    const auto addr = A::parse(text);
    if (!len || !addr || !isValid(*addr, *len)) return std::nullopt;
    return BasicPrefix(*addr, *len);
  }

  constexpr const A& addr() const { return addr_; }
  constexpr uint32_t len() const { return len_; }

  /// True when `addr` is in the prefix; the null prefix contains nothing.
  constexpr bool contains(const A& addr) const {
    return len_ <= kMaxLen && addr.subnetFirst(len_) == addr_;
  }
  /// True when all addresses of `other` are in this prefix; a prefix contains itself, and no prefix
  /// contains the null prefix.
  constexpr bool contains(const BasicPrefix& other) const {
    return len_ <= other.len_ && other.len_ <= kMaxLen && contains(other.addr_);
  }

  uint32_t hash() const { return addr_.hashWith(len_); }

  /// Writes "10.0.0.0/24"; the null prefix as "0.0.0.0/-1".
  char* write(char* out) const {
    out = detail::writeText(addr_.write(out), "/");
    return isNull(*this) ? detail::writeText(out, "-1") : detail::writeDecimal(out, len_);
  }

  friend constexpr bool isNull(const BasicPrefix& prefix) { return prefix.len_ == kNullLen; }
  friend constexpr auto operator<=>(const BasicPrefix&, const BasicPrefix&) = default;

 private:
  static constexpr bool isValid(const A& addr, uint32_t len) {
    return len <= kMaxLen ? addr.subnetFirst(len) == addr : len == kNullLen && addr.isZero();
  }
  [[noreturn]] static void refuse();

  A addr_;
  uint32_t len_ = 0;
};

using Prefix = BasicPrefix<IpAddr>;
using Ip6Prefix = BasicPrefix<Ip6Addr>;

template <>
void Prefix::refuse();
template <>
void Ip6Prefix::refuse();

static_assert(sizeof(Prefix) == 8 && sizeof(Ip6Prefix) == 20, "keys of tables of a million");

}  // namespace Zemit
