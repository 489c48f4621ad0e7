// Replaces the addresses and names in recordings.
#include "cli/Anonymizer.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <cstring>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "replay/Event.h"
#include "replay/HopText.h"

namespace Cli {

using Json = nlohmann::ordered_json;

namespace {

using Replay::EventError;

/// SipHash-2-4 (Aumasson, Bernstein: SipHash, a fast short-input PRF).
uint64_t sipHash(Anonymizer::Key key, std::string_view text) {
  std::array<uint64_t, 4> v{key.first ^ 0x736F6D6570736575, key.second ^ 0x646F72616E646F6D,
                            key.first ^ 0x6C7967656E657261, key.second ^ 0x7465646279746573};
  const auto rounds = [&](int count) {
    for (int i = 0; i < count; ++i) {
      v[0] += v[1];
      v[1] = std::rotl(v[1], 13) ^ v[0];
      v[0] = std::rotl(v[0], 32);
      v[2] += v[3];
      v[3] = std::rotl(v[3], 16) ^ v[2];
      v[0] += v[3];
      v[3] = std::rotl(v[3], 21) ^ v[0];
      v[2] += v[1];
      v[1] = std::rotl(v[1], 17) ^ v[2];
      v[2] = std::rotl(v[2], 32);
    }
  };
  const auto take = [&](uint64_t word) {
    v[3] ^= word;
    rounds(2);
    v[0] ^= word;
  };
  const auto wordOf = [](std::string_view bytes) {
    uint64_t word = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
      word |= uint64_t{static_cast<unsigned char>(bytes[i])} << (8 * i);
    }
    return word;
  };
  std::string_view rest = text;
  for (; rest.size() >= 8; rest.remove_prefix(8)) take(wordOf(rest.substr(0, 8)));
  take(wordOf(rest) | uint64_t{text.size() & 0xFF} << 56);
  v[2] ^= 0xFF;
  rounds(4);
  return v[0] ^ v[1] ^ v[2] ^ v[3];
}

bool bitOf(const Zemit::IpAddr& addr, uint32_t index) {
  return (addr.value() >> (31 - index) & 1) != 0;
}
bool bitOf(const Zemit::Ip6Addr& addr, uint32_t index) {
  return index < 64 ? (addr.high() >> (63 - index) & 1) != 0
                    : (addr.low() >> (127 - index) & 1) != 0;
}
Zemit::IpAddr flipped(const Zemit::IpAddr& addr, uint32_t index) {
  return Zemit::IpAddr(addr.value() ^ uint32_t{1} << (31 - index));
}
Zemit::Ip6Addr flipped(const Zemit::Ip6Addr& addr, uint32_t index) {
  if (index < 64) return {addr.high() ^ uint64_t{1} << (63 - index), addr.low()};
  return {addr.high(), addr.low() ^ uint64_t{1} << (127 - index)};
}

/// The prefixes with a special meaning to every router. Each is mapped to itself.
template <class F>
const std::vector<typename F::Prefix>& specialPrefixes() {
  const auto parsed = [](std::initializer_list<const char*> texts) {
    std::vector<typename F::Prefix> prefixes;
    for (const char* text : texts) prefixes.push_back(*F::Prefix::parse(text));
    return prefixes;
  };
  if constexpr (std::is_same_v<F, Daemon::Ipv4>) {
    static const auto kPrefixes =
        parsed({"0.0.0.0/32", "0.0.0.0/8", "127.0.0.0/8", "169.254.0.0/16", "192.0.0.8/32",
                "224.0.0.0/4", "240.0.0.0/4", "255.255.255.255/32"});
    return kPrefixes;
  } else {
    static const auto kPrefixes =
        parsed({"::/128", "::1/128", "fe80::/10", "fe80::/64", "ff00::/8"});
    return kPrefixes;
  }
}

/// Whether the bits from `begin` to `end` of an address are all `value`.
template <class Addr>
bool areAll(const Addr& addr, uint32_t begin, uint32_t end, bool value) {
  for (uint32_t i = begin; i < end; ++i) {
    if (bitOf(addr, i) != value) return false;
  }
  return true;
}

/// The content of a field of an event.
enum class Holds { Nothing, Address, Interface, Vrf, Mac, Vias };
struct Field {
  std::string_view name;
  Holds holds;
};
constexpr Field kFields[] = {
    {"vrf", Holds::Vrf},         {"intf", Holds::Interface},     {"addr", Holds::Address},
    {"ip", Holds::Address},      {"prefix", Holds::Address},     {"mac", Holds::Mac},
    {"vias", Holds::Vias},       {"hop", Holds::Address},        {"op", Holds::Nothing},
    {"present", Holds::Nothing}, {"secondary", Holds::Nothing},  {"id", Holds::Nothing},
    {"family", Holds::Nothing},  {"type", Holds::Nothing},       {"fec", Holds::Nothing},
    {"metric", Holds::Nothing},  {"preference", Holds::Nothing}, {"value", Holds::Nothing},
    {"at", Holds::Nothing},
};

Holds whatHolds(const std::string& op, const std::string& field) {
  if (field == "name" && op == "intf") return Holds::Interface;
  if (field == "name" && op == "vrf") return Holds::Vrf;
  const auto* known = std::ranges::find(kFields, field, &Field::name);
  if (known == std::end(kFields)) throw EventError("unknown field \"" + field + "\"");
  return known->holds;
}

Json parseLine(std::string_view line) {
  (void)Replay::Event::parse(line);  // reports errors
  return Json::parse(line);
}

std::string textOf(const Json& value) {
  if (!value.is_string()) throw EventError("a text is expected where " + value.dump() + " is");
  return value.get<std::string>();
}

void replaceIn(Json& object, const std::string& op, const Anonymizer& anonymizer) {
  for (auto& [name, value] : object.items()) {
    switch (whatHolds(op, name)) {
      case Holds::Nothing:
        // A plain value of these fields tells nothing about the network. An object or a list could.
        if (value.is_structured()) throw EventError("\"" + name + "\" has a structure");
        break;
      case Holds::Address:
        value = anonymizer.addressText(textOf(value));
        break;
      case Holds::Interface:
        value = anonymizer.interfaceName(textOf(value));
        break;
      case Holds::Vrf:
        value = anonymizer.vrfName(textOf(value));
        break;
      case Holds::Mac:
        value = anonymizer.mac(textOf(value));
        break;
      case Holds::Vias:
        if (!value.is_array()) throw EventError("\"vias\" is not a list");
        for (auto& via : value) {
          if (!via.is_object()) throw EventError("\"vias\" is not a list of objects");
          replaceIn(via, "", anonymizer);
        }
        break;
    }
  }
}

}  // namespace

