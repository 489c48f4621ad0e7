// Finds settings of a Linux machine that disturb hostrouted.
#include "cli/Doctor.h"

#include <linux/rtnetlink.h>
#include <regex.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <map>
#include <new>
#include <sstream>
#include <string_view>
#include <utility>

namespace Cli {
namespace {

using Weight = Advice::Weight;

std::optional<std::string> readText(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

/// A configuration without its comments.
std::string withoutComments(const std::string& text, std::string_view signs) {
  std::string result;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    line.resize(std::min(line.size(), line.find_first_of(signs)));
    if (line.find_first_not_of(" \t\r") != line.npos) result += line + "\n";
  }
  return result;
}

/// Looks for an extended regular expression, as the C library has it, in a text. \returns the text
/// of the expression's first group, "" if it has no group, none if the text does not match.
std::optional<std::string> match(const std::string& text, const std::string& pattern) {
  ::regex_t regex;
  if (::regcomp(&regex, pattern.c_str(), REG_EXTENDED | REG_NEWLINE) != 0) throw std::bad_alloc();
  ::regmatch_t found[2] = {};
  found[0].rm_eo = static_cast<regoff_t>(text.size());  // a null byte does not end the text
  const bool isMatch = ::regexec(&regex, text.data(), std::size(found), found, REG_STARTEND) == 0;
  ::regfree(&regex);
  if (!isMatch) return std::nullopt;
  const auto [begin, end] = found[1];
  return begin < 0 ? "" : text.substr(static_cast<size_t>(begin), static_cast<size_t>(end - begin));
}

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const auto& name : names) text += (text.empty() ? "" : " ") + name;
  return text;
}

class Examination {
 public:
  explicit Examination(const Machine& machine) : machine_(machine) {}

  std::vector<Advice> run() {
    checkCapabilities();
    checkNeighborLimits("ipv4", machine_.neighbors4);
    checkNeighborLimits("ipv6", machine_.neighbors6);
    checkForwarding();
    checkInterfaces();
    checkReceiveBuffer();
    checkTables();
    checkRules();
    checkFrr();
    checkBird();
    checkClock();
    std::ranges::stable_sort(advice_, {}, &Advice::weight);
    return std::move(advice_);
  }

 private:
  void add(Weight weight, std::string subject, std::string what, std::string mend) {
    advice_.push_back({weight, std::move(subject), std::move(what), std::move(mend)});
  }

  /// The value of a sysctl; nothing when this kernel does not have it.
  std::optional<int64_t> sysctl(const std::string& key) const {
    const auto text = readText(machine_.root / "proc/sys" / key);
    if (!text) return std::nullopt;
    int64_t value = 0;
    const auto [rest, error] = std::from_chars(text->data(), text->data() + text->size(), value);
    return error == std::errc() ? std::optional(value) : std::nullopt;
  }
  static std::string setting(const std::string& key, int64_t value) {
    return "sysctl -w " + key + "=" + std::to_string(value);
  }

  void checkCapabilities() {
    constexpr unsigned kNetAdmin = 12;
    if (!machine_.pid) return;
    const auto status = readText(machine_.root / "proc" / std::to_string(*machine_.pid) / "status");
    constexpr std::string_view kField = "CapEff:\t";
    const auto at = status ? status->find(kField) : std::string::npos;
    if (at == std::string::npos) return;
    uint64_t mask = 0;
    const char* begin = status->data() + at + kField.size();
    std::from_chars(begin, status->data() + status->size(), mask, 16);
    hasNetAdmin_ = (mask >> kNetAdmin & 1) != 0;
    if (!*hasNetAdmin_) {
      add(Weight::Error, "capabilities",
          "hostrouted runs without CAP_NET_ADMIN: the kernel refuses its routes",
          "setcap cap_net_admin+ep $(which hostrouted), or AmbientCapabilities=CAP_NET_ADMIN in "
          "its unit");
    }
  }

