// The descriptions of the root and of the entities that it owns, beside the machine's.
#include "platform/kiv/reflection/TypeTable.h"
#include "typeinfo/HostRouteSm.h"
#include "typeinfo/MachineInputs.h"
#include "typeinfo/TypeNames.h"

namespace Routing::Host {

namespace {

/// The arguments of a set's mutator: the member, and true.
constexpr std::array<Kiv::ArgumentName, 2> kMemberArguments{"key", "value"};

IntfAddresses::Ptr intfAddressesFactory(const Kiv::String8& intfName) {
  return Kiv::make<IntfAddresses>(intfName);
}

}  // namespace

const Kiv::TypeInfo& IntfAddresses::_fwkType() {
  static const Kiv::TypeInfo kType =
      Kiv::TypeTable<IntfAddresses>(Reflection::kIntfAddresses)
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
      Kiv::TypeTable<PrefixList>(Reflection::kPrefixList)
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
      Kiv::TypeTable<RouteSmRoot>(Reflection::kRouteSmRoot)
          .constructor<&routeSmRootFactory>(std::array{kName})
          .computed<&RouteSmRoot::isNondestructing>("isNondestructing")
          .attribute<&RouteSmRoot::receiveTable_>()
          .creator<&RouteSmRoot::receiveTableIs>(std::array{kName})
          .deletable<&RouteSmRoot::receiveTable_>()
          .attribute<&RouteSmRoot::arpTable_>()
          .creator<&RouteSmRoot::arpTableIs>(std::array{kName})
          .deletable<&RouteSmRoot::arpTable_>()
          .attribute<&RouteSmRoot::intfStatusDir_>()
          .setter<&RouteSmRoot::intfStatusDirIs>()
          .attribute<&RouteSmRoot::trie_>()
          .setter<&RouteSmRoot::trieIs>()
          .attribute<&RouteSmRoot::adjHelper_>()
          .setter<&RouteSmRoot::adjHelperIs>()
          .attribute<&RouteSmRoot::arpRoute_>()
          .key("prefix")
          .creator<&RouteSmRoot::arpRouteIs>("prefix")
          .deletable<&RouteSmRoot::arpRoute_>()
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
          .setter<&RouteSmRoot::intfNameToAddrWithMaskIs>()
          .deletable<&RouteSmRoot::intfNameToAddrWithMask_>()
          .attribute<&RouteSmRoot::intfNameToSecondaryAddrWithMask_>()
          .key("intfName")
          .creator<&RouteSmRoot::intfNameToSecondaryAddrWithMaskIs>("intfName")
          .deletable<&RouteSmRoot::intfNameToSecondaryAddrWithMask_>()
          .attribute<&RouteSmRoot::receiveAddrToIntfName_>()
          .key("ipAddr")
          .setter<&RouteSmRoot::receiveAddrToIntfNameIs>()
          .deletable<&RouteSmRoot::receiveAddrToIntfName_>()
          .attribute<&RouteSmRoot::toMerge_>()
          .creator<&RouteSmRoot::toMergeIs>("prefix")
          .deletable<&RouteSmRoot::toMerge_>()
          .attribute<&RouteSmRoot::routeSm_>()
          .creator<&RouteSmRoot::newRouteSm>(kMachineInputs)
          .deleter<&RouteSmRoot::routeSmDel>()
          .attribute<&RouteSmRoot::initialized_>()
          .setter<&RouteSmRoot::initializedIs>()
          .method<&RouteSmRoot::handleInitialized>("handleInitialized")
          .done();
  return kType;
}

}  // namespace Routing::Host
