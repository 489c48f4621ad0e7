// Tests of access by name: the registered types, each operation, and refused operations.
#include <gtest/gtest.h>

#include <memory>

#include "daemon/Switch.h"
#include "platform/kiv/reflection/EntityDirectory.h"
#include "tests/Files.h"
#include "tests/Paths.h"
#include "tests/typeinfo/Refusal.h"
#include "typeinfo/HostRoute6Sm.h"
#include "typeinfo/HostRouteSm.h"

namespace {

using Kiv::GenericIf;
using Kiv::GenericValue;
using Op = GenericIf::Op;

/// One attribute or method on a line: id, flags, name, types.
std::string shown(const Kiv::AttributeDescriptor& attribute) {
  std::ostringstream os;
  os << "  " << attribute.id << ' ' << std::hex << attribute.flags.value() << std::dec << ' '
     << attribute.name;
  if (attribute.isCollection())
    os << '[' << attribute.key.name << ' ' << attribute.key.shownType() << ']';
  if (attribute.isMethod() || !attribute.arguments.empty()) {
    const char* separator = "(";
    for (const auto& argument : attribute.arguments) {
      os << separator << argument.name << ' ' << argument.shownType();
      separator = ", ";
    }
    os << (attribute.arguments.empty() ? "()" : ")");
  }
  os << ": " << attribute.shownType();
  return os.str();
}

TEST(TypesTest, AreRegisteredInOrderWithTheirRows) {
  kivInitHostRouteSm();
  kivInitHostRoute6Sm();
  kivInitHostRouteSm();
  std::ostringstream os;
  for (const auto* type : Kiv::TypeRegistry::all()) {
    os << type->name() << '\n';
    for (const auto& argument : type->constructorArguments()) {
      os << "  (" << argument.name << ' ' << argument.shownType() << ")\n";
    }
    for (const auto& attribute : type->attributes()) os << shown(attribute) << '\n';
  }
  EXPECT_EQ(os.str(), contents(sourcePath("tests/typeinfo/types.txt")));
  EXPECT_EQ(Kiv::TypeRegistry::find("Routing6::Host::RouteSm"),
            &Routing6::Host::RouteSm::_fwkType());
}

TEST(TypesTest, TakeSixFlags) {
  EXPECT_NO_THROW(Kiv::KivAttrIntrospectionFlags(0x3f));
  EXPECT_THROW(Kiv::KivAttrIntrospectionFlags(0x40), Kiv::RangeException);
}

/// A switch with an interface, a subnet and a neighbour, and reflection on its IPv4 root.
class ReflectionTest : public testing::Test {
 protected:
  ReflectionTest() {
    sw.setInterface(intf, "red");
    sw.setAddress(intf, *Zemit::IpAddrWithMask::parse("10.0.0.1/24"), false);
    sw.setFec(Tovan::Fib::Fec(7, {{.hop = {}, .intf = intf}}));
    sw.setRoute(
        "red", Tovan::Fib::Route{.key = subnet, .routeType = Routing::Fib::connected_, .fecId = 7});
    sw.setNeighbor(intf, Arp::ArpEntryStatus{.ipAddr = host});
  }

  GenericValue op(Op what, const char* attribute, const GenericValue& value = {},
                  const GenericValue& index = {}) const {
    return root().attributeOp({what, root().attributeId(attribute)}, value, index);
  }
  GenericIf& root() const { return *root_; }
  GenericIf& machine() const { return *machine_; }
  const Routing::Host::RouteSmRoot& typed() const { return *routing().root; }
  const Daemon::HostRouting<Daemon::Ipv4>& routing() const {
    return sw.vrfs().find("red")->second.routing<Daemon::Ipv4>();
  }

  const Zemit::IntfId intf = Zemit::IntfId::of("Ethernet1");
  const Zemit::IpAddr host = *Zemit::IpAddr::parse("10.0.0.5");
  const Zemit::Prefix subnet = *Zemit::Prefix::parse("10.0.0.0/24");
  Daemon::Switch sw;

