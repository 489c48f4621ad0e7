// The root of one VRF's IPv4 host routes: all derived state that outlives its reactors.
#pragma once

#include "host/IntfAddresses.h"
#include "host/PrefixList.h"
#include "platform/interface/AllIntfStatusDir.h"
#include "platform/kiv/containers/Export.h"
#include "platform/kiv/containers/Rows.h"
#include "platform/kiv/runtime/Attributes.h"
#include "platform/l3/VrfName.h"
#include "platform/obu/AddrSet.h"
#include "platform/routing/Trie.h"
#include "platform/routing/VirtualIpStatus.h"
#include "platform/rovel/AdjacencyHelper.h"
#include "platform/rovel/HostStatus.h"
#include "platform/tovan/RouteCollection.h"
#include "platform/tovan/RouteStatus.h"
#include "platform/zemit/IpAddrWithMask.h"

namespace Arp {
class NeighborDir;
}
namespace Ip {
class Status;
}
namespace Routing {
class SeqConfig;
}
namespace Rovel {
class SeqInfo;
}
namespace RovelReady {
class VrfStatus;
}

namespace Routing::Host {

struct Ipv4;
class RouteSm;

/// The data from which one VRF's IPv4 host routes are derived; outlives the state machine that
/// fills it.
///
/// Four collections are read together. arpRoute and prefixToRoute have an entry for every tracked
/// FIB prefix; arpRoute names the neighbours whose host routes depend on it. prefixToAdjacency says
/// which FEC a prefix resolves through, adjacencyToPrefix which prefixes to process again when a
/// FEC changes; a list that becomes empty is removed. An address is in receiveAddrToIntfName
/// exactly while it has a route in receiveTable.
class KIV_EXPORT RouteSmRoot final : public Kiv::NamedEntity {
 public:
  using Ptr = Kiv::Ptr<RouteSmRoot>;
  using PtrConst = Kiv::Ptr<const RouteSmRoot>;

  // The reflected description of the type; see KIV_REFLECTED. Its interface also reports changes.
  using _Type = Kiv::EntityType<RouteSmRoot>;
  class GenericIf_;
  static const Kiv::TypeInfo& _fwkType();

  /// Derive from this to be told of changes. A callback runs after the change it reports.
  class NotifieeConst : public Kiv::NotifieeOf<RouteSmRoot> {
   public:
    virtual void onReceiveTable() {}
    virtual void onArpTable() {}
    virtual void onIntfStatusDir() {}
    virtual void onTrie() {}
    virtual void onAdjHelper() {}
    virtual void onArpRoute(const Zemit::Prefix&) {}
    virtual void onArpRoutekivImmediate() {}
    virtual void onPrefixToRoute(const Zemit::Prefix&) {}
    virtual void onPrefixToRoutekivImmediate() {}
    virtual void onPrefixToAdjacency(const Zemit::Prefix&) {}
    virtual void onPrefixToAdjacencykivImmediate() {}
    virtual void onAdjacencyToPrefix(const Tovan::Fib::FecId&) {}
    virtual void onAdjacencyToPrefixkivImmediate() {}
    virtual void onIntfNameToAddrWithMask(const Kiv::String8&) {}
    virtual void onIntfNameToAddrWithMaskkivImmediate() {}
    virtual void onIntfNameToSecondaryAddrWithMask(const Kiv::String8&) {}
    virtual void onIntfNameToSecondaryAddrWithMaskkivImmediate() {}
    virtual void onReceiveAddrToIntfName(const Zemit::IpAddr&) {}
    virtual void onReceiveAddrToIntfNamekivImmediate() {}
    virtual void onToMerge() {}
    virtual void onRouteSm() {}
    virtual void onInitialized() {}

   protected:
    using Kiv::NotifieeOf<RouteSmRoot>::NotifieeOf;
    void kivImmediate() override {
      onArpRoutekivImmediate();
      onPrefixToRoutekivImmediate();
      onPrefixToAdjacencykivImmediate();
      onAdjacencyToPrefixkivImmediate();
      onIntfNameToAddrWithMaskkivImmediate();
      onIntfNameToSecondaryAddrWithMaskkivImmediate();
      onReceiveAddrToIntfNamekivImmediate();
    }
  };

