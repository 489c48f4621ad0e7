// Long answers of the control socket: the daemon's objects, line by line.
#include "hostrouted/Listings.h"

#include <linux/neighbour.h>

#include <algorithm>
#include <array>
#include <set>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "hostrouted/Status.h"
#include "platform/tovan/Exceptions.h"
#include "replay/Output.h"
#include "replay/ShownRoute.h"

namespace Hostrouted {
namespace {

using Json = nlohmann::ordered_json;
using Replay::jsonString;

const char* stateName(uint16_t state) {
  constexpr std::array<std::pair<uint16_t, const char*>, 8> kNames{
      {{NUD_REACHABLE, "REACHABLE"},
       {NUD_STALE, "STALE"},
       {NUD_DELAY, "DELAY"},
       {NUD_PROBE, "PROBE"},
       {NUD_PERMANENT, "PERMANENT"},
       {NUD_NOARP, "NOARP"},
       {NUD_FAILED, "FAILED"},
       {NUD_INCOMPLETE, "INCOMPLETE"}}};
  const auto* known = std::ranges::find(kNames, state, &std::pair<uint16_t, const char*>::first);
  return known == kNames.end() ? "NONE" : known->second;
}

/// A line about an entry that cannot be listed.
void tellDamage(const std::string& damage, std::ostream& out) {
  out << toLine({{"error", damage}});
}

/// Calls `visit` with each family of each VRF that the filter selects. After damage of one table,
/// the others are still listed.
template <class Visit>
void forEachTable(const Router& router, const ListingFilter& filter, std::ostream& out,
                  Visit visit) {
  for (const auto& [name, vrf] : router.sw().vrfs()) {
    if (!filter.hasVrf(name)) continue;
    Daemon::forEachFamily([&, &vrfName = name, &tables = vrf](auto family) {
      using F = decltype(family);
      if (!filter.hasFamily(F::kNumber)) return;
      try {
        visit(family, vrfName, tables.template routing<F>());
      } catch (const Pindo::Exception& damage) {
        tellDamage(damage.what(), out);
      }
    });
  }
}

/// The prefixes of a table. Damaged entries are reported and left out.
template <class F>
std::vector<typename F::Prefix> soundPrefixesOf(const Daemon::HostRouting<F>& routing,
                                                std::ostream& out) {
  std::vector<typename F::Prefix> prefixes;
  routing.routeStatus->map().forEachSound(
      [&prefixes](const auto& item) { prefixes.push_back(item.key); },
      [&out](const std::string& damage) { tellDamage(damage, out); });
  std::ranges::sort(prefixes);
  return prefixes;
}

/// The prefixes of a table that the filter selects, in the order of the listing.
template <class F>
std::vector<typename F::Prefix> prefixesOf(const Daemon::HostRouting<F>& routing,
                                           const ListingFilter& filter, std::ostream& out) {
  using Prefix = typename F::Prefix;
  if (!filter.covering) return soundPrefixesOf<F>(routing, out);
  std::vector<Prefix> prefixes;
  if (const auto* covered = std::get_if<Prefix>(&*filter.covering)) {
    for (uint32_t lengths = covered->len() + 1; lengths > 0; --lengths) {
      prefixes.push_back(Prefix::enclosing(covered->addr(), lengths - 1));
    }
  }
  return prefixes;
}

template <class F>
void listRoute(const Router& router, const ListingFilter& filter, const std::string& vrf,
               const typename F::Route& route, std::ostream& out) {
  const auto type = Routing::routeTypeName(route.routeType);
  if (filter.type && *filter.type != type) return;
  Replay::ShownRoute<F> shown{route, {}};
  shown.vias = Replay::viasOf<F>(*router.sw().shared<F>().forwarding, route.fecId);
  const auto leavesThrough = [&](const auto& via) { return via.intf.name() == *filter.intf; };
  if (filter.intf && std::ranges::none_of(shown.vias, leavesThrough)) return;
  auto object = Replay::routeJson<F>(shown);
  object.add("vrf", jsonString(vrf)).add("family", std::to_string(F::kNumber));
  if (const auto state = kernelState(router, vrf, route.key); !state.empty()) {
    object.add("kernel", jsonString(state));
  }
  out << Replay::JsonObject().add("route", object.text()).text() << '\n';
}

/// Whether the address has a route to a neighbour, in the VRF.
template <class F>
bool hasRoute(const Router& router, const std::string& vrf, const typename F::Addr& addr) {
  const auto found = router.sw().vrfs().find(vrf);
  if (found == router.sw().vrfs().end()) return false;
  const auto prefix = F::Prefix::host(addr);
  const auto route = found->second.template routing<F>().routeStatus->route(prefix);
  return route.key == prefix && route.routeType == F::kAttached;
}

}  // namespace

std::string toLine(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string kernelState(const Router& router, const std::string& vrf, const Linux::Prefix& prefix) {
  const auto tables = router.config().tables.find(vrf);
  if (tables == router.config().tables.end() || !Linux::isHost(prefix)) return {};
  const bool isV4 = Linux::familyOf(prefix) == 4;
  const auto table = isV4 ? tables->second.table4 : tables->second.table6;
  const auto state = router.kernelRoutes().state({table, prefix});
  if (state.problem) return reasonOf(*state.problem);
  if (!state.isWanted) return {};
  return state.isInstalled ? "installed" : "pending";
}

void listRoutes(const Router& router, const ListingFilter& filter, std::ostream& out) {
  forEachTable(router, filter, out, [&](auto family, const std::string& vrf, const auto& routing) {
    using F = decltype(family);
    for (const auto& prefix : prefixesOf<F>(routing, filter, out)) {
      try {
        const auto route = routing.routeStatus->route(prefix);
        if (route.key == prefix) listRoute<F>(router, filter, vrf, route, out);
      } catch (const Pindo::Exception& damage) {
        tellDamage(damage.what(), out);
      }
    }
  });
}

void listNeighbors(const Router& router, const ListingFilter& filter, std::ostream& out) {
  const auto& mirror = router.mirror();
  std::vector<const Linux::Link*> links;
  mirror.forEachLink([&](const Linux::Link& link) {
    if (!filter.intf || *filter.intf == link.name) links.push_back(&link);
  });
  std::ranges::sort(links, {}, [](const Linux::Link* link) { return link->name; });
  for (const auto* link : links) {
    const auto vrf = router.feed().vrfOf(link->index);
    if (filter.vrf && *filter.vrf != vrf) continue;
    std::vector<Linux::Neighbor> neighbors;
    mirror.forEachNeighbor(link->index, [&](const Linux::Neighbor& neighbor) {
      if (!filter.hasFamily(Linux::familyOf(neighbor.addr))) return;
      if (filter.covering && *filter.covering != Linux::hostPrefix(neighbor.addr)) return;
      neighbors.push_back(neighbor);
    });
    std::ranges::sort(neighbors, {}, &Linux::Neighbor::addr);
    for (const auto& neighbor : neighbors) {
      const auto verdict = router.feed().verdictOn(neighbor);
      Json isRouted;
      try {
        isRouted = std::visit(
            [&]<class Addr>(const Addr& addr) {
              return hasRoute<Daemon::FamilyOf<Addr>>(router, vrf, addr);
            },
            neighbor.addr);
      } catch (const Pindo::Exception& damage) {
        tellDamage(damage.what(), out);
      }
      Json row{{"vrf", vrf},
               {"intf", link->name},
               {"address", Linux::toString(neighbor.addr)},
               {"mac", toString(neighbor.mac)},
               {"state", stateName(neighbor.state)},
               {"verdict", Linux::toString(verdict)},
               {"fed", verdict == Linux::NeighborVerdict::Fed},
               {"route", std::move(isRouted)}};
      out << toLine({{"neighbor", std::move(row)}});
    }
  }
}

void listNames(const Router& router, NameKind kind, const std::string& begin, std::ostream& out) {
  std::set<std::string> names;
  const auto note = [&](std::string name) {
    if (name.starts_with(begin) && names.size() < kMostNames) names.insert(std::move(name));
  };
  switch (kind) {
    case NameKind::Vrfs:
      for (const auto& vrf : router.sw().vrfs()) note(vrf.first);
      break;
    case NameKind::Interfaces:
      router.mirror().forEachLink([&](const Linux::Link& link) {
        if (!router.feed().vrfOf(link.index).empty()) note(link.name);
      });
      break;
    case NameKind::Prefixes:
      forEachTable(router, {}, out, [&](auto family, const std::string&, const auto& routing) {
        using F = decltype(family);
        for (const auto& prefix : soundPrefixesOf<F>(routing, out)) note(toString(prefix));
      });
      break;
  }
  for (const auto& name : names) out << toLine({{"name", name}});
}

void listDump(const Router& router, const ListingFilter& filter, bool isText, std::ostream& out) {
  const auto& vrfs = router.sw().vrfs();
  const auto dumpEach = [&](Replay::Output& output) {
    forEachTable(router, filter, out, [&](auto family, const std::string& vrf, const auto&) {
      constexpr bool kIsIpv4 = decltype(family)::kNumber == 4;
      output.dump(router.sw(),
                  {.vrfs = {&vrfs.find(vrf)->second}, .ipv4 = kIsIpv4, .ipv6 = !kIsIpv4});
    });
  };
  if (!isText) return dumpEach(*Replay::jsonOutput(out));
  Replay::DumpSelection selection{
      .vrfs = {}, .ipv4 = filter.hasFamily(4), .ipv6 = filter.hasFamily(6)};
  for (const auto& [name, vrf] : vrfs) {
    if (filter.hasVrf(name)) selection.vrfs.push_back(&vrf);
  }
  std::stringstream text;
  const auto output = Replay::textOutput(text);
  try {
    output->dump(router.sw(), selection);
  } catch (const Tovan::CorruptionDetectedException&) {
    text.str({});
    dumpEach(*output);  // names the damaged table and shows the others
  }
  for (std::string line; std::getline(text, line);) out << toLine({{"text", line}});
}

}  // namespace Hostrouted
