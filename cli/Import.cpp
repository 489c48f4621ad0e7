// The conversion: each document is read entry by entry, then everything is written in replay order.
#include "cli/Import.h"

#include <algorithm>
#include <compare>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string_view>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include "platform/zemit/EthAddr.h"
#include "platform/zemit/Prefix.h"

namespace Cli {
namespace {

using Json = nlohmann::json;
/// Keeps its members in the order in which they were given, as people write replay lines.
using Line = nlohmann::ordered_json;

/// Why one entry, or one next hop of it, cannot be imported.
struct Skip : std::runtime_error {
  using runtime_error::runtime_error;
};

/// A value of either family; those of IPv4 sort first.
using Address = std::variant<Zemit::IpAddr, Zemit::Ip6Addr>;
using Prefix = std::variant<Zemit::Prefix, Zemit::Ip6Prefix>;

int familyOf(const auto& value) {
  return value.index() == 0 ? 4 : 6;
}
std::string textOf(const auto& value) {
  return std::visit([](const auto& v) { return Zemit::toString(v); }, value);
}

/// \throws Skip when `text` is no address.
Address parseAddress(const std::string& text) {
  if (const auto addr = Zemit::IpAddr::parse(text)) return *addr;
  if (const auto addr = Zemit::Ip6Addr::parse(text)) return *addr;
  throw Skip("\"" + text + "\" is no address");
}

bool isIn(const Address& addr, const Zemit::Prefix& range4, const Zemit::Ip6Prefix& range6) {
  const auto* addr4 = std::get_if<Zemit::IpAddr>(&addr);
  return addr4 != nullptr ? range4.contains(*addr4) : range6.contains(std::get<1>(addr));
}
bool isLoopback(const Address& addr) {
  return isIn(addr, {Zemit::IpAddr(0x7F000000), 8}, Zemit::Ip6Prefix::host({0, 1}));
}
/// Multicast, and what IPv4 reserves behind it up to the broadcast address.
bool isMulticast(const Address& addr) {
  return isIn(addr, {Zemit::IpAddr(0xE0000000), 3}, {{uint64_t{0xFF} << 56, 0}, 8});
}
bool isLinkLocal(const Address& addr) {
  const auto* addr6 = std::get_if<Zemit::Ip6Addr>(&addr);
  return addr6 != nullptr && addr6->isLinkLocal();
}

/// A next hop; without an address it is directly connected.
struct Hop {
  std::string intf;
  std::optional<Address> gateway;

