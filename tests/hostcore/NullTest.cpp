// Tests that a null argument or input raises "null ValidPtr" if an object is needed, with and
// without tracing.
#include <functional>
#include <utility>

#include "tests/hostcore/World.h"

namespace {

template <class F>
class NullTest : public testing::Test {};
TYPED_TEST_SUITE(NullTest, Families);

template <class F>
struct NullCall {
  const char* name;
  std::function<void(World<F>&)> call;
};

/// The calls that both families have.
template <class F>
std::vector<NullCall<F>> callsOfEither() {
  using W = World<F>;
  using S = Sample<F>;
  const auto dir = Obu::IntfDir::IntfDirIs();
  const auto nonempty = [](const Obu::IntfDir::Ptr& a, const Obu::IntfDir::Ptr& b) {
    if constexpr (S::kIsIpv4) {
      Routing::Host::nonemptyIntersection(a, b);
    } else {
      Routing6::Host::nonemptyIntersection(a, b);
    }
  };
  const auto subtract = [](const Obu::IntfDir::Ptr& a, const Obu::IntfDir::Ptr& b) {
    if constexpr (S::kIsIpv4) {
      Routing::Host::subtract(a, b);
    } else {
      Routing6::Host::subtract(a, b);
    }
  };
  const auto neighbors = [](W& world) { return world.machine().arpIntfStatus("Ethernet1"); };
  const auto filter = [](W& world) { return world.machine().ipIntfStatusFilter(world.ethernet1); };
  const auto addresses = [](W& world) { return world.machine().ipIntfStatus(world.ethernet1); };
  std::vector<NullCall<F>> calls{
      {"nonemptyIntersection of null", [=](W&) { nonempty(nullptr, dir); }},
      {"nonemptyIntersection with null", [=](W&) { nonempty(dir, nullptr); }},
      {"subtract null", [=](W&) { subtract(nullptr, dir); }},
      {"subtract from null", [=](W&) { subtract(dir, nullptr); }},
      {"removeReceiveRoutes without root",
       [](W& world) {
         F::removeReceiveRoutes(nullptr, "Ethernet1", nullptr,
                                F::AddrSet::AddrSetIs(F::Prefix::null()));
         static_cast<void>(world);
       }},
      {"removeReceiveRoutes without set",
       [](W& world) { F::removeReceiveRoutes(nullptr, "Ethernet1", world.root, nullptr); }},
      {"a host route taken from a deleted table",
       [](W& world) {
         if constexpr (S::kIsIpv4) {
           world.root->arpTableDel();
         } else {
           world.root->neighTableDel();
         }
         world.routeIs(S::longer(), 7);
       }},
      {"filter of an interface without layer-3 status",
       [=](W& world) {
         world.machine().ipIntfStatusFilterIs(world.interfaceStatus(world.ethernet1, nullptr));
         filter(world)->handleVrf();
       }},
      {"deletion of a filter without interface",
       [=](W& world) {
         filter(world)->notifierIs(nullptr);
         world.machine().ipIntfStatusFilterDel(world.ethernet1);
       }},
  };
  // A reactor that lacks its machine or its input.
  const auto add = [&calls](const char* name, auto reactor, auto call) {
    calls.push_back({name, [=](W& world) {
                       reactor(world)->routeSmIs(nullptr);
                       call(world);
                     }});
    calls.push_back({name, [=](W& world) {
                       reactor(world)->notifierIs(nullptr);
                       call(world);
                     }});
  };
  add("one neighbour", neighbors, [=](W& w) { neighbors(w)->handleArpEntry(S::addr(4)); });
  add("all neighbours", neighbors, [=](W& w) { neighbors(w)->handleArpEntry(); });
  add("deletion of a table", neighbors, [](W& w) { w.machine().arpIntfStatusDel("Ethernet1"); });
  add("filter", filter, [=](W& w) { filter(w)->handleVrf(); });
  add("addresses", addresses, [=](W& w) { addresses(w)->handleActiveAddrWithMask(); });
  // A lost neighbour that lacks root, trie or adjacency helper.
  const std::function<void(W&)> omissions[] = {
      [](W& world) { world.machine().rootIs(nullptr); },
      [](W& world) { world.root->trieIs(nullptr); },
      [](W& world) { world.machine().adjHelperIs(nullptr); }};
  for (const auto& omit : omissions) {
    calls.push_back({"a lost neighbour", [omit](W& world) {
                       omit(world);
                       world.machine().handleDeletedArpEntry(
                           F::argument({.ipAddr = S::addr(4)}),
                           world.neighborDir->arpIntfStatus("Ethernet1"));
                     }});
  }
  return calls;
}

/// The calls that only IPv4 has.
std::vector<NullCall<Daemon::Ipv4>> callsOf(Daemon::Ipv4) {
  using W = World<Daemon::Ipv4>;
  using namespace Routing::Host;
  static const Kiv::Name kName = "Ethernet1";
  const Zemit::IpAddrWithMask subnet(Sample<Daemon::Ipv4>::addr(1), 24);
  const auto set = Obu::AddrSet::AddrSetIs(Zemit::Prefix::null());
  const auto status = W::interfaceStatus(Zemit::IntfId::of(kName), nullptr);
  const auto addresses = [](W& world) { return world.machine().ipIntfStatus(world.ethernet1); };
  return {
      {"addActiveReceiveRoutes without status",
       [=](W& world) { addActiveReceiveRoutes(nullptr, subnet, world.root, set); }},
      {"addActiveReceiveRoutes without root",
       [=](W&) { addActiveReceiveRoutes(status, subnet, nullptr, set); }},
      {"addActiveReceiveRoutes without set",
       [=](W& world) { addActiveReceiveRoutes(status, subnet, world.root, nullptr); }},
      {"removeAddrMaskFromReceiveTable without root",
       [=](W&) { removeAddrMaskFromReceiveTable(subnet, kName, set, nullptr); }},
      {"removeAddrMaskFromReceiveTable without set",
       [=](W& world) { removeAddrMaskFromReceiveTable(subnet, kName, nullptr, world.root); }},
      {"removeReceiveRoute without root",
       [=](W&) { removeReceiveRoute(subnet.addr(), kName, nullptr); }},
      {"recomputeReceiveRoutes without machine",
       [=](W&) { recomputeReceiveRoutes(nullptr, status); }},
      {"recomputeReceiveRoutes without status",
       [=](W& world) { recomputeReceiveRoutes(world.root->routeSm(), nullptr); }},
      {"secondary addresses without machine",
       [=](W& world) {
         addresses(world)->routeSmIs(nullptr);
         addresses(world)->handleActiveSecondaryWithMask();
       }},
      {"secondary addresses without interface",
       [=](W& world) {
         addresses(world)->notifierIs(nullptr);
         addresses(world)->handleActiveSecondaryWithMask(subnet);
       }},
  };
}
std::vector<NullCall<Daemon::Ipv6>> callsOf(Daemon::Ipv6) {
  return {};
}

// A program that embeds the engine must be able to catch the exception, also with tracing on.
TYPED_TEST(NullTest, IsRaisedTracedOrNot) {
  using F = TypeParam;
  auto calls = callsOfEither<F>();
  for (auto& call : callsOf(F())) calls.push_back(std::move(call));
  for (const bool isTraced : {false, true}) {
    for (const auto& [name, call] : calls) {
      SCOPED_TRACE(std::string(name) + (isTraced ? ", traced" : ""));
      World<F> world;
      world.startWithSubnet();
      world.addressIs(*world.interface(world.ethernet1, world.inVrf(world.ethernet1, "red")), 1);
      world.learn(world.ethernet1, 4);
      const TraceLog log(F::trace(), isTraced ? std::vector<unsigned>{0, 1, 2, 5, 6, 7, 8}
                                              : std::vector<unsigned>());
      try {
        call(world);
        ADD_FAILURE() << "nothing was raised";
      } catch (const Kiv::Exception& raised) {
        EXPECT_STREQ(raised.what(), "null ValidPtr");
      }
    }
  }
}

}  // namespace
