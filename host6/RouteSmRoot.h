// The root of one VRF's IPv6 host routes: all derived state that outlives its reactors.
#pragma once

#include "host6/IntfAddresses.h"
#include "host6/PrefixList.h"
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
namespace Ip6 {
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

namespace Routing6::Host {

struct Ipv6;
class RouteSm;

/// The data from which one VRF's IPv6 host routes are derived; outlives the state machine that
/// fills it.
///
/// Four collections are read together. neighRoute and prefixToRoute have an entry for every
/// tracked FIB prefix; neighRoute names the neighbours whose host routes depend on it.
/// prefixToAdjacency says which FEC a prefix resolves through, adjacencyToPrefix which prefixes to
/// process again when a FEC changes; a list that becomes empty is removed. An address is in
/// receiveAddrToIntfName exactly while it has a route in receiveTable.
class KIV_EXPORT RouteSmRoot final : public Kiv::NamedEntity {
 public:
  using Ptr = Kiv::Ptr<RouteSmRoot>;
  using PtrConst = Kiv::Ptr<const RouteSmRoot>;
  /// An entry of neighRoute.
  using KivNeighRoute = Obu::Ip6AddrSet;

  // The reflected description of the type; see KIV_REFLECTED. Its interface also reports changes.
  using _Type = Kiv::EntityType<RouteSmRoot>;
  class GenericIf_;
  static const Kiv::TypeInfo& _fwkType();

  /// Derive from this to be told of changes. A callback runs after the change it reports.
  class NotifieeConst : public Kiv::NotifieeOf<RouteSmRoot> {
   public:
    virtual void onReceiveTable() {}
    virtual void onNeighTable() {}
    virtual void onIntfStatusDir() {}
    virtual void onTrie() {}
    virtual void onAdjHelper() {}
    virtual void onNeighRoute(const Zemit::Ip6Prefix&) {}
    virtual void onNeighRoutekivImmediate() {}
    virtual void onPrefixToRoute(const Zemit::Ip6Prefix&) {}
    virtual void onPrefixToRoutekivImmediate() {}
    virtual void onPrefixToAdjacency(const Zemit::Ip6Prefix&) {}
    virtual void onPrefixToAdjacencykivImmediate() {}
    virtual void onAdjacencyToPrefix(const Tovan::Fib::FecId&) {}
    virtual void onAdjacencyToPrefixkivImmediate() {}
    virtual void onIntfNameToAddrWithMask(const Kiv::String8&) {}
    virtual void onIntfNameToAddrWithMaskkivImmediate() {}
    virtual void onReceiveAddrToIntfName(const Zemit::Ip6Addr&) {}
    virtual void onReceiveAddrToIntfNamekivImmediate() {}
    virtual void onToMerge() {}
    virtual void onVipToMerge() {}
    virtual void onRouteSm() {}
    virtual void onInitialized() {}