  friend auto operator<=>(const Hop&, const Hop&) = default;
};

/// A route's next hops, sorted, and the FEC id that they get when the first route is written.
using Fecs = std::map<std::pair<int, std::vector<Hop>>, uint32_t>;

struct Link {
  std::string name;
  std::string master;
  std::string kind;             // "vrf", "bridge", "veth"...; empty when not told
  uint32_t table = 0;           // of a VRF device
  bool hasNeighbors = true;     // false on a loopback and where addresses are not resolved
  std::optional<uint32_t> vrf;  // index in vrfs_; absent on a port, which has no layer 3
  bool hasPrimary = false;
  std::vector<std::pair<std::string, bool>> addresses;  // "A/LEN", and whether it is secondary
};

struct Route {
  uint32_t vrf;
  Prefix prefix;
  uint32_t metric;
  std::string_view type;
  Fecs::value_type* fec;  // null for a route that drops what it matches
};

struct Neighbor {
  uint32_t link;
  Address addr;
  Zemit::EthAddr mac;  // all zero when not known
};

/// What becomes of a kind of kernel route; `ip` prints its name, and with -N its number.
enum class Use { Forward, Drop, Ignore };
struct RouteKind {
  std::string_view number, name;
  Use use;
};
constexpr RouteKind kRouteKinds[] = {
    {"1", "unicast", Use::Forward},  {"2", "local", Use::Ignore},
    {"3", "broadcast", Use::Ignore}, {"4", "anycast", Use::Ignore},
    {"5", "multicast", Use::Ignore}, {"6", "blackhole", Use::Drop},
    {"7", "unreachable", Use::Drop}, {"8", "prohibit", Use::Drop},
};

/// The route types of a routing protocol's routes.
struct Protocol {
  std::string_view number, name, type4, type6;
};
constexpr Protocol kProtocols[] = {
    {"1", "redirect", "redirect_", "redirect_"},
    {"2", "kernel", "kernel_", "kernel_"},
    {"3", "boot", "staticConfig_", "staticConfig_"},
    {"4", "static", "staticConfig_", "staticConfig_"},
    {"9", "ra", "kernel_", "kernel_"},
    {"186", "bgp", "ebgp_", "bgp_"},
    {"187", "isis", "isisL1_", "isisL1_"},
    {"188", "ospf", "ospfIntraArea_", "ospf_"},
    {"189", "rip", "rip_", "rip_"},
};

template <class Row, size_t N>
const Row* findRow(const Row (&rows)[N], std::string_view word) {
  const auto* row =
      std::ranges::find_if(rows, [&](const Row& r) { return r.name == word || r.number == word; });
  return row == std::end(rows) ? nullptr : row;
}

/// The member as text, whether `ip` printed a name or a number; `fallback` when it is not there.
std::string word(const Json& entry, const char* key, const char* fallback) {
  const auto member = entry.find(key);
  if (member == entry.end()) return fallback;
  return member->is_string() ? member->get<std::string>() : member->dump();
}

bool hasFlag(const Json& entry, const char* flag) {
  const auto flags = entry.find("flags");
  return flags != entry.end() && std::find(flags->begin(), flags->end(), flag) != flags->end();
}

/// The destination of a route. "default" has no family of its own: a gateway tells, or what `ip`
/// prints for IPv6 routes alone, or else the document.
///
/// \throws Skip when it is no prefix.
Prefix destination(const Json& route, int documentFamily) {
  const std::string text = route.at("dst");
  if (text == "default") {
    int family = documentFamily;
    if (const auto gateway = route.find("gateway"); gateway != route.end()) {
      family = familyOf(parseAddress(*gateway));
    } else if (route.contains("pref")) {
      family = 6;
    }
    return family == 4 ? Prefix(Zemit::Prefix()) : Prefix(Zemit::Ip6Prefix());
  }
  if (const auto prefix = Zemit::Prefix::parse(text)) return *prefix;
  if (const auto prefix = Zemit::Ip6Prefix::parse(text)) return *prefix;
  if (text.find('/') != text.npos) throw Skip("the destination is no prefix");
  const auto host = []<class A>(const A& addr) -> Prefix {
    return Zemit::BasicPrefix<A>::host(addr);
  };
  return std::visit(host, parseAddress(text));
}

std::string_view routeType(std::string_view protocol, int family, const std::vector<Hop>& hops) {
  const auto* row = findRow(kProtocols, protocol);
  if (row == nullptr) return "unknown_";
  const auto isDirect = [](const Hop& hop) { return !hop.gateway; };
  // The routes that the kernel makes out of interface addresses.
  if (row->name == "kernel" && !hops.empty() && std::ranges::all_of(hops, isDirect)) {
    return "connected_";
  }
  return family == 4 ? row->type4 : row->type6;
}

/// The library's message without its own error number.
std::string reason(const Json::exception& error) {
  const std::string_view what = error.what();
  const auto end = what.find("] ");
  return std::string(end == what.npos ? what : what.substr(end + 2));
}

/// What to call the entry in a warning.
std::string describe(const Json& entry, size_t number) {
  for (const char* key : {"dst", "ifname", "id"}) {
    if (entry.is_object() && entry.contains(key)) return word(entry, key, "");
  }
  return "entry " + std::to_string(number);
}

class Importer {
 public:
  explicit Importer(std::ostream& warnings) : warnings_(warnings) {}

  void read(const IpDocuments& documents);
  void write(std::ostream& replay);

