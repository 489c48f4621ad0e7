// A daemon that was not compiled against the engine: it loads the plug-in, makes the roots and
// machines by name, and drives and reads them through reflection alone.
//
//   byname_example PLUGIN.so RECORDING.jsonl
//
// Plays the recording of a switch and prints the state of both families, in the form of
// `hostroute replay --json`.
#include <dlfcn.h>

#include <array>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/kiv/reflection/GenericIf.h"
#include "typeinfo/ValueTypes.h"

namespace {

using Kiv::GenericIf;
using Kiv::GenericValue;
using nlohmann::json;
using Op = GenericIf::Op;

struct Ipv4 {
  using Addr = Zemit::IpAddr;
  using Prefix = Zemit::Prefix;
  using AddrWithMask = Zemit::IpAddrWithMask;
  using Route = Tovan::Fib::Route;
  using RouteType = Routing::Fib::RouteType;
  using RouteStatus = Tovan::Fib::RouteStatus;
  using ForwardingStatus = Tovan::Fib::ForwardingStatus;
  using Fec = Tovan::Fib::Fec;
  using HostTable = Routing::Host::Status;
  using AddrSet = Obu::AddrSet;
  using AdjacencyHelper = Rovel::AdjacencyHelper;
  using Trie = Routing::Trie;
  using IpStatus = Ip::Status;
  using VirtualIps = Routing::Fhrp::VirtualIpStatus;
  static constexpr int kNumber = 4;
  static constexpr const char* kRoot = "Routing::Host::RouteSmRoot";
  static constexpr const char* kNeighborTable = "arpTable";
  static constexpr const char* kNeighborRoute = "arpRoute";
  static constexpr auto kReadyKind = RovelReady::v4Host_;
  static constexpr RouteType kConnected = Routing::Fib::connected_;
};

struct Ipv6 {
  using Addr = Zemit::Ip6Addr;
  using Prefix = Zemit::Ip6Prefix;
  using AddrWithMask = Zemit::Ip6AddrWithMask;
  using Route = Tovan::Fib6::Route;
  using RouteType = Routing6::Fib::RouteType;
  using RouteStatus = Tovan::Fib6::RouteStatus;
  using ForwardingStatus = Tovan::Fib6::ForwardingStatus;
  using Fec = Tovan::Fib6::Fec;
  using HostTable = Routing6::Host::Status;
  using AddrSet = Obu::Ip6AddrSet;
  using AdjacencyHelper = Rovel::Adjacency6Helper;
  using Trie = Routing6::Trie;
  using IpStatus = Ip6::Status;
  using VirtualIps = Routing::Fhrp::VirtualIp6Status;
  static constexpr int kNumber = 6;
  static constexpr const char* kRoot = "Routing6::Host::RouteSmRoot";
  static constexpr const char* kNeighborTable = "neighTable";
  static constexpr const char* kNeighborRoute = "neighRoute";
  static constexpr auto kReadyKind = RovelReady::v6Host_;
  static constexpr RouteType kConnected = Routing6::Fib::connected_;
};

/// The interface that a member of `object` names.
Zemit::IntfId intfOf(const json& object, const char* member) {
  return Zemit::IntfId::of(std::string_view(object.at(member).get_ref<const std::string&>()));
}

/// An entity, reached by names.
class Named {
 public:
  explicit Named(const GenericValue& handle) : interface_(Kiv::genericIf(handle, true)) {}

  GenericValue get(const char* attribute) const { return op(Op::kRead, attribute); }
  void set(const char* attribute, const GenericValue& value) const {
    op(Op::kSet, attribute, value);
  }
  GenericValue op(Op what, const char* attribute, const GenericValue& value = {}) const {
    return interface_->attributeOp({what, interface_->attributeId(attribute)}, value);
  }
  /// A collection as {KEY: MEMBER}, each member as `shown` gives it.
  template <class Shown>
  json members(const char* attribute, Shown shown) const {
    json object = json::object();
    auto it = interface_->attributeIteratorConst(interface_->attributeId(attribute));
    for (; it.nonNull(); it.iterNext()) object[keyText(it.iterKey())] = shown(it.iterObj());
    return object;
  }
  /// The keys of a set in ascending order of their texts.
  json keys(const char* attribute) const {
    std::vector<std::string> texts;
    const json set = members(attribute, [](const auto&) { return true; });
    for (const auto& member : set.items()) texts.push_back(member.key());
    return texts;
  }

 private:
  static std::string keyText(const GenericValue& key) {
    const auto* name = key.as<Kiv::String>();
    return name == nullptr ? key.text() : std::string(name->view());
  }