Anonymizer::Anonymizer(Key key) : key_(std::move(key)) {}

Anonymizer::Key Anonymizer::keyOf(std::string_view text) {
  return {sipHash({1, 0}, text), sipHash({2, 0}, text)};
}

uint64_t Anonymizer::hash(std::string_view text) const {
  return sipHash(key_, text);
}

void Anonymizer::note(std::string_view line) {
  const auto object = Json::parse(line, nullptr, false);
  if (!object.is_object()) return;
  const auto found = object.find("addr");
  if (found == object.end() || !found->is_string()) return;
  const auto text = found->get<std::string>();
  if (const auto addr = Zemit::IpAddrWithMask::parse(text)) noteSubnet<Daemon::Ipv4>(*addr);
  if (const auto addr = Zemit::Ip6AddrWithMask::parse(text)) noteSubnet<Daemon::Ipv6>(*addr);
}

template <class F>
void Anonymizer::noteSubnet(const typename F::AddrWithMask& addr) {
  addresses_.clear();
  std::get<Subnets<F>>(subnets_).insert(F::Prefix::enclosing(addr.addr(), addr.len()));
}

/// Flips each bit, or not, depending on the bits before it. So addresses keep the length of their
/// common prefix. A bit is not flipped when the bits before it begin a special prefix, or when they
/// begin the first or last address of a subnet.
template <class F>
typename F::Addr Anonymizer::mapped(const typename F::Addr& addr) const {
  using Prefix = typename F::Prefix;
  constexpr uint32_t kBits = F::Addr::kBits;
  std::vector<uint32_t> subnetLengths;
  for (uint32_t len = 0; len <= kBits; ++len) {
    if (std::get<Subnets<F>>(subnets_).contains(Prefix::enclosing(addr, len))) {
      subnetLengths.push_back(len);
    }
  }
  auto result = addr;
  for (uint32_t i = 0; i < kBits; ++i) {
    const auto before = Prefix::enclosing(addr, i);
    const auto leadsTo = [&](const Prefix& special) {
      return special.len() > i && before.contains(special.addr());
    };
    const auto isAtEdge = [&](uint32_t len) {
      return len <= i && (areAll(addr, len, i, false) || areAll(addr, len, i, true));
    };
    if (std::ranges::any_of(specialPrefixes<F>(), leadsTo) ||
        std::ranges::any_of(subnetLengths, isAtEdge)) {
      continue;
    }
    if ((hash("bit " + toString(before)) & 1) != 0) result = flipped(result, i);
  }
  return result;
}

