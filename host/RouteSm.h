// The state machine that derives one VRF's IPv4 host routes.
#pragma once

#include <memory>

#include "host/RouteSmRoot.h"
#include "hostcore/Account.h"
#include "hostcore/Frame.h"
#include "platform/arp/NeighborDir.h"
#include "platform/ip/IpStatus.h"
#include "platform/kiv/containers/Export.h"
#include "platform/kiv/runtime/Attributes.h"
#include "platform/obu/FibLookup.h"
#include "platform/obu/IntfDir.h"
#include "platform/routing/SeqConfig.h"
#include "platform/rovel/Readiness.h"
#include "platform/rovel/SeqInfo.h"
#include "platform/tovan/ForwardingStatus.h"
#include "platform/tovan/RouteStatus.h"

namespace HostCore {
template <class F>
class Machine;
template <class R, class Fec>
class CoverCache;
template <class R, class Fec>
struct FastState;
}  // namespace HostCore

namespace Routing::Host {

struct Ipv4;

/// Watches the inputs of one VRF and keeps the host routes of its root and route table up to date.
///
/// Each reactor watches one input and calls one handler. A handler without a key handles the whole
/// input; a handler with a key handles one entry. All handlers run on the thread of the activity.
/// The creator of the machine keeps the inputs, the root and the activity alive as long as the
/// machine exists. A null input counts as an empty table. A callback of a write must not destroy
/// the machine.
///
/// Until `initialized` is set, the machine only records changes. Then it handles all of them in one
/// pass.
class KIV_EXPORT RouteSm final : public Kiv::Entity {
 public:
  using Ptr = Kiv::Ptr<RouteSm>;
  using PtrConst = Kiv::Ptr<const RouteSm>;
  using ArpTable = Arp::ArpIntfStatus::PtrConst;

  KIV_REFLECTED(RouteSm);

  /// Derive from this to be told of changes. A callback runs after the change it reports.
  class NotifieeConst : public Kiv::NotifieeOf<RouteSm> {
   public:
    virtual void onKivFwkActivity() {}
    virtual void onRouteStatus() {}
    virtual void onFwdStatus() {}
    virtual void onHostStatus() {}
    virtual void onRibReadyStatus() {}
    virtual void onSeqConfig() {}
    virtual void onIpv4SeqInfo() {}
    virtual void onAdjHelper() {}
    virtual void onIpStatus() {}
    virtual void onVrfIpIntfStatus(const Zemit::IntfId&) {}
    virtual void onVrfIpIntfStatuskivImmediate() {}
    virtual void onIpIntfStatusFilter(const Zemit::IntfId&) {}
    virtual void onIpIntfStatusFilterkivImmediate() {}
    virtual void onIpIntfStatus(const Zemit::IntfId&) {}
    virtual void onIpIntfStatuskivImmediate() {}
    virtual void onNeighborDirByIntfName() {}
    virtual void onArpIntfStatus(const Kiv::Name&) {}
    virtual void onArpIntfStatuskivImmediate() {}
    virtual void onRoot() {}
    virtual void onVirtualIpStatus() {}
    virtual void onVrfName() {}
    virtual void onInitialized() {}

   protected:
    void kivImmediate() override {
      onVrfIpIntfStatuskivImmediate();
      onIpIntfStatusFilterkivImmediate();
      onIpIntfStatuskivImmediate();
      onArpIntfStatuskivImmediate();
    }
  };

  template <class Notifier>
  using Reactor = HostCore::MachineReactor<Notifier, RouteSm>;
  using Account = HostCore::Account<Tovan::Fib::Route, Tovan::Fib::Fec>;
  using FastState = HostCore::FastState<Tovan::Fib::Route, Tovan::Fib::Fec>;
  using CoverCache = HostCore::CoverCache<Tovan::Fib::Route, Tovan::Fib::Fec>;