  std::unique_ptr<GenericIf> interface_;
};

/// One family of the default VRF.
template <class F>
class Family {
 public:
  Family(const Arp::NeighborDir::Ptr& neighborDir, const RovelReady::VrfStatus::Ptr& readiness)
      : neighborDir_(neighborDir), readiness_(readiness) {
    readiness->newRouteStatus(F::kReadyKind);
    const Named root(root_);
    root.set("trie", GenericValue::of(trie_));
    root.set("adjHelper", GenericValue::of(adjHelper_));
    root.set("intfStatusDir", GenericValue::of(intfStatusDir_));
    // Each argument by its name: the halves take two of them in another order.
    const char* seqInfoName = F::kNumber == 4 ? "ipv4SeqInfo" : "ipv6SeqInfo";
    const char* virtualIpsName = F::kNumber == 4 ? "virtualIpStatus" : "virtualIp6Status";
    root.op(Op::kCreate, "routeSm",
            GenericValue::list({{GenericValue::of(activity_), "kivFwkActivity"},
                                {GenericValue::of(routeStatus_), "routeStatus"},
                                {GenericValue::of(forwarding_), "fwdStatus"},
                                {GenericValue::of(hostStatus_), "hostStatus"},
                                {GenericValue::of(readiness), "ribReadyStatus"},
                                {GenericValue::of(seqConfig_), "seqConfig"},
                                {GenericValue::of(seqInfo_), seqInfoName},
                                {GenericValue::of(adjHelper_), "adjHelper"},
                                {GenericValue::of(intfs_), "ipStatus"},
                                {GenericValue::of(neighborDir), "neighborDirByIntfName"},
                                {root_, "root"},
                                {GenericValue::of(virtualIps_), virtualIpsName},
                                {GenericValue::of(L3::VrfName("default")), "vrfName"}}));
  }
  // The root first: it owns the machine, which is lent the rest.
  ~Family() { root_ = {}; }

  typename F::IpStatus& intfs() { return *intfs_; }
  void initialize() { machine().set("initialized", GenericValue::of(true)); }

  void setFec(const json& event) {
    typename F::Fec fec(event.at("id").get<uint64_t>());
    for (const auto& via : event.at("vias")) {
      const auto hop =
          via.contains("hop") ? *F::Addr::parse(via["hop"].get<std::string>()) : typename F::Addr();
      fec.newVia({.hop = hop, .intf = intfOf(via, "intf")});
    }
    forwarding_->fecIs(fec);
  }

  void setRoute(const json& event) {
    typename F::Route route{.key = *F::Prefix::parse(event.at("prefix").get<std::string>()),
                            .metricPref = {.metric = event.value("metric", 0U),
                                           .preference = event.value("preference", uint8_t{1})},
                            .routeType = F::kConnected,
                            .fecId = event.value("fec", uint64_t{0})};
    if (event.contains("type")) {
      route.routeType =
          *Routing::parseRouteType<typename F::RouteType>(event["type"].get<std::string>());
    }
    if (route.key.len() == F::Prefix::kMaxLen) {
      hostStatus_->routeIs(route);
      machine().op(Op::kCall, "handleHostStatusRoute", GenericValue::of(route.key));
    } else {
      routeStatus_->routeIs(route);
      machine().op(Op::kCall, "handleStatusRoute", GenericValue::of(route.key));
    }
  }

