// Reads the configuration file. Unknown keys are errors.
#include "hostrouted/Config.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <limits>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include <toml++/toml.h>

#include "daemon/SharedNames.h"
#include "platform/l3/VrfName.h"
#include "platform/zemit/IpAddrWithMask.h"

namespace Hostrouted {
namespace {

struct Protocol {
  std::string_view name;
  uint8_t number;
};
constexpr Protocol kProtocols[] = {
    {"redirect", 1},  {"kernel", 2},       {"boot", 3},    {"static", 4},   {"gated", 8},
    {"ra", 9},        {"mrt", 10},         {"zebra", 11},  {"bird", 12},    {"dnrouted", 13},
    {"xorp", 14},     {"ntk", 15},         {"dhcp", 16},   {"mrouted", 17}, {"keepalived", 18},
    {"babel", 42},    {"openr", 99},       {"bgp", 186},   {"isis", 187},   {"ospf", 188},
    {"rip", 189},     {"eigrp", 192},      {"ripng", 190}, {"nhrp", 191},   {"pbr", 195},
    {"zstatic", 196}, {"openfabric", 197}, {"srte", 198},
};

/// The default protocols whose host routes are not fed.
constexpr const char* kIgnoredByDefault[] = {"zebra", "bird",  "bgp",   "isis",
                                             "ospf",  "rip",   "ripng", "eigrp",
                                             "babel", "openr", "nhrp",  "openfabric"};

constexpr std::pair<std::string_view, int> kLogLevels[] = {
    {"error", 3}, {"warning", 4}, {"notice", 5}, {"info", 6}, {"debug", 7}};

/// One table of the file. Its keys are taken one by one; the remaining ones are unknown.
class Section {
 public:
  Section(const toml::table& table, std::string path, const std::string& file)
      : table_(table), path_(std::move(path)), file_(file) {}

  /// Refuses the remaining keys.
  void finish() const {
    for (const auto& [key, value] : table_) {
      if (taken_.find(key.str()) == taken_.end()) {
        refuse(std::string(key.str()), value, "there is no such key");
      }
    }
  }

  template <class Value>
  void read(const char* key, Value& value) {
    if (const auto* node = take(key)) value = as<Value>(key, *node);
  }
  void readNumber(const char* key, auto& value, uint64_t min, uint64_t max) {
    const auto* node = take(key);
    if (node == nullptr) return;
    const auto number = node->value_exact<int64_t>();
    if (!number || *number < 0 || static_cast<uint64_t>(*number) < min ||
        static_cast<uint64_t>(*number) > max) {
      refuse(key, *node,
             "expected a whole number from " + std::to_string(min) + " to " + std::to_string(max));
    }
    value = static_cast<std::remove_reference_t<decltype(value)>>(*number);
  }
  void readSeconds(const char* key, double& value, double min) {
    const auto* node = take(key);
    if (node == nullptr) return;
    const auto number = node->value<double>();
    constexpr double kMost = 86400 * 365;
    if (!node->is_number() || !(*number >= min && *number <= kMost)) {
      std::ostringstream expected;
      expected << "expected a number of seconds from " << min << " on";
      refuse(key, *node, expected.str());
    }
    value = *number;
  }
  /// Reads a text with `parse`, which returns nothing for a text that is not `expected`.
  template <class Value, class Parse>
  void readText(const char* key, Value& value, const char* expected, Parse parse) {
    const auto* node = take(key);
    if (node == nullptr) return;
    auto parsed = parse(as<std::string>(key, *node));
    if (!parsed) refuse(key, *node, std::string("expected ") + expected);
    value = *std::move(parsed);
  }
  /// Calls `visit` with each element of a list and its node.
  template <class Visit>
  bool readList(const char* key, Visit visit) {
    const auto* node = take(key);
    if (node == nullptr) return false;
    const auto* list = node->as_array();
    if (list == nullptr) refuse(key, *node, "expected a list");
    for (const auto& element : *list) visit(element);
    return true;
  }
  void readNames(const char* key, std::vector<std::string>& names) {
    std::vector<std::string> read;
    const bool isThere = readList(key, [&](const toml::node& element) {
      const auto name = element.value_exact<std::string>();
      if (!name || name->empty() || *name == "!") {
        refuse(key, element, "expected names of interfaces, such as \"swp*\"");
      }
      read.push_back(*name);
    });
    if (isThere) names = std::move(read);
  }
  /// Calls `visit` with the section of this name, if it exists.
  template <class Visit>
  void readSection(const char* key, Visit visit) {
    const auto* node = take(key);
    if (node == nullptr) return;
    const auto* table = node->as_table();
    if (table == nullptr) refuse(key, *node, "expected a section");
    Section section(*table, qualified(key), file_);
    visit(section);
    section.finish();
  }
  /// Calls `visit` with the name and the section of each table in this section.
  template <class Visit>
  void readEachSection(Visit visit) {
    for (const auto& [key, value] : table_) {
      const std::string name(key.str());
      readSection(name.c_str(), [&](Section& section) { visit(name, section); });
    }
  }
  /// Calls `visit` with each of the sections of one name ("[[cover]]").
  template <class Visit>
  void readSections(const char* key, Visit visit) {
    readList(key, [&](const toml::node& element) {
      const auto* table = element.as_table();
      if (table == nullptr) refuse(key, element, "expected sections, [[" + std::string(key) + "]]");
      Section section(*table, qualified(key), file_);
      visit(section);
      section.finish();
    });
  }
  void require(const char* key) const {
    if (table_.contains(key)) return;
    throw ConfigError(place(table_) + path_ + ": " + key + " is missing");
  }