 private:
  std::unique_ptr<GenericIf> root_ = Routing::Host::RouteSmRoot::_Type::genericIf(
      sw.vrf("red").routing<Daemon::Ipv4>().root, true);
  std::unique_ptr<GenericIf> machine_ = Routing::Host::RouteSm::_Type::genericIf(
      sw.vrf("red").routing<Daemon::Ipv4>().root->routeSm(), true);
};

TEST_F(ReflectionTest, SetsReadsAndCallsThroughTheTypedAccessors) {
  const auto id = machine().attributeId("initialized");
  EXPECT_STREQ(machine().attributeString(id), "initialized");
  EXPECT_FALSE(*machine().attributeOp({Op::kRead, id}).as<bool>());
  EXPECT_EQ(typed().arpRouteCount(), 0u);
  machine().attributeOp({Op::kSet, id}, GenericValue::of(true));
  EXPECT_TRUE(*machine().attributeOp({Op::kRead, id}).as<bool>());
  // Setting the attribute ran the catch-up pass.
  EXPECT_EQ(op(Op::kRead, "arpRoute", {}, GenericValue::of(subnet)).text(), "{10.0.0.5}");

  // Calls a method with two arguments, the second one by name.
  const auto check = machine().attributeId("checkIpAddressAgainstFib");
  const auto table = GenericValue::of(sw.neighborDir().arpIntfStatus("Ethernet1"));
  const auto covering = machine().attributeOp(
      {Op::kCall, check},
      GenericValue::list({{table, "arpIntfStatus"}, {GenericValue::of(host), "ipAddr"}}));
  EXPECT_EQ(*covering.as<Zemit::Prefix>(), subnet);

  // The text of a reactor names the entity that it watches.
  EXPECT_EQ(machine()
                .attributeOp({Op::kRead, machine().attributeId("arpIntfStatus")}, {},
                             GenericValue::of(Kiv::Name("Ethernet1")))
                .typeName(),
            "Arp::ArpIntfStatus");
}

TEST_F(ReflectionTest, MakesAndDeletesMembers) {
  const auto other = *Zemit::Prefix::parse("10.1.0.0/16");
  EXPECT_EQ(op(Op::kCreate, "arpRoute", GenericValue::of(other)).text(), "{}");
  op(Op::kSet, "prefixToAdjacency", GenericValue::of(uint64_t{9}), GenericValue::of(other));
  EXPECT_EQ(typed().prefixToAdjacency(other), 9u);
  op(Op::kDel, "prefixToAdjacency", {}, GenericValue::of(other));
  op(Op::kDelAll, "arpRoute");
  EXPECT_EQ(typed().arpRouteCount() + typed().prefixToAdjacencyCount(), 0u);

  const auto list = Routing::Host::PrefixList::GenericIf_::genericIfListConstructor(
      std::array{GenericValue::of(uint64_t{9})});
  Kiv::genericIf(list, true)
      ->attributeOp({Op::kSet, Kiv::genericIf(list, true)->attributeId("prefix")},
                    GenericValue::of(true), GenericValue::of(other));
  op(Op::kSet, "adjacencyToPrefix", list);
  EXPECT_TRUE(typed().adjacencyToPrefix(9)->prefix(other));
  EXPECT_EQ(op(Op::kRead, "adjacencyToPrefix", {}, GenericValue::of(uint64_t{9})).text(),
            "<Routing::Host::PrefixList 9>");
  op(Op::kDel, "routeSm");
  EXPECT_FALSE(typed().routeSm());
}

TEST_F(ReflectionTest, MakesAMachineOfThirteenArguments) {
  auto& vrf = sw.vrf("red");
  auto& routing = vrf.routing<Daemon::Ipv4>();
  const auto& shared = sw.shared<Daemon::Ipv4>();
  std::vector<GenericValue> inputs{{},
                                   GenericValue::of(routing.routeStatus),
                                   GenericValue::of(shared.forwarding),
                                   GenericValue::of(routing.hostStatus),
                                   GenericValue::of(vrf.readiness),
                                   GenericValue::of(vrf.seqConfig),
                                   GenericValue::of(routing.seqInfo),
                                   GenericValue::of(routing.adjHelper),
                                   GenericValue::of(shared.intfs),
                                   {},
                                   GenericValue::of(routing.root),
                                   GenericValue::of(shared.virtualIps),
                                   GenericValue::of(L3::VrfName("red"))};
  using Machine = Routing::Host::RouteSm::GenericIf_;
  const auto made = Kiv::genericIf(Machine::genericIfListConstructor(inputs), true);
  EXPECT_EQ(made->attributeOp({Op::kRead, made->attributeId("vrfName")}).text(), "red");
  EXPECT_TRUE(made->attributeOp({Op::kRead, made->attributeId("neighborDirByIntfName")}).isNone());

  // The IPv6 machine takes the virtual addresses before the root. A swapped order must be refused.
  std::swap(inputs[10], inputs[11]);
  EXPECT_EQ(refusal([&] { Machine::genericIfListConstructor(inputs); }),
            "Routing::Host::RouteSm, argument root: a Routing::Host::RouteSmRoot is wanted, not "
            "Routing::Fhrp::VirtualIpStatus");
  inputs.pop_back();
  EXPECT_EQ(refusal([&] { Machine::genericIfListConstructor(inputs); }),
            "Routing::Host::RouteSm is made of 13 arguments, not of 12");
}

TEST_F(ReflectionTest, ARefusedOperationChangesNothing) {
  sw.setInitialized<Daemon::Ipv4>("red", true);
  const auto constRoot = Kiv::genericIf(
      GenericValue::of(Kiv::Ptr<const Routing::Host::RouteSmRoot>(routing().root)), true);
  const auto constDelAll = [&] {
    constRoot->attributeOp({Op::kDelAll, constRoot->attributeId("arpRoute")});
  };
  EXPECT_EQ(refusal(constDelAll), "arpRoute: the interface is to a const entity");
  // The entities that a const root refers to are const, too.
  const auto constMachine =
      Kiv::genericIf(constRoot->attributeOp({Op::kRead, constRoot->attributeId("routeSm")}), true);
  EXPECT_FALSE(constMachine->isWritable());
  EXPECT_FALSE(
      *constMachine->attributeOp({Op::kCall, constMachine->attributeId("hasNoReceiveRoutes")})
           .as<bool>());
  EXPECT_EQ(refusal([&] {
              constMachine->attributeOp({Op::kCall, constMachine->attributeId("handleArpEntries")});
            }),
            "handleArpEntries: the interface is to a const entity");

  const auto prefix = GenericValue::of(subnet);
  const auto none = GenericValue::of(*Zemit::Prefix::parse("10.9.0.0/16"));
  EXPECT_EQ(refusal([&] { op(Op::kDel, "initialized"); }),
            "initialized: deletion is not supported");
  EXPECT_EQ(refusal([&] { op(Op::kCall, "initialized"); }),
            "initialized: calling is not supported");
  EXPECT_EQ(refusal([&] { op(Op::kSet, "isNondestructing", GenericValue::of(true)); }),
            "isNondestructing: setting is not supported");
  EXPECT_EQ(refusal([&] { op(Op::kDel, "arpRoute"); }), "arpRoute: needs an index");
  EXPECT_EQ(refusal([&] { op(Op::kDel, "arpRoute", {}, none); }), "arpRoute: no such entry");
  EXPECT_EQ(refusal([&] { op(Op::kRead, "arpRoute", {}, none); }), "arpRoute: no such entry");
  EXPECT_EQ(refusal([&] { op(Op::kRead, "initialized", {}, prefix); }),
            "initialized: takes no index here");
  EXPECT_EQ(refusal([&] { op(Op::kSet, "initialized", prefix); }),
            "initialized: a bool is wanted, not Zemit::Prefix");
  EXPECT_EQ(refusal([&] { op(Op::kSet, "prefixToAdjacency", prefix, GenericValue::of(host)); }),
            "prefixToAdjacency: a Zemit::Prefix is wanted, not Zemit::IpAddr");
  EXPECT_EQ(refusal([&] {
              op(Op::kSet, "prefixToRoute", GenericValue::of(Tovan::Fib::Route()), prefix);
            }),
            "prefixToRoute: the value says where it goes");
  EXPECT_EQ(refusal([&] { op(Op::kSet, "adjacencyToPrefix"); }),
            "null _adjacencyToPrefix parameter to mutator for "
            "Routing::Host::RouteSmRoot::adjacencyToPrefix not allowed");
  EXPECT_EQ(refusal([&] { root().attributeId("neighRoute"); }),
            "Routing::Host::RouteSmRoot has no attribute neighRoute");
  EXPECT_EQ(refusal([&] { root().attributeString(999); }),
            "Routing::Host::RouteSmRoot has no attribute 999");

  const auto call = [&](std::vector<Kiv::GenericArgument> arguments) {
    return refusal([&] {
      machine().attributeOp({Op::kCall, machine().attributeId("handleStatusRoute")},
                            GenericValue::list(std::move(arguments)));
    });
  };
  EXPECT_EQ(call({}), "handleStatusRoute lacks its argument prefix (Zemit::Prefix)");
  EXPECT_EQ(call({{prefix}, {prefix}}), "handleStatusRoute takes 1 arguments");
  EXPECT_EQ(call({{prefix, "fecId"}}), "handleStatusRoute takes no argument fecId");
  EXPECT_EQ(call({{prefix}, {prefix, "prefix"}}), "handleStatusRoute is given twice its prefix");
  EXPECT_EQ(call({{GenericValue::of(host)}}),
            "handleStatusRoute, argument prefix: a Zemit::Prefix is wanted, not Zemit::IpAddr");

  EXPECT_EQ(typed().arpRoute(subnet)->ipCount(), 1u);
  EXPECT_EQ(typed().prefixToAdjacencyCount(), 1u);
  EXPECT_TRUE(typed().initialized());
}

TEST_F(ReflectionTest, DeletesMembersDuringAWalk) {
  for (uint64_t i = 1; i <= 5; ++i) {
    op(Op::kSet, "prefixToAdjacency", GenericValue::of(i),
       GenericValue::of(Zemit::Prefix(Zemit::IpAddr(static_cast<uint32_t>(i) << 24), 8)));
  }
  const auto id = root().attributeId("prefixToAdjacency");
  uint64_t sum = 0;
  for (auto it = root().attributeIterator(id); it.nonNull(); it.iterNext()) {
    sum += *it.iterObj().as<uint64_t>();
    auto copy = it.iterClone();
    EXPECT_EQ(*copy.iterKey().as<Zemit::Prefix>(), *it.iterKey().as<Zemit::Prefix>());
    if (*it.iterObj().as<uint64_t>() != 3) it.iterDel();
  }
  EXPECT_EQ(sum, 15u);
  EXPECT_EQ(typed().prefixToAdjacencyCount(), 1u);

  const auto three = GenericValue::of(*Zemit::Prefix::parse("3.0.0.0/8"));
  auto at = root().attributeIteratorKeyConst(id, three);
  EXPECT_EQ(*at.iterObj().as<uint64_t>(), 3u);
  EXPECT_EQ(refusal([&] { at.iterDel(); }),
            "prefixToAdjacency: the interface is to a const entity");
  at.iterNext();
  EXPECT_FALSE(at.nonNull());
  EXPECT_EQ(refusal([&] { root().attributeIteratorKeyConst(id, GenericValue::of(subnet)); }),
            "prefixToAdjacency: no such entry");
  EXPECT_EQ(refusal([&] { root().attributeIterator(root().attributeId("trie")); }),
            "trie: is no collection");
}

/// Records its notifications.
class Recorder final : public Kiv::GenericObserver {
 public:
  explicit Recorder(const GenericIf& of) : of_(of) {}
  void onAttribute(Kiv::AttributeId id, const GenericValue& key) override {
    told.push_back(std::string(of_.attributeString(id)) + ' ' + key.text());
    if (raises) throw std::runtime_error("observer");
  }
  void onNotificationException(Kiv::AttributeId id) noexcept override {
    told.push_back(std::string("exception ") + of_.attributeString(id));
  }
  void onZeroReferences() noexcept override { told.push_back("gone"); }