  /// The state in the form that a replay prints it in.
  json dump() const {
    const Named root(root_);
    const auto table = [&root](const char* name) {
      return *root.get(name).template as<Kiv::Ptr<typename F::HostTable>>();
    };
    const auto receiveTable = table("receiveTable");
    const auto neighborTable = table(F::kNeighborTable);
    const auto number = [](const GenericValue& value) { return *value.as<uint64_t>(); };
    const auto name = [](const GenericValue& value) {
      return std::string(value.as<Kiv::String>()->view());
    };
    const auto addrs = [](const GenericValue& set) { return addrTexts(set); };
    const auto intfAddrs = [](const GenericValue& entity) {
      return Named(entity).keys("addrWithMask");
    };

    json dump;
    dump["vrf"] = "default";
    dump["family"] = F::kNumber;
    dump["initialized"] = *machine().get("initialized").template as<bool>();
    dump["receiveTable"] = routes(*receiveTable, *receiveTable);
    dump[F::kNeighborTable] = routes(*neighborTable, *neighborTable);
    dump["routeTable"] = routes(*routeStatus_, *forwarding_);
    dump[F::kNeighborRoute] = root.members(F::kNeighborRoute, addrs);
    dump["prefixToRoute"] = root.members("prefixToRoute", [this](const GenericValue& value) {
      return route(*value.as<typename F::Route>(), *forwarding_);
    });
    dump["prefixToAdjacency"] = root.members("prefixToAdjacency", number);
    dump["adjacencyToPrefix"] = root.members(
        "adjacencyToPrefix", [](const GenericValue& list) { return Named(list).keys("prefix"); });
    dump["receiveAddrToIntfName"] = root.members("receiveAddrToIntfName", name);
    if constexpr (F::kNumber == 4) {
      dump["intfNameToAddrWithMask"] = root.members(
          "intfNameToAddrWithMask", [](const GenericValue& addr) { return addr.text(); });
      dump["intfNameToSecondaryAddrWithMask"] =
          root.members("intfNameToSecondaryAddrWithMask", intfAddrs);
    } else {
      dump["intfNameToAddrWithMask"] = root.members("intfNameToAddrWithMask", intfAddrs);
    }
    dump["toMerge"] = addrTexts(root.get("toMerge"));
    dump["hostAdjacencies"] = json::array();
    for (const auto& of : {receiveTable, neighborTable}) {
      of->adjacencies().forEach([&](const auto& vias, uint32_t users) {
        dump["hostAdjacencies"].push_back(
            {{"table", of->name().view()}, {"vias", viasOf(vias)}, {"refs", users}});
      });
    }
    dump["fibAdjacencies"] = json::array();
    adjHelper_->fibAdjacencies().forEach([&](const auto& vias, uint32_t users) {
      dump["fibAdjacencies"].push_back({{"vias", viasOf(vias)}, {"refs", users}});
    });
    dump["hostRoutesSynced"] =
        F::kNumber == 4 ? readiness_->v4HostRoutesSynced() : readiness_->v6HostRoutesSynced();
    dump["ready"] = readiness_->routeStatus(F::kReadyKind)->ready();
    return {{"dump", dump}};
  }

 private:
  Named machine() const { return Named(Named(root_).get("routeSm")); }

  static json addrTexts(const GenericValue& set) {
    std::vector<std::string> texts;
    const auto* mutableSet = set.as<Kiv::Ptr<typename F::AddrSet>>();
    const Kiv::Ptr<const typename F::AddrSet> addrs =
        mutableSet != nullptr ? *mutableSet : *set.as<Kiv::Ptr<const typename F::AddrSet>>();
    for (const auto& addr : addrs->ipKeys()) {
      texts.push_back(Zemit::toString(addr));
    }
    return texts;
  }
  template <class Vias>
  static json viasOf(const Vias& vias) {
    json list = json::array();
    for (const auto& member : vias) {
      const auto& via = [&member]() -> const auto& {
        if constexpr (requires { member.via; }) {
          return member.via;
        } else {
          return member;
        }
      }
      ();
      list.push_back({{"hop", Zemit::toString(via.hop)}, {"intf", via.intf.name().view()}});
    }
    return list;
  }
  template <class Tables>
  static json route(const typename F::Route& route, const Tables& tables) {
    json vias;
    if constexpr (requires { tables.fec(route.fecId); }) {
      const auto fec = tables.fec(route.fecId);
      vias = viasOf(fec);
    } else {
      vias = viasOf(tables.adjIndexToViaSet(route.fecId));
    }
    return {{"prefix", Zemit::toString(route.key)},
            {"type", Routing::routeTypeName(route.routeType)},
            {"metric", route.metricPref.metric},
            {"preference", route.metricPref.preference},
            {"fec", route.fecId},
            {"vias", vias}};
  }
  template <class Table, class Tables>
  static json routes(const Table& table, const Tables& tables) {
    json list = json::array();
    table.forEachRoute([&](const typename F::Route& of) {
      constexpr bool kIsFib = requires {
        tables.fec(of.fecId);
      };
      if (!kIsFib || of.key.len() == F::Prefix::kMaxLen) list.push_back(route(of, tables));
    });
    return list;
  }

