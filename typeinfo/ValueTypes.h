// The reflective descriptions of the platform's value types: their names and their text forms.
#pragma once

#include <algorithm>

#include "platform/arp/NeighborDir.h"
#include "platform/interface/AllIntfStatusDir.h"
#include "platform/ip/Ip6Status.h"
#include "platform/ip/IpStatus.h"
#include "platform/kiv/reflection/TypeInfo.h"
#include "platform/l3/VrfName.h"
#include "platform/obu/AddrSet.h"
#include "platform/obu/IntfDir.h"
#include "platform/routing/SeqConfig.h"
#include "platform/routing/Trie.h"
#include "platform/routing/VirtualIpStatus.h"
#include "platform/rovel/AdjacencyHelper.h"
#include "platform/rovel/Readiness.h"
#include "platform/rovel/SeqInfo.h"
#include "platform/tovan/RouteStatus.h"
#include "platform/zemit/AnyAddrWithMask.h"

KIV_TYPE_NAME(bool);
KIV_TYPE_NAME(Tovan::Fib::FecId);
KIV_TYPE_NAME(Kiv::String);
KIV_TYPE_NAME(Zemit::IpAddr);
KIV_TYPE_NAME(Zemit::Ip6Addr);
KIV_TYPE_NAME(Zemit::Prefix);
KIV_TYPE_NAME(Zemit::Ip6Prefix);
KIV_TYPE_NAME(Zemit::IpAddrWithMask);
KIV_TYPE_NAME(Zemit::Ip6AddrWithMask);
KIV_TYPE_NAME(Zemit::IntfId);
KIV_TYPE_NAME(L3::VrfName);
KIV_TYPE_NAME(Tovan::Fib::Route);
KIV_TYPE_NAME(Tovan::Fib6::Route);
KIV_TYPE_NAME(Arp::ArpEntryStatus);
KIV_TYPE_NAME(Routing::Fhrp::VrfIpWithMaskPair);
KIV_TYPE_NAME(Routing::Fhrp::VrfIpPair);

KIV_TYPE_NAME(Kiv::ActivityConfig);
KIV_TYPE_NAME(Tovan::Fib::RouteStatus);
KIV_TYPE_NAME(Tovan::Fib6::RouteStatus);
KIV_TYPE_NAME(Tovan::Fib::ForwardingStatus);
KIV_TYPE_NAME(Tovan::Fib6::ForwardingStatus);
KIV_TYPE_NAME(Routing::Host::Status);
KIV_TYPE_NAME(Routing6::Host::Status);
KIV_TYPE_NAME(RovelReady::VrfStatus);
KIV_TYPE_NAME(Routing::SeqConfig);
KIV_TYPE_NAME(Rovel::SeqInfo);
KIV_TYPE_NAME(Rovel::AdjacencyHelper);
KIV_TYPE_NAME(Rovel::Adjacency6Helper);
KIV_TYPE_NAME(Ip::Status);
KIV_TYPE_NAME(Ip::IpIntfStatus);
KIV_TYPE_NAME(Ip6::Status);
KIV_TYPE_NAME(Ip6::IntfStatus);
KIV_TYPE_NAME(Arp::NeighborDir);
KIV_TYPE_NAME(Arp::ArpIntfStatus);
KIV_TYPE_NAME(Routing::Fhrp::VirtualIpStatus);
KIV_TYPE_NAME(Routing::Fhrp::VirtualIp6Status);
KIV_TYPE_NAME(Interface::AllIntfStatusDir);
KIV_TYPE_NAME(Routing::Trie);
KIV_TYPE_NAME(Routing6::Trie);
KIV_TYPE_NAME(Obu::AddrSet);
KIV_TYPE_NAME(Obu::Ip6AddrSet);
KIV_TYPE_NAME(Obu::IntfDir);