  /// Above the first threshold the kernel removes idle entries. Above the third it refuses new
  /// ones.
  void checkNeighborLimits(const std::string& family, size_t neighbors) {
    const auto name = family == "ipv4" ? "IPv4" : "IPv6";
    const auto folder = "net/" + family + "/neigh/default/";
    const auto first = sysctl(folder + "gc_thresh1");
    const auto second = sysctl(folder + "gc_thresh2");
    const auto third = sysctl(folder + "gc_thresh3");
    if (!first || !second || !third) return;
    constexpr int64_t kRoomy = 16384;
    const auto count = static_cast<int64_t>(neighbors);
    const int64_t wanted = std::max(kRoomy, 4 * count);
    const auto mend = setting(folder + "gc_thresh3", wanted) + " " + folder +
                      "gc_thresh2=" + std::to_string(wanted / 2) + " " + folder +
                      "gc_thresh1=" + std::to_string(wanted / 4);
    if (count * 10 >= *third * 9) {
      add(Weight::Error, "gc_thresh",
          "there are " + std::to_string(count) + " " + name + " neighbours, and the kernel takes " +
              std::to_string(*third) + ": new hosts get no entry, and no route",
          mend);
    } else if (count > *first) {
      add(Weight::Warning, "gc_thresh",
          "there are " + std::to_string(count) + " " + name + " neighbours: above " +
              std::to_string(*first) + " the kernel drops those that are idle, and their routes go",
          mend);
    } else if (*third < kRoomy) {
      add(Weight::Note, "gc_thresh",
          "the kernel takes " + std::to_string(*third) + " " + name +
              " neighbours, and drops idle ones above " + std::to_string(*first) +
              ": enough for few hosts only",
          mend);
    }
  }

  void checkForwarding() {
    if (sysctl("net/ipv4/ip_forward") == 0) {
      add(Weight::Warning, "forwarding", "this machine does not forward IPv4 packets",
          setting("net/ipv4/ip_forward", 1));
    }
    if (sysctl("net/ipv6/conf/all/forwarding") == 0) {
      add(Weight::Warning, "forwarding", "this machine does not forward IPv6 packets",
          setting("net/ipv6/conf/all/forwarding", 1));
    }
  }

  /// How the effective value follows from the value of `all` and the value of an interface: only
  /// the interface's, the larger of both, or 1 when one of them is not 0.
  enum class Combined { Alone, Most, Either };
  struct InterfaceSetting {
    const char* family;
    const char* name;
    Combined combined;
    int64_t bad;   ///< the value that disturbs hostrouted
    int64_t good;  ///< the recommended value
    Weight weight;
    const char* what;
  };

  void checkInterfaces() {
    static constexpr InterfaceSetting kSettings[] = {
        {"ipv4", "arp_accept", Combined::Most, 0, 1, Weight::Warning,
         "a host that moves here says so by a gratuitous ARP, which makes no new entry"},
        {"ipv6", "accept_untracked_na", Combined::Alone, 0, 1, Weight::Warning,
         "a host that moves here says so by an unsolicited advertisement, which makes no new "
         "entry"},
        {"ipv4", "rp_filter", Combined::Most, 1, 0, Weight::Warning,
         "packets of a host are dropped while its route is not in table main, or leads elsewhere"},
        {"ipv4", "send_redirects", Combined::Either, 1, 0, Weight::Warning,
         "hosts of one subnet behind two routers are told to speak with each other directly, which "
         "they cannot"},
        {"ipv4", "proxy_arp", Combined::Either, 0, 1, Weight::Note,
         "hosts of one subnet behind two routers do not find each other by ARP"},
    };
    for (const auto& setting : kSettings) checkSetting(setting);
  }

  void checkSetting(const InterfaceSetting& wanted) {
    const auto folder = std::string("net/") + wanted.family + "/conf/";
    const auto key = [&](const std::string& intf) { return folder + intf + "/" + wanted.name; };
    const auto all = sysctl(key("all")).value_or(0);
    std::vector<std::string> bad;
    for (const auto& intf : machine_.interfaces) {
      const auto own = sysctl(key(intf));
      if (!own) continue;
      const int64_t value = wanted.combined == Combined::Alone  ? *own
                            : wanted.combined == Combined::Most ? std::max(*own, all)
                            : (*own != 0 || all != 0)           ? 1
                                                                : 0;
      if (value == wanted.bad) bad.push_back(intf);
    }
    if (bad.empty()) return;
    std::string mend;
    // The interface's value has no effect while `all` has the bad value.
    if (wanted.bad != 0 && all == wanted.bad && wanted.combined != Combined::Alone) {
      mend = setting(key("all"), wanted.good) + "; ";
    }
    mend += bad.size() == 1
                ? setting(key(bad.front()), wanted.good)
                : "for i in " + joined(bad) + "; do " + setting(key("$i"), wanted.good) + "; done";
    constexpr size_t kMostNamed = 4;
    auto named = std::vector(
        bad.begin(), bad.begin() + static_cast<ptrdiff_t>(std::min(bad.size(), kMostNamed)));
    if (bad.size() > kMostNamed) {
      named.push_back("and " + std::to_string(bad.size() - kMostNamed) + " more");
    }
    add(wanted.weight, wanted.name,
        std::string(wanted.name) + " is " + std::to_string(wanted.bad) + " on " + joined(named) +
            ": " + wanted.what,
        mend);
  }

