// The reason why an address has a host route, or has none.
#include "daemon/Explain.h"

#include <algorithm>
#include <type_traits>
#include <utility>

#include "daemon/EngineFamily.h"
#include "daemon/HopText.h"
#include "daemon/Switch.h"
#include "hostcore/Explain.h"
#include "platform/kiv/containers/Exception.h"
#include "platform/routing/RouteTypes.h"

namespace Daemon {
namespace {

using HostCore::Lack;

template <class F>
std::vector<ExplainedVia> explained(const std::vector<typename F::Via>& vias) {
  std::vector<ExplainedVia> result;
  for (const auto& via : vias) {
    result.push_back({hopText(via.hop), std::string(via.intf.name().view())});
  }
  return result;
}

std::string typeText(auto type) {
  return std::string(Routing::routeTypeName(type));
}

/// "connected_, FEC 31" or "connected_, without a FEC".
template <class Route>
std::string routeText(const Route& route) {
  return typeText(route.routeType) +
         (route.fecId == 0 ? ", without a FEC" : ", FEC " + std::to_string(route.fecId));
}

/// " through 10.0.0.9 Ethernet1" for the text of next hops. A broadcast address has none.
std::string throughText(const std::string& vias) {
  return vias == "-" ? "" : " through " + vias;
}

/// "leaves through Ethernet1 (FEC 7)".
template <class Route, class Vias>
std::string leavesText(const Route& route, const Vias& vias) {
  const std::string fec = " (FEC " + std::to_string(route.fecId) + ")";
  return vias.empty() ? "leaves through no interface" + fec
                      : "leaves through " + viasText(vias) + fec;
}

/// Builds the explanation of one address from the results of the machine's own steps.
template <class F>
class Explainer {
 public:
  using Addr = typename F::Addr;
  using State = HostCore::AddressState<EngineFamily<F>>;
  using Neighbor = typename State::Neighbor;
  using Source = typename State::Source;

  Explainer(const Switch& sw, const std::string& vrf, const Addr& addr)
      : sw_(sw), vrf_(vrf), addr_(addr), routing_(sw.vrfs().find(vrf)->second.routing<F>()) {
    result_.vrf = vrf;
    result_.address = toString(addr);
    result_.family = F::kNumber;
  }

  Explanation explain() {
    auto* const machine = routing_.machine();
    if (machine == nullptr) {
      explainEnded();
    } else {
      state_ = HostCore::Explain<EngineFamily<F>>(*machine).stateOf(addr_);
      findMachine();
      findOwnAddress();
      findFibRoute();
      findVirtualIp();
      findNeighbors();
      findHostRoute();
      findRouteTable();
      judge();
    }
    findElsewhere();
    return std::move(result_);
  }

 private:
  Finding& add(Finding::Kind kind, std::string text) {
    result_.findings.push_back({.kind = kind, .text = std::move(text)});
    return result_.findings.back();
  }
  template <class Found>
  static void addParts(Finding& finding, const Found& found) {
    finding.prefix = toString(found.route.key);
    finding.type = typeText(found.route.routeType);
    finding.vias = explained<F>(found.vias);
  }
  std::string name() const { return std::string("VRF ") + vrf_; }
  std::string host() const { return toString(F::Prefix::host(addr_)); }

  void explainEnded() {
    add(Finding::Kind::Machine, "the machine of " + name() + " has ended");
    const auto existing = Obu::readRoute(routing_.routeStatus.get(), F::Prefix::host(addr_));
    if (existing.key == F::Prefix::host(addr_) && existing.routeType != F::kInvalid) {
      result_.winner = Candidate{.source = sourceOf(existing),
                                 .type = typeText(existing.routeType),
                                 .fec = fecOf(existing),
                                 .vias = explained<F>(viasOf(existing)),
                                 .reason = "the machine left it when it ended"};
      return;
    }
    result_.missing = Missing{.kind = Missing::Kind::Machine,
                              .text = "the machine of " + name() + " has ended",
                              .mend = "a restart"};
  }

