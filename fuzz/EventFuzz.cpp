// Makes valid events of any bytes. After each event, the engine must keep its invariants and agree
// with the golden model.
//
// A few bytes make an event in a universe so small that routes, addresses and neighbours collide.
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "daemon/Switch.h"
#include "platform/kiv/containers/Hash.h"
#include "replay/Output.h"
#include "replay/Player.h"
#include "tests/model/Model.h"
#include "tests/replay/Dumps.h"
#include "tests/replay/Invariants.h"

namespace {

using Event = nlohmann::json;

constexpr std::array kIntfs{"Ethernet1", "Ethernet2", "Vlan10", "Management1"};
constexpr std::array kVrfs{"default", "blue"};
constexpr std::array kHosts{"10.0.0.1", "10.0.0.2",    "10.0.0.255",  "10.0.1.1",
                            "10.1.0.1", "2001:db8::1", "2001:db8::2", "2001:db8:0:1::1"};
constexpr std::array kAddresses{"10.0.0.1/24",    "10.0.0.2/24",    "10.0.1.1/32",
                                "10.1.0.1/16",    "2001:db8::1/64", "2001:db8::2/127",
                                "2001:db8::3/128"};
constexpr std::array kPrefixes{"0.0.0.0/0",     "10.0.0.0/8",     "10.0.0.0/24", "10.0.0.0/31",
                               "10.0.0.2/32",   "10.0.1.1/32",    "::/0",        "2001:db8::/32",
                               "2001:db8::/64", "2001:db8::1/128"};
constexpr std::array kTypes4{"connected_", "staticConfig_", "ebgp_", "attached_", "receive_"};

/// Hands out the bytes of an input, zeroes behind its end.
class Choices {
 public:
  Choices(const uint8_t* data, size_t size) : at_(data), end_(data + size) {}
  bool hasMore() const { return at_ != end_; }
  unsigned below(unsigned limit) { return (at_ == end_ ? 0U : *at_++) % limit; }
  template <class Texts>
  const char* from(const Texts& texts) {
    return texts[below(static_cast<unsigned>(texts.size()))];
  }

 private:
  const uint8_t* at_;
  const uint8_t* end_;
};

Event nextEvent(Choices& choices) {
  const unsigned what = choices.below(16);
  const bool present = choices.below(4) != 0;
  switch (what) {
    case 0:
    case 1:
    case 2:
    case 3:
      return {{"op", "neighbor"},
              {"intf", choices.from(kIntfs)},
              {"ip", choices.from(kHosts)},
              {"present", present}};
    case 4:
    case 5:
    case 6: {
      Event event{{"op", "route"}, {"prefix", choices.from(kPrefixes)}, {"present", present}};
      event["vrf"] = choices.from(kVrfs);
      event["fec"] = choices.below(5);
      event["metric"] = choices.below(2);
      const bool isIpv4 = event["prefix"].get<std::string>().find(':') == std::string::npos;
      if (isIpv4) event["type"] = choices.from(kTypes4);
      return event;
    }
    case 7:
    case 8: {
      const unsigned family = choices.below(2) == 0 ? 4 : 6;
      Event event{{"op", "fec"},
                  {"id", 1 + choices.below(4)},
                  {"family", family},
                  {"present", present},
                  {"vias", Event::array()}};
      for (unsigned left = choices.below(4); left > 0; --left) {
        Event via{{"intf", choices.from(kIntfs)}};
        if (choices.below(3) == 0) via["hop"] = family == 4 ? "10.0.0.2" : "2001:db8::2";
        event["vias"].push_back(via);
      }
      return event;
    }
    case 9:
    case 10:
      return {{"op", "addr"},
              {"intf", choices.from(kIntfs)},
              {"addr", choices.from(kAddresses)},
              {"present", present}};
    case 11:
      return {{"op", "intf"},
              {"name", choices.from(kIntfs)},
              {"vrf", choices.from(kVrfs)},
              {"present", present}};
    case 12: {
      const std::string addr = choices.from(kAddresses);
      return {
          {"op", "virtualIp"}, {"addr", addr}, {"vrf", choices.from(kVrfs)}, {"present", present}};
    }
    case 13:
      return {{"op", "initialized"}, {"vrf", choices.from(kVrfs)}, {"value", present}};
    case 14:
      return {{"op", choices.below(2) == 0 ? "ribReady" : "startRibReadyVerification"},
              {"vrf", choices.from(kVrfs)},
              {"value", present}};
    default:
      return choices.below(4) == 0 ? Event{{"op", "notifyFecs"}}
                                   : Event{{"op", "neighborTable"},
                                           {"intf", choices.from(kIntfs)},
                                           {"present", present}};
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  Kiv::hashSeedIs(Replay::kHashSeed);
  testing::GTEST_FLAG(break_on_failure) = true;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kMostEvents = 60;
  if (size == 0) return 0;
  Choices choices(data, size);
  const bool settles = choices.below(2) != 0;
  std::ostream nowhere(nullptr);
  const auto output = Replay::jsonOutput(nowhere);
  Daemon::Switch sw({.settles = settles});
  Replay::Player player(sw, *output, {});
  Golden::Model model(settles);
  for (size_t number = 0; number < kMostEvents && choices.hasMore(); ++number) {
    const Event event = nextEvent(choices);
    try {
      player.apply(event.dump());
    } catch (const Replay::EventError&) {
      continue;  // such as a virtual address of IPv6 with a length
    }
    model.apply(event);
    checkInvariants(sw);
    const auto ours = canonicalDumps(sw);
    const auto golden = canonicalDumps(model);
    if (ours != golden) {
      std::fprintf(stderr, "%s\n%s\n", event.dump().c_str(),
                   difference(ours, "engine", golden, "model ").c_str());
      std::abort();
    }
  }
  return 0;
}