  void checkReceiveBuffer() {
    constexpr int64_t kWanted = 64 << 20;
    const auto most = sysctl("net/core/rmem_max");
    // The limit does not apply to a process with the capability.
    if (!most || *most >= kWanted || hasNetAdmin_.value_or(true)) return;
    add(Weight::Warning, "rmem_max",
        "the buffer for the kernel's notifications is at most " + std::to_string(*most) +
            " bytes: when many hosts come at once, all of the kernel's state is read again",
        setting("net/core/rmem_max", kWanted));
  }

  bool isOurs(Linux::TableId table) const {
    return table != 0 &&
           (table == machine_.table4 || table == machine_.table6 ||
            std::ranges::find(machine_.otherTables, table) != machine_.otherTables.end());
  }

  void checkTables() {
    std::map<std::pair<Linux::TableId, unsigned>, size_t> strangers;
    std::map<Linux::TableId, size_t> elsewhere;
    for (const auto& route : machine_.routes) {
      if (route.protocol == machine_.protocol) {
        if (!isOurs(route.table) || !Linux::isHost(route.prefix)) ++elsewhere[route.table];
      } else if (isOurs(route.table) && route.table != RT_TABLE_MAIN) {
        ++strangers[{route.table, route.protocol}];
      }
    }
    const auto protocol = std::to_string(machine_.protocol);
    for (const auto& [table, count] : elsewhere) {
      add(Weight::Error, "protocol",
          "another program writes routes of protocol " + protocol + ": " + std::to_string(count) +
              " in table " + std::to_string(table) + " that are not hostrouted's",
          "give hostrouted a protocol number of its own (export.protocol), or delete them: "
          "ip route flush table " +
              std::to_string(table) + " proto " + protocol);
    }
    for (const auto& [key, count] : strangers) {
      add(Weight::Warning, "tables",
          "table " + std::to_string(key.first) + " holds " + std::to_string(count) +
              " routes of protocol " + std::to_string(key.second) +
              " beside hostrouted's: a routing daemon that imports the table takes them for hosts",
          "give hostrouted a table of its own (export.table, export.table6)");
    }
    for (const auto& link : machine_.links) {
      if (link.kind != "vrf" || !isOurs(link.vrfTable)) continue;
      add(Weight::Error, "tables",
          "table " + std::to_string(link.vrfTable) + " is that of the VRF device " + link.name +
              ": its packets are forwarded by host routes that were meant for export",
          "give hostrouted a table of its own (export.table, export.table6, export.vrf)");
    }
  }

  /// Checks which tables packets are looked up in, and in which order.
  void checkRules() {
    for (const auto& rule : machine_.rules) {
      const auto family = "IPv" + std::to_string(rule.family);
      const auto which = "the " + family + " rule of priority " + std::to_string(rule.priority);
      const auto removal = std::string(rule.family == 4 ? "ip" : "ip -6") + " rule del pref " +
                           std::to_string(rule.priority) + " table " + std::to_string(rule.table);
      if (isOurs(rule.table) && rule.table != RT_TABLE_MAIN) {
        add(Weight::Warning, "rules",
            which + " looks up table " + std::to_string(rule.table) +
                ": packets are forwarded by host routes that were meant for export",
            removal);
      } else if (hidesMain(rule)) {
        add(Weight::Error, "rules",
            which + " sends all packets to table " + std::to_string(rule.table) +
                ", which has a default route: the hosts' subnets in table main are never reached",
            removal + ", or give it a priority behind that of table main");
      }
    }
    for (const int family : {4, 6}) checkVrfRule(family);
  }

  /// Whether no packet of a family reaches the table main because of a rule.
  bool hidesMain(const Linux::Rule& rule) const {
    if (rule.table == RT_TABLE_MAIN || rule.table == RT_TABLE_LOCAL || rule.isForVrfs ||
        !rule.isForAll || rule.skipsShort) {
      return false;
    }
    const auto isMain = [&](const Linux::Rule& other) {
      return other.family == rule.family && other.table == RT_TABLE_MAIN && other.isForAll &&
             !other.skipsShort && other.priority < rule.priority;
    };
    const auto isDefault = [&](const Linux::Route& route) {
      return route.table == rule.table && Linux::familyOf(route.prefix) == rule.family &&
             std::visit([](const auto& prefix) { return prefix.len() == 0; }, route.prefix);
    };
    return std::ranges::none_of(machine_.rules, isMain) &&
           std::ranges::any_of(machine_.routes, isDefault);
  }