  void findMachine() {
    if (!state_.isInitialized) {
      add(Finding::Kind::Machine, name() + " is not initialized: nothing is written yet");
    }
    if (state_.isDeferred) {
      add(Finding::Kind::Machine, "the address waits to be merged until then");
    }
  }

  void findOwnAddress() {
    if (!state_.ownAddress) {
      add(Finding::Kind::OwnAddress, "no");
      return;
    }
    const auto& own = *state_.ownAddress;
    const std::string intf(state_.ownIntf.view());
    auto& finding =
        add(Finding::Kind::OwnAddress, "yes, " + typeText(own.route.routeType) + " of " + intf);
    addParts(finding, own);
    finding.intf = intf;
    if constexpr (!F::kMergesReceiveRoutes) {
      finding.text +=
          "; such a route stays in receiveTable, and is not merged into the route table";
    }
  }

  void findFibRoute() {
    if (!state_.fibRoute) {
      add(Finding::Kind::FibRoute, "none");
      return;
    }
    const auto& found = *state_.fibRoute;
    std::string text = routeText(found.route);
    if (HostCore::isComplete<EngineFamily<F>>(found.route)) {
      text = typeText(found.route.routeType) + ", " + leavesText(found.route, found.vias);
    } else {
      text += ": incomplete";
    }
    auto& finding = add(Finding::Kind::FibRoute, text);
    addParts(finding, found);
    finding.fec = found.route.fecId;
  }

