// Reads the JSON output of `ip -j`.
#include "linux/IpJson.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "linux/Kinds.h"
#include "linux/Utf8.h"

namespace Linux {
namespace {

using Json = nlohmann::json;

/// The reason why an entry, or a part of it, is unreadable.
struct Skip : std::runtime_error {
  using runtime_error::runtime_error;
};

// JSON must be UTF-8 without control characters, but the name of an interface may have other bytes.
// During the parsing, a character for private use represents each such byte.
constexpr std::string_view kPrivateLead = "\xF4\x8F";
constexpr unsigned kPrivateThird = 0xBC;  // the third byte of U+10FF00

bool isControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r';
}

std::string withPrivateBytes(std::string_view text) {
  std::string changed;
  changed.reserve(text.size());
  while (!text.empty()) {
    const auto byte = static_cast<unsigned char>(text[0]);
    const size_t length = isControl(text[0]) ? 0 : utf8Length(text);
    if (length == 0) {
      changed.append(kPrivateLead);
      changed +=
          {static_cast<char>(kPrivateThird + (byte >> 6)), static_cast<char>(0x80 | (byte & 0x3F))};
    } else {
      changed.append(text.substr(0, length));
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return changed;
}

std::string withoutPrivateBytes(std::string text) {
  for (auto at = text.find(kPrivateLead); at != text.npos; at = text.find(kPrivateLead, at + 1)) {
    const unsigned third = static_cast<unsigned char>(text[at + 2]);
    if (third < kPrivateThird) continue;
    const unsigned low = static_cast<unsigned char>(text[at + 3]) & 0x3F;
    text.replace(at, 4, 1, static_cast<char>((third - kPrivateThird) << 6 | low));
  }
  return text;
}

/// A value as a message shows it.
std::string shown(const Json& value) {
  constexpr size_t kMaxShown = 60;
  if (value.is_string()) return '"' + printable(withoutPrivateBytes(value)) + '"';
  auto text = value.dump();
  if (text.size() > kMaxShown) text.replace(kMaxShown, text.npos, "...");
  return text;
}

[[noreturn]] void refuse(const char* key, const Json& value, const char* what) {
  throw Skip(std::string("\"") + key + "\": " + shown(value) + " is not " + what);
}

/// The member of this name, or null.
const Json* find(const Json& entry, const char* key) {
  const auto found = entry.find(key);
  return found == entry.end() ? nullptr : &*found;
}
const Json& get(const Json& entry, const char* key) {
  const auto* found = find(entry, key);
  if (found == nullptr) throw Skip(std::string("it has no \"") + key + "\"");
  return *found;
}

const std::string& textOf(const char* key, const Json& value) {
  const auto* text = value.get_ptr<const std::string*>();
  if (text == nullptr) refuse(key, value, "a string");
  return *text;
}
const std::string& getText(const Json& entry, const char* key) {
  return textOf(key, get(entry, key));
}
/// The name of an interface, with its original bytes.
std::string getName(const Json& entry, const char* key) {
  return withoutPrivateBytes(getText(entry, key));
}
uint32_t getNumber(const Json& entry, const char* key, uint32_t max = UINT32_MAX) {
  const Json& value = get(entry, key);
  if (!value.is_number_unsigned() || value.get<uint64_t>() > max) {
    refuse(key, value, "a number that it can be");
  }
  return value.get<uint32_t>();
}
const Json& getList(const Json& entry, const char* key) {
  const Json& value = get(entry, key);
  if (!value.is_array()) refuse(key, value, "a list");
  return value;
}
bool isTrue(const Json& entry, const char* key) {
  const auto* value = find(entry, key);
  return value != nullptr && *value == true;
}
/// The member as text, for a name or a number; `fallback` when it is missing.
std::string getWord(const Json& entry, const char* key, const char* fallback) {
  const auto* value = find(entry, key);
  if (value == nullptr) return fallback;
  return value->is_string() ? value->get<std::string>() : value->dump();
}
std::optional<uint32_t> numberIn(const std::string& word) {
  const bool isNumber = !word.empty() && word.size() < 11 &&
                        std::ranges::all_of(word, [](char c) { return c >= '0' && c <= '9'; });
  if (!isNumber) return std::nullopt;
  const auto number = std::stoull(word);
  return number > UINT32_MAX ? std::nullopt : std::optional(static_cast<uint32_t>(number));
}

bool hasFlag(const Json& entry, const char* flag) {
  const auto* flags = find(entry, "flags");
  return flags != nullptr && std::find(flags->begin(), flags->end(), flag) != flags->end();
}

Address parseAddress(const char* key, const Json& value) {
  const std::string& text = textOf(key, value);
  if (const auto addr = Zemit::IpAddr::parse(text)) return *addr;
  if (const auto addr = Zemit::Ip6Addr::parse(text)) return *addr;
  refuse(key, value, "an address");
}
Address getAddress(const Json& entry, const char* key) {
  return parseAddress(key, get(entry, key));
}

/// The destination of a route. The family of "default" is that of a gateway or follows from members
/// of IPv6 routes only; otherwise it is that of the document.
Prefix getDestination(const Json& route, int documentFamily) {
  const std::string& text = getText(route, "dst");
  if (text == "default") {
    int family = documentFamily;
    if (const auto* gateway = find(route, "gateway")) {
      family = familyOf(parseAddress("gateway", *gateway));
    } else if (find(route, "pref") != nullptr) {
      family = 6;
    }
    return family == 4 ? Prefix(Zemit::Prefix()) : Prefix(Zemit::Ip6Prefix());
  }
  if (const auto prefix = Zemit::Prefix::parse(text)) return *prefix;
  if (const auto prefix = Zemit::Ip6Prefix::parse(text)) return *prefix;
  if (text.find('/') != text.npos) refuse("dst", get(route, "dst"), "a prefix");
  return hostPrefix(getAddress(route, "dst"));
}

/// The name of the entry in a warning.
std::string describe(const Json& entry, size_t number) {
  for (const char* key : {"dst", "ifname", "id"}) {
    if (entry.is_object() && entry.contains(key)) {
      return printable(withoutPrivateBytes(getWord(entry, key, "")));
    }
  }
  return "entry " + std::to_string(number);
}

/// The position at which the parser stopped, as a text.
std::string parseProblem(const Json::exception& error) {
  const std::string_view what = error.what();
  const auto line = what.find("line "), colon = what.find(':', line);
  if (line == what.npos || colon == what.npos) return "this is not JSON: a number is too large";
  return "this is not JSON: line " + std::string(what.substr(line + 5, colon - line - 5));
}

class Reader {
 public:
  Reader(const std::function<void(const Change&)>& take,
         const std::function<void(const std::string&)>& warn)
      : take_(take), warn_(warn) {}

  void read(const IpDocuments& documents);

 private:
  /// Reads an interface, from the members that `ip link` and `ip addr` have in common.
  struct Interface {
    Link link;
    std::string master;
    std::vector<InterfaceAddress> addresses;
  };

  template <class Handler>
  void readEntries(const std::optional<IpDocument>& document, Handler handle);
  template <class Handler>
  void readParts(const Json& parts, const std::string& prefix, Handler handle);
  void readLink(const Json& entry);
  InterfaceAddress readAddress(const Json& info) const;
  void readNexthop(const Json& entry);
  void readRoute(const Json& entry, int documentFamily);
  void readNeighbor(const Json& entry);

  LinkIndex newIndex(const Json& entry);
  void settleMasters();
  std::optional<TableId> tableOf(const Json& route) const;
  LinkIndex indexOf(const std::string& name) const;
  NextHop readHop(const Json& source) const;
  std::vector<NextHop> readHops(const Json& route);

  void warn(const std::string& what) { warn_(document_ + ": warning: " + what); }
  void give(Object object) { take_({.object = std::move(object)}); }

  const std::function<void(const Change&)>& take_;
  const std::function<void(const std::string&)>& warn_;
  std::string document_;  // the name of the current document
  std::string entry_;     // the name of the current entry in warnings
  std::vector<Interface> interfaces_;
  std::map<std::string, size_t> byName_;
  std::set<LinkIndex> indices_;
  std::set<TableId> tables_{RT_TABLE_MAIN, RT_TABLE_LOCAL};
  std::map<std::string, TableId> tableByName_;
  std::map<std::string, size_t> strayTables_;  // without a VRF, and the numbers of their routes
};

void Reader::read(const IpDocuments& documents) {
  readEntries(documents.link, [this](const Json& entry) { readLink(entry); });
  readEntries(documents.addr, [this](const Json& entry) { readLink(entry); });
  settleMasters();
  for (auto& interface : interfaces_) {
    give(interface.link);
    for (const auto& address : interface.addresses) give(address);
    interface.addresses.clear();
  }
  readEntries(documents.nexthop, [this](const Json& entry) { readNexthop(entry); });
  readEntries(documents.route4, [this](const Json& entry) { readRoute(entry, 4); });
  readEntries(documents.route6, [this](const Json& entry) { readRoute(entry, 6); });
  readEntries(documents.neigh, [this](const Json& entry) { readNeighbor(entry); });
}

/// Calls `handle` with each entry after it is parsed and then frees it, so that a million routes
/// are never in memory at once.
template <class Handler>
void Reader::readEntries(const std::optional<IpDocument>& document, Handler handle) {
  if (!document) return;
  document_ = document->name;
  constexpr int kMaxDepth = 64;
  size_t number = 0;
  std::vector<std::set<std::string>> seen;  // the keys of the open objects, by depth
  const auto take = [&](int depth, Json::parse_event_t event, Json& value) {
    using Event = Json::parse_event_t;
    if (depth == 0 && event != Event::array_start && event != Event::array_end) {
      throw IpJsonError(document_, "this is not the list that ip -j prints");
    }
    if (depth > kMaxDepth) throw IpJsonError(document_, "it is nested too deeply");
    if (event == Event::object_start) {
      seen.resize(static_cast<size_t>(depth) + 2);
      seen.back().clear();
    }
    if (event == Event::key) {
      // `ip` prints the encapsulation of a tunnel beside the route. Then "dst" occurs twice, and
      // the first one is that of the route.
      return seen[static_cast<size_t>(depth)].insert(value.get<std::string>()).second;
    }
    if (depth != 1 || event == Event::object_start || event == Event::array_start) return true;
    entry_ = describe(value, ++number);
    // `ip` prints an empty object for an entry that it filtered out.
    if (value == Json::object()) return false;
    try {
      if (!value.is_object()) throw Skip("it is no object");
      handle(value);
    } catch (const Skip& skip) {
      warn(entry_ + " left out: " + skip.what());
    } catch (const Json::exception&) {
      warn(entry_ + " left out: it is not as ip prints it");
    }
    return false;
  };
  try {
    const std::string& text = document->text;
    const bool isClean = isUtf8(text) && std::ranges::none_of(text, isControl);
    [[maybe_unused]] const auto emptied =
        isClean ? Json::parse(text, take) : Json::parse(withPrivateBytes(text), take);
  } catch (const Json::exception& error) {  // a too large number is not reported as a parse error
    throw IpJsonError(document_, parseProblem(error));
  }
  for (const auto& [table, count] : std::exchange(strayTables_, {})) {
    warn("table " + printable(table) + " belongs to no VRF: " + std::to_string(count) +
         " route(s) left out");
  }
}

/// Calls `handle` with each part of an entry. An unreadable part is left out alone.
template <class Handler>
void Reader::readParts(const Json& parts, const std::string& prefix, Handler handle) {
  for (const auto& part : parts) {
    if (part.empty()) continue;
    try {
      if (!part.is_object()) throw Skip(shown(part) + " is no object");
      handle(part);
    } catch (const Skip& skip) {
      warn(prefix + " left out: " + skip.what());
    } catch (const Json::exception&) {
      warn(prefix + " left out: it is not as ip prints it");
    }
  }
}

/// The number of the interface in the output, or else the next free one.
LinkIndex Reader::newIndex(const Json& entry) {
  LinkIndex index = indices_.empty() ? 1 : *indices_.rbegin() + 1;
  if (const auto* told = find(entry, "ifindex"); told != nullptr && told->is_number_unsigned()) {
    const auto number = told->get<uint64_t>();
    if (number != 0 && number < INT32_MAX && !indices_.contains(static_cast<LinkIndex>(number))) {
      index = static_cast<LinkIndex>(number);
    }
  }
  indices_.insert(index);
  return index;
}

void Reader::readLink(const Json& entry) {
  const std::string name = getName(entry, "ifname");
  if (name.empty() || name.find('\0') != name.npos) {
    refuse("ifname", get(entry, "ifname"), "the name of an interface");
  }
  const auto known = byName_.find(name);
  // An unreadable entry does not change the interface.
  Interface interface = known == byName_.end() ? Interface() : interfaces_[known->second];
  Link& link = interface.link;
  link.name = name;
  if (find(entry, "master") != nullptr) interface.master = getName(entry, "master");
  if (find(entry, "flags") != nullptr) {
    link.isUp = hasFlag(entry, "UP");
    link.hasCarrier = hasFlag(entry, "LOWER_UP") || !hasFlag(entry, "NO-CARRIER");
    link.isLoopback = hasFlag(entry, "LOOPBACK");
    link.isNoArp = hasFlag(entry, "NOARP");
  }
  if (find(entry, "address") != nullptr) {
    link.mac = Zemit::EthAddr::parse(getText(entry, "address")).value_or(Zemit::EthAddr());
  }
  if (const auto* info = find(entry, "linkinfo"); info != nullptr) {
    if (find(*info, "info_kind") != nullptr) link.kind = getText(*info, "info_kind");
    if (find(*info, "info_slave_kind") != nullptr) {
      link.masterKind = getText(*info, "info_slave_kind");
    }
    if (link.kind == "vrf") link.vrfTable = getNumber(get(*info, "info_data"), "table");
  }
  if (link.index == 0) link.index = newIndex(entry);
  if (find(entry, "addr_info") != nullptr) {
    readParts(getList(entry, "addr_info"), printable(name) + ": an address", [&](const Json& info) {
      auto address = readAddress(info);
      address.link = link.index;
      interface.addresses.push_back(address);
    });
  }
  const auto place = byName_.try_emplace(name, interfaces_.size()).first->second;
  if (place == interfaces_.size()) interfaces_.emplace_back();
  interfaces_[place] = std::move(interface);
}

InterfaceAddress Reader::readAddress(const Json& info) const {
  const Address addr = getAddress(info, "local");
  const uint32_t width = familyOf(addr) == 4 ? 32 : 128;
  InterfaceAddress address{.addr = addr, .peer = {}};
  address.len = getNumber(info, "prefixlen", width);
  if (find(info, "address") != nullptr) {
    // On a point-to-point link the length is that of the peer's prefix, not of the own address.
    address.peer = getAddress(info, "address");
    address.len = width;
  }
  address.isSecondary = isTrue(info, "secondary");
  address.isTentative = isTrue(info, "tentative");
  address.isDuplicate = isTrue(info, "dadfailed");
  return address;
}

/// Finds the masters of the interfaces and the tables of the VRFs, after all interfaces were read.
void Reader::settleMasters() {
  for (auto& [link, master, addresses] : interfaces_) {
    if (link.kind == "vrf") tables_.insert(link.vrfTable);
  }
  for (auto& [link, master, addresses] : interfaces_) {
    constexpr std::string_view kOwn[] = {"main", "local", "default", "unspec", "all"};
    // `ip` prints the name of a table from /etc/iproute2, which is usually the name of the VRF.
    if (link.kind == "vrf" && !numberIn(link.name) &&
        std::ranges::find(kOwn, link.name) == std::end(kOwn)) {
      tableByName_[link.name] = link.vrfTable;
    }
    if (master.empty()) continue;
    const auto found = byName_.find(master);
    const auto* owner = found == byName_.end() ? nullptr : &interfaces_[found->second].link;
    if (owner != nullptr && !(owner->kind.empty() && link.masterKind.empty())) {
      link.master = owner->index;
      continue;
    }
    warn(printable(link.name) + ": nothing tells whether its master " + printable(master) +
         " is a VRF (ip -d would); it is put into the VRF default");
  }
}

LinkIndex Reader::indexOf(const std::string& name) const {
  const auto found = byName_.find(name);
  if (found == byName_.end()) {
    throw Skip("\"" + printable(name) + "\" is no layer-3 interface here");
  }
  return interfaces_[found->second].link.index;
}

NextHop Reader::readHop(const Json& source) const {
  NextHop hop{.link = indexOf(getName(source, "dev")), .gateway = {}};
  if (const auto* via = find(source, "via")) {
    hop.gateway = getAddress(*via, "host");
  } else if (find(source, "gateway") != nullptr) {
    hop.gateway = getAddress(source, "gateway");
  }
  if (find(source, "weight") != nullptr) {
    hop.weight = static_cast<uint8_t>(std::clamp<uint32_t>(getNumber(source, "weight"), 1, 255));
  }
  hop.isTunnelled = find(source, "encap") != nullptr;
  hop.isDead = hasFlag(source, "dead");
  hop.isLinkDown = hasFlag(source, "linkdown");
  return hop;
}

/// The next hops of a route. An unreadable one of several is left out with a warning.
///
/// \throws Skip when all are unreadable.
std::vector<NextHop> Reader::readHops(const Json& route) {
  std::vector<NextHop> hops;
  if (find(route, "nexthops") != nullptr) {
    const Json& list = getList(route, "nexthops");
    readParts(list, entry_ + ": a next hop",
              [&](const Json& source) { hops.push_back(readHop(source)); });
    if (hops.empty() && !list.empty()) throw Skip("none of its next hops can be used");
  } else if (find(route, "dev") != nullptr) {
    hops.push_back(readHop(route));
  }
  return hops;
}

void Reader::readNexthop(const Json& entry) {
  Nexthop nexthop{.id = getNumber(entry, "id"), .hop = {}, .group = {}};
  if (find(entry, "fdb") != nullptr) return;  // of a VXLAN device; routes do not use it
  nexthop.isBlackhole = find(entry, "blackhole") != nullptr;
  if (find(entry, "dev") != nullptr) nexthop.hop = readHop(entry);
  if (find(entry, "group") != nullptr) {
    readParts(getList(entry, "group"), entry_ + ": a member", [&](const Json& member) {
      const auto weight = find(member, "weight") == nullptr ? 1 : getNumber(member, "weight");
      nexthop.group.emplace_back(getNumber(member, "id"),
                                 static_cast<uint8_t>(std::clamp<uint32_t>(weight, 1, 255)));
    });
  }
  if (nexthop.hop && nexthop.hop->gateway) nexthop.family = familyOf(*nexthop.hop->gateway);
  give(std::move(nexthop));
}

/// The table of a route; nothing for a table without a VRF.
std::optional<TableId> Reader::tableOf(const Json& route) const {
  const auto word = getWord(route, "table", "main");
  auto number = numberIn(word);
  if (word == "main") number = RT_TABLE_MAIN;
  if (word == "local") number = RT_TABLE_LOCAL;
  if (!number) {
    const auto named = tableByName_.find(withoutPrivateBytes(word));
    if (named != tableByName_.end()) number = named->second;
  }
  return number && tables_.contains(*number) ? number : std::nullopt;
}

void Reader::readRoute(const Json& entry, int documentFamily) {
  const auto kindWord = getWord(entry, "type", "unicast");
  const auto* kind = findRow(kRouteTypes, [&, number = numberIn(kindWord)](const NumberName& row) {
    return row.name == kindWord || row.number == number;
  });
  const auto table = tableOf(entry);
  if (!table) {
    // The kernel's own local routes follow from the addresses.
    const bool isKernels =
        kind != nullptr && kind->number >= RTN_LOCAL && kind->number <= RTN_MULTICAST;
    if (!isKernels) ++strayTables_[getWord(entry, "table", "main")];
    return;
  }
  if (kind == nullptr) throw Skip("a route of type " + printable(kindWord) + " forwards nothing");
  Route route;
  route.table = *table;
  route.prefix = getDestination(entry, documentFamily);
  route.type = kind->number;
  if (find(entry, "metric") != nullptr) route.metric = getNumber(entry, "metric");
  const auto protocolWord = getWord(entry, "protocol", "boot");
  const auto protocolNumber = numberIn(protocolWord);
  const auto* protocol =
      findRow(kProtocols, [&](const NumberName& row) { return row.name == protocolWord; });
  route.protocol =
      protocol != nullptr ? protocol->number : static_cast<uint8_t>(protocolNumber.value_or(0));
  // This member is a number for an encapsulation and a text for a route.
  if (const auto* tos = find(entry, "tos"); tos != nullptr && tos->is_string()) {
    const auto number = std::strtoul(tos->get<std::string>().c_str(), nullptr, 0);
    route.tos = static_cast<uint8_t>(number == 0 ? 1 : number);
  }
  route.hasSource = find(entry, "from") != nullptr;
  if (find(entry, "nhid") != nullptr) route.nexthop = getNumber(entry, "nhid");
  // A route that drops packets names an interface, too.
  if (route.type == RTN_UNICAST || route.type == RTN_LOCAL) route.hops = readHops(entry);
  give(std::move(route));
}

void Reader::readNeighbor(const Json& entry) {
  constexpr std::pair<const char*, uint16_t> kStates[] = {
      {"REACHABLE", NUD_REACHABLE}, {"STALE", NUD_STALE},         {"DELAY", NUD_DELAY},
      {"PROBE", NUD_PROBE},         {"PERMANENT", NUD_PERMANENT},
  };
  Neighbor neighbor;
  if (find(entry, "state") != nullptr) {
    const Json& states = getList(entry, "state");
    for (const auto& [name, bit] : kStates) {
      if (std::find(states.begin(), states.end(), name) == states.end()) continue;
      neighbor.state = static_cast<uint16_t>(neighbor.state | bit);
    }
  }
  if (neighbor.state == 0) return;
  neighbor.addr = getAddress(entry, "dst");
  neighbor.link = indexOf(getName(entry, "dev"));
  // The link-layer address of a tunnel may be of another kind.
  if (find(entry, "lladdr") != nullptr) {
    neighbor.mac = Zemit::EthAddr::parse(getText(entry, "lladdr")).value_or(Zemit::EthAddr());
  }
  neighbor.isProxy = find(entry, "proxy") != nullptr;
  neighbor.isLearnedByControlPlane = find(entry, "extern_learn") != nullptr;
  give(neighbor);
}

}  // namespace

void readIpDocuments(const IpDocuments& documents, const std::function<void(const Change&)>& take,
                     const std::function<void(const std::string&)>& warn) {
  Reader(take, warn).read(documents);
}

}  // namespace Linux