  /// Without a rule for VRFs, their packets are looked up in the table main. A kernel without the
  /// family has no rules of it at all.
  void checkVrfRule(int family) {
    const bool isKnown = std::ranges::any_of(
        machine_.rules, [family](const Linux::Rule& rule) { return rule.family == family; });
    if (!isKnown) return;
    for (const auto& link : machine_.links) {
      if (link.kind != "vrf") continue;
      const bool isLookedUp = std::ranges::any_of(machine_.rules, [&](const Linux::Rule& rule) {
        return rule.family == family && (rule.isForVrfs || rule.table == link.vrfTable);
      });
      if (isLookedUp) continue;
      add(Weight::Error, "rules",
          "no IPv" + std::to_string(family) + " rule leads packets of the VRF device " + link.name +
              " to its table " + std::to_string(link.vrfTable) + ": its hosts are not reached",
          std::string(family == 4 ? "ip" : "ip -6") + " rule add l3mdev pref 1000");
      return;
    }
  }

  void checkFrr() {
    if (!machine_.frrRuns.value_or(true)) return;
    const auto text = readText(machine_.root / "etc/frr/frr.conf");
    if (!text) return;
    const auto config = withoutComments(*text, "!#");
    const auto table = std::to_string(machine_.table4);
    if (machine_.table4 != 0 && machine_.table4 != RT_TABLE_MAIN) {
      if (!match(config, "^[ \t]*ip import-table " + table + "\\b")) {
        add(Weight::Error, "FRR", "FRR does not import table " + table + ": no host is advertised",
            "vtysh -c 'configure' -c 'ip import-table " + table + "' -c 'end' -c 'write'");
      }
      if (!match(config, "^[ \t]*redistribute table " + table + "\\b")) {
        add(Weight::Warning, "FRR",
            "no routing protocol of FRR redistributes table " + table + " (IPv4 hosts)",
            "in the router's configuration: redistribute table " + table);
      }
    }
    if (machine_.table6 == 0) return;
    if (machine_.table6 != RT_TABLE_MAIN) {
      add(Weight::Warning, "FRR",
          "FRR imports no IPv6 table but main, and IPv6 hosts are written to table " +
              std::to_string(machine_.table6),
          "export.table6 = 254 in hostrouted.toml, and redistribute kernel in FRR");
    } else if (!match(config, "^[ \t]*redistribute kernel\\b")) {
      add(Weight::Warning, "FRR",
          "FRR does not redistribute the kernel's routes: no IPv6 host is advertised",
          "in the router's IPv6 configuration: redistribute kernel route-map HOSTS");
    }
  }

  void checkBird() {
    if (!machine_.birdRuns.value_or(true)) return;
    auto text = readText(machine_.root / "etc/bird/bird.conf");
    if (!text) text = readText(machine_.root / "etc/bird.conf");
    if (!text) return;
    const auto config = withoutComments(*text, "#");
    for (const auto& [name, table] :
         {std::pair{"IPv4", machine_.table4}, std::pair{"IPv6", machine_.table6}}) {
      if (table == 0 || table == RT_TABLE_MAIN) continue;
      const auto number = std::to_string(table);
      if (!match(config, "\\bkernel\\s+table\\s+" + number + "\\s*;")) {
        add(Weight::Error, "BIRD",
            "BIRD does not read table " + number + ": no " + name + " host is advertised",
            "in bird.conf: protocol kernel { kernel table " + number + "; learn; ... }");
      }
    }
    if (!match(config, "\\blearn\\s*(all|yes|on)?\\s*;")) {
      add(Weight::Error, "BIRD",
          "no kernel protocol of BIRD learns routes of others: no host is advertised",
          "in bird.conf, in the protocol kernel of the table: learn;");
    }
    const auto source = match(config, "krt_source\\s*=\\s*([0-9]+)");
    if (source && *source != std::to_string(machine_.protocol)) {
      add(Weight::Error, "BIRD",
          "BIRD takes routes of protocol " + *source + ", and hostrouted writes " +
              std::to_string(machine_.protocol),
          "in bird.conf: import where krt_source = " + std::to_string(machine_.protocol) + ";");
    }
  }

  void checkClock() {
    if (machine_.isClockSynchronised.value_or(true)) return;
    add(Weight::Note, "clock",
        "the clock is not synchronised: times in logs, histories and recordings do not compare "
        "with those of other machines",
        "timedatectl set-ntp true");
  }

  const Machine& machine_;
  std::optional<bool> hasNetAdmin_;
  std::vector<Advice> advice_;
};

}  // namespace

const char* toString(Advice::Weight weight) {
  switch (weight) {
    case Weight::Error:
      return "error";
    case Weight::Warning:
      return "warning";
    case Weight::Note:
      break;
  }
  return "note";
}

std::vector<Advice> examine(const Machine& machine) {
  return Examination(machine).run();
}

}  // namespace Cli