  Kiv::ActivityConfig::Ptr activity_ = Kiv::make<Kiv::ActivityConfig>();
  typename F::RouteStatus::Ptr routeStatus_ = Kiv::make<typename F::RouteStatus>("default");
  typename F::ForwardingStatus::Ptr forwarding_ =
      Kiv::make<typename F::ForwardingStatus>("forwardingStatus");
  typename F::HostTable::Ptr hostStatus_ = Kiv::make<typename F::HostTable>("hostStatus");
  Routing::SeqConfig::Ptr seqConfig_ = Kiv::make<Routing::SeqConfig>("seqConfig");
  Rovel::SeqInfo::Ptr seqInfo_ = Kiv::make<Rovel::SeqInfo>("seqInfo");
  typename F::AdjacencyHelper::Ptr adjHelper_ =
      Kiv::make<typename F::AdjacencyHelper>("adjHelper", forwarding_);
  Kiv::Ptr<typename F::Trie> trie_ = Kiv::make<typename F::Trie>();
  typename F::IpStatus::Ptr intfs_ = Kiv::make<typename F::IpStatus>("ipStatus");
  typename F::VirtualIps::Ptr virtualIps_ = Kiv::make<typename F::VirtualIps>("virtualIpStatus");
  Interface::AllIntfStatusDir::Ptr intfStatusDir_ =
      Kiv::make<Interface::AllIntfStatusDir>("intfStatusDir");
  const Arp::NeighborDir::Ptr neighborDir_;
  const RovelReady::VrfStatus::Ptr readiness_;
  GenericValue root_ = Kiv::TypeRegistry::find(F::kRoot)->construct(
      std::array{GenericValue::of(Kiv::Name("default"))});
};

/// Both families over the same interfaces and neighbours.
class Switch {
 public:
  void apply(const json& event) {
    const auto op = event.at("op").get<std::string>();
    const auto intf = [&event](const char* member) { return intfOf(event, member); };
    if (op == "intf") {
      const auto status = Kiv::make<L3::Intf::Status>(intf("name").name());
      status->vrfIs(L3::VrfName("default"));
      ipv4_.intfs().newIpIntfStatus(intf("name"), status);
      ipv6_.intfs().newIntf(intf("name"), status);
    } else if (op == "addr") {
      const auto text = event.at("addr").get<std::string>();
      if (const auto v6 = Zemit::Ip6AddrWithMask::parse(text)) {
        ipv6_.intfs().intf(intf("intf"))->addrIs(*v6, {.active = true});
      } else if (event.value("secondary", false)) {
        ipv4_.intfs()
            .ipIntfStatus(intf("intf"))
            ->activeSecondaryWithMaskIs(*Zemit::IpAddrWithMask::parse(text), true);
      } else {
        ipv4_.intfs()
            .ipIntfStatus(intf("intf"))
            ->activeAddrWithMaskIs(*Zemit::IpAddrWithMask::parse(text));
      }
    } else if (op == "neighborTable") {
      neighborDir_->newArpIntfStatus(intf("intf").name());
    } else if (op == "neighbor") {
      const auto table = neighborDir_->newArpIntfStatus(intf("intf").name());
      const auto text = event.at("ip").get<std::string>();
      const auto mac = Zemit::EthAddr::parse(event.value("mac", "")).value_or(Zemit::EthAddr());
      if (const auto v6 = Zemit::Ip6Addr::parse(text)) {
        table->ip6NeighborEntryIs({.ipAddr = *v6, .mac = mac});
      } else {
        table->arpEntryIs({.ipAddr = *Zemit::IpAddr::parse(text), .mac = mac});
      }
    } else if (op == "fec") {
      event.at("family") == 4 ? ipv4_.setFec(event) : ipv6_.setFec(event);
    } else if (op == "route") {
      const bool isV6 = event.at("prefix").get<std::string>().find(':') != std::string::npos;
      isV6 ? ipv6_.setRoute(event) : ipv4_.setRoute(event);
    } else if (op == "initialized") {
      ipv4_.initialize();
      ipv6_.initialize();
    } else {
      throw std::runtime_error("the recorded switch has an event that is not known here: " + op);
    }
  }
  json dumps() const { return {ipv4_.dump(), ipv6_.dump()}; }

 private:
  Arp::NeighborDir::Ptr neighborDir_ = Kiv::make<Arp::NeighborDir>("neighborDir");
  RovelReady::VrfStatus::Ptr readiness_ = Kiv::make<RovelReady::VrfStatus>(L3::VrfName("default"));
  Family<Ipv4> ipv4_{neighborDir_, readiness_};
  Family<Ipv6> ipv6_{neighborDir_, readiness_};
};

int run(const char* plugin, const char* recording) {
  if (Kiv::TypeRegistry::find(Ipv4::kRoot) != nullptr) {
    throw std::runtime_error("the types are known before the plug-in is loaded");
  }
  if (::dlopen(plugin, RTLD_NOW | RTLD_LOCAL) == nullptr) throw std::runtime_error(::dlerror());
  if (Kiv::TypeRegistry::find(Ipv4::kRoot) == nullptr) {
    throw std::runtime_error(std::string(plugin) + " does not have the type " + Ipv4::kRoot);
  }
  std::ifstream events(recording);
  if (!events) throw std::runtime_error(std::string("cannot read ") + recording);
  Switch sw;
  for (std::string line; std::getline(events, line);) sw.apply(json::parse(line));
  for (const json& dump : sw.dumps()) std::cout << dump << '\n';
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: byname_example PLUGIN.so RECORDING.jsonl\n";
    return 2;
  }
  try {
    return run(argv[1], argv[2]);
  } catch (const std::exception& failure) {
    std::cerr << "byname_example: " << failure.what() << '\n';
    return 1;
  }
}