 private:
  template <class Handler>
  void readEntries(const std::optional<IpDocument>& document, Handler handle);
  void readLink(const Json& entry);
  void readAddress(const Json& info, Link& link);
  void readNexthop(const Json& entry);
  void readRoute(const Json& entry, int documentFamily);
  void readNeighbor(const Json& entry);

  void settleVrfs();
  uint32_t linkIndex(const std::string& name) const;
  void findHops(const Json& source, std::vector<const Json*>& found, int depth) const;
  std::vector<Hop> hops(const Json& route, int family);
  Hop hop(const Json& source, int family) const;
  void keepBestRoutes();
  void warn(const std::string& what) { warnings_ << document_ << ": warning: " << what << '\n'; }

  /// An event of this VRF; "default" goes without saying.
  Line event(const char* op, uint32_t vrf) const;
  void writeRoutes(std::ostream& replay);

  std::ostream& warnings_;
  std::string document_;  // the name of the one being read
  std::string entry_;     // what warnings call the entry being read
  std::vector<Link> links_;
  std::map<std::string, uint32_t> linkByName_;
  std::vector<std::string> vrfs_{"default"};
  std::map<std::string, uint32_t> vrfByTable_{{"main", 0}, {"254", 0}};
  std::map<std::string, size_t> strayTables_;  // tables of no VRF, and how many routes they hold
  std::map<Json, Json> nexthops_;              // by id
  Fecs fecs_;
  std::vector<Route> routes_;
  std::vector<Neighbor> neighbors_;
};

void Importer::read(const IpDocuments& documents) {
  readEntries(documents.link, [this](const Json& entry) { readLink(entry); });
  readEntries(documents.addr, [this](const Json& entry) { readLink(entry); });
  settleVrfs();
  readEntries(documents.nexthop, [this](const Json& entry) { readNexthop(entry); });
  readEntries(documents.route4, [this](const Json& entry) { readRoute(entry, 4); });
  keepBestRoutes();
  readEntries(documents.route6, [this](const Json& entry) { readRoute(entry, 6); });
  keepBestRoutes();
  readEntries(documents.neigh, [this](const Json& entry) { readNeighbor(entry); });
  std::ranges::sort(neighbors_, {}, [](const Neighbor& n) { return std::tie(n.link, n.addr); });
}

/// Hands every entry to `handle` as soon as it is parsed and forgets it, so that a document with a
/// million routes does not become a tree of them.
template <class Handler>
void Importer::readEntries(const std::optional<IpDocument>& document, Handler handle) {
  if (!document) return;
  document_ = document->name;
  size_t number = 0;
  const auto take = [&](int depth, Json::parse_event_t event, Json& value) {
    using Event = Json::parse_event_t;
    if (depth == 0 && event != Event::array_start && event != Event::array_end) {
      throw ImportError(document_, "this is not the list that ip -j prints");
    }
    if (depth != 1 || event == Event::object_start || event == Event::array_start) return true;
    entry_ = describe(value, ++number);
    // An empty object stands for an entry that `ip` filtered out.
    if (value == Json::object()) return false;
    try {
      handle(value);
    } catch (const Skip& skip) {
      warn(entry_ + " left out: " + skip.what());
    } catch (const Json::exception& error) {
      warn(entry_ + " left out: " + reason(error));
    }
    return false;
  };
  try {
    [[maybe_unused]] const auto emptied = Json::parse(document->text, take);
  } catch (const Json::exception& error) {  // a number too large is no parse error
    throw ImportError(document_, reason(error));
  }
  for (const auto& [table, count] : std::exchange(strayTables_, {})) {
    warn("table " + table + " belongs to no VRF: " + std::to_string(count) + " route(s) left out");
  }
}

/// Takes what `ip link` and `ip addr` both print, and the addresses where there are any.
void Importer::readLink(const Json& entry) {
  const std::string name = entry.at("ifname");
  const auto [place, isNew] = linkByName_.try_emplace(name, static_cast<uint32_t>(links_.size()));
  if (isNew) links_.emplace_back().name = name;
  auto& link = links_[place->second];
  link.master = entry.value("master", link.master);
  link.hasNeighbors = !hasFlag(entry, "LOOPBACK") && !hasFlag(entry, "NOARP");
  if (const auto info = entry.find("linkinfo"); info != entry.end()) {
    link.kind = info->value("info_kind", link.kind);
    if (link.kind == "vrf") link.table = info->at("info_data").at("table");
  }
  if (const auto list = entry.find("addr_info"); list != entry.end()) {
    for (const auto& info : *list) {
      if (info.empty()) continue;
      try {
        readAddress(info, link);
      } catch (const Skip& skip) {
        warn(name + ": an address left out: " + skip.what());
      }
    }
  }
}

void Importer::readAddress(const Json& info, Link& link) {
  const auto addr = parseAddress(info.at("local"));
  const auto text = textOf(addr);
  if (isLoopback(addr)) return;
  for (const char* state : {"tentative", "dadfailed"}) {
    if (info.value(state, false)) throw Skip(text + " is " + state);
  }
  const bool is4 = familyOf(addr) == 4;
  const uint32_t width = is4 ? 32 : 128;
  // On a point-to-point link the length is that of the peer's prefix; the own address is alone.
  const auto len = info.contains("address") ? width : info.at("prefixlen").get<uint32_t>();
  if (len > width) throw Skip(text + " has too long a prefix");
  // Linux counts a primary address for each subnet, a switch one for the interface.
  const bool secondary = is4 && (info.value("secondary", false) || link.hasPrimary);
  link.hasPrimary = link.hasPrimary || (is4 && !secondary);
  link.addresses.push_back({text + "/" + std::to_string(len), secondary});
}

/// Finds the VRF of each interface, once all are known.
void Importer::settleVrfs() {
  for (auto& link : links_) {
    if (link.kind != "vrf") continue;
    link.vrf = static_cast<uint32_t>(vrfs_.size());
    vrfs_.push_back(link.name);
    // `ip` prints a table by name where /etc/iproute2 has one, which is then usually the VRF's.
    vrfByTable_[std::to_string(link.table)] = vrfByTable_[link.name] = *link.vrf;
  }
  for (auto& link : links_) {
    if (link.vrf) continue;
    link.vrf = 0;
    if (link.master.empty()) continue;
    const auto master = linkByName_.find(link.master);
    const auto* owner = master == linkByName_.end() ? nullptr : &links_[master->second];
    if (owner == nullptr || owner->kind.empty()) {
      warn(link.name + ": nothing tells whether its master " + link.master +
           " is a VRF (ip -d would); it is put into the VRF default");
    } else if (owner->kind == "vrf") {
      link.vrf = owner->vrf;
    } else {
      link.vrf.reset();
    }
  }
}

/// \throws Skip for an interface that is not imported.
uint32_t Importer::linkIndex(const std::string& name) const {
  const auto place = linkByName_.find(name);
  if (place == linkByName_.end() || !links_[place->second].vrf) {
    throw Skip("\"" + name + "\" is no layer-3 interface here");
  }
  return place->second;
}

void Importer::readNexthop(const Json& entry) {
  nexthops_[entry.at("id")] = entry;
}

void Importer::readRoute(const Json& entry, int documentFamily) {
  const auto table = word(entry, "table", "main");
  const auto kindName = word(entry, "type", "unicast");
  const auto* kind = findRow(kRouteKinds, kindName);
  if (table == "local" || table == "255" || (kind != nullptr && kind->use == Use::Ignore)) return;
  const auto vrf = vrfByTable_.find(table);
  if (vrf == vrfByTable_.end()) {
    ++strayTables_[table];
    return;
  }
  const auto prefix = destination(entry, documentFamily);
  const auto first = std::visit([](const auto& p) { return Address(p.addr()); }, prefix);
  if (isLoopback(first) || isLinkLocal(first)) return;
  if (kind == nullptr) throw Skip("a route of type " + kindName + " forwards nothing");
  if (entry.contains("tos")) throw Skip("it is for one type of service only");
  if (entry.contains("from")) throw Skip("it is for one range of source addresses only");

  const int family = familyOf(prefix);
  auto vias = kind->use == Use::Forward ? hops(entry, family) : std::vector<Hop>{};
  const auto type = routeType(word(entry, "protocol", "boot"), family, vias);
  auto* fec = vias.empty() ? nullptr : &*fecs_.try_emplace({family, std::move(vias)}, 0).first;
  routes_.push_back({vrf->second, prefix, entry.value("metric", uint32_t{0}), type, fec});
}

/// Gathers the objects that describe one next hop each: parts of the route, or of the nexthop
/// objects to which it refers. A blackhole object has none.
void Importer::findHops(const Json& source, std::vector<const Json*>& found, int depth) const {
  // A route refers to a group and the group to next hops; the kernel has nothing deeper.
  if (depth > 2) throw Skip("its nexthop objects refer to each other");
  const auto follow = [&](const Json& id) {
    const auto object = nexthops_.find(id);
    if (object == nexthops_.end()) throw Skip("there is no nexthop object " + id.dump());
    findHops(object->second, found, depth + 1);
  };
  if (const auto list = source.find("nexthops"); list != source.end()) {
    for (const auto& one : *list) found.push_back(&one);
  } else if (source.contains("dev")) {
    found.push_back(&source);
  } else if (const auto group = source.find("group"); group != source.end()) {
    for (const auto& member : *group) follow(member.at("id"));
  } else if (const auto id = source.find("nhid"); id != source.end()) {
    follow(*id);
  } else if (!source.contains("blackhole")) {
    throw Skip("it has no next hop");
  }
}

/// The next hops of a route, sorted; none where a blackhole object drops what it matches. One of
/// several that cannot be imported is left out with a warning.
///
/// \throws Skip when none can be imported.
std::vector<Hop> Importer::hops(const Json& route, int family) {
  std::vector<const Json*> found;
  findHops(route, found, 0);
  std::vector<Hop> hops;
  std::string reason;
  for (const auto* source : found) {
    try {
      hops.push_back(hop(*source, family));
    } catch (const Skip& skip) {
      reason = skip.what();
      if (found.size() > 1) warn(entry_ + ": a next hop left out: " + reason);
    }
  }
  if (hops.empty() && !found.empty()) throw Skip(reason);
  std::ranges::sort(hops);
  hops.erase(std::unique(hops.begin(), hops.end()), hops.end());
  return hops;
}

Hop Importer::hop(const Json& source, int family) const {
  if (hasFlag(source, "dead")) throw Skip("its next hop is dead");
  Hop hop{.intf = links_[linkIndex(source.at("dev"))].name, .gateway = {}};
  if (const auto via = source.find("via"); via != source.end()) {
    hop.gateway = parseAddress(via->at("host"));
  } else if (const auto gateway = source.find("gateway"); gateway != source.end()) {
    hop.gateway = parseAddress(*gateway);
  }
  if (hop.gateway && familyOf(*hop.gateway) != family) {
    throw Skip("its next hop " + textOf(*hop.gateway) + " is of the other family");
  }
  return hop;
}

/// Keeps, as the kernel's look-up does, the first of lowest metric to each prefix, and sorts them.
void Importer::keepBestRoutes() {
  const auto place = [](const Route& route) { return std::tie(route.vrf, route.prefix); };
  std::ranges::stable_sort(routes_, {}, [](const Route& route) {
    return std::tie(route.vrf, route.prefix, route.metric);
  });
  std::vector<Route> best;
  for (const auto& route : routes_) {
    if (best.empty() || place(best.back()) != place(route)) {
      best.push_back(route);
    } else if (route.metric == best.back().metric && route.fec != best.back().fec) {
      // The same route again would be no surprise, because the two route documents may overlap.
      warn(textOf(route.prefix) + " left out: another route came first with the same metric");
    }
  }
  routes_ = std::move(best);
}

void Importer::readNeighbor(const Json& entry) {
  constexpr std::string_view kUsable[] = {"REACHABLE", "STALE", "DELAY", "PROBE", "PERMANENT"};
  const auto isUsable = [&](const Json& state) {
    return std::ranges::find(kUsable, state.get<std::string>()) != std::end(kUsable);
  };
  const auto states = entry.find("state");
  if (states == entry.end() || std::none_of(states->begin(), states->end(), isUsable)) return;
  const auto addr = parseAddress(entry.at("dst"));
  if (isMulticast(addr) || isLoopback(addr) || isLinkLocal(addr)) return;
  const auto link = linkIndex(entry.at("dev"));
  if (!links_[link].hasNeighbors) return;
  // A tunnel's link-layer address may be of another kind.
  const auto mac = Zemit::EthAddr::parse(entry.value("lladdr", ""));
  neighbors_.push_back({link, addr, mac.value_or(Zemit::EthAddr())});
}

Line Importer::event(const char* op, uint32_t vrf) const {
  Line line;
  line["op"] = op;
  if (vrf != 0) line["vrf"] = vrfs_[vrf];
  return line;
}

void Importer::write(std::ostream& replay) {
  const auto put = [&](const Line& line) { replay << line << '\n'; };
  for (uint32_t vrf = 1; vrf < vrfs_.size(); ++vrf) put({{"op", "vrf"}, {"name", vrfs_[vrf]}});
  for (const auto& link : links_) {
    if (!link.vrf) continue;
    auto line = event("intf", *link.vrf);
    line["name"] = link.name;
    put(line);
  }
  for (const auto& link : links_) {
    if (!link.vrf) continue;
    for (const auto& [addr, secondary] : link.addresses) {
      Line line{{"op", "addr"}, {"intf", link.name}, {"addr", addr}};
      if (secondary) line["secondary"] = true;
      put(line);
    }
  }
  writeRoutes(replay);
  for (const auto& link : links_) {
    if (link.vrf && link.hasNeighbors) put({{"op", "neighborTable"}, {"intf", link.name}});
  }
  for (const auto& [link, addr, mac] : neighbors_) {
    Line line{{"op", "neighbor"}, {"intf", links_[link].name}, {"ip", textOf(addr)}};
    if (!mac.isZero()) line["mac"] = Zemit::toString(mac);
    put(line);
  }
  for (uint32_t vrf = 0; vrf < vrfs_.size(); ++vrf) {
    auto line = event("initialized", vrf);
    line["value"] = true;
    put(line);
  }
}

/// Writes the FECs, numbered in the order in which the sorted routes use them, then the routes.
void Importer::writeRoutes(std::ostream& replay) {
  uint32_t lastId = 0;
  for (const auto& route : routes_) {
    if (route.fec == nullptr || route.fec->second != 0) continue;
    const auto& [family, hops] = route.fec->first;
    route.fec->second = ++lastId;
    Line line{{"op", "fec"}, {"id", lastId}, {"family", family}, {"vias", Line::array()}};
    for (const auto& hop : hops) {
      Line via{{"intf", hop.intf}};
      if (hop.gateway) via["hop"] = textOf(*hop.gateway);
      line["vias"].push_back(std::move(via));
    }
    replay << line << '\n';
  }
  for (const auto& route : routes_) {
    auto line = event("route", route.vrf);
    line["prefix"] = textOf(route.prefix);
    line["type"] = route.type;
    if (route.fec != nullptr) line["fec"] = route.fec->second;
    if (route.metric != 0) line["metric"] = route.metric;
    replay << line << '\n';
  }
}

}  // namespace

void importReplay(const IpDocuments& documents, std::ostream& replay, std::ostream& warnings) {
  Importer importer(warnings);
  importer.read(documents);
  importer.write(replay);
}

}  // namespace Cli
