#include "typeinfo/HostRoute6Sm.h"

#include "platform/kiv/reflection/TypeTable.h"
#include "typeinfo/TypeNames.h"

// The rows are in the order of the attributes' ids. Each type makes its own description, because a
// description reads the type's private storage.
namespace Routing6::Host {

namespace {

constexpr std::array<Kiv::ArgumentName, 13> kMachineInputs{
    "kivFwkActivity",   "routeStatus", "fwdStatus", "hostStatus", "ribReadyStatus",
    "seqConfig",        "ipv6SeqInfo", "adjHelper", "ipStatus",   "neighborDirByIntfName",
    "virtualIp6Status", "root",        "vrfName"};

/// The arguments of a set's mutator: the member, and true.
constexpr std::array<Kiv::ArgumentName, 2> kMemberArguments{"key", "value"};

IntfAddresses::Ptr intfAddressesFactory(const Kiv::String8& intfName) {
  return Kiv::make<IntfAddresses>(intfName);
}

}  // namespace

const Kiv::TypeInfo& RouteSm::_fwkType() {
  using Kiv::overloaded;
  static const Kiv::TypeInfo kType =
      Kiv::TypeTable<RouteSm>(Reflection::kRouteSm6)
          .constructor<&routeSmFactory>(kMachineInputs)
          .attribute<&RouteSm::kivFwkActivity_>()
          .setter<&RouteSm::kivFwkActivityIs>()
          .attribute<&RouteSm::routeStatus_>()
          .setter<&RouteSm::routeStatusIs>()
          .attribute<&RouteSm::fwdStatus_>()
          .creator<&RouteSm::newFwdStatus>("fwdStatus")
          .deletable<&RouteSm::fwdStatus_>()
          .attribute<&RouteSm::hostStatus_>()
          .setter<&RouteSm::hostStatusIs>()
          .attribute<&RouteSm::ribReadyStatus_>()
          .creator<&RouteSm::newRibReadyStatus>("ribReadyStatus")
          .deletable<&RouteSm::ribReadyStatus_>()
          .attribute<&RouteSm::seqConfig_>()
          .creator<&RouteSm::newSeqConfig>("seqConfig")
          .deletable<&RouteSm::seqConfig_>()
          .attribute<&RouteSm::ipv6SeqInfo_>()
          .creator<&RouteSm::newIpv6SeqInfo>("ipv6SeqInfo")
          .deletable<&RouteSm::ipv6SeqInfo_>()
          .method<&RouteSm::handleRoute>("handleRoute", "prefix", "fibRoute")
          .method<&RouteSm::handleDeletedRoute>("handleDeletedRoute", "oldFibRoute")
          .method<overloaded<const Zemit::Ip6Prefix&>(&RouteSm::handleStatusRoute)>(
              "handleStatusRoute", "prefix")
          .method<overloaded<const Tovan::Fib::FecId&>(&RouteSm::handleFec)>("handleFec", "fecId")
          .method<overloaded<const Zemit::Ip6Prefix&>(&RouteSm::handleHostStatusRoute)>(
              "handleHostStatusRoute", "prefix")
          .attribute<&RouteSm::adjHelper_>()
          .setter<&RouteSm::adjHelperIs>()
          .method<&RouteSm::handleAdjacency>("handleAdjacency", "fibRoute")
          .method<&RouteSm::handleDeletedAdjacency>("handleDeletedAdjacency", "oldPrefix")
          .attribute<&RouteSm::ipStatus_>()
          .creator<&RouteSm::newIpStatus>("ipStatus")
          .deletable<&RouteSm::ipStatus_>()
          .attribute<&RouteSm::vrfIpIntfStatus_>()
          .key("intfId")
          .setter<&RouteSm::vrfIpIntfStatusIs>()
          .deleter<overloaded<Zemit::IntfId>(&RouteSm::vrfIpIntfStatusDel),
                   &RouteSm::vrfIpIntfStatusDelAll>()
          .method<overloaded<Zemit::IntfId>(&RouteSm::handleIpIntfStatus)>("handleIpIntfStatus",
                                                                           "intfId")
          .attribute<&RouteSm::ipIntfStatusFilter_>()
          .key("intfId")
          .setter<&RouteSm::ipIntfStatusFilterIs>()
          .deleter<overloaded<Zemit::IntfId>(&RouteSm::ipIntfStatusFilterDel),
                   &RouteSm::ipIntfStatusFilterDelAll>()
          .attribute<&RouteSm::ipIntfStatus_>()
          .key("intfId")
          .setter<&RouteSm::ipIntfStatusIs>()
          .deletable<&RouteSm::ipIntfStatus_>()
          .method<&RouteSm::handleArpEntries>("handleArpEntries")
          .method<&RouteSm::handleAddedArpEntry>("handleAddedArpEntry", "ipAddr", "arpIntfStatus")
          .method<&RouteSm::handleDeletedArpEntry>("handleDeletedArpEntry", "ipAddr",
                                                   "arpIntfStatus")
          .method<&RouteSm::handleDeletedArpIntfStatus>("handleDeletedArpIntfStatus",
                                                        "arpIntfStatus")
          .attribute<&RouteSm::neighborDirByIntfName_>()
          .creator<&RouteSm::newNeighborDirByIntfName>("neighborDirByIntfName")
          .deletable<&RouteSm::neighborDirByIntfName_>()
          .attribute<&RouteSm::arpIntfStatus_>()
          .key({"name", "Kiv::Name"})
          .setter<&RouteSm::arpIntfStatusIs>()
          .deleter<overloaded<const Kiv::Name&>(&RouteSm::arpIntfStatusDel),
                   &RouteSm::arpIntfStatusDelAll>()
          .attribute<&RouteSm::root_>()
          .setter<&RouteSm::rootIs>()
          .method<&RouteSm::hasNoReceiveRoutes>("hasNoReceiveRoutes")
          .method<&RouteSm::doFibLookup>("doFibLookup", "pfx")
          .method<&RouteSm::checkIpAddressAgainstFib>("checkIpAddressAgainstFib", "ipAddr",
                                                      "arpIntfStatus")
          .method<&RouteSm::fixupArpRoute>("fixupArpRoute", "ipAddr", "fibRoute")
          .method<&RouteSm::promoteArpEntries>("promoteArpEntries", "intfs", "fibRoute")
          .method<overloaded<const Obu::Ip6AddrSet::PtrConst&>(&RouteSm::doMerge)>("doMerge",
                                                                                   "changedIps")
          .attribute<&RouteSm::virtualIp6Status_>()
          .creator<&RouteSm::newVirtualIp6Status>("virtualIp6Status")
          .deleter<&RouteSm::virtualIp6StatusDel>()
          .method<overloaded<const Routing::Fhrp::VrfIpPair&>(&RouteSm::handleVirtualIp6Status)>(
              "handleVirtualIp6Status", "vrfIpPair")
          .method<&RouteSm::setHostRouteRibReady>("setHostRouteRibReady")
          .method<&RouteSm::handleRibReady>("handleRibReady")
          .attribute<&RouteSm::vrfName_>()
          .attribute<&RouteSm::initialized_>()
          .setter<&RouteSm::initializedIs>()
          .method<&RouteSm::handleInitialized>("handleInitialized")
          .method<&RouteSm::hasNotificationActiveIs>("hasNotificationActiveIs", "")
          .method<&RouteSm::kivDoZombieReactors>("kivDoZombieReactors", "")
          .done();
  return kType;
}

const Kiv::TypeInfo& IntfAddresses::_fwkType() {
  static const Kiv::TypeInfo kType =
      Kiv::TypeTable<IntfAddresses>(Reflection::kIntfAddresses6)
          .constructor<&intfAddressesFactory>(std::array<Kiv::ArgumentName, 1>{"intfName"})
          .computed<&IntfAddresses::intfName>("intfName", Kiv::KivAttrIntrospectionFlags::kKey)
          .attribute<&IntfAddresses::addrWithMask_>()
          .key("addrWithMask")
          .setter<&IntfAddresses::addrWithMaskIs>()
          .creator<&IntfAddresses::newAddrWithMask>(kMemberArguments)
          .deletable<&IntfAddresses::addrWithMask_>()
          .computed<&IntfAddresses::intfName>("fwkKey")
          .done();
  return kType;
}

const Kiv::TypeInfo& PrefixList::_fwkType() {
  static const Kiv::TypeInfo kType =
      Kiv::TypeTable<PrefixList>(Reflection::kPrefixList6)
          .constructor<&PrefixList::PrefixListIs>(std::array<Kiv::ArgumentName, 1>{"fecId"})
          .computed<&PrefixList::fecId>("fecId", Kiv::KivAttrIntrospectionFlags::kKey)
          .attribute<&PrefixList::prefix_>()
          .key("prefix")
          .setter<&PrefixList::prefixIs>()
          .creator<&PrefixList::newPrefix>(kMemberArguments)
          .deletable<&PrefixList::prefix_>()
          .computed<&PrefixList::name>({"name", "Kiv::Name"})
          .done();
  return kType;
}

const Kiv::TypeInfo& RouteSmRoot::_fwkType() {
  static constexpr Kiv::ArgumentName kName{"name", "Kiv::Name"};
  static const Kiv::TypeInfo kType =
      Kiv::TypeTable<RouteSmRoot>(Reflection::kRouteSmRoot6)
          .constructor<&routeSmRootFactory>(std::array{kName})
          .computed<&RouteSmRoot::isNondestructing>("isNondestructing")
          .attribute<&RouteSmRoot::receiveTable_>()
          .creator<&RouteSmRoot::receiveTableIs>(std::array{kName})
          .deletable<&RouteSmRoot::receiveTable_>()
          .attribute<&RouteSmRoot::neighTable_>()
          .creator<&RouteSmRoot::neighTableIs>(std::array{kName})
          .deletable<&RouteSmRoot::neighTable_>()
          .attribute<&RouteSmRoot::intfStatusDir_>()
          .setter<&RouteSmRoot::intfStatusDirIs>()
          .attribute<&RouteSmRoot::trie_>()
          .setter<&RouteSmRoot::trieIs>()
          .attribute<&RouteSmRoot::adjHelper_>()
          .setter<&RouteSmRoot::adjHelperIs>()
          .attribute<&RouteSmRoot::neighRoute_>()
          .key("neighRoute_Prefix")
          .creator<&RouteSmRoot::neighRouteIs>("prefix")
          .deletable<&RouteSmRoot::neighRoute_>()
          .attribute<&RouteSmRoot::prefixToRoute_>()
          .key("prefix")
          .setter<&RouteSmRoot::prefixToRouteIs>()
          .deletable<&RouteSmRoot::prefixToRoute_>()
          .attribute<&RouteSmRoot::prefixToAdjacency_>()
          .key("prefix")
          .setter<&RouteSmRoot::prefixToAdjacencyIs>()
          .deletable<&RouteSmRoot::prefixToAdjacency_>()
          .attribute<&RouteSmRoot::adjacencyToPrefix_>()
          .key("fecId")
          .setter<&RouteSmRoot::adjacencyToPrefixIs>()
          .deletable<&RouteSmRoot::adjacencyToPrefix_>()
          .attribute<&RouteSmRoot::intfNameToAddrWithMask_>()
          .key("intfName")
          .creator<&RouteSmRoot::intfNameToAddrWithMaskIs>("intfName")
          .deletable<&RouteSmRoot::intfNameToAddrWithMask_>()
          .attribute<&RouteSmRoot::receiveAddrToIntfName_>()
          .key("ipAddr")
          .setter<&RouteSmRoot::receiveAddrToIntfNameIs>()
          .deletable<&RouteSmRoot::receiveAddrToIntfName_>()
          .attribute<&RouteSmRoot::toMerge_>()
          .creator<&RouteSmRoot::toMergeIs>("prefix")
          .deletable<&RouteSmRoot::toMerge_>()
          .attribute<&RouteSmRoot::vipToMerge_>()
          .creator<&RouteSmRoot::vipToMergeIs>("prefix")
          .deletable<&RouteSmRoot::vipToMerge_>()
          .attribute<&RouteSmRoot::routeSm_>()
          .creator<&RouteSmRoot::newRouteSm>(kMachineInputs)
          .deleter<&RouteSmRoot::routeSmDel>()
          .attribute<&RouteSmRoot::initialized_>()
          .setter<&RouteSmRoot::initializedIs>()
          .method<&RouteSmRoot::handleInitialized>("handleInitialized")
          .done();
  return kType;
}

}  // namespace Routing6::Host

void kivInitHostRoute6Sm() {
  using namespace Routing6::Host;
  static const Kiv::TypeRegistry::Entry kMachine(RouteSm::_fwkType());
  static const Kiv::TypeRegistry::Entry kIntfAddresses(IntfAddresses::_fwkType());
  static const Kiv::TypeRegistry::Entry kPrefixList(PrefixList::_fwkType());
  static const Kiv::TypeRegistry::Entry kRoot(RouteSmRoot::_fwkType());
}