  /// The inputs of a machine. Each may be null.
  struct Inputs {
    Kiv::ActivityConfig::Ptr activity;
    Tovan::Fib::RouteStatus::Ptr routeStatus;
    Tovan::Fib::ForwardingStatus::Ptr fwdStatus;
    Status::PtrConst hostStatus;
    RovelReady::VrfStatus::Ptr ribReadyStatus;
    Routing::SeqConfig::Ptr seqConfig;
    Rovel::SeqInfo::Ptr seqInfo;
    Rovel::AdjacencyHelper::Ptr adjHelper;
    Ip::Status::PtrConst ipStatus;
    Arp::NeighborDir::PtrConst neighborDir;
    RouteSmRoot::Ptr root;
    Fhrp::VirtualIpStatus::PtrConst virtualIps;
    L3::VrfName vrfName;
  };

  /// Watches the FECs of the forwarding status.
  class KivFwdStatus final
      : public HostCore::FwdStatusReactor<Tovan::Fib::ForwardingStatus, RouteSm> {
   public:
    using FwdStatusReactor::FwdStatusReactor;
  };

  /// Watches the daemon's readiness record.
  class KivRibReadyStatus final : public HostCore::RibReadyReactor<RouteSm> {
   public:
    using RibReadyReactor::RibReadyReactor;
  };

  /// Holds the sequencing configuration.
  class KivSeqConfig final : public Reactor<Routing::SeqConfig> {
   public:
    using MachineReactor::MachineReactor;
  };

  /// Holds the progress of the IPv4 start-up sequence.
  class KivIpv4SeqInfo final : public Reactor<Rovel::SeqInfo> {
   public:
    using MachineReactor::MachineReactor;
  };

  /// Watches which interfaces exist, in all VRFs.
  class KivIpStatus final : public HostCore::DirectoryReactor<Ip::Status, RouteSm> {
   public:
    using DirectoryReactor::DirectoryReactor;

    void onIpIntfStatus(const Zemit::IntfId& intfId) override;
    void onIpIntfStatuskivImmediate() override;
  };

  /// Follows one interface of any VRF, and admits it while it is in the VRF of the machine.
  class KivIpIntfStatusFilter final
      : public HostCore::IntfFilterReactor<Ip::IpIntfStatus, RouteSm, KivIpIntfStatusFilter> {
   public:
    using IntfFilterReactor::IntfFilterReactor;

    /// Admits the interface when it is in this VRF, else removes it.
    void handleVrf();
  };

  /// Watches the addresses of one interface of this VRF.
  class KivIpIntfStatus final : public Reactor<Ip::IpIntfStatus> {
   public:
    using MachineReactor::MachineReactor;

    void onActiveAddrWithMask() override;
    void onActiveSecondaryWithMask(const Zemit::IpAddrWithMask& addrWithMask) override;
    void onActiveSecondaryWithMaskkivImmediate() override;

    /// Rebuilds the interface's receive routes.
    void handleActiveAddrWithMask();
    void handleActiveSecondaryWithMask(const Zemit::IpAddrWithMask& addrWithMask);
    void handleActiveSecondaryWithMask();
  };

  /// Watches which neighbour tables exist.
  class KivNeighborDirByIntfName final
      : public HostCore::NeighborDirReactor<Arp::NeighborDir, RouteSm> {
   public:
    using NeighborDirReactor::NeighborDirReactor;
  };

  /// Watches one interface's ARP table and hands each change to the state machine.
  class KivArpIntfStatus final : public Reactor<Arp::ArpIntfStatus> {
   public:
    using MachineReactor::MachineReactor;

    void onArpEntry(const Zemit::IpAddr& addr) override;
    void onArpEntrykivImmediate() override;
    void onArpEntryExpected(const Zemit::IpAddr& addr) const noexcept override;

    /// Derives the host route of one neighbour again, after it was added, changed or removed.
    void handleArpEntry(Zemit::IpAddr addr);
    /// Derives the host routes of all neighbours in the table again, and merges them all at once.
    void handleArpEntry();
    /// Withdraws the host routes of a table that was deleted before its entries.
    void handleDel();
    /// The short cuts' cache, or null before its first use; see hostcore/fast/.
    std::shared_ptr<CoverCache>& coverCache() const noexcept { return coverCache_; }

   private:
    mutable std::shared_ptr<CoverCache> coverCache_;  // mutable: a cache is not part of the state
  };