  std::vector<std::string> told;
  bool raises = false;

 private:
  const GenericIf& of_;
};

TEST_F(ReflectionTest, NotifiesAnObserverOfEveryChangeOfARoot) {
  auto observed = Routing::Host::routeSmRootFactory("observed");
  // The recorder uses only the type of `root()`. It must not hold the observed root.
  Recorder recorder(root());
  {
    Routing::Host::RouteSmRoot::GenericIf_ interface(observed);
    interface.observerIs(&recorder);
    EXPECT_EQ(recorder.told.size(), 7u) << "each collection at once";
    recorder.told.clear();
    observed->prefixToAdjacencyIs(subnet, 7);
    observed->arpTableDel();
    recorder.raises = true;
    observed->receiveAddrToIntfNameIs(host, "Ethernet1");
    recorder.raises = false;
    const auto copy = interface.clone();
    interface.observerIs(nullptr);
    observed->prefixToAdjacencyDel(subnet);
    EXPECT_EQ(recorder.told,
              (std::vector<std::string>{"prefixToAdjacency 10.0.0.0/24", "arpTable null",
                                        "receiveAddrToIntfName 10.0.0.5",
                                        "exception receiveAddrToIntfName"}));
  }
  Routing::Host::RouteSmRoot::GenericIf_::GenericIf_Adapter_ adapter(recorder);
  adapter.notifierIs(observed);
  recorder.told.clear();
  observed = nullptr;
  EXPECT_EQ(recorder.told.at(0), "gone");
}

TEST_F(ReflectionTest, FindsEntitiesByTheirPaths) {
  sw.setInitialized<Daemon::Ipv4>("red", true);
  const Kiv::EntityDirectory::Mount mount("/ipv4/red", GenericValue::of(routing().root));
  const auto find = [](std::string_view path) { return Kiv::EntityDirectory::find(path); };
  EXPECT_EQ(find("/ipv4/red").value.text(), "/ipv4/red");
  EXPECT_EQ(find("/").entity, nullptr);
  EXPECT_EQ(find("/ipv4").entity, nullptr);
  EXPECT_EQ(find("/ipv4/red/arpRoute/10.0.0.0/24").value.text(), "{10.0.0.5}");
  EXPECT_EQ(find("/ipv4/red/arpRoute/10.0.0.0%2F24").key.text(), "10.0.0.0/24");
  EXPECT_EQ(find("/ipv4/red/routeSm/root/routeSm/vrfName").value.text(), "red");
  const auto list = find("/ipv4/red/adjacencyToPrefix/7");
  EXPECT_EQ(list.entity->type().name(), std::string("Routing::Host::PrefixList"));
  EXPECT_EQ(list.value.text(), "/ipv4/red/adjacencyToPrefix/7");
  EXPECT_EQ(find("/ipv4/red/routeSm").value.text(), "/ipv4/red/routeSm");
  EXPECT_STREQ(find("/ipv4/red/adjacencyToPrefix/7/prefix").attribute->name, "prefix");
  for (const char* path : {"/ipv", "/ipv4/blue", "/ipv4/red/x", "/ipv4/red/arpRoute/10.0.0.0/25",
                           "/ipv4/red/initialized/x"}) {
    EXPECT_NE(refusal([&] { find(path); }).find("no such path"), std::string::npos) << path;
  }
  const auto parsed =
      Routing::Host::PrefixList::_Type::genericIf("/ipv4/red/adjacencyToPrefix/7", true);
  EXPECT_EQ(parsed->type().name(), list.entity->type().name());
  EXPECT_EQ(refusal([] { Routing::Host::PrefixList::_Type::genericIf("/ipv4/red", true); }),
            "no Routing::Host::PrefixList at column 1");
}

}  // namespace