Zemit::IpAddr Anonymizer::address(const Zemit::IpAddr& addr) const {
  return mapped<Daemon::Ipv4>(addr);
}
Zemit::Ip6Addr Anonymizer::address(const Zemit::Ip6Addr& addr) const {
  return mapped<Daemon::Ipv6>(addr);
}

std::string Anonymizer::addressText(const std::string& text) const {
  if (text == Replay::kIpv6NextHopText) return text;
  auto known = addresses_.find(text);
  if (known == addresses_.end()) known = addresses_.emplace(text, mappedText(text)).first;
  return known->second;
}

std::string Anonymizer::mappedText(const std::string& text) const {
  const auto slash = text.find('/');
  const auto bare = text.substr(0, slash);
  const auto length = slash == text.npos ? "" : text.substr(slash);
  // The host bits of a prefix stay 0.
  const auto mappedIn = [&]<class Addr>(const Addr& addr) {
    const auto with = Zemit::BasicAddrWithMask<Addr>::parse(text);
    const uint32_t len = with ? with->len() : Addr::kBits;
    const auto other = address(addr);
    return toString(addr.subnetFirst(len) == addr ? other.subnetFirst(len) : other) + length;
  };
  if (const auto addr = Zemit::IpAddr::parse(bare)) return mappedIn(*addr);
  if (const auto addr = Zemit::Ip6Addr::parse(bare)) return mappedIn(*addr);
  throw EventError("\"" + text + "\" is neither an address nor a prefix");
}

/// The name of a management port keeps its start, by which the engine recognises such ports.
std::string Anonymizer::interfaceName(std::string_view name) const {
  if (name.empty()) return {};
  char text[40];
  const bool isManagement = name.starts_with("Management");
  const auto number = hash("interface " + std::string(name)) & 0xFFFFFFFFFF;
  std::snprintf(text, sizeof(text), "%s%010llx", isManagement ? "Management" : "if",
                static_cast<unsigned long long>(number));
  return text;
}

std::string Anonymizer::vrfName(std::string_view name) const {
  if (name == Daemon::Switch::kDefaultVrf) return std::string(name);
  char text[40];
  const auto number = hash("VRF " + std::string(name)) & 0xFFFFFFFFFF;
  std::snprintf(text, sizeof(text), "vrf%010llx", static_cast<unsigned long long>(number));
  return text;
}

/// Returns a locally administered unicast address.
std::string Anonymizer::mac(std::string_view text) const {
  const auto parsed = Zemit::EthAddr::parse(text);
  if (!parsed) throw EventError("\"" + std::string(text) + "\" is not an Ethernet address");
  const auto number = hash("mac " + toString(*parsed));
  Zemit::EthAddr::Bytes bytes{};
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(number >> (8 * i));
  bytes[0] = static_cast<uint8_t>((bytes[0] & 0xFC) | 2);
  return toString(Zemit::EthAddr(bytes));
}

std::string Anonymizer::line(std::string_view line) const {
  auto object = parseLine(line);
  const auto op = textOf(object.at("op"));
  replaceIn(object, op, *this);
  return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace Cli