  /// Watches the virtual addresses of first-hop redundancy groups.
  class KivVirtualIpStatus final : public HostCore::InputReactor<Fhrp::VirtualIpStatus, RouteSm> {
   public:
    using InputReactor::InputReactor;

    void onVirtualIp(const Fhrp::VrfIpWithMaskPair& pair) override;
    void onVirtualIp() override;
    /// The virtual address of the last notification.
    const Fhrp::VrfIpWithMaskPair& virtualIp() const noexcept { return virtualIp_; }

   private:
    Fhrp::VrfIpWithMaskPair virtualIp_;
  };

  /// Binds a reactor to each input that is not null, and records the contents of the inputs.
  RouteSm(const Kiv::ActivityConfig::Ptr& activityConfig,
          const Tovan::Fib::RouteStatus::Ptr& routeStatus,
          const Tovan::Fib::ForwardingStatus::Ptr& fwdStatus, const Status::PtrConst& hostStatus,
          const RovelReady::VrfStatus::Ptr& ribReadyStatus,
          const Routing::SeqConfig::Ptr& seqConfig, const Rovel::SeqInfo::Ptr& ipv4SeqInfo,
          const Rovel::AdjacencyHelper::Ptr& adjHelper, const Ip::Status::PtrConst& ipStatus,
          const Arp::NeighborDir::PtrConst& neighborDirByIntfName, const RouteSmRoot::Ptr& root,
          const Fhrp::VirtualIpStatus::PtrConst& virtualIpStatus, const L3::VrfName& vrfName);
  explicit RouteSm(const Inputs& inputs);
  ~RouteSm() override;
  /// Ends the machine, even if there are further handles to it. Its reactors become zombies, and
  /// release the machine and the inputs. No route is withdrawn. Afterwards all attributes but the
  /// name of the VRF are empty, a setter raises Kiv::Exception, and a handler that needs the root
  /// raises "null ValidPtr". The root calls this when it drops the machine; it is also called when
  /// the last handle is dropped.
  void retire();

  /// The VRF's name.
  Kiv::Name name() const override { return vrfName().value(); }
  /// See HostCore::tracedLevelsAre().
  uint32_t tracedLevels() const noexcept override { return account_.tracing.now; }

  /// The activity that runs all reactors of this machine.
  KIV_POINTER_VIEW(257, kivFwkActivity, KivFwkActivity, Kiv::ActivityConfig)
  /// Moves all reactors to another activity.
  void kivFwkActivityIs(const Kiv::ActivityConfig::Ptr& activityConfig);

  /// The shared-memory route table. The machine reads the FIB routes from it that are shorter than
  /// host prefixes, and writes the merged host routes into it.
  KIV_POINTER_VIEW(258, routeStatus, RouteStatus, Tovan::Fib::RouteStatus)
  void routeStatusIs(const Kiv::Ptr<Tovan::Fib::RouteStatus>& routeStatus);

  KIV_SINGLETON(259, fwdStatus, FwdStatus, KivFwdStatus)
  Kiv::Ptr<KivFwdStatus> newFwdStatus(const Tovan::Fib::ForwardingStatus::Ptr& fwdStatus);
  /// The forwarding status itself, or null.
  const Tovan::Fib::ForwardingStatus* forwardingStatus() const noexcept {
    return HostCore::watchedBy(fwdStatus());
  }

  /// The FIB's host routes, which the daemon provides. The machine only reads them.
  KIV_POINTER_VIEW(260, hostStatus, HostStatus, const Status)
  void hostStatusIs(const Kiv::Ptr<const Status>& hostStatus);

  KIV_SINGLETON(261, ribReadyStatus, RibReadyStatus, KivRibReadyStatus)
  Kiv::Ptr<KivRibReadyStatus> newRibReadyStatus(const RovelReady::VrfStatus::Ptr& ribReadyStatus);
  /// The readiness record itself, or null.
  RovelReady::VrfStatus* vrfReadiness() const noexcept {
    return ribReadyStatus() ? ribReadyStatus()->status() : nullptr;
  }

  KIV_SINGLETON(262, seqConfig, SeqConfig, KivSeqConfig)
  Kiv::Ptr<KivSeqConfig> newSeqConfig(const Routing::SeqConfig::Ptr& seqConfig);