  /// Makes the root with its tables, initialized.
  explicit RouteSmRoot(Kiv::Name name);
  /// Drops the objects that the root owns. No adjacency reference is released: host routes stay.
  ~RouteSmRoot() override;

  /// The trace levels of its machine.
  uint32_t tracedLevels() const noexcept override;

  /// False once the root is being destroyed.
  bool isNondestructing() const noexcept { return !isDestructing(); }

  /// The router's own addresses and the network and broadcast addresses of its subnets, with the
  /// host adjacencies they are received on.
  KIV_SINGLETON(258, receiveTable, ReceiveTable, Status)
  /// Makes the table of this name unless it is there; returns it.
  Status::Ptr receiveTableIs(const Kiv::Name& name);
  /// Makes an empty one in its place; returns it.
  Status::Ptr newReceiveTable(const Kiv::Name& name) { return receiveTable_.create(*this, name); }

  /// The host routes of ARP neighbours, with the host adjacencies they resolve to.
  KIV_SINGLETON(259, arpTable, ArpTable, Status)
  Status::Ptr arpTableIs(const Kiv::Name& name);
  Status::Ptr newArpTable(const Kiv::Name& name) { return arpTable_.create(*this, name); }

  /// The status of all interfaces.
  KIV_POINTER(260, intfStatusDir, IntfStatusDir, const Interface::AllIntfStatusDir)

  /// The prefixes of the tracked FIB routes. It belongs to the daemon; only the machine writes it.
  KIV_POINTER(261, trie, Trie, Routing::Trie)

  /// Counts the references on adjacencies.
  KIV_POINTER(262, adjHelper, AdjHelper, Rovel::AdjacencyHelper)

  /// The data of each tracked prefix, side by side: the next three collections.
  using Tracked = Kiv::Rows<Zemit::Prefix, Obu::AddrSet::Ptr, Tovan::RouteRecord<Tovan::Fib::Route>,
                            Tovan::Fib::FecId>;

 private:
  friend struct Ipv4;
  Tracked tracked_;

 public:
  /// For each tracked FIB prefix, the neighbours whose host routes were derived through it.
  /// Most prefixes have none, so a set is made when it is first looked at.
  KIV_LAZY_COLLECTION_ON(263, arpRoute, ArpRoute, Zemit::Prefix, Obu::AddrSet,
                         Tracked::Column<Obu::AddrSet::Ptr>)

  /// The last known FIB route of each tracked prefix.
  TOVAN_ROUTE_COLLECTION_ON(264, prefixToRoute, PrefixToRoute, Tovan::Fib::Route,
                            Tracked::Column<Tovan::RouteRecord<Tovan::Fib::Route>>)

  /// The last known FEC of each tracked prefix.
  KIV_COLLECTION_ON(265, prefixToAdjacency, PrefixToAdjacency, Zemit::Prefix, Tovan::Fib::FecId,
                    Tracked::Column<Tovan::Fib::FecId>)
  void prefixToAdjacencyIs(const Zemit::Prefix& prefix, Tovan::Fib::FecId fecId) {
    prefixToAdjacency_.set(*this, prefix, fecId);
  }

  /// The prefixes that resolve through each FEC.
  KIV_COLLECTION(266, adjacencyToPrefix, AdjacencyToPrefix, Tovan::Fib::FecId, PrefixList::Ptr)
  /// Files `list` under its own FEC, in place of any list already there.
  /// \throws Kiv::RangeException when `list` is null.
  void adjacencyToPrefixIs(const PrefixList::Ptr& list);

  /// The primary address of each interface for which receive routes were written.
  KIV_COLLECTION(267, intfNameToAddrWithMask, IntfNameToAddrWithMask, Kiv::String8,
                 Zemit::IpAddrWithMask)
  void intfNameToAddrWithMaskIs(const Kiv::String8& intfName,
                                const Zemit::IpAddrWithMask& addrWithMask) {
    intfNameToAddrWithMask_.set(*this, intfName, addrWithMask);
  }

