// An allocation that fails in the middle of an event.
#include <functional>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "daemon/Switch.h"
#include "platform/kiv/Exception.h"
#include "replay/ShownRoute.h"
#include "tests/kiv/ShortMemory.h"

namespace {

using Daemon::Ipv4;
using Daemon::Switch;
using Step = std::function<void(Switch&)>;
using Steps = std::vector<Step>;

Zemit::IntfId portNamed(const char* name = "Ethernet1") {
  return Zemit::IntfId::of(std::string_view(name));
}
Step neighborStep(uint32_t n, bool present = true) {
  return [=](Switch& sw) {
    sw.setNeighbor(portNamed(), Ipv4::Neighbor{.ipAddr = Zemit::IpAddr(0x0A000000 + n), .mac = {}},
                   present);
  };
}
Step routeStep(uint32_t addr, uint32_t len, bool present = true) {
  return [=](Switch& sw) {
    const Ipv4::Route made{.key = Zemit::Prefix::enclosing(Zemit::IpAddr(addr), len),
                           .metricPref = {.metric = 0, .preference = 1},
                           .routeType = Ipv4::kConnected,
                           .fecId = 1};
    sw.setRoute("default", made, present);
  };
}
Step fecStep(const char* intf) {
  return [=](Switch& sw) { sw.setFec(Ipv4::Fec(1, {{.hop = {}, .intf = portNamed(intf)}})); };
}

/// Goes on when a step fails, as the daemon does. Returns how many did.
size_t playSteps(Switch& sw, const Steps& steps) {
  size_t failures = 0;
  for (const Step& step : steps) {
    try {
      step(sw);
    } catch (const Pindo::Exception&) {
      ++failures;
    } catch (const std::bad_alloc&) {
      ++failures;
    }
  }
  return failures;
}

/// The routes in the table, with their next hops.
std::string routesOf(const Switch& sw) {
  std::string text;
  const auto& routing = sw.vrfs().at("default").routing<Ipv4>();
  for (auto shown : Replay::shownRoutes<Ipv4>(*routing.routeStatus, *sw.shared<Ipv4>().forwarding,
                                              [](const auto&) { return true; })) {
    // An adjacency's number depends on which were there before.
    if (shown.route.fecId >= Ipv4::ForwardingStatus::kFirstAdjacency) shown.route.fecId = 0;
    text += Replay::routeJson<Ipv4>(shown).text() + "\n";
  }
  return text;
}

// The process goes on, and what it is told again afterwards makes it whole.
TEST(AllocationTest, MayFailAnywhereInAnEvent) {
  const Steps before{[](Switch& sw) { sw.setInterface(portNamed(), "default"); },
                     [](Switch& sw) { sw.setInitialized<Ipv4>("default", true); },
                     fecStep("Ethernet1"),
                     routeStep(0x0A000000, 16),
                     neighborStep(5),
                     neighborStep(6),
                     neighborStep(7)};
  const std::pair<const char*, Steps> events[] = {{"learned", {neighborStep(8)}},
                                                  {"lost", {neighborStep(6, false)}},
                                                  {"narrower", {routeStep(0x0A000000, 24)}},
                                                  {"withdrawn", {routeStep(0x0A000000, 16, false)}},
                                                  {"moved", {fecStep("Ethernet2")}}};
  for (const auto& [name, event] : events) {
    Switch whole({.settles = true});
    playSteps(whole, before);
    playSteps(whole, event);
    size_t tried = 0;
    for (bool hasRunOut = true; hasRunOut;) {
      SCOPED_TRACE(std::string(name) + ", allocation " + std::to_string(++tried));
      Switch sw({.settles = true});
      playSteps(sw, before);
      {
        const Sample::ShortMemory memory(tried);
        playSteps(sw, event);
        hasRunOut = memory.hasRunOut();
      }
      ASSERT_NO_THROW(routesOf(sw)) << "the tables cannot be read";
      playSteps(sw, before);
      playSteps(sw, event);
      sw.redo();
      EXPECT_EQ(routesOf(sw), routesOf(whole));
    }
    EXPECT_GT(tried, 1U) << name;
  }
}

}  // namespace
