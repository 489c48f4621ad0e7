// Tests of edge cases of access by name: observers that leave early, invalid keys, names with
// blanks, values without a text form, and the results of creation.
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "daemon/Family.h"
#include "platform/kiv/reflection/EntityDirectory.h"
#include "tests/typeinfo/Refusal.h"
#include "typeinfo/HostRoute6Sm.h"
#include "typeinfo/HostRouteSm.h"

namespace {

using Kiv::GenericIf;
using Kiv::GenericValue;
using Op = GenericIf::Op;

/// A root of one family with a machine without inputs, and the reflective interfaces to both.
template <class F>
class EdgesTest : public testing::Test {
 protected:
  using Root = typename F::RouteSmRoot;
  using Machine = typename F::RouteSm;
  static constexpr bool kIsIpv4 = F::kNumber == 4;

  EdgesTest() {
    if constexpr (kIsIpv4) {
      root->newRouteSm({}, {}, {}, {}, {}, {}, {}, {}, {}, {}, root, {}, L3::VrfName("red"));
    } else {
      root->newRouteSm({}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, root, L3::VrfName("red"));
    }
    machineIf = Machine::_Type::genericIf(root->routeSm(), true);
  }

  static GenericValue op(const GenericIf& of, Op what, const char* attribute,
                         const GenericValue& value = {}, const GenericValue& index = {}) {
    return of.attributeOp({what, of.attributeId(attribute)}, value, index);
  }

  typename Root::Ptr root = F::newRoot("red");
  std::unique_ptr<GenericIf> rootIf = Root::_Type::genericIf(root, true);
  std::unique_ptr<GenericIf> machineIf;
  const typename F::Prefix prefix = F::Prefix::host(typename F::Addr());
};
using Families = testing::Types<Daemon::Ipv4, Daemon::Ipv6>;
TYPED_TEST_SUITE(EdgesTest, Families);

/// Counts its notifications and calls `act` at the first one.
struct Observer final : Kiv::GenericObserver {
  void onAttribute(Kiv::AttributeId, const GenericValue&) override {
    ++told;
    if (const auto once = std::exchange(act, nullptr)) once();
  }
  void onNotificationException(Kiv::AttributeId) noexcept override {}
  void onZeroReferences() noexcept override {}

