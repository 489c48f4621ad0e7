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
using Step = std::function<void(Switch &)>;
using Steps = std::vector<Step>;

Zemit::IntfId port(const char *name = "Ethernet1") {
  return Zemit::IntfId::of(std::string_view(name));
}
Step neighbor(uint32_t n, bool present = true) {
  return [=](Switch &sw) {
    sw.setNeighbor(
        port(),
        Ipv4::Neighbor{.ipAddr = Zemit::IpAddr(0x0A000000 + n), .mac = {}},
        present);
  };
}
Step route(uint32_t addr, uint32_t len, bool present = true) {
  return [=](Switch &sw) {
    const Ipv4::Route made{
        .key = Zemit::Prefix::enclosing(Zemit::IpAddr(addr), len),
        .metricPref = {.metric = 0, .preference = 1},
        .routeType = Ipv4::kConnected,
        .fecId = 1};
    sw.setRoute("default", made, present);
  };
}
Step fec(const char *intf) {
  return [=](Switch &sw) {
    sw.setFec(Ipv4::Fec(1, {{.hop = {}, .intf = port(intf)}}));
  };
}

/// Goes on when a step fails, as the daemon does. Returns how many did.
size_t play(Switch &sw, const Steps &steps) {
  size_t failures = 0;
  for (const Step &step : steps) {
    try {
      step(sw);
    } catch (const Pindo::Exception &) {
      ++failures;
    } catch (const std::bad_alloc &) {
      ++failures;
    }
  }
  return failures;
}

/// The routes in the table, with their next hops.
std::string state(const Switch &sw) {
  std::string text;
  const auto &routing = sw.vrfs().at("default").routing<Ipv4>();
  for (auto shown : Replay::shownRoutes<Ipv4>(
           *routing.routeStatus, *sw.shared<Ipv4>().forwarding,
           [](const auto &) { return true; })) {
    // An adjacency's number depends on which were there before.
    if (shown.route.fecId >= Ipv4::ForwardingStatus::kFirstAdjacency)
      shown.route.fecId = 0;
    text += Replay::routeJson<Ipv4>(shown).text() + "\n";
  }
  return text;
}

// The process goes on, and what it is told again afterwards makes it whole.
TEST(AllocationTest, MayFailAnywhereInAnEvent) {
  const Steps before{
      [](Switch &sw) { sw.setInterface(port(), "default"); },
      [](Switch &sw) { sw.setInitialized<Ipv4>("default", true); },
      fec("Ethernet1"),
      route(0x0A000000, 16),
      neighbor(5),
      neighbor(6),
      neighbor(7)};
  const std::pair<const char *, Steps> events[] = {
      {"learned", {neighbor(8)}},
      {"lost", {neighbor(6, false)}},
      {"narrower", {route(0x0A000000, 24)}},
      {"withdrawn", {route(0x0A000000, 16, false)}},
      {"moved", {fec("Ethernet2")}}};
  for (const auto &[name, event] : events) {
    Switch whole({.settles = true});
    play(whole, before);
    play(whole, event);
    size_t tried = 0;
    for (bool hasRunOut = true; hasRunOut;) {
      SCOPED_TRACE(std::string(name) + ", allocation " +
                   std::to_string(++tried));
      Switch sw({.settles = true});
      play(sw, before);
      {
        const Sample::ShortMemory memory(tried);
        play(sw, event);
        hasRunOut = memory.hasRunOut();
      }
      ASSERT_NO_THROW(state(sw)) << "the tables cannot be read";
      play(sw, before);
      play(sw, event);
      sw.redo();
      EXPECT_EQ(state(sw), state(whole));
    }
    EXPECT_GT(tried, 1U) << name;
  }
}

} // namespace
