// Routes and FECs of the feed: which of the kernel's routes are fed, and with which type.
#include <algorithm>
#include <array>

#include "linux/FeedWork.h"
#include "linux/Kinds.h"
#include "linux/Utf8.h"
#include "platform/tovan/FibTypes.h"

namespace Linux {
namespace {

using Daemon::Ipv4;
using Daemon::Ipv6;
using About = FeedWarning::About;

/// The most vias of a FEC.
constexpr size_t kMaxVias = Tovan::Fib::ViaIndex::max + 1;

/// The route types of a routing protocol's routes.
struct ProtocolTypes {
  uint8_t protocol;
  Routing::Fib::RouteType type4;
  Routing6::Fib::RouteType type6;
};
constexpr std::array kProtocolTypes{
    ProtocolTypes{RTPROT_REDIRECT, Routing::Fib::redirect_, Routing6::Fib::redirect_},
    ProtocolTypes{RTPROT_KERNEL, Routing::Fib::kernel_, Routing6::Fib::kernel_},
    ProtocolTypes{RTPROT_BOOT, Routing::Fib::staticConfig_, Routing6::Fib::staticConfig_},
    ProtocolTypes{RTPROT_STATIC, Routing::Fib::staticConfig_, Routing6::Fib::staticConfig_},
    ProtocolTypes{RTPROT_RA, Routing::Fib::kernel_, Routing6::Fib::kernel_},
    ProtocolTypes{RTPROT_BGP, Routing::Fib::ebgp_, Routing6::Fib::bgp_},
    ProtocolTypes{RTPROT_ISIS, Routing::Fib::isisL1_, Routing6::Fib::isisL1_},
    ProtocolTypes{RTPROT_OSPF, Routing::Fib::ospfIntraArea_, Routing6::Fib::ospf_},
    ProtocolTypes{RTPROT_RIP, Routing::Fib::rip_, Routing6::Fib::rip_},
};

bool isDirect(const NextHop& hop) {
  return !hop.gateway || std::visit([](const auto& addr) { return addr.isZero(); }, *hop.gateway);
}

template <class F>
typename F::RouteType routeType(const Route& route, const std::vector<NextHop>& hops) {
  // The routes that the kernel makes out of interface addresses.
  if (route.protocol == RTPROT_KERNEL && !hops.empty() && std::ranges::all_of(hops, isDirect)) {
    return F::kConnected;
  }
  const auto* row = std::ranges::find(kProtocolTypes, route.protocol, &ProtocolTypes::protocol);
  if constexpr (F::kNumber == 4) {
    return row == kProtocolTypes.end() ? Routing::Fib::unknown_ : row->type4;
  } else {
    return row == kProtocolTypes.end() ? Routing6::Fib::unknown_ : row->type6;
  }
}

/// Loopback, multicast and reserved prefixes, and those of one link.
bool isNobodys(const Zemit::Prefix& prefix) {
  const uint32_t first = prefix.addr().value();
  return (first >> 24 == 127 && prefix.len() >= 8) || (first >> 29 == 7 && prefix.len() >= 3) ||
         (first >> 16 == 0xA9FE && prefix.len() >= 16);
}
bool isNobodys(const Zemit::Ip6Prefix& prefix) {
  return prefix == Zemit::Ip6Prefix::host({0, 1}) || prefix.addr().isLinkLocal() ||
         Zemit::Ip6Prefix({uint64_t{0xFF} << 56, 0}, 8).contains(prefix);
}

/// The name of a route in a warning, as in `ip`.
std::string nameOf(const Prefix& prefix) {
  return std::visit(
      []<class Addr>(const Zemit::BasicPrefix<Addr>& p) {
        if (p.len() == 0) return std::string("default");
        return p.len() == Addr::kBits ? Zemit::toString(p.addr()) : Zemit::toString(p);
      },
      prefix);
}

/// A warning about a route, without its text.
FeedWarning warningOf(const Route& route) {
  return {.about = familyOf(route.prefix) == 4 ? About::Routes4 : About::Routes6,
          .prefix = route.prefix,
          .table = route.table};
}

}  // namespace

/// Collects the marked routes by VRF; when everything is marked, sorted by VRF and prefix.
void Feed::Work::findRouteKeys() {
  const auto note = [&](TableId table, const Prefix& prefix) {
    const auto [begin, end] = vrfsByTable_.equal_range(table);
    for (auto it = begin; it != end; ++it) routeKeys_.emplace_back(it->second, prefix);
    if (table == RT_TABLE_LOCAL && sink_) warnOfLocalRoutes(prefix);
  };
  for (const auto& [table, prefix] : markedRoutes_) note(table, prefix);
  if (!markedLinks_.empty()) {
    for (const auto& cover : options_.covers) {
      const auto vrf = vrfByName_.find(cover.vrf);
      if (vrf != vrfByName_.end()) routeKeys_.emplace_back(vrf->second, cover.prefix);
    }
  }
  if (changedVrfs_.empty() && renamedLinks_.empty()) return;
  for (Vrf* vrf : changedVrfs_) {
    Daemon::forEachFamily([&](auto family) {
      for (const auto& told : std::get<ToldRoutes<decltype(family)>>(vrf->routes)) {
        routeKeys_.emplace_back(vrf, told.key);
      }
    });
  }
  const auto isThroughRenamed = [&](const NextHop& hop) {
    return renamedLinks_.contains(hop.link);
  };
  mirror_.forEachRoute([&](TableId table, const Prefix& prefix) {
    const auto [begin, end] = vrfsByTable_.equal_range(table);
    bool isMarked = table == RT_TABLE_LOCAL && everything_;
    for (auto it = begin; it != end && !isMarked; ++it)
      isMarked = changedVrfs_.contains(it->second);
    if (begin != end && !isMarked) {
      for (const Route& route : mirror_.routes(table, prefix)) {
        isMarked = isMarked || std::ranges::any_of(route.hops, isThroughRenamed);
      }
    }
    if (isMarked) note(table, prefix);
  });
  if (!everything_) return;
  std::ranges::sort(routeKeys_, {},
                    [](const RouteKey& key) { return std::pair(key.first->number, key.second); });
  routeKeys_.erase(std::unique(routeKeys_.begin(), routeKeys_.end()), routeKeys_.end());
}

/// Warns of routes that an administrator added to the table local, because no address shows them.
void Feed::Work::warnOfLocalRoutes(const Prefix& prefix) {
  for (const Route& route : mirror_.routes(RT_TABLE_LOCAL, prefix)) {
    if (isSilentlyIgnored(route)) continue;
    if (route.type != RTN_LOCAL && route.protocol == RTPROT_KERNEL) continue;
    warn(warningOf(route), false, [&] {
      const std::string objection = objectionTo(route);
      return nameOf(prefix) +
             " left out: " + (objection.empty() ? "it stands in the table local" : objection);
    });
  }
}

/// Whether a route follows from addresses, belongs to one link, or is a host route of a routing
/// daemon.
bool Feed::Work::isSilentlyIgnored(const Route& route) const {
  const bool isKernels = route.protocol == RTPROT_KERNEL;
  switch (route.type) {
    case RTN_LOCAL:
      if (isKernels) return true;
      break;
    case RTN_BROADCAST:
    case RTN_ANYCAST:
    case RTN_MULTICAST:
      return true;
    default:
      break;
  }
  if (std::visit([](const auto& prefix) { return isNobodys(prefix); }, route.prefix)) return true;
  if (!isHost(route.prefix)) return false;
  if (options_.ignoredHostRouteProtocols.contains(route.protocol)) return true;
  // The table main has a host route for each own IPv6 address.
  const auto* prefix6 = std::get_if<Zemit::Ip6Prefix>(&route.prefix);
  return isKernels && prefix6 != nullptr &&
         std::ranges::any_of(route.hops, [&](const NextHop& hop) {
           return mirror_.address(hop.link, prefix6->addr()) != nullptr;
         });
}

/// The reason why a route cannot be fed; empty if it can.
std::string Feed::Work::objectionTo(const Route& route) const {
  if (route.tos != 0) return "it is for one type of service only";
  if (route.hasSource) return "it is for one range of source addresses only";
  switch (route.type) {
    case RTN_UNICAST:
    case RTN_BLACKHOLE:
    case RTN_UNREACHABLE:
    case RTN_PROHIBIT:
      return {};
    case RTN_LOCAL:
      return "the machine itself answers for it (a local route)";
    default:
      break;
  }
  const auto* row =
      findRow(kRouteTypes, [&](const NumberName& kind) { return kind.number == route.type; });
  return "a route of type " +
         (row == nullptr ? std::to_string(route.type) : std::string(row->name)) +
         " forwards nothing";
}

/// The reason why a route with a nexthop object has no next hop; empty if the object drops packets.
std::string Feed::Work::missingNexthop(uint32_t id, int depth) const {
  if (id == 0) return "it has no next hop";
  const auto* object = mirror_.nexthop(id);
  if (object == nullptr) return "there is no nexthop object " + std::to_string(id);
  if (object->isBlackhole) return {};
  // A route refers to a group, and the group to next hops. Deeper groups do not exist.
  if (depth > 1) return "its nexthop objects refer to each other";
  for (const auto& [member, weight] : object->group) {
    if (auto why = missingNexthop(member, depth + 1); !why.empty()) return why;
  }
  return "it has no next hop";
}

/// The reason why a next hop cannot be fed; empty if it can.
std::string Feed::Work::objectionTo(const NextHop& hop, bool& passes) {
  passes = false;
  if (hop.isTunnelled) return "its next hop is the end of a tunnel (encap)";
  const auto* port = this->port(hop.link);
  const auto* link = mirror_.link(hop.link);
  if (port == nullptr || link == nullptr || port->role.vrf == nullptr) {
    awaitedLinks_.insert(hop.link);
    if (link == nullptr) return "its next hop's interface is not here";
    return '"' + printable(link->name) + "\" is no layer-3 interface here";
  }
  passes = true;
  if (hop.isLinkDown)
    return "its next hop's interface " + printable(link->name) + " has no carrier";
  if (hop.isDead) return "its next hop is dead";
  return {};
}

/// The vias of a route, sorted by interface name and address, without repetition. A next hop that
/// cannot be fed is left out with a warning.
template <class F>
std::vector<typename F::Via> Feed::Work::viasOf(const Route& route,
                                                const std::vector<NextHop>& hops) {
  using Addr = typename F::Addr;
  const auto about = warningOf(route);
  std::vector<typename F::Via> vias;
  vias.reserve(hops.size());
  for (const auto& hop : hops) {
    bool passes = false;
    auto objection = objectionTo(hop, passes);
    Addr gateway;
    if (objection.empty() && !isDirect(hop)) {
      if (const auto* same = std::get_if<Addr>(&*hop.gateway); same != nullptr) {
        gateway = *same;
      } else if constexpr (std::is_same_v<F, Ipv4>) {
        gateway = Daemon::kIpv6NextHop;
      } else {
        objection = "its next hop " + toString(*hop.gateway) + " is of the other family";
      }
    }
    if (objection.empty()) {
      vias.push_back({.hop = gateway, .intf = port(hop.link)->role.intf});
      continue;
    }
    warn(about, passes, [&] {
      return nameOf(route.prefix) +
             (hops.size() > 1 ? ": a next hop left out: " : " kept without its next hop: ") +
             objection;
    });
  }
  std::ranges::sort(vias, [](const auto& a, const auto& b) {
    return a.intf != b.intf ? a.intf.name() < b.intf.name() : a.hop < b.hop;
  });
  vias.erase(std::unique(vias.begin(), vias.end()), vias.end());
  if (vias.size() > kMaxVias) {
    warn(about, false, [&] {
      return nameOf(route.prefix) + ": a switch takes " + std::to_string(kMaxVias) + " of its " +
             std::to_string(vias.size()) + " next hops";
    });
    vias.resize(kMaxVias);
  }
  return vias;
}

/// The form of a route for the switch; nothing for a route without any next hop.
template <class F>
std::optional<Feed::Work::WantedRoute<F>> Feed::Work::useOf(const Route& route) {
  const auto about = warningOf(route);
  static const std::vector<NextHop> kNone;
  const bool forwards = route.type == RTN_UNICAST;
  const auto& hops = forwards ? route.hops : kNone;
  if (forwards && hops.empty()) {
    if (const auto why = missingNexthop(route.nexthop, 0); !why.empty()) {
      warn(about, false, [&] { return nameOf(route.prefix) + " left out: " + why; });
      return std::nullopt;
    }
  }
  if (std::ranges::any_of(hops, [](const NextHop& hop) { return hop.weight > 1; })) {
    warn(about, false,
         [&] { return nameOf(route.prefix) + ": the weights of its next hops are left out"; });
  }
  return WantedRoute<F>{
      .vias = viasOf<F>(route, hops), .metric = route.metric, .type = routeType<F>(route, hops)};
}

/// The configured cover of this prefix, over its interfaces with a carrier.
template <class F>
std::optional<Feed::Work::WantedRoute<F>> Feed::Work::coverRoute(const Vrf& vrf,
                                                                 const typename F::Prefix& prefix) {
  const auto cover = std::ranges::find_if(options_.covers, [&](const FeedOptions::Cover& c) {
    return c.prefix == Prefix(prefix) && c.vrf == vrf.name;
  });
  if (cover == options_.covers.end()) return std::nullopt;
  Route route;
  route.prefix = prefix;
  for (const auto& [index, port] : ports_) {
    const auto* link = mirror_.link(index);
    if (link != nullptr && port.role.vrf == &vrf && link->isUp && link->hasCarrier &&
        !link->isLoopback && isSelected(cover->interfaces, link->name)) {
      route.hops.emplace_back().link = index;
    }
  }
  return WantedRoute<F>{.vias = viasOf<F>(route, route.hops), .type = F::kConnected};
}

/// The route that the kernel's look-up finds for a prefix, in its form for the switch.
template <class F>
std::optional<Feed::Work::WantedRoute<F>> Feed::Work::wantedRoute(
    const Vrf& vrf, const typename F::Prefix& prefix) {
  if (!vrf.table) return std::nullopt;
  if (auto cover = coverRoute<F>(vrf, prefix)) return cover;
  std::optional<WantedRoute<F>> best;
  for (const Route& route : mirror_.routes(*vrf.table, prefix)) {
    if (best && route.metric != best->metric) break;
    if (isSilentlyIgnored(route)) continue;
    const auto about = warningOf(route);
    if (const auto objection = objectionTo(route); !objection.empty()) {
      warn(about, false, [&] { return nameOf(route.prefix) + " left out: " + objection; });
      continue;
    }
    auto use = useOf<F>(route);
    if (!best) {
      best = std::move(use);
    } else if (use && use->vias != best->vias) {
      warn(about, false, [&] {
        return nameOf(route.prefix) + " left out: another route came first with the same metric";
      });
    }
  }
  return best;
}

/// Stores the wanted form of a route, and hands out its FEC if it is new.
/// \return whether the route has to be handed out.
template <class F>
bool Feed::Work::prepareRoute(Vrf& vrf, const typename F::Prefix& prefix, const Output& output) {
  auto& routes = std::get<ToldRoutes<F>>(vrf.routes);
  auto& fecs = std::get<Fecs<F>>(fecs_);
  auto* known = routes.find(prefix);
  auto wanted = wantedRoute<F>(vrf, prefix);
  if (!wanted) {
    if (known == nullptr) return false;
    fecs.release(known->fec);
    routes.erase(prefix);
    return true;
  }
  const ToldRoute<F> told{.fec = fecs.acquire(std::move(wanted->vias), output),
                          .metric = wanted->metric,
                          .type = wanted->type};
  if (known == nullptr) {
    routes.tryEmplace(prefix, told);
    return true;
  }
  fecs.release(known->fec);
  return std::exchange(*known, told) != told;
}

template <class F>
void Feed::Work::tellRoute(const Vrf& vrf, const typename F::Prefix& prefix,
                           const Output& output) const {
  const auto* told = std::get<ToldRoutes<F>>(vrf.routes).find(prefix);
  if (told == nullptr) {
    output(Daemon::SetRoute<F>{vrf.name, {.key = prefix}, false});
    return;
  }
  output(Daemon::SetRoute<F>{
      vrf.name,
      {.key = prefix,
       .metricPref = {.metric = told->metric, .preference = kPreference},
       .routeType = told->type,
       .fecId = told->fec == nullptr ? Tovan::Fib::invalidFecId : told->fec->second.id}});
}

void Feed::Work::tellRoutes(const Output& output) {
  findRouteKeys();
  // A FEC is added before the first route that uses it, and removed after the last.
  size_t changed = 0;
  for (auto& key : routeKeys_) {
    const bool isChanged = std::visit(
        [&]<class Addr>(const Zemit::BasicPrefix<Addr>& prefix) {
          return prepareRoute<Daemon::FamilyOf<Addr>>(*key.first, prefix, output);
        },
        key.second);
    if (isChanged) routeKeys_[changed++] = key;
  }
  routeKeys_.resize(changed);
  tellRoutesOf(routeKeys_, output);
  Daemon::forEachFamily(
      [&](auto family) { std::get<Fecs<decltype(family)>>(fecs_).sweep(output); });
}

void Feed::Work::tellRoutesOf(const std::vector<RouteKey>& keys, const Output& output) const {
  for (const auto& [vrf, prefix] : keys) {
    std::visit(
        [&, on = vrf]<class Addr>(const Zemit::BasicPrefix<Addr>& p) {
          tellRoute<Daemon::FamilyOf<Addr>>(*on, p, output);
        },
        prefix);
  }
}

/// Hands out all FECs and routes as new ones.
void Feed::Work::tellAllRoutes(const Output& output) const {
  std::map<uint32_t, Daemon::Operation> fecs;
  Daemon::forEachFamily([&](auto family) {
    using F = decltype(family);
    for (auto& [id, fec] : std::get<Fecs<F>>(fecs_).all()) {
      fecs.emplace(id, Daemon::SetFec<F>{std::move(fec)});
    }
  });
  for (const auto& [id, operation] : fecs) output(operation);
  for (const Vrf& vrf : vrfs_) {
    Daemon::forEachFamily([&](auto family) {
      using F = decltype(family);
      auto prefixes = std::get<ToldRoutes<F>>(vrf.routes).keys();
      std::ranges::sort(prefixes);
      for (const auto& prefix : prefixes) tellRoute<F>(vrf, prefix, output);
    });
  }
}

}  // namespace Linux