  int told = 0;
  std::function<void()> act;
};

TYPED_TEST(EdgesTest, AnObserverMayLeaveDuringItsFirstNotifications) {
  const auto change = [this] {
    this->root->prefixToAdjacencyIs(this->prefix, this->root->prefixToAdjacency(this->prefix) + 1);
  };
  // The observer removes itself and is destroyed at once.
  auto leaving = std::make_unique<Observer>();
  int told = 0;
  leaving->act = [&] {
    this->rootIf->observerIs(nullptr);
    told = leaving->told;
    leaving = nullptr;
  };
  this->rootIf->observerIs(leaving.get());
  change();
  EXPECT_EQ(told, 1);

  // The observer is replaced by another.
  Observer former;
  Observer next;
  former.act = [&] { this->rootIf->observerIs(&next); };
  this->rootIf->observerIs(&former);
  const int caughtUp = next.told;
  EXPECT_GT(caughtUp, 1);
  change();
  EXPECT_EQ(former.told, 1);
  EXPECT_EQ(next.told, caughtUp + 1);
  this->rootIf->observerIs(nullptr);

  // An observer that throws is removed.
  Observer raising;
  raising.act = [] { throw Kiv::Exception("no"); };
  EXPECT_EQ(refusal([&] { this->rootIf->observerIs(&raising); }), "no");
  change();
  EXPECT_EQ(raising.told, 1);

  // The observer destroys the interface.
  Observer last;
  last.act = [&] { this->rootIf = nullptr; };
  this->rootIf->observerIs(&last);
  change();
  EXPECT_EQ(last.told, 1);
}

TYPED_TEST(EdgesTest, CreateReturnsTheCreatedEntity) {
  const auto forwarding = Kiv::make<typename TypeParam::ForwardingStatus>("forwarding");
  auto& machine = *this->machineIf;
  const auto made = this->op(machine, Op::kCreate, "fwdStatus", GenericValue::of(forwarding));
  ASSERT_FALSE(made.isNone());
  EXPECT_EQ(made.type().operations().entity(made), forwarding.get());
  EXPECT_TRUE(this->op(machine, Op::kCreate, "fwdStatus").isNone());
  EXPECT_TRUE(this->op(machine, Op::kRead, "fwdStatus").isNone()) << "of null there is none";
  EXPECT_FALSE(this->root->routeSm()->fwdStatus());

  const auto list = Kiv::genericIf(TypeParam::PrefixList::GenericIf_::genericIfListConstructor(
                                       std::array{GenericValue::of(uint64_t{9})}),
                                   true);
  const auto member = [this](bool present) {
    return GenericValue::list({{GenericValue::of(this->prefix)}, {GenericValue::of(present)}});
  };
  EXPECT_EQ(this->op(*list, Op::kCreate, "prefix", member(true)).text(), "true");
  EXPECT_EQ(this->op(*list, Op::kCreate, "prefix", member(false)).text(), "false");
}

TYPED_TEST(EdgesTest, ATornDownMachineReadsAsEmptyByName) {
  this->op(*this->rootIf, Op::kDel, "routeSm");
  EXPECT_TRUE(this->op(*this->machineIf, Op::kRead, "root").isNone());
  EXPECT_EQ(refusal([this] {
              this->op(*this->machineIf, Op::kSet, "initialized", GenericValue::of(true));
            }),
            "the state machine of VRF red has ended");
}

TYPED_TEST(EdgesTest, RefusesInvalidArgumentsAndOperations) {
  using RootOf = typename TypeParam::RouteSmRoot;
  auto& rootInterface = *this->rootIf;
  const auto id = rootInterface.attributeId("prefixToRoute");
  EXPECT_EQ(refusal([&] { rootInterface.attributeIteratorKeyConst(id, {}); }),
            "prefixToRoute: needs an index");
  EXPECT_EQ(refusal([] { Kiv::EntityDirectory::Mount("/list", GenericValue::list({})); }),
            "what is put at /list is no entity");
  typename TypeParam::Route route{.key = this->prefix};
  route.routeType = static_cast<typename TypeParam::RouteType>(99);
  EXPECT_EQ(refusal([&] {
              rootInterface.attributeOp({Op::kSet, id}, GenericValue::of(route));
            }),
            std::string("prefixToRoute: a ") + Kiv::typeOf<typename TypeParam::Route>().name() +
                " is wanted, not one outside its enumeration");
  EXPECT_EQ(this->root->prefixToRouteCount(), 0u);
  const auto call = this->machineIf->attributeId("handleArpEntries");
  EXPECT_EQ(refusal([&] {
              this->machineIf->attributeOp({static_cast<Op>(99), call});
            }),
            "handleArpEntries: that is not supported");

  const auto constIf = RootOf::_Type::genericIf(Kiv::Ptr<const RootOf>(this->root), true);
  EXPECT_EQ(refusal([&] {
              constIf->attributeOp({Op::kSet, id}, GenericValue::of(route));
            }),
            "prefixToRoute: the interface is to a const entity");
}

TYPED_TEST(EdgesTest, TheTextOfAnEntityReadsBack) {
  const Kiv::EntityDirectory::Mount mount("/a place/100%", GenericValue::of(this->root));
  const auto text = GenericValue::of(this->root).text();
  EXPECT_EQ(text, "/a%20place/100%25");
  using RootOf = typename TypeParam::RouteSmRoot;
  const auto again = RootOf::_Type::genericIf(text, true);
  EXPECT_EQ(again->voidPtrIs(RootOf::_fwkType()), this->root.get());
  for (const char* path : {"/a place/100%", "/a%20place/100%25", "/a%20place/100%/initialized"}) {
    EXPECT_FALSE(Kiv::EntityDirectory::find(path).value.isNone()) << path;
  }
  EXPECT_TRUE(Kiv::EntityDirectory::find("/a place").value.isNone());
  EXPECT_EQ(refusal([] { Kiv::EntityDirectory::find("ra place/100%"); }),
            "ra place/100%: no such path");

  // A path that ends with a slash means the whole collection, so a member with an empty name has no
  // path.
  const auto addresses = [this](const char* intfName) {
    if constexpr (TypeParam::kNumber == 4) {
      return GenericValue::of(this->root->intfNameToSecondaryAddrWithMaskIs(intfName));
    } else {
      return GenericValue::of(this->root->intfNameToAddrWithMaskIs(intfName));
    }
  };
  const auto named = addresses("an interface");
  EXPECT_TRUE(named.text().ends_with("/an%20interface")) << named.text();
  EXPECT_EQ(named.type().strepToValue(named.text()).text(), named.text());
  const auto nameless = addresses("");
  EXPECT_EQ(nameless.text(), std::string("<") + nameless.typeName() + " \"\">");
  EXPECT_NE(refusal([&] { nameless.type().strepToValue(nameless.text()); }), "(not refused)");
}

}  // namespace