  KIV_SINGLETON(263, ipv4SeqInfo, Ipv4SeqInfo, KivIpv4SeqInfo)
  Kiv::Ptr<KivIpv4SeqInfo> newIpv4SeqInfo(const Rovel::SeqInfo::Ptr& ipv4SeqInfo);

  /// Assigns the host adjacencies of the root's tables and the FIB adjacencies of the route table,
  /// and counts their references.
  KIV_POINTER_VIEW(269, adjHelper, AdjHelper, Rovel::AdjacencyHelper)
  void adjHelperIs(const Kiv::Ptr<Rovel::AdjacencyHelper>& adjHelper);

  KIV_SINGLETON(272, ipStatus, IpStatus, KivIpStatus)
  Kiv::Ptr<KivIpStatus> newIpStatus(const Ip::Status::PtrConst& ipStatus);

  /// The interfaces that are in this VRF.
  KIV_COLLECTION_VIEW(273, vrfIpIntfStatus, VrfIpIntfStatus, Zemit::IntfId,
                      Ip::IpIntfStatus::PtrConst)
  /// Admits an interface: the machine maintains its receive routes from now on.
  /// \throws Kiv::RangeException when it is null.
  void vrfIpIntfStatusIs(const Ip::IpIntfStatus::PtrConst& ipIntfStatus);
  /// Removes an interface with its receive routes.
  void vrfIpIntfStatusDel(Zemit::IntfId intfId);
  KIV_FURTHER_DELETIONS(vrfIpIntfStatus, VrfIpIntfStatus)

  /// A reactor for each interface of any VRF.
  KIV_DEFERRED_COLLECTION_VIEW(275, ipIntfStatusFilter, IpIntfStatusFilter, Zemit::IntfId,
                               Kiv::Ptr<KivIpIntfStatusFilter>)
  /// Makes the interface's reactor if it is missing, and binds it to `ipIntfStatus`.
  /// \throws Kiv::RangeException when it is null.
  void ipIntfStatusFilterIs(const Ip::IpIntfStatus::PtrConst& ipIntfStatus);
  /// The same, but replaces an existing reactor by a new one. Returns the reactor.
  Kiv::Ptr<KivIpIntfStatusFilter> newIpIntfStatusFilter(
      const Ip::IpIntfStatus::PtrConst& ipIntfStatus);
  void ipIntfStatusFilterDel(Zemit::IntfId intfId);
  KIV_FURTHER_DELETIONS(ipIntfStatusFilter, IpIntfStatusFilter)

  /// A reactor for each interface of this VRF.
  KIV_COLLECTION(276, ipIntfStatus, IpIntfStatus, Zemit::IntfId, Kiv::Ptr<KivIpIntfStatus>)
  /// Makes the interface's reactor if it is missing, and binds it to `ipIntfStatus`.
  /// \throws Kiv::RangeException when it is null.
  void ipIntfStatusIs(const Ip::IpIntfStatus::PtrConst& ipIntfStatus);
  /// The same, but replaces an existing reactor by a new one. Returns the reactor.
  Kiv::Ptr<KivIpIntfStatus> newIpIntfStatus(const Ip::IpIntfStatus::PtrConst& ipIntfStatus);

  KIV_SINGLETON(281, neighborDirByIntfName, NeighborDirByIntfName, KivNeighborDirByIntfName)
  Kiv::Ptr<KivNeighborDirByIntfName> newNeighborDirByIntfName(
      const Arp::NeighborDir::PtrConst& neighborDirByIntfName);
  /// The neighbour table of an interface, as the directory has it now, or null.
  const Arp::ArpIntfStatus* neighborTable(Zemit::IntfId intf) const {
    const auto* dir = HostCore::watchedBy(neighborDirByIntfName());
    return dir == nullptr ? nullptr : dir->tableOf(intf);
  }

