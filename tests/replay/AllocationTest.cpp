// Tests of events during which an allocation fails.
#include <iterator>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "daemon/Operation.h"
#include "platform/kiv/containers/Exception.h"
#include "tests/kiv/ShortMemory.h"
#include "tests/replay/Dumps.h"

namespace {

using Daemon::Operation;
using Daemon::Switch;
using Steps = std::vector<Operation>;

template <class F>
class AllocationTest : public testing::Test {
 protected:
  using Prefix = typename F::Prefix;

  static constexpr bool kIsIpv4 = std::is_same_v<F, Daemon::Ipv4>;
  static typename F::Addr addr(uint32_t n) {
    if constexpr (kIsIpv4) {
      return Zemit::IpAddr(0x0A000000 + n);
    } else {
      return {0x20010DB800000000, n};
    }
  }
  static Zemit::IntfId port(const char* name = "Ethernet1") {
    return Zemit::IntfId::of(std::string_view(name));
  }
  static Operation neighbor(uint32_t n, bool present = true) {
    return Daemon::SetNeighbor<F>{
        .intf = port(), .neighbor = {.ipAddr = addr(n), .mac = {}}, .present = present};
  }
  static Operation route(uint32_t hostBits, bool present = true) {
    return Daemon::SetRoute<F>{
        .vrf = "default",
        .route = {.key = Prefix::enclosing(addr(0), Prefix::kMaxLen - hostBits),
                  .metricPref = {.metric = 0, .preference = 1},
                  .routeType = F::kConnected,
                  .fecId = 1},
        .present = present};
  }
  static Operation fec(const char* intf) {
    return Daemon::SetFec<F>{.fec = typename F::Fec(1, {{.hop = {}, .intf = port(intf)}})};
  }
  static Operation address(uint32_t n, bool present = true) {
    return Daemon::SetAddress<F>{
        .intf = port(), .addr = {addr(n), Prefix::kMaxLen - 16}, .present = present};
  }
  static Operation virtualIp(uint32_t n, bool present = true) {
    return Daemon::SetVirtualIp<F>{
        .vrf = "default", .addr = {addr(n), Prefix::kMaxLen}, .present = present};
  }

  /// Goes on when a step fails, as the daemon does.
  static void play(Switch& sw, const Steps& steps) {
    for (const Operation& step : steps) {
      try {
        Daemon::apply(sw, step);
      } catch (const Pindo::Exception&) {
      } catch (const std::bad_alloc&) {
      }
    }
  }
};
using Families = testing::Types<Daemon::Ipv4, Daemon::Ipv6>;
TYPED_TEST_SUITE(AllocationTest, Families);

// After the failure the process continues. The same inputs, applied again, restore the full state.
TYPED_TEST(AllocationTest, MayFailAnywhereInAnEvent) {
  using T = AllocationTest<TypeParam>;
  const Steps before{Daemon::SetInterface{.intf = T::port(), .vrf = "default"},
                     Daemon::SetInitialized{.vrf = "default"},
                     T::fec("Ethernet1"),
                     T::route(16),
                     T::address(1),
                     T::virtualIp(3),
                     T::neighbor(5),
                     T::neighbor(6),
                     T::neighbor(7)};
  const std::pair<const char*, Operation> events[] = {{"learned", T::neighbor(8)},
                                                      {"lost", T::neighbor(6, false)},
                                                      {"narrower", T::route(8)},
                                                      {"withdrawn", T::route(16, false)},
                                                      {"moved", T::fec("Ethernet2")},
                                                      {"addressed", T::address(2)},
                                                      {"unaddressed", T::address(1, false)},
                                                      {"virtual", T::virtualIp(6)},
                                                      {"no more virtual", T::virtualIp(3, false)}};
  size_t all = 0;
  for (const auto& [name, event] : events) {
    const Steps after{event};
    // The switch without a failure gets the same inputs, also twice.
    const auto again = [&before, &after](Switch& sw) {
      T::play(sw, before);
      T::play(sw, after);
      sw.redo();
      return routesOf(sw);
    };
    Switch whole({.settles = true});
    T::play(whole, before);
    T::play(whole, after);
    const std::string expected = again(whole);
    size_t tried = 0;
    for (bool hasRunOut = true; hasRunOut;) {
      SCOPED_TRACE(std::string(name) + ", allocation " + std::to_string(++tried));
      Switch sw({.settles = true});
      T::play(sw, before);
      {
        const Sample::ShortMemory memory(tried);
        T::play(sw, after);
        hasRunOut = memory.hasRunOut();
      }
      ASSERT_NO_THROW(routesOf(sw)) << "the tables cannot be read";
      EXPECT_EQ(again(sw), expected);
    }
    all += tried;
  }
  EXPECT_GT(all, 2 * std::size(events)) << "events allocate";
}

}  // namespace