  /// The secondary addresses of each interface for which receive routes were written.
  KIV_COLLECTION(268, intfNameToSecondaryAddrWithMask, IntfNameToSecondaryAddrWithMask,
                 Kiv::String8, IntfAddresses::Ptr)
  /// Makes the interface's entry unless it is there; returns it.
  IntfAddresses::Ptr intfNameToSecondaryAddrWithMaskIs(const Kiv::String8& intfName);
  /// Makes an empty one in its place; returns it.
  IntfAddresses::Ptr newIntfNameToSecondaryAddrWithMask(const Kiv::String8& intfName) {
    return intfNameToSecondaryAddrWithMask_.create(*this, intfName);
  }

  /// The interface that owns each receive address: the last one that wrote it.
  KIV_COLLECTION(269, receiveAddrToIntfName, ReceiveAddrToIntfName, Zemit::IpAddr, Kiv::String8)
  void receiveAddrToIntfNameIs(const Zemit::IpAddr& ipAddr, const Kiv::String8& intfName) {
    receiveAddrToIntfName_.set(*this, ipAddr, intfName);
  }

  /// The addresses whose merge waits for the state machine to be initialized.
  KIV_SINGLETON_ON(270, toMerge, ToMerge, Obu::AddrSet, Kiv::DeferredSingleton)
  /// Makes the set that `prefix` names, in place of one of another name; returns it.
  Obu::AddrSet::Ptr toMergeIs(const Zemit::Prefix& prefix);
  /// Makes an empty one in its place; returns it.
  Obu::AddrSet::Ptr newToMerge(const Zemit::Prefix& prefix) {
    return toMerge_.create(*this, prefix);
  }

  /// The VRF's state machine.
  KIV_SINGLETON_VIEW(271, routeSm, RouteSm, RouteSm)
  /// Ends the machine, even if there are further handles to it; see RouteSm::retire().
  void routeSmDel();
  /// Makes the state machine over these inputs, each of which may be null and must outlive it; see
  /// the constructor of RouteSm. Returns it. Ends a former machine first, even if this fails.
  Kiv::Ptr<RouteSm> newRouteSm(
      const Kiv::ActivityConfig::Ptr& activityConfig,
      const Tovan::Fib::RouteStatus::Ptr& routeStatus,
      const Tovan::Fib::ForwardingStatus::Ptr& fwdStatus, const Status::PtrConst& hostStatus,
      const Kiv::Ptr<RovelReady::VrfStatus>& ribReadyStatus,
      const Kiv::Ptr<Routing::SeqConfig>& seqConfig, const Kiv::Ptr<Rovel::SeqInfo>& ipv4SeqInfo,
      const Rovel::AdjacencyHelper::Ptr& adjHelper, const Kiv::Ptr<const Ip::Status>& ipStatus,
      const Kiv::Ptr<const Arp::NeighborDir>& neighborDirByIntfName, const Ptr& root,
      const Fhrp::VirtualIpStatus::PtrConst& virtualIpStatus, const L3::VrfName& vrfName);
  /// Makes the state machine unless there is one over the same inputs; returns it.
  Kiv::Ptr<RouteSm> routeSmIs(
      const Kiv::ActivityConfig::Ptr& activityConfig,
      const Tovan::Fib::RouteStatus::Ptr& routeStatus,
      const Tovan::Fib::ForwardingStatus::Ptr& fwdStatus, const Status::PtrConst& hostStatus,
      const Kiv::Ptr<RovelReady::VrfStatus>& ribReadyStatus,
      const Kiv::Ptr<Routing::SeqConfig>& seqConfig, const Kiv::Ptr<Rovel::SeqInfo>& ipv4SeqInfo,
      const Rovel::AdjacencyHelper::Ptr& adjHelper, const Kiv::Ptr<const Ip::Status>& ipStatus,
      const Kiv::Ptr<const Arp::NeighborDir>& neighborDirByIntfName, const Ptr& root,
      const Fhrp::VirtualIpStatus::PtrConst& virtualIpStatus, const L3::VrfName& vrfName);

  /// True once the root has its tables.
  KIV_SCALAR(272, initialized, Initialized, bool)
  void initializedIs(bool initialized) { initialized_.set(*this, initialized); }

  /// Makes the tables. Called by the constructor.
  void handleInitialized();
};

/// Makes the root of one VRF's IPv4 host routes.
KIV_EXPORT RouteSmRoot::Ptr routeSmRootFactory(const Kiv::Name& name);

}  // namespace Routing::Host