  /// The VRFs in which the address is virtual.
  std::vector<std::string> virtualIn() const {
    std::vector<std::string> vrfs;
    for (const auto& pair : sw_.shared<F>().virtualIps->virtualIpKeys()) {
      if (F::virtualAddr(pair) == addr_) {
        vrfs.emplace_back(pair.vrfName().value().view());
      }
    }
    std::sort(vrfs.begin(), vrfs.end());
    vrfs.erase(std::unique(vrfs.begin(), vrfs.end()), vrfs.end());
    return vrfs;
  }
  static std::string listed(const std::vector<std::string>& names) {
    std::string text;
    for (const auto& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
  }

  void findVirtualIp() {
    if (!state_.isVirtual) {
      add(Finding::Kind::VirtualIp, "no");
      return;
    }
    const auto vrfs = virtualIn();
    auto& finding = add(Finding::Kind::VirtualIp, "yes, in VRF " + listed(vrfs));
    finding.vrf = listed(vrfs);
  }

  /// The VRF of an interface; empty when it is not known.
  std::string vrfOf(Zemit::IntfId intf) const {
    const auto status = F::intfStatus(*routing_.machine(), intf);
    if (!status || !status->l3Status()) return {};
    return std::string(status->l3Status()->vrf().value().view());
  }

  void findNeighbors() {
    if (state_.neighbors.empty()) {
      add(Finding::Kind::Neighbor, "on no interface");
      addCover(state_.cover);
    }
    for (const Neighbor& neighbor : state_.neighbors) {
      const std::string intf(neighbor.intf.name().view());
      const std::string vrf = vrfOf(neighbor.intf);
      auto& finding = add(Finding::Kind::Neighbor, "on " + intf);
      finding.intf = intf;
      if (!vrf.empty() && vrf != vrf_) {
        finding.vrf = vrf;
        finding.text += ", which is in VRF " + vrf;
      }
      if (neighbor.lack == Lack::Skipped) {
        finding.text += ", a management port: those are left out";
      } else {
        addCover(neighbor);
      }
    }
    if (!state_.filedUnder.empty()) {
      std::vector<std::string> prefixes;
      for (const auto& prefix : state_.filedUnder) prefixes.push_back(toString(prefix));
      add(Finding::Kind::Filed, listed(prefixes)).prefix = prefixes.front();
    }
  }

  void addCover(const Neighbor& neighbor) {
    const auto& cover = neighbor.cover;
    if (isNull(cover.key)) {
      add(Finding::Kind::Cover, "no FIB route");
      return;
    }
    const std::string prefix = toString(cover.key);
    auto& finding = add(Finding::Kind::Cover, prefix + ", ");
    finding.prefix = prefix;
    finding.vias = explained<F>(neighbor.coverVias);
    if (neighbor.lack == Lack::Record) {
      finding.text += "which has no route any more";
      return;
    }
    finding.type = typeText(cover.routeType);
    finding.fec = cover.fecId;
    finding.text += cover.fecId == 0
                        ? routeText(cover)
                        : typeText(cover.routeType) + ", " + leavesText(cover, neighbor.coverVias);
  }

  void findHostRoute() {
    if (!state_.hostRoute) {
      add(Finding::Kind::HostRoute, "none");
      return;
    }
    const auto& found = *state_.hostRoute;
    auto& finding =
        add(Finding::Kind::HostRoute,
            typeText(found.route.routeType) + " through " + viasText(found.vias) +
                ", host adjacency " + std::to_string(found.route.fecId) + " with " +
                std::to_string(found.users) + (found.users == 1 ? " reference" : " references"));
    addParts(finding, found);
    finding.adjacency = found.route.fecId;
    finding.references = found.users;
  }

  static uint64_t fecOf(const typename F::Route& route) {
    return route.fecId < F::ForwardingStatus::kFirstAdjacency ? route.fecId : 0;
  }
  std::vector<typename F::Via> viasOf(const typename F::Route& route) const {
    const auto fec = Obu::readFec(sw_.shared<F>().forwarding.get(), route.fecId);
    return {fec.begin(), fec.end()};
  }
  /// The source of a route in the route table.
  static std::string sourceOf(const typename F::Route& route) {
    if (fecOf(route) != 0) return "fibRoute";
    return route.routeType == F::kAttached ? "neighbor" : "ownAddress";
  }
  template <class Found>
  static std::string inTableText(const Found& found) {
    const uint64_t fec = fecOf(found.route);
    return typeText(found.route.routeType) + throughText(viasText(found.vias)) +
           (fec == 0 ? "" : " (FEC " + std::to_string(fec) + ")");
  }

  /// The expected route in the route table. It has no FEC when its FEC id is the index of a host
  /// adjacency.
  auto shownExpected() const {
    auto shown = *state_.expected;
    shown.route.fecId = candidate(shown, state_.source).fec;
    return shown;
  }

  void findRouteTable() {
    if (!state_.inTable) {
      add(Finding::Kind::RouteTable, "no route");
      return;
    }
    const auto& found = *state_.inTable;
    const bool isRoute = found.route.routeType != F::kInvalid;
    auto& finding =
        add(Finding::Kind::RouteTable,
            isRoute ? inTableText(found) : "a record without type and FEC, which is no route");
    addParts(finding, found);
    finding.fec = fecOf(found.route);
  }

  void findElsewhere() {
    const auto prefix = F::Prefix::host(addr_);
    for (const auto& [name, vrf] : sw_.vrfs()) {
      if (name == vrf_) continue;
      const auto route = Obu::readRoute(vrf.template routing<F>().routeStatus.get(), prefix);
      if (route.key != prefix || route.routeType == F::kInvalid) continue;
      const auto vias = viasOf(route);
      auto& finding =
          add(Finding::Kind::OtherVrf,
              "VRF " + name + " has " + typeText(route.routeType) + " through " + viasText(vias));
      finding.vrf = name;
      finding.prefix = toString(prefix);
      finding.type = typeText(route.routeType);
      finding.fec = fecOf(route);
      finding.vias = explained<F>(vias);
    }
  }

  // The verdict.

  void judge() {
    const bool hasRoute = state_.inTable && state_.inTable->route.routeType != F::kInvalid;
    const bool isExpected = state_.expected && !state_.givesWay;
    if (!state_.isSettled) {
      const std::string when = state_.isInitialized ? " when the address is merged again"
                                                    : " once " + name() + " is initialized";
      result_.pending = isExpected ? inTableText(shownExpected()) + " is written" + when
                                   : "the route goes" + when;
    }
    if (state_.isSettled && isExpected) {
      result_.winner = candidate(*state_.expected, state_.source);
      result_.winner->reason = whyItWins();
    } else if (hasRoute) {
      const auto& found = *state_.inTable;
      result_.winner = Candidate{.source = sourceOf(found.route),
                                 .type = typeText(found.route.routeType),
                                 .fec = fecOf(found.route),
                                 .vias = explained<F>(found.vias),
                                 .reason =
                                     "it was merged before, and no event has caused another "
                                     "merge since"};
    }
    addLosers();
    if (!result_.winner) result_.missing = missing();
  }

  template <class Found>
  Candidate candidate(const Found& found, Source source) const {
    const bool isFib = source == Source::FibRoute || source == Source::IncompleteFibRoute;
    return {.source = isFib                          ? "fibRoute"
                      : source == Source::OwnAddress ? "ownAddress"
                                                     : "neighbor",
            .type = typeText(found.route.routeType),
            .fec = isFib ? found.route.fecId : 0,
            .vias = explained<F>(found.vias),
            .reason = {}};
  }

  std::string whyItWins() const {
    switch (state_.source) {
      case Source::OwnAddress:
        return "an own address comes before all others";
      case Source::FibRoute:
        return "a FIB host route comes before a neighbour";
      default:
        return "nothing comes before it";
    }
  }

  void lose(Candidate loser, std::string reason) {
    loser.reason = std::move(reason);
    result_.losers.push_back(std::move(loser));
  }

  void addLosers() {
    const std::string virtualText = "an attached_ route gives way to the virtual address";
    if (state_.ownAddress && state_.source != Source::OwnAddress) {
      lose(candidate(*state_.ownAddress, Source::OwnAddress),
           "the receive routes of this family stay in receiveTable");
    }
    if (state_.fibRoute) {
      const auto loser = candidate(*state_.fibRoute, Source::FibRoute);
      if (state_.source == Source::OwnAddress) {
        lose(loser, "an own address comes first");
      } else if (state_.source == Source::IncompleteFibRoute) {
        lose(loser, incompleteText());
      } else if (state_.givesWay) {
        lose(loser, virtualText);
      }
    }
    if (state_.hostRoute) {
      const auto loser = candidate(*state_.hostRoute, Source::Neighbor);
      if (state_.source == Source::OwnAddress) {
        lose(loser, "an own address comes first");
      } else if (state_.source != Source::Neighbor) {
        lose(loser, "a FIB host route comes first");
      } else if (state_.givesWay) {
        lose(loser, virtualText);
      }
    }
    for (const Neighbor& neighbor : state_.neighbors) {
      const ExplainedVia via{toString(addr_), std::string(neighbor.intf.name().view())};
      if (state_.hostRoute) {
        const auto vias = explained<F>(state_.hostRoute->vias);
        if (std::find(vias.begin(), vias.end(), via) != vias.end()) continue;
      }
      lose({.source = "neighbor",
            .type = typeText(F::kAttached),
            .fec = 0,
            .vias = {via},
            .reason = {}},
           whyNot(neighbor));
    }
  }

  std::string incompleteText() const {
    return state_.fibRoute->route.fecId == 0 ? "it has no FEC" : "it has no type";
  }

  /// The reason why a neighbour has no host route.
  std::string whyNot(const Neighbor& neighbor) const {
    const auto& cover = neighbor.cover;
    const std::string prefix = isNull(cover.key) ? "" : toString(cover.key);
    switch (neighbor.lack) {
      case Lack::Skipped:
        return "a management port yields no host routes";
      case Lack::Cover:
        return "no FIB route covers the address";
      case Lack::Record:
        return prefix + ", which covers it, has no route any more";
      case Lack::Fec:
        return prefix + ", which covers it, has no FEC";
      case Lack::Interface:
        return prefix + " " + leavesText(cover, neighbor.coverVias);
      case Lack::DirectVia:
        return prefix + " " + leavesText(cover, neighbor.coverVias) +
               ": there is a gateway between";
      case Lack::None:
        return whyUnannounced(neighbor);
      default:
        return name() + " lacks an input";
    }
  }

  /// The reason why a neighbour has no host route although all conditions hold.
  std::string whyUnannounced(const Neighbor& neighbor) const {
    std::string text = toString(neighbor.cover.key) +
                       " covers it there, but a change of a route or a FEC left it without a host "
                       "route, and so it stays until it is announced again";
    for (const auto& taker : state_.takers) {
      text += "; " + toString(taker.route.key) + ", which " + leavesText(taker.route, taker.vias) +
              ", takes the host routes of neighbours there whenever it is announced";
    }
    return text;
  }

  Missing missing() const {
    if (!state_.isInitialized) {
      return {.kind = Missing::Kind::Initialization,
              .text = name() + " is not initialized",
              .mend = "the notification that its inputs are complete",
              .vrf = vrf_};
    }
    if (state_.expected && !state_.givesWay) {
      return {.kind = Missing::Kind::Announcement,
              .text = "it has a route by its " + sourceText() +
                      ", which has not been merged since a change without a notification",
              .mend =
                  "the next change of its neighbour, FIB host route, own address or virtual "
                  "address in " +
                  name(),
              .vrf = vrf_};
    }
    if (state_.givesWay) {
      const auto vrfs = listed(virtualIn());
      return {.kind = Missing::Kind::NotVirtual,
              .text = result_.address + " is virtual in VRF " + vrfs + ", and the " + sourceText() +
                      " yields an attached_ route, which gives way",
              .mend = "removal of the virtual address",
              .vrf = vrfs};
    }
    if (state_.source == Source::IncompleteFibRoute) {
      const auto& route = state_.fibRoute->route;
      return {.kind = Missing::Kind::FibRouteFec,
              .text = "the FIB host route " + host() + " (" + typeText(route.routeType) +
                      ") comes before a neighbour, but " + incompleteText(),
              .mend = "a FIB host route with a type and a FEC, or none at all",
              .vrf = vrf_,
              .prefix = host(),
              .fec = route.fecId};
    }
    return missingForNeighbor();
  }

  std::string sourceText() const {
    switch (state_.source) {
      case Source::OwnAddress:
        return "own address";
      case Source::FibRoute:
        return "FIB host route";
      default:
        return "neighbour";
    }
  }

  /// The number of conditions that a neighbour meets. The explanation is about the neighbour with
  /// the highest number.
  static int progressOf(const Neighbor& neighbor) {
    switch (neighbor.lack) {
      case Lack::None:
        return 6;
      case Lack::DirectVia:
        return 5;
      case Lack::Interface:
        return 4;
      case Lack::Fec:
        return 3;
      case Lack::Record:
        return 2;
      case Lack::Cover:
        return 1;
      default:
        return 0;
    }
  }

  /// An interface of a directly connected via of the route whose neighbours get host routes.
  static std::string directIntfOf(const Neighbor& cover) {
    for (const auto& via : cover.coverVias) {
      if (via.hop.isZero() && !via.intf.isManagementPort()) {
        return std::string(via.intf.name().view());
      }
    }
    return {};
  }

  Missing missingForNeighbor() const {
    const auto best = std::max_element(
        state_.neighbors.begin(), state_.neighbors.end(),
        [](const auto& a, const auto& b) { return progressOf(a) < progressOf(b); });
    if (best == state_.neighbors.end() || progressOf(*best) == 0) return missingNeighbor();
    const std::string intf(best->intf.name().view());
    const std::string on = "neighbour on " + intf;
    const std::string why = whyNot(*best);
    const std::string direct = directIntfOf(*best);
    const std::string through = " leaves through " + intf + " without a gateway";
    Missing missing{.text = on + ", but " + why,
                    .vrf = vrf_,
                    .intf = intf,
                    .prefix = isNull(best->cover.key) ? "" : toString(best->cover.key),
                    .fec = best->cover.fecId,
                    .vias = explained<F>(best->coverVias)};
    switch (best->lack) {
      case Lack::None:
        missing.kind = Missing::Kind::Announcement;
        missing.text = on + "; " + why;
        missing.mend = "the neighbour announced again on " + intf;
        break;
      case Lack::DirectVia:
        missing.kind = Missing::Kind::DirectVia;
        missing.mend = "a route that covers " + result_.address + " and" + through;
        break;
      case Lack::Interface:
        missing.kind = Missing::Kind::OtherInterface;
        missing.mend = "a route that covers " + result_.address + " and" + through;
        if (!direct.empty()) missing.mend = "the neighbour on " + direct + ", or " + missing.mend;
        break;
      case Lack::Fec:
        missing.kind = Missing::Kind::CoverFec;
        missing.mend = "a FEC of " + missing.prefix + " that" + through;
        break;
      case Lack::Record:
        missing.kind = Missing::Kind::CoverRecord;
        missing.mend = "the route " + missing.prefix + " announced again";
        break;
      default:
        missing.kind = Missing::Kind::Cover;
        missing.mend = "a FIB route that covers " + result_.address + " and" + through;
    }
    return missing;
  }

  std::string whyNoNeighbor() const {
    const std::string own =
        state_.ownAddress
            ? "it is the router's own address, whose receive route is in receiveTable "
              "alone, and "
            : "";
    return own + (state_.neighbors.empty() ? "it is a neighbour on no interface"
                                           : "it is a neighbour on management ports only");
  }
  Missing missingNeighbor() const {
    const auto& cover = state_.cover;
    const std::string direct = directIntfOf(cover);
    Missing missing{.kind = Missing::Kind::Neighbor,
                    .text = whyNoNeighbor(),
                    .vrf = vrf_,
                    .intf = direct,
                    .prefix = isNull(cover.cover.key) ? "" : toString(cover.cover.key),
                    .fec = cover.cover.fecId,
                    .vias = explained<F>(cover.coverVias)};
    if (!direct.empty()) {
      missing.mend = "a neighbour on " + direct + ", through which " + missing.prefix +
                     " leaves (FEC " + std::to_string(missing.fec) + ")";
    } else if (cover.lack == Lack::Cover) {
      missing.mend = "a neighbour, and a FIB route that covers it and leaves through its interface";
    } else {
      missing.mend =
          "a neighbour, and a route that covers it and leaves through its interface "
          "without a gateway; ";
      missing.mend += cover.lack == Lack::None
                          ? missing.prefix + " " + leavesText(cover.cover, cover.coverVias)
                          : missing.prefix + " has no FEC";
    }
    return missing;
  }

  const Switch& sw_;
  const std::string vrf_;
  const Addr addr_;
  const HostRouting<F>& routing_;
  State state_;
  Explanation result_;
};

/// The word for a kind in the text.
std::string_view labelOf(Finding::Kind kind) {
  using Kind = Finding::Kind;
  switch (kind) {
    case Kind::Machine:
      return "machine";
    case Kind::OwnAddress:
      return "own address";
    case Kind::FibRoute:
      return "FIB host route";
    case Kind::VirtualIp:
      return "virtual address";
    case Kind::Neighbor:
      return "neighbour";
    case Kind::Cover:
      return "  covered by";
    case Kind::Filed:
      return "  filed under";
    case Kind::HostRoute:
      return "  host route";
    case Kind::RouteTable:
      return "route table";
    case Kind::OtherVrf:
      return "elsewhere";
  }
  return {};
}

std::string textOf(const std::vector<ExplainedVia>& vias) {
  std::string text;
  for (const auto& via : vias) {
    if (!text.empty()) text += ", ";
    if (via.hop != "0.0.0.0" && via.hop != "::") text += via.hop + " ";
    text += via.intf;
  }
  return text.empty() ? "-" : text;
}

std::string textOf(const Candidate& candidate) {
  std::string text = candidate.type + throughText(textOf(candidate.vias));
  if (candidate.fec != 0) text += " (FEC " + std::to_string(candidate.fec) + ")";
  return text;
}

/// The words for a candidate's source in the text.
std::string_view labelOf(const Candidate& candidate) {
  if (candidate.source == "ownAddress") return "own address";
  return candidate.source == "fibRoute" ? "FIB host route" : "neighbour";
}

}  // namespace

std::string_view nameOf(Finding::Kind kind) {
  using Kind = Finding::Kind;
  switch (kind) {
    case Kind::Machine:
      return "machine";
    case Kind::OwnAddress:
      return "ownAddress";
    case Kind::FibRoute:
      return "fibRoute";
    case Kind::VirtualIp:
      return "virtualIp";
    case Kind::Neighbor:
      return "neighbor";
    case Kind::Cover:
      return "cover";
    case Kind::Filed:
      return "filed";
    case Kind::HostRoute:
      return "hostRoute";
    case Kind::RouteTable:
      return "routeTable";
    case Kind::OtherVrf:
      return "otherVrf";
  }
  return {};
}

std::string_view nameOf(Missing::Kind kind) {
  using Kind = Missing::Kind;
  switch (kind) {
    case Kind::Machine:
      return "machine";
    case Kind::Initialization:
      return "initialization";
    case Kind::NotVirtual:
      return "notVirtual";
    case Kind::FibRouteFec:
      return "fibRouteFec";
    case Kind::Neighbor:
      return "neighbor";
    case Kind::Cover:
      return "cover";
    case Kind::CoverRecord:
      return "coverRecord";
    case Kind::CoverFec:
      return "coverFec";
    case Kind::OtherInterface:
      return "otherInterface";
    case Kind::DirectVia:
      return "directVia";
    case Kind::Announcement:
      return "announcement";
  }
  return {};
}

Explanation explain(const Switch& sw, std::string_view vrf, std::string_view address) {
  if (sw.vrfs().find(vrf) == sw.vrfs().end()) {
    throw Kiv::RangeException("there is no VRF \"" + std::string(vrf) + "\"");
  }
  const std::string name(vrf);
  if (const auto addr = Zemit::IpAddr::parse(address)) {
    return Explainer<Ipv4>(sw, name, *addr).explain();
  }
  if (const auto addr = Zemit::Ip6Addr::parse(address)) {
    return Explainer<Ipv6>(sw, name, *addr).explain();
  }
  throw Kiv::RangeException("\"" + std::string(address) + "\" is no address");
}

std::string toText(const Explanation& explanation) {
  constexpr size_t kIndent = 17;
  std::string text = explanation.address + " in VRF " + explanation.vrf + ": " +
                     (explanation.winner ? textOf(*explanation.winner) : "no route") + "\n\n";
  const auto row = [&text](std::string_view label, const std::string& what) {
    text.append(label).append(kIndent - label.size(), ' ').append(what).append("\n");
  };
  for (const Finding& finding : explanation.findings) row(labelOf(finding.kind), finding.text);
  text += "\n";
  if (explanation.winner) {
    row("wins", std::string(labelOf(*explanation.winner)) + ": " + explanation.winner->reason);
  }
  for (const Candidate& loser : explanation.losers) {
    const auto& missing = explanation.missing;
    // The missing condition already gives this reason.
    if (missing && missing->text.find(loser.reason) != std::string::npos) continue;
    row("loses", std::string(labelOf(loser)) +
                     (loser.vias.empty() ? "" : " through " + textOf(loser.vias)) + ": " +
                     loser.reason);
  }
  if (explanation.missing) {
    row("missing", explanation.missing->text);
    row("mended by", explanation.missing->mend);
  }
  if (!explanation.pending.empty()) row("pending", explanation.pending);
  return text;
}

}  // namespace Daemon