  /// A reactor for each neighbour table.
  KIV_DEFERRED_COLLECTION_VIEW(282, arpIntfStatus, ArpIntfStatus, Kiv::Name,
                               Kiv::Ptr<KivArpIntfStatus>)
  /// Makes the table's reactor if it is missing, and binds it to `arpIntfStatus`. Entries that only
  /// the former table had are handled as deleted.
  /// \throws Kiv::RangeException when it is null.
  void arpIntfStatusIs(const ArpTable& arpIntfStatus);
  /// The same, but replaces an existing reactor by a new one. Returns the reactor.
  Kiv::Ptr<KivArpIntfStatus> newArpIntfStatus(const ArpTable& arpIntfStatus);
  /// Removes the table's reactor, and withdraws the host routes of the table's entries.
  void arpIntfStatusDel(const Kiv::Name& name);
  KIV_FURTHER_DELETIONS(arpIntfStatus, ArpIntfStatus)

  /// The root that owns this machine's state.
  KIV_POINTER_VIEW(283, root, Root, RouteSmRoot)
  void rootIs(const Kiv::Ptr<RouteSmRoot>& root);

  KIV_SINGLETON_VIEW(291, virtualIpStatus, VirtualIpStatus, KivVirtualIpStatus)
  void virtualIpStatusDel();
  Kiv::Ptr<KivVirtualIpStatus> newVirtualIpStatus(
      const Fhrp::VirtualIpStatus::PtrConst& virtualIpStatus);
  /// The virtual addresses themselves, or null.
  const Fhrp::VirtualIpStatus* virtualIps() const noexcept {
    return HostCore::watchedBy(virtualIpStatus());
  }

  /// The VRF.
  KIV_SCALAR(295, vrfName, VrfName, L3::VrfName)

  /// Set by the daemon when the inputs are complete.
  KIV_SCALAR(296, initialized, Initialized, bool)
  /// If the value changes, also to false, calls handleInitialized().
  void initializedIs(bool initialized);

  /// Handles all FIB routes, all neighbours, the merge that was deferred, and readiness.
  void handleInitialized();

  /// Handles a change of one prefix of the route table. Ignores host prefixes, which the machine
  /// writes itself.
  void handleStatusRoute(const Zemit::Prefix& prefix);
  void handleStatusRoute();
  /// Handles a change of one host prefix of the host-route status.
  void handleHostStatusRoute(const Zemit::Prefix& prefix);
  void handleHostStatusRoute();
  /// Handles a FIB route that was added or changed; or removed, if its key is not `prefix`.
  void handleRoute(const Zemit::Prefix& prefix, const Tovan::Fib::Route& fibRoute);
  /// Finds the covering route anew for the neighbours of a FIB route that was removed.
  void handleDeletedRoute(const Tovan::Fib::Route& oldFibRoute);

  /// Files the neighbours that a FIB route covers under the route's present FEC.
  void handleAdjacency(const Tovan::Fib::Route& fibRoute);
  /// Withdraws the host routes that were derived from a FIB route. Returns their addresses.
  Obu::AddrSet::Ptr handleDeletedAdjacency(const Zemit::Prefix& oldPrefix);
  /// Handles the FIB routes of a FEC again, after the FEC has changed.
  void handleFec(const Tovan::Fib::FecId& fecId);
  void handleFec();

  /// Removes the receive routes of an interface that left the VRF or was removed.
  void handleIpIntfStatus(Zemit::IntfId intfId);
  /// Must never be called.
  void handleIpIntfStatus();

  void handleArpEntries();
  void handleAddedArpEntry(const Arp::ArpEntryStatus& arpEntry, const ArpTable& arpIntfStatus);
  void handleDeletedArpEntry(const Arp::ArpEntryStatus& arpEntry, const ArpTable& arpIntfStatus);
  void handleDeletedArpIntfStatus(const ArpTable& arpIntfStatus);

  /// True when no receive route is written.
  bool hasNoReceiveRoutes() const;
  /// True when the interface's primary address is not the one whose receive routes are written.
  bool isPrimaryRecvRouteChanged(const Ip::IpIntfStatus::PtrConst& ipIntfStatus) const;

  /// The FIB route with exactly this prefix, or a route whose key is the null prefix.
  Tovan::Fib::Route doFibLookup(const Zemit::Prefix& pfx) const;
  /// The longest FIB prefix that covers `ipAddr`, if it leaves through the table's interface; else
  /// the null prefix.
  Zemit::Prefix checkIpAddressAgainstFib(Zemit::IpAddr ipAddr, const ArpTable& arpIntfStatus) const;