namespace Kiv {

namespace detail {

/// The characters that may occur in an address of this family.
template <class Addr>
inline constexpr std::string_view addrAlphabet =
    Addr::kBits == 32 ? "0123456789." : "0123456789abcdefABCDEF:.";

/// Takes the next characters that can be an address with a length.
template <class Addr>
std::string_view takeAddrAndLen(TextReader& reader) {
  const std::string_view from = reader.rest();
  reader.run(addrAlphabet<Addr>);
  if (reader.take("/")) reader.run("-0123456789");
  return from.substr(0, from.size() - reader.rest().size());
}

/// Takes the field name `name` and the blanks around it. False when the next word is another one.
inline bool takeField(TextReader& reader, std::string_view name) {
  TextReader ahead = reader;
  if (!ahead.takeBlanks() || ahead.word() != name || !ahead.takeBlanks()) return false;
  reader = ahead;
  return true;
}

}  // namespace detail

template <>
struct TextForm<Zemit::IpAddr> : RunForm<Zemit::IpAddr> {
  static std::optional<Zemit::IpAddr> read(TextReader& reader) {
    return RunForm::read(reader, detail::addrAlphabet<Zemit::IpAddr>);
  }
};

template <>
struct TextForm<Zemit::Ip6Addr> : RunForm<Zemit::Ip6Addr> {
  static std::optional<Zemit::Ip6Addr> read(TextReader& reader) {
    return RunForm::read(reader, detail::addrAlphabet<Zemit::Ip6Addr>);
  }
};

/// "10.0.0.0/24"; the null prefix, which names the set of deferred addresses, is "0.0.0.0/-1".
template <class Addr>
struct TextForm<Zemit::BasicPrefix<Addr>> : RunForm<Zemit::BasicPrefix<Addr>> {
  using P = Zemit::BasicPrefix<Addr>;
  static std::optional<P> read(TextReader& reader) {
    const auto text = detail::takeAddrAndLen<Addr>(reader);
    return text == Zemit::toString(P::null()) ? P::null() : P::parse(text);
  }
};

template <class Addr>
struct TextForm<Zemit::BasicAddrWithMask<Addr>> : RunForm<Zemit::BasicAddrWithMask<Addr>> {
  static std::optional<Zemit::BasicAddrWithMask<Addr>> read(TextReader& reader) {
    return Zemit::BasicAddrWithMask<Addr>::parse(detail::takeAddrAndLen<Addr>(reader));
  }
};

/// The interface's name. A name without an id is refused, because reading must not add names to the
/// registry.
template <>
struct TextForm<Zemit::IntfId> {
  static void print(std::ostream& os, Zemit::IntfId intf) {
    TextForm<String>::print(os, intf.name());
  }
  static std::optional<Zemit::IntfId> read(TextReader& reader) {
    const auto name = TextForm<String>::read(reader);
    return name ? Zemit::IntfId::find(*name) : std::nullopt;
  }
};

template <>
struct TextForm<L3::VrfName> {
  static void print(std::ostream& os, const L3::VrfName& name) {
    TextForm<String>::print(os, name.value());
  }
  static std::optional<L3::VrfName> read(TextReader& reader) {
    if (const auto name = TextForm<String>::read(reader)) return L3::VrfName(*name);
    return std::nullopt;
  }
};

/// "10.0.0.5/32 attached_ metric 0 preference 1 fec 0x1f". All parts but the prefix are optional.
template <class P, class Type>
struct TextForm<Tovan::BasicRoute<P, Type>> {
  using Route = Tovan::BasicRoute<P, Type>;
  static void print(std::ostream& os, const Route& route) { os << route; }
  /// False for a type outside the enumeration, whose text would be "unknown_".
  static bool isInEnumeration(const Route& route) {
    return Routing::parseRouteType<Type>(Routing::routeTypeName(route.routeType)) ==
           route.routeType;
  }
  static std::optional<Route> read(TextReader& reader) {
    const auto key = TextForm<P>::read(reader);
    if (!key) return std::nullopt;
    Route route{.key = *key};
    TextReader ahead = reader;
    if (ahead.takeBlanks()) {
      if (const auto type = Routing::parseRouteType<Type>(ahead.word())) {
        route.routeType = *type;
        reader = ahead;
      }
    }
    using Metric = Routing::RouteMetric;
    using Preference = Routing::RoutePreference;
    const auto field = [&reader](std::string_view name, auto& value, uint64_t max) {
      if (!detail::takeField(reader, name)) return true;
      const auto number = reader.number(max);
      if (number) value = static_cast<std::remove_reference_t<decltype(value)>>(*number);
      return number.has_value();
    };
    if (!field("metric", route.metricPref.metric, std::numeric_limits<Metric>::max()) ||
        !field("preference", route.metricPref.preference, std::numeric_limits<Preference>::max()) ||
        !field("fec", route.fecId, UINT64_MAX)) {
      return std::nullopt;
    }
    return route;
  }
};

/// The address and, when it is known, a blank and the Ethernet address.
template <>
struct TextForm<Arp::ArpEntryStatus> {
  static void print(std::ostream& os, const Arp::ArpEntryStatus& entry) { os << entry; }
  static std::optional<Arp::ArpEntryStatus> read(TextReader& reader) {
    const auto addr = TextForm<Zemit::IpAddr>::read(reader);
    if (!addr) return std::nullopt;
    Arp::ArpEntryStatus entry{.ipAddr = *addr};
    TextReader ahead = reader;
    if (ahead.takeBlanks()) {
      if (const auto mac = Zemit::EthAddr::parse(ahead.run("0123456789abcdefABCDEF:"))) {
        entry.mac = *mac;
        reader = ahead;
      }
    }
    return entry;
  }
};

namespace detail {

/// The VRF, a blank, and the address.
template <class Pair, class ReadAddress>
std::optional<Pair> readVrfPair(TextReader& reader, ReadAddress readAddress) {
  const auto vrf = TextForm<L3::VrfName>::read(reader);
  if (!vrf || !reader.takeBlanks()) return std::nullopt;
  const auto address = readAddress();
  return address ? std::optional<Pair>(std::in_place, *vrf, *address) : std::nullopt;
}

template <class Pair, class Address>
void printVrfPair(std::ostream& os, const Pair& pair, const Address& address) {
  TextForm<L3::VrfName>::print(os, pair.vrfName());
  os << ' ' << address;
}

}  // namespace detail

template <>
struct TextForm<Routing::Fhrp::VrfIpWithMaskPair> {
  using Pair = Routing::Fhrp::VrfIpWithMaskPair;
  static void print(std::ostream& os, const Pair& pair) {
    detail::printVrfPair(os, pair, pair.ipWithMask());
  }
  static std::optional<Pair> read(TextReader& reader) {
    return detail::readVrfPair<Pair>(reader, [&]() -> std::optional<Zemit::AnyAddrWithMask> {
      TextReader ahead = reader;
      if (const auto v4 = TextForm<Zemit::IpAddrWithMask>::read(ahead)) {
        reader = ahead;
        return *v4;
      }
      if (const auto v6 = TextForm<Zemit::Ip6AddrWithMask>::read(reader)) return *v6;
      return std::nullopt;
    });
  }
};

template <>
struct TextForm<Routing::Fhrp::VrfIpPair> {
  using Pair = Routing::Fhrp::VrfIpPair;
  static void print(std::ostream& os, const Pair& pair) {
    detail::printVrfPair(os, pair, pair.vrfIp());
  }
  static std::optional<Pair> read(TextReader& reader) {
    return detail::readVrfPair<Pair>(reader,
                                     [&reader] { return TextForm<Zemit::Ip6Addr>::read(reader); });
  }
};

/// The addresses. A set that was read has the null prefix as its name.
template <class P>
struct TextForm<Ptr<Obu::BasicAddrSet<P>>> {
  using Set = Obu::BasicAddrSet<P>;
  using Members = SetForm<typename P::Addr>;
  static void print(std::ostream& os, const Set& set) {
    auto addrs = set.ipKeys();
    std::sort(addrs.begin(), addrs.end());
    Members::print(os, addrs);
  }
  static std::optional<Ptr<Set>> read(TextReader& reader) {
    const auto addrs = Members::read(reader);
    if (!addrs) return std::nullopt;
    auto set = Set::AddrSetIs(P::null());
    for (const auto& addr : *addrs) set->ipIs(addr, true);
    return set;
  }
};

/// The interfaces' names.
template <>
struct TextForm<Ptr<Obu::IntfDir>> {
  using Members = SetForm<Zemit::IntfId>;
  static void print(std::ostream& os, const Obu::IntfDir& dir) {
    std::vector<Zemit::IntfId> intfs(dir.begin(), dir.end());
    std::sort(intfs.begin(), intfs.end(),
              [](Zemit::IntfId a, Zemit::IntfId b) { return a.name() < b.name(); });
    Members::print(os, intfs);
  }
  static std::optional<Ptr<Obu::IntfDir>> read(TextReader& reader) {
    const auto intfs = Members::read(reader);
    if (!intfs) return std::nullopt;
    auto dir = Obu::IntfDir::IntfDirIs();
    for (const Zemit::IntfId intf : *intfs) dir->intfIs(intf);
    return dir;
  }
};

}  // namespace Kiv