   protected:
    using Kiv::NotifieeOf<RouteSmRoot>::NotifieeOf;
    void kivImmediate() override {
      onNeighRoutekivImmediate();
      onPrefixToRoutekivImmediate();
      onPrefixToAdjacencykivImmediate();
      onAdjacencyToPrefixkivImmediate();
      onIntfNameToAddrWithMaskkivImmediate();
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

  /// The router's own addresses, with the host adjacencies they are received on.
  KIV_SINGLETON(258, receiveTable, ReceiveTable, Status)
  /// Makes the table of this name unless it is there; returns it.
  Status::Ptr receiveTableIs(const Kiv::Name& name);
  /// Makes an empty one in its place; returns it.
  Status::Ptr newReceiveTable(const Kiv::Name& name) { return receiveTable_.create(*this, name); }

  /// The host routes of neighbours, with the host adjacencies they resolve to.
  KIV_SINGLETON(259, neighTable, NeighTable, Status)
  Status::Ptr neighTableIs(const Kiv::Name& name);
  Status::Ptr newNeighTable(const Kiv::Name& name) { return neighTable_.create(*this, name); }

  /// The status of all interfaces.
  KIV_POINTER(260, intfStatusDir, IntfStatusDir, const Interface::AllIntfStatusDir)

  /// The prefixes of the tracked FIB routes. It belongs to the daemon; only the machine writes it.
  KIV_POINTER(261, trie, Trie, Routing6::Trie)

  /// Counts the references on adjacencies.
  KIV_POINTER(262, adjHelper, AdjHelper, Rovel::Adjacency6Helper)

  /// The data of each tracked prefix, side by side: the next three collections.
  using Tracked = Kiv::Rows<Zemit::Ip6Prefix, Obu::Ip6AddrSet::Ptr,
                            Tovan::RouteRecord<Tovan::Fib6::Route>, Tovan::Fib::FecId>;

 private:
  friend struct Ipv6;
  Tracked tracked_;

 public:
  /// For each tracked FIB prefix, the neighbours whose host routes were derived through it.
  /// Most prefixes have none, so a set is made when it is first looked at.
  KIV_LAZY_COLLECTION_ON(263, neighRoute, NeighRoute, Zemit::Ip6Prefix, Obu::Ip6AddrSet,
                         Tracked::Column<Obu::Ip6AddrSet::Ptr>)

  /// The last known FIB route of each tracked prefix.
  TOVAN_ROUTE_COLLECTION_ON(264, prefixToRoute, PrefixToRoute, Tovan::Fib6::Route,
                            Tracked::Column<Tovan::RouteRecord<Tovan::Fib6::Route>>)

  /// The last known FEC of each tracked prefix.
  KIV_COLLECTION_ON(265, prefixToAdjacency, PrefixToAdjacency, Zemit::Ip6Prefix, Tovan::Fib::FecId,
                    Tracked::Column<Tovan::Fib::FecId>)
  void prefixToAdjacencyIs(const Zemit::Ip6Prefix& prefix, Tovan::Fib::FecId fecId) {
    prefixToAdjacency_.set(*this, prefix, fecId);
  }

  /// The prefixes that resolve through each FEC.
  KIV_COLLECTION(266, adjacencyToPrefix, AdjacencyToPrefix, Tovan::Fib::FecId, PrefixList::Ptr)
  /// Files `list` under its own FEC, in place of any list already there.
  /// \throws Kiv::RangeException when `list` is null.
  void adjacencyToPrefixIs(const PrefixList::Ptr& list);

  /// The addresses of each interface for which receive routes were written.
  KIV_COLLECTION(267, intfNameToAddrWithMask, IntfNameToAddrWithMask, Kiv::String8,
                 IntfAddresses::Ptr)
  /// Makes the interface's entry unless it is there; returns it.
  IntfAddresses::Ptr intfNameToAddrWithMaskIs(const Kiv::String8& intfName);
  /// Makes an empty one in its place; returns it.
  IntfAddresses::Ptr newIntfNameToAddrWithMask(const Kiv::String8& intfName) {
    return intfNameToAddrWithMask_.create(*this, intfName);
  }

  /// The interface that owns each receive address: the last one that wrote it.
  KIV_COLLECTION(268, receiveAddrToIntfName, ReceiveAddrToIntfName, Zemit::Ip6Addr, Kiv::String8)
  void receiveAddrToIntfNameIs(const Zemit::Ip6Addr& ipAddr, const Kiv::String8& intfName) {
    receiveAddrToIntfName_.set(*this, ipAddr, intfName);
  }

  /// The addresses whose merge waits for the state machine to be initialized.
  KIV_SINGLETON_ON(269, toMerge, ToMerge, Obu::Ip6AddrSet, Kiv::DeferredSingleton)
  /// Makes the set that `prefix` names, in place of one of another name; returns it.
  Obu::Ip6AddrSet::Ptr toMergeIs(const Zemit::Ip6Prefix& prefix);
  /// Makes an empty one in its place; returns it.
  Obu::Ip6AddrSet::Ptr newToMerge(const Zemit::Ip6Prefix& prefix) {
    return toMerge_.create(*this, prefix);
  }

  /// The counterpart of toMerge for virtual addresses. Deliberately without behaviour: it is part
  /// of the model, and nothing makes, fills or reads it.
  KIV_SINGLETON(270, vipToMerge, VipToMerge, Obu::Ip6AddrSet)
  Obu::Ip6AddrSet::Ptr vipToMergeIs(const Zemit::Ip6Prefix& prefix);
  Obu::Ip6AddrSet::Ptr newVipToMerge(const Zemit::Ip6Prefix& prefix) {
    return vipToMerge_.create(*this, prefix);
  }

  /// The VRF's state machine.
  KIV_SINGLETON_VIEW(271, routeSm, RouteSm, RouteSm)
  /// Ends the machine, even if there are further handles to it; see RouteSm::retire().
  void routeSmDel();
  /// Makes the state machine over these inputs, each of which may be null and must outlive it; see
  /// the constructor of RouteSm. Returns it. Ends a former machine first, even if this fails.
  Kiv::Ptr<RouteSm> newRouteSm(const Kiv::ActivityConfig::Ptr& activityConfig,
                               const Tovan::Fib6::RouteStatus::Ptr& routeStatus,
                               const Tovan::Fib6::ForwardingStatus::Ptr& fwdStatus,
                               const Status::PtrConst& hostStatus,
                               const Kiv::Ptr<RovelReady::VrfStatus>& ribReadyStatus,
                               const Kiv::Ptr<Routing::SeqConfig>& seqConfig,
                               const Kiv::Ptr<Rovel::SeqInfo>& ipv6SeqInfo,
                               const Rovel::Adjacency6Helper::Ptr& adjHelper,
                               const Kiv::Ptr<const Ip6::Status>& ipStatus,
                               const Kiv::Ptr<const Arp::NeighborDir>& neighborDirByIntfName,
                               const Routing::Fhrp::VirtualIp6Status::PtrConst& virtualIp6Status,
                               const Ptr& root, const L3::VrfName& vrfName);
  /// Makes the state machine unless there is one over the same inputs; returns it.
  Kiv::Ptr<RouteSm> routeSmIs(const Kiv::ActivityConfig::Ptr& activityConfig,
                              const Tovan::Fib6::RouteStatus::Ptr& routeStatus,
                              const Tovan::Fib6::ForwardingStatus::Ptr& fwdStatus,
                              const Status::PtrConst& hostStatus,
                              const Kiv::Ptr<RovelReady::VrfStatus>& ribReadyStatus,
                              const Kiv::Ptr<Routing::SeqConfig>& seqConfig,
                              const Kiv::Ptr<Rovel::SeqInfo>& ipv6SeqInfo,
                              const Rovel::Adjacency6Helper::Ptr& adjHelper,
                              const Kiv::Ptr<const Ip6::Status>& ipStatus,
                              const Kiv::Ptr<const Arp::NeighborDir>& neighborDirByIntfName,
                              const Routing::Fhrp::VirtualIp6Status::PtrConst& virtualIp6Status,
                              const Ptr& root, const L3::VrfName& vrfName);

  /// True once the root has its tables.
  KIV_SCALAR(272, initialized, Initialized, bool)
  void initializedIs(bool initialized) { initialized_.set(*this, initialized); }

  /// Makes the tables. Called by the constructor.
  void handleInitialized();
};

/// Makes the root of one VRF's IPv6 host routes.
KIV_EXPORT RouteSmRoot::Ptr routeSmRootFactory(const Kiv::Name& name);

}  // namespace Routing6::Host