  /// Files a neighbour under a FIB route, and writes or withdraws its host route.
  /// \throws Kiv::RangeException when the route's FEC has over 128 vias; nothing is changed then.
  void fixupArpRoute(Zemit::IpAddr ipAddr, const Tovan::Fib::Route& fibRoute) {
    fixupArpRouteOver(ipAddr, fibRoute, Obu::readFec(forwardingStatus(), fibRoute.fecId));
  }
  /// The same for a caller that has already read the route's FEC.
  void fixupArpRouteOver(Zemit::IpAddr ipAddr, const Tovan::Fib::Route& fibRoute,
                         const Tovan::Fib::Fec& fec);
  /// Files every neighbour on `intfs` that a FIB route covers under this route. Returns their
  /// addresses.
  Obu::AddrSet::Ptr promoteArpEntries(const Obu::IntfDir::Ptr& intfs,
                                      const Tovan::Fib::Route& fibRoute);
  /// Selects the best host route of each address, and writes it into the route table.
  void doMerge(const Obu::AddrSet::PtrConst& changedIps);
  /// The same for one address.
  void doMerge(Zemit::IpAddr changedIp);

  /// Withdraws the host route of an address that became virtual, or merges one that is no longer
  /// virtual. Always returns true.
  bool handleVirtualIpStatus(const Fhrp::VrfIpWithMaskPair& vrfIpWithMask);
  void handleVirtualIpStatus();

  /// Reports that the machine's host routes are ready, once verification has started.
  void setHostRouteRibReady();
  /// Merges the FIB's host routes that are not of BGP, once the RIB is ready.
  void handleRibReady();

  bool hasNotificationActive() const noexcept { return hasNotificationActive_; }
  /// Switches delivery of every reactor on or off.
  void hasNotificationActiveIs(bool active);
  /// Puts every reactor into or out of the state in which nothing is delivered.
  void kivDoZombieReactors(bool zombie);

  /// The counts, the history and the trace levels of the machine. No table depends on them.
  Account& account() const noexcept { return account_; }
  /// The state of the short cuts; see hostcore/fast/.
  FastState& fast() const noexcept { return *fast_; }

  /// Says that the machine may have missed a change, for instance because a notification was kept
  /// from its handler. The machine takes no short cut from now on.
  void missed();
  /// Makes the reactors of interfaces and neighbour tables that were not made yet, because no event
  /// concerned them; see hostcore/fast/Reactors.h.
  void needsReactors();

  /// Counts and traces the exception that a reactor's callback has just raised.
  void reportException(const Kiv::Notifiee& reactor, Kiv::AttributeId id) noexcept;

 private:
  friend class HostCore::Machine<Ipv4>;
  friend struct Ipv4;

  void kiv_handleIpIntfStatusFilter(const KivIpIntfStatusFilter& filter);
  void kiv_handleArpIntfStatus(KivArpIntfStatus& reactor);

  mutable Account account_;
  std::unique_ptr<FastState> fast_;
  bool hasNotificationActive_ = true;
  bool inputsStored_ = false;
  bool hasEnded_ = false;
};

/// Makes a state machine that no root owns.
KIV_EXPORT RouteSm::Ptr routeSmFactory(
    const Kiv::ActivityConfig::Ptr& activityConfig, const Tovan::Fib::RouteStatus::Ptr& routeStatus,
    const Tovan::Fib::ForwardingStatus::Ptr& fwdStatus, const Status::PtrConst& hostStatus,
    const RovelReady::VrfStatus::Ptr& ribReadyStatus, const Routing::SeqConfig::Ptr& seqConfig,
    const Rovel::SeqInfo::Ptr& ipv4SeqInfo, const Rovel::AdjacencyHelper::Ptr& adjHelper,
    const Ip::Status::PtrConst& ipStatus, const Arp::NeighborDir::PtrConst& neighborDirByIntfName,
    const RouteSmRoot::Ptr& root, const Fhrp::VirtualIpStatus::PtrConst& virtualIpStatus,
    const L3::VrfName& vrfName);

}  // namespace Routing::Host
