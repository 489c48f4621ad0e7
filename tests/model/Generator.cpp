// Random replays: the small universe and the random events in it.
#include "tests/model/Generator.h"

#include <algorithm>
#include <set>
#include <sstream>
#include <utility>

namespace Golden {

using nlohmann::json;

struct Generator::Universe {
  int family;
  Texts prefixes;
  Texts hosts;
  std::string crowd;  // the addresses of the crowd without their last number
  Texts intfAddrs;
  Texts virtualIps;
  Texts gateways;
  Texts routeTypes;
};

namespace {

constexpr uint64_t kFecs = 5;

const std::vector<std::string> kIntfs = {"Ethernet1", "Ethernet2", "Ethernet3", "Management1",
                                         "NotManagement2"};
const std::vector<std::string> kVrfs = {"default", "default", "default", "blue", "red"};
const std::vector<std::string> kMacs = {"00:00:00:00:00:01", "00:00:00:00:00:02"};

}  // namespace

const Generator::Universe& Generator::universe() {
  static const Universe kUniverse4{
      .family = 4,
      .prefixes = {"0.0.0.0/0", "10.0.0.0/8", "10.1.0.0/16", "10.1.1.0/24", "10.1.1.0/24",
                   "10.1.1.0/30", "10.1.1.2/31", "10.1.1.1/32", "10.1.1.2/32", "10.1.1.9/32",
                   "10.1.2.0/24", "10.2.0.0/16"},
      .hosts = {"10.1.1.0", "10.1.1.1", "10.1.1.2", "10.1.1.3", "10.1.1.9", "10.1.1.255",
                "10.1.2.1", "10.2.0.1", "192.168.0.1"},
      .crowd = "10.1.1.",
      .intfAddrs = {"10.1.1.1/24", "10.1.1.2/24", "10.1.1.1/30", "10.1.1.2/31", "10.1.1.9/32",
                    "10.1.1.0/24", "10.1.2.1/24", "10.2.0.1/0", "0.0.0.0/24", "0.0.0.0/0"},
      .virtualIps = {"10.1.1.1/24", "10.1.1.1/32", "10.1.1.2/24", "10.1.1.9/32", "10.1.2.1/24"},
      .gateways = {"10.1.1.9", "10.9.9.9"},
      .routeTypes = {"connected_", "connected_", "staticConfig_", "attached_", "receive_",
                     "receiveBcast_", "ibgp_", "ebgp_", "bgpAggregate_"}};
  static const Universe kUniverse6{
      .family = 6,
      .prefixes = {"::/0", "2001:db8::/32", "2001:db8:1::/48", "2001:db8:1:1::/64",
                   "2001:db8:1:1::/64", "2001:db8:1:1::/126", "2001:db8:1:1::1/128",
                   "2001:db8:1:1::2/128", "2001:db8:1:2::/64", "fe80::/10"},
      .hosts = {"2001:db8:1:1::", "2001:db8:1:1::1", "2001:db8:1:1::2", "2001:db8:1:1::3",
                "2001:db8:1:1::9", "2001:db8:1:2::1", "2001:db8:2::1", "fe80::1"},
      .crowd = "2001:db8:1:1::",
      .intfAddrs = {"2001:db8:1:1::1/64", "2001:db8:1:1::1/128", "2001:db8:1:1::2/64",
                    "2001:db8:1:2::1/64", "2001:db8:1:1::9/127", "fe80::1/64", "::/64"},
      .virtualIps = {"2001:db8:1:1::1", "2001:db8:1:1::2", "2001:db8:1:1::9", "2001:db8:1:2::1"},
      .gateways = {"2001:db8:1:1::9", "2001:db8:9::9"},
      .routeTypes = {"connected_", "connected_", "staticConfig_", "attached_", "receive_", "bgp_",
                     "bgpAggregate_"}};
  if (weights_.ipv4 && weights_.ipv6) return chance(60) ? kUniverse4 : kUniverse6;
  return weights_.ipv4 ? kUniverse4 : kUniverse6;
}

Generator::Generator(uint64_t seed, const Weights& weights) : random_(seed), weights_(weights) {
  setTheScene();
}

json Generator::next() {
  if (scene_.empty()) return random();
  json event = std::move(scene_.front());
  scene_.pop_front();
  return event;
}

/// An address of the crowd.
std::string Generator::crowded(const Universe& of, uint64_t number) {
  std::ostringstream text;
  text << of.crowd << (of.family == 4 ? std::dec : std::hex) << number;
  return text.str();
}

std::string Generator::host(const Universe& of) {
  return weights_.crowded && !chance(10) ? crowded(of, below(96)) : pick(of.hosts);
}

std::string Generator::prefix(const Universe& of) {
  if (!weights_.crowded || chance(40)) return pick(of.prefixes);
  const uint64_t hostBits = 2 + below(5);
  const uint64_t length = (of.family == 4 ? 32 : 128) - hostBits;
  return crowded(of, below(128) >> hostBits << hostBits) + '/' + std::to_string(length);
}

void Generator::setTheScene() {
  for (size_t i = 0; i < (weights_.crowded ? 200 : 30); ++i) {
    const Universe& of = universe();
    scene_.push_back(fec(1 + below(kFecs), of));
    scene_.push_back(route(prefix(of), of));
    // Most neighbours of a crowd are on one interface.
    const std::string& intf = weights_.crowded && chance(70) ? kIntfs[0] : pick(kIntfs);
    scene_.push_back({{"op", "neighbor"}, {"intf", intf}, {"ip", host(of)}});
    if (chance(30)) scene_.push_back(addr(of));
    if (chance(30)) scene_.push_back({{"op", "intf"}, {"name", pick(kIntfs)}, {"vrf", vrf()}});
  }
  Texts initialized = {vrf(), vrf()};
  if (weights_.apart) initialized = kVrfs;
  for (const std::string& vrf : initialized) {
    const auto at = static_cast<std::ptrdiff_t>(below(scene_.size()));
    scene_.insert(scene_.begin() + at, json{{"op", "initialized"}, {"vrf", vrf}, {"value", true}});
  }
}

std::string Generator::vrf() {
  return weights_.manyVrfs ? pick(kVrfs) : "default";
}

uint64_t Generator::fecOf(const std::string& vrf) {
  if (!weights_.apart || chance(5)) return 1 + below(kFecs);
  return vrf == "default" ? 1 : vrf == "blue" ? 2 : 3;
}

json Generator::route(const std::string& prefix, const Universe& of) {
  const std::string in = vrf();
  json event = {{"op", "route"}, {"vrf", in}, {"prefix", prefix}, {"type", pick(of.routeTypes)}};
  if (!chance(10)) event["fec"] = fecOf(in);
  if (chance(25)) event["metric"] = 10 * below(3);
  if (chance(15)) event["preference"] = 1 + below(2);
  return event;
}

json Generator::fec(uint64_t id, const Universe& of) {
  std::set<std::pair<std::string, std::string>> vias;
  // Most FECs have one direct via.
  for (uint64_t n = chance(60) ? 1 : below(4); n > 0; --n) {
    const std::string& intf = weights_.apart && !chance(10) ? kIntfs[id % 3] : pick(kIntfs);
    vias.emplace(intf, chance(25) ? pick(of.gateways) : "");
  }
  json list = json::array();
  for (const auto& [intf, hop] : vias) {
    list.push_back({{"intf", intf}});
    if (!hop.empty()) list.back()["hop"] = hop;
  }
  return {{"op", "fec"}, {"family", of.family}, {"id", id}, {"vias", list}};
}

json Generator::addr(const Universe& of) {
  json event = {{"op", "addr"}, {"intf", pick(kIntfs)}, {"addr", pick(of.intfAddrs)}};
  if (of.family == 4) event["secondary"] = chance(50);
  return event;
}

json Generator::random() {
  // Soon enough after it, nothing has changed that concerns the neighbour.
  if (!lastNeighbor_.is_null() && chance(15)) {
    lastNeighbor_["mac"] = pick(kMacs);
    return lastNeighbor_;
  }
  const Universe& of = universe();
  const std::pair<const char*, unsigned> kinds[] = {
      {"neighbor", weights_.neighbor},
      {"neighborTable", weights_.neighborTable},
      {"fec", weights_.fec},
      {"route", weights_.route},
      {"addr", weights_.addr},
      {"intf", weights_.intf},
      {"virtualIp", weights_.virtualIp},
      {"initialized", weights_.initialized},
      {"ribReady", weights_.ribReady},
      {"startRibReadyVerification", weights_.startRibReadyVerification},
      {"notifyFecs", weights_.notifyFecs},
      {"vrf", weights_.vrf},
      {"teardown", weights_.teardown},
      {"dump", weights_.dump}};
  uint64_t total = 0;
  for (const auto& [name, weight] : kinds) total += weight;
  uint64_t drawn = below(total);
  const auto* kind = kinds;
  for (; drawn >= kind->second; ++kind) drawn -= kind->second;

  const std::string op = kind->first;
  json event = {{"op", op}};
  if (op == "neighbor") {
    event["intf"] = pick(kIntfs);
    event["ip"] = host(of);
    event["mac"] = pick(kMacs);
  } else if (op == "neighborTable") {
    event["intf"] = pick(kIntfs);
  } else if (op == "fec") {
    event = fec(1 + below(kFecs), of);
  } else if (op == "route") {
    event = route(prefix(of), of);
  } else if (op == "addr") {
    event = addr(of);
  } else if (op == "intf") {
    event["name"] = pick(kIntfs);
    event["vrf"] = vrf();
  } else if (op == "virtualIp") {
    event["vrf"] = vrf();
    event["addr"] = pick(of.virtualIps);
  } else if (op == "initialized") {
    event["vrf"] = vrf();
    event["family"] = of.family;
    event["value"] = chance(80);
  } else if (op == "ribReady" || op == "startRibReadyVerification") {
    event["vrf"] = vrf();
    event["value"] = chance(65);
  } else if (op == "notifyFecs") {
    event["family"] = of.family;
  } else if (op == "vrf") {
    event["name"] = vrf();
  } else if (op == "teardown") {
    event["vrf"] = vrf();
    event["family"] = of.family;
  }
  static const std::set<std::string> kRemovable = {"neighbor", "neighborTable", "fec",      "route",
                                                   "addr",     "intf",          "virtualIp"};
  if (kRemovable.contains(op) && chance(weights_.removal)) {
    event["present"] = false;
    if (chance(50)) event.erase("vias");
  } else if (op == "neighbor") {
    lastNeighbor_ = event;
  }
  return event;
}

}  // namespace Golden