  [[noreturn]] void refuse(const std::string& key, const toml::node& node,
                           const std::string& message) const {
    throw ConfigError(place(node) + qualified(key) + ": " + message);
  }

  /// Refuses the value of an existing key.
  [[noreturn]] void refuse(const char* key, const std::string& message) const {
    refuse(key, *table_.get(key), message);
  }

 private:
  const toml::node* take(const char* key) {
    taken_.insert(key);
    return table_.get(key);
  }
  template <class Value>
  Value as(const char* key, const toml::node& node) const {
    auto value = node.value_exact<Value>();
    if (!value) {
      refuse(key, node,
             std::is_same_v<Value, bool> ? "expected true or false" : "expected a text in quotes");
    }
    return *std::move(value);
  }
  std::string qualified(std::string_view key) const {
    return path_.empty() ? std::string(key) : path_ + "." + std::string(key);
  }
  std::string place(const toml::node& node) const {
    return file_ + ":" + std::to_string(node.source().begin.line) + ": ";
  }

  const toml::table& table_;
  std::string path_;
  const std::string& file_;
  std::set<std::string, std::less<>> taken_;
};

template <class Addr>
std::optional<std::optional<Linux::Address>> parseSource(std::string_view text) {
  using Source = std::optional<Linux::Address>;
  const auto addr = Addr::parse(text);
  // An explicit type: std::optional(Source()) would be a Source itself.
  return addr ? std::optional<Source>(std::in_place, *addr) : std::nullopt;
}
std::optional<Linux::Prefix> parsePrefix(std::string_view text) {
  if (const auto prefix = Zemit::Prefix::parse(text)) return *prefix;
  if (const auto prefix = Zemit::Ip6Prefix::parse(text)) return *prefix;
  return std::nullopt;
}
/// "10.0.0.1/24"; an IPv6 address may have no length.
std::optional<std::pair<Linux::Address, uint32_t>> parseVirtual(std::string_view text) {
  if (const auto with = Zemit::IpAddrWithMask::parse(text)) return {{with->addr(), with->len()}};
  if (const auto with = Zemit::Ip6AddrWithMask::parse(text)) return {{with->addr(), with->len()}};
  if (const auto addr = Zemit::Ip6Addr::parse(text)) return {{*addr, Zemit::Ip6Addr::kBits}};
  return std::nullopt;
}
std::optional<std::string> parseVrf(std::string text) {
  if (text.empty() || text.size() > L3::VrfName::kMaxBytes) return std::nullopt;
  return text;
}

constexpr uint64_t kMaxNumber = std::numeric_limits<uint32_t>::max();
/// The table local belongs to the kernel; 0 means "not exported".
constexpr Linux::TableId kTableLocal = 255;

void readTables(Section& section, OutputTables& tables) {
  for (const auto& [key, table] :
       {std::pair{"table", &tables.table4}, std::pair{"table6", &tables.table6}}) {
    section.readNumber(key, *table, 0, kMaxNumber);
    if (*table == kTableLocal) section.refuse(key, "table 255 (local) belongs to the kernel");
  }
}

void readExport(Section& section, Config& config) {
  readTables(section, config.tables.find("default")->second);
  section.readNumber("protocol", config.protocol, Config::kFirstProtocol, 255);
  section.readNumber("metric", config.metric4, 0, kMaxNumber);
  section.readNumber("metric6", config.metric6, 1, kMaxNumber);
  section.readText("preferred-source", config.preferredSource4, "an IPv4 address",
                   parseSource<Zemit::IpAddr>);
  section.readText("preferred-source6", config.preferredSource6, "an IPv6 address",
                   parseSource<Zemit::Ip6Addr>);
  section.readText("on-exit", config.flushesOnExit, "\"keep\" or \"flush\"",
                   [](const std::string& text) -> std::optional<bool> {
                     if (text == "keep") return false;
                     if (text == "flush") return true;
                     return std::nullopt;
                   });
  section.readSection("vrf", [&](Section& vrfs) {
    vrfs.readEachSection(
        [&](const std::string& name, Section& vrf) { readTables(vrf, config.tables[name]); });
  });
}

void readNeighbors(Section& section, Config& config) {
  section.readNames("interfaces", config.feed.interfaces);
  section.read("vrrp", config.feed.recognisesVrrp);
  std::set<uint8_t> protocols;
  const bool areThere =
      section.readList("ignored-host-route-protocols", [&](const toml::node& element) {
        std::optional<uint8_t> protocol;
        if (const auto number = element.value_exact<int64_t>()) {
          protocol = parseProtocol(std::to_string(*number));
        } else if (const auto name = element.value_exact<std::string>()) {
          protocol = parseProtocol(*name);
        }
        if (!protocol) {
          section.refuse("ignored-host-route-protocols", element,
                         "expected names or numbers of routing protocols, such as \"bgp\" or 186");
        }
        protocols.insert(*protocol);
      });
  if (areThere) config.feed.ignoredHostRouteProtocols = std::move(protocols);
}

void readCover(Section& section, Config& config) {
  Linux::FeedOptions::Cover cover;
  section.require("prefix");
  section.require("interfaces");
  section.readText("prefix", cover.prefix, "a prefix without host bits, such as \"10.0.0.0/24\"",
                   parsePrefix);
  section.readNames("interfaces", cover.interfaces);
  section.readText("vrf", cover.vrf, "the name of a VRF", parseVrf);
  const auto isSame = [&](const auto& other) {
    return other.prefix == cover.prefix && other.vrf == cover.vrf;
  };
  if (std::ranges::any_of(config.feed.covers, isSame)) {
    section.refuse("prefix", "expected one cover of a prefix, with all its interfaces");
  }
  config.feed.covers.push_back(std::move(cover));
}

void readVirtualAddress(Section& section, Config& config) {
  Linux::FeedOptions::VirtualAddress virtualAddress;
  section.require("address");
  std::pair<Linux::Address, uint32_t> addr;
  section.readText("address", addr, "an address with its length, such as \"10.0.0.1/24\"",
                   parseVirtual);
  std::tie(virtualAddress.addr, virtualAddress.len) = addr;
  section.readText("vrf", virtualAddress.vrf, "the name of a VRF", parseVrf);
  config.feed.virtualAddresses.push_back(std::move(virtualAddress));
}

std::optional<std::string> parseSharedName(std::string name) {
  if (!name.empty() && !Daemon::isSharedName(name)) return std::nullopt;
  return name;
}

void readDaemon(Section& section, Config& config) {
  section.read("run-dir", config.runDir);
  section.read("state-dir", config.stateDir);
  section.readText("shared-tables", config.sharedName, Config::kSharedNameForm, parseSharedName);
  uint32_t mebibytes = 0;
  section.readNumber("receive-buffer", mebibytes, 0, 1024);
  if (mebibytes != 0) config.receiveBuffer = size_t{mebibytes} << 20;
  section.readText("log-level", config.logLevel, "error, warning, notice, info or debug",
                   parseLogLevel);
  section.readNumber("history", config.historyEntries, 0, 1 << 20);
}

/// The name of an existing group, or "".
std::optional<std::string> parseGroup(std::string name) {
  if (name.empty() || ::getgrnam(name.c_str()) != nullptr) return name;
  return std::nullopt;
}

void readControl(Section& section, Config& config) {
  section.readText("group", config.controlGroup, "the name of a group of this machine", parseGroup);
  section.readText("admin-group", config.adminGroup, "the name of a group of this machine",
                   parseGroup);
}

void readRecording(Section& section, Config& config) {
  uint32_t mebibytes = 0;
  section.readNumber("size", mebibytes, 1, 1 << 20);
  if (mebibytes != 0) config.recording.fileBytes = uint64_t{mebibytes} << 20;
  section.readNumber("files", config.recording.files, 1, 1000);
}

}  // namespace

Config::Config() {
  for (const char* name : kIgnoredByDefault) {
    feed.ignoredHostRouteProtocols.insert(*parseProtocol(name));
  }
}

Config Config::parse(std::string_view text, const std::string& name) {
  toml::table file;
  try {
    file = toml::parse(text);
  } catch (const toml::parse_error& error) {
    throw ConfigError(name + ":" + std::to_string(error.source().begin.line) + ": " +
                      std::string(error.description()));
  }
  Config config;
  Section top(file, "", name);
  top.readSection("neighbors", [&](Section& section) { readNeighbors(section, config); });
  top.readSection("export", [&](Section& section) { readExport(section, config); });
  top.readSections("cover", [&](Section& section) { readCover(section, config); });
  top.readSections("virtual-address",
                   [&](Section& section) { readVirtualAddress(section, config); });
  top.readSection("damping", [&](Section& section) {
    auto& options = config.kernelRoutes;
    section.readNumber("changes", options.dampingChanges, 0, 1000);
    section.readSeconds("window", options.dampingWindow, 0.001);
    section.readSeconds("quiet", options.dampingQuiet, 0.001);
  });
  top.readSection("repair", [&](Section& section) {
    section.readSeconds("interval", config.kernelRoutes.repairInterval, 0);
    section.read("announce-silent-loss", config.kernelRoutes.announcesSilentLoss);
  });
  top.readSection("probe", [&](Section& section) {
    section.read("on-departure", config.probing.onDeparture);
    section.read("keepalive", config.probing.keepalive);
    section.readSeconds("keepalive-interval", config.probing.keepaliveInterval, 1);
    section.readNumber("rate", config.probing.rate, 1, 1000000);
  });
  top.readSection("control", [&](Section& section) { readControl(section, config); });
  top.readSection("recording", [&](Section& section) { readRecording(section, config); });
  top.readSection("daemon", [&](Section& section) { readDaemon(section, config); });
  top.finish();
  try {
    config.check();
  } catch (const ConfigError& error) {
    throw ConfigError(name + ": " + error.what());
  }
  return config;
}

Config Config::load(const std::string& file) {
  // Opening a pipe would wait for a writer.
  const int fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  struct stat status {};
  std::string text;
  std::string problem;
  if (fd < 0 || ::fstat(fd, &status) != 0) {
    problem = std::strerror(errno);
  } else if (!S_ISREG(status.st_mode)) {
    problem = "expected a regular file";
  }
  std::array<char, 4096> piece;
  for (ssize_t size = 1; problem.empty() && size != 0;) {
    size = ::read(fd, piece.data(), piece.size());
    if (size > 0) text.append(piece.data(), static_cast<size_t>(size));
    if (size < 0 && errno != EINTR) problem = std::strerror(errno);
  }
  if (fd >= 0) ::close(fd);
  if (!problem.empty()) throw ConfigError(file + ": " + problem);
  return parse(text, file);
}

std::vector<std::string> Config::keepUntilRestart(const Config& running) {
  std::vector<std::string> kept;
  const auto keep = [&](const char* key, auto Config::*member) {
    if (this->*member == running.*member) return;
    kept.emplace_back(key);
    this->*member = running.*member;
  };
  keep("export.protocol", &Config::protocol);
  keep("daemon.run-dir", &Config::runDir);
  keep("daemon.state-dir", &Config::stateDir);
  keep("daemon.shared-tables", &Config::sharedName);
  keep("daemon.receive-buffer", &Config::receiveBuffer);
  keep("daemon.history", &Config::historyEntries);
  keep("control.group", &Config::controlGroup);
  keep("control.admin-group", &Config::adminGroup);
  return kept;
}

void Config::check() const {
  if (!parseSharedName(sharedName)) {
    throw ConfigError("shared-tables: expected " + std::string(kSharedNameForm));
  }
  std::map<std::pair<int, Linux::TableId>, std::string_view> owners;
  for (const auto& [vrf, output] : tables) {
    for (const auto& [family, table] : {std::pair{4, output.table4}, std::pair{6, output.table6}}) {
      if (table == 0) continue;
      if (table == kTableLocal) {
        throw ConfigError("VRF " + vrf + ": table 255 (local) belongs to the kernel");
      }
      const auto [place, isNew] = owners.try_emplace({family, table}, vrf);
      if (!isNew) {
        throw ConfigError("VRF " + vrf + ": table " + std::to_string(table) +
                          " is that of the VRF " + std::string(place->second) + " already");
      }
    }
  }
}

std::optional<uint8_t> parseProtocol(std::string_view text) {
  const auto* known = std::ranges::find(kProtocols, text, &Protocol::name);
  if (known != std::end(kProtocols)) return known->number;
  uint8_t number = 0;
  const auto* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || rest != end || number == 0) return std::nullopt;
  return number;
}

const char* logLevelName(int level) {
  const auto* known =
      std::ranges::find(kLogLevels, level, &std::pair<std::string_view, int>::second);
  return known == std::end(kLogLevels) ? "" : known->first.data();
}

std::optional<int> parseLogLevel(std::string_view text) {
  for (const auto& [name, level] : kLogLevels) {
    if (name == text) return level;
  }
  return std::nullopt;
}

}  // namespace Hostrouted
