// Routes as they are shown: with their resolved next hops.
#pragma once

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "daemon/Family.h"
#include "replay/HopText.h"
#include "replay/Json.h"

namespace Replay {

/// Next hops, sorted by address and then by interface name.
template <class F>
using Vias = std::vector<typename F::Via>;

template <class F>
Vias<F> sorted(Vias<F> vias) {
  std::sort(vias.begin(), vias.end(), [](const auto& a, const auto& b) {
    return a.hop != b.hop ? a.hop < b.hop : a.intf.name() < b.intf.name();
  });
  return vias;
}

/// The next hops of a FEC or a FIB adjacency; an empty list when it does not exist.
template <class F>
Vias<F> viasOf(const typename F::ForwardingStatus& forwarding, Tovan::Fib::FecId fecId) {
  const auto fec = forwarding.fec(fecId);
  return sorted<F>({fec.begin(), fec.end()});
}
template <class F>
Vias<F> viasOf(const typename F::ViaSet& viaSet) {
  Vias<F> vias;
  for (const auto& member : viaSet) vias.push_back(member.via);
  return sorted<F>(std::move(vias));
}
/// The next hops of a host adjacency of `table`; an empty list when it does not exist.
template <class F>
Vias<F> viasOf(const typename F::HostTable& table, Tovan::Fib::FecId index) {
  return viasOf<F>(table.adjIndexToViaSet(index));
}

template <class F>
struct ShownRoute {
  typename F::Route route;
  Vias<F> vias;
};

/// The routes of `table` for which `isShown` holds, sorted by prefix. `tables` resolves their FECs.
template <class F, class Table, class Tables, class IsShown>
std::vector<ShownRoute<F>> shownRoutes(const Table& table, const Tables& tables, IsShown isShown) {
  std::vector<ShownRoute<F>> routes;
  table.forEachRoute([&](const typename F::Route& route) {
    if (isShown(route)) routes.push_back({route, viasOf<F>(tables, route.fecId)});
  });
  std::sort(routes.begin(), routes.end(),
            [](const auto& a, const auto& b) { return a.route.key < b.route.key; });
  return routes;
}

template <class F>
std::string viasJson(const Vias<F>& vias) {
  JsonList list;
  for (const auto& via : vias) {
    list.add(JsonObject()
                 .add("hop", jsonString(hopText(via.hop)))
                 .add("intf", jsonString(via.intf.name()))
                 .text());
  }
  return list.text();
}

/// A route as a JSON object.
template <class F>
JsonObject routeJson(const ShownRoute<F>& shown) {
  const auto& route = shown.route;
  JsonObject object;
  object.add("prefix", jsonString(toString(route.key)))
      .add("type", jsonString(Routing::routeTypeName(route.routeType)))
      .add("metric", std::to_string(route.metricPref.metric))
      .add("preference", std::to_string(route.metricPref.preference))
      .add("fec", std::to_string(route.fecId))
      .add("vias", viasJson<F>(shown.vias));
  return object;
}

/// Next hops as a text for people; see Daemon::viasText().
template <class F>
std::string viasText(const Vias<F>& vias) {
  return Daemon::viasText(vias);
}

}  // namespace Replay
