#include "platform/zemit/Ip6Addr.h"

#include <arpa/inet.h>

#include <array>
#include <utility>

namespace Zemit {
namespace {

using Groups = std::array<uint16_t, 8>;

/// The begin and the end of the longest run of two or more zero groups; the first of equally long
/// runs.
std::pair<size_t, size_t> longestZeros(const Groups& groups) {
  std::pair<size_t, size_t> best{groups.size(), groups.size()};
  size_t longest = 1;
  for (size_t begin = 0; begin < groups.size(); ++begin) {
    size_t end = begin;
    while (end < groups.size() && groups[end] == 0) ++end;
    if (end - begin > longest) {
      best = {begin, end};
      longest = end - begin;
    }
  }
  return best;
}

}  // namespace

std::optional<Ip6Addr> Ip6Addr::parse(std::string_view text) {
  std::array<unsigned char, 16> bytes;
  if (!detail::parseAddr(AF_INET6, text, bytes.data())) return std::nullopt;
  std::array<uint64_t, 2> words{};
  for (size_t i = 0; i < bytes.size(); ++i) words[i / 8] = (words[i / 8] << 8) | bytes[i];
  return Ip6Addr(words[0], words[1]);
}

char* Ip6Addr::write(char* out) const {
  if (high() == 0 && low() >> 32 == 0xFFFF) {
    return IpAddr(static_cast<uint32_t>(low())).write(detail::writeText(out, "::ffff:"));
  }
  Groups groups;
  for (size_t i = 0; i < groups.size(); ++i) {
    groups[i] = static_cast<uint16_t>((i < 4 ? high() : low()) >> (48 - 16 * (i % 4)));
  }
  const auto [zerosBegin, zerosEnd] = longestZeros(groups);
  for (size_t i = 0; i < groups.size(); ++i) {
    if (i == zerosBegin) {
      out = detail::writeText(out, "::");
      i = zerosEnd;
      if (i == groups.size()) break;
    } else if (i != 0) {
      *out++ = ':';
    }
    out = detail::writeHex(out, groups[i]);
  }
  return out;
}

}  // namespace Zemit
