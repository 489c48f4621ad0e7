#include "typeinfo/HostRoute6Sm.h"

#include "platform/kiv/reflection/TypeTable.h"
#include "typeinfo/MachineInputs.h"
#include "typeinfo/TypeNames.h"

// The rows are in the order of the attributes' ids. Each type makes its own description, because a
// description reads the type's private storage.
namespace Routing6::Host {

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

}  // namespace Routing6::Host

void kivInitHostRoute6Sm() {
  using namespace Routing6::Host;
  static const Kiv::TypeRegistry::Entry kMachine(RouteSm::_fwkType());
  static const Kiv::TypeRegistry::Entry kIntfAddresses(IntfAddresses::_fwkType());
  static const Kiv::TypeRegistry::Entry kPrefixList(PrefixList::_fwkType());
  static const Kiv::TypeRegistry::Entry kRoot(RouteSmRoot::_fwkType());
}
