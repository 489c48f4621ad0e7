// A switch: the tables and the state machines of all its VRFs.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "daemon/Counters.h"
#include "daemon/Family.h"
#include "daemon/History.h"
#include "platform/arp/NeighborDir.h"
#include "platform/interface/AllIntfStatusDir.h"
#include "platform/kiv/containers/HashMap.h"
#include "platform/kiv/containers/OrderedHashMap.h"
#include "platform/l3/IntfStatus.h"
#include "platform/routing/SeqConfig.h"
#include "platform/rovel/Readiness.h"
#include "platform/rovel/SeqInfo.h"

namespace Daemon {

/// The host routing of one VRF and family: its tables, its root and, in the root, its machine.
template <class F>
struct HostRouting {
  // The members before the root are used by the machine, so they outlive it.
  typename F::RouteStatus::Ptr routeStatus;
  typename F::HostTable::Ptr hostStatus;  ///< the FIB's host routes
  Rovel::SeqInfo::Ptr seqInfo;
  Kiv::Ptr<typename F::Trie> trie;
  typename F::AdjacencyHelper::Ptr adjHelper;
  typename F::RouteSmRoot::Ptr root;

  /// The state machine; null after its teardown.
  typename F::RouteSm* machine() const { return root->routeSm().get(); }
};

/// One VRF, with the host routing of each family.
struct Vrf {
  L3::VrfName name;
  RovelReady::VrfStatus::Ptr readiness;
  Routing::SeqConfig::Ptr seqConfig;
  std::tuple<HostRouting<Ipv4>, HostRouting<Ipv6>> routings;

  template <class F>
  HostRouting<F>& routing() {
    return std::get<HostRouting<F>>(routings);
  }
  template <class F>
  const HostRouting<F>& routing() const {
    return std::get<HostRouting<F>>(routings);
  }
};

/// The tables of one family that all VRFs share.
template <class F>
struct SharedTables {
  typename F::ForwardingStatus::Ptr forwarding;
  typename F::VirtualIpStatus::Ptr virtualIps;
  Kiv::Ptr<typename F::IpStatus> intfs;
};

/// The tables of a switch and the host-route machines of its VRFs.
///
/// An operation changes the tables. The machines, which watch the tables, react before the
/// operation returns. A machine is not notified of a changed FIB route by its table, so setRoute()
/// notifies it as well. Removing an entry that does not exist has no effect.
///
/// A VRF is created when it is first named, with one machine for each family. A new machine is not
/// initialized. The VRF "default" always exists.
class Switch {
 public:
  static constexpr const char* kDefaultVrf = "default";

  struct Options {
    /// Whether to settle after each change of a FIB route or FEC. A wider route may remove the host
    /// routes of neighbours although it does not lead to them. Settling announces these neighbours
    /// again.
    bool settles = false;
    /// The name under which other processes find the route tables and FECs. Empty: the tables are
    /// not shared.
    std::string sharedName = {};
  };

  Switch() : Switch(Options()) {}
  /// \throws Kiv::RangeException when the shared name is malformed; Tovan::OpenException when
  ///   another switch uses the name or the tables cannot be created.
  explicit Switch(Options options);
  Switch(const Switch&) = delete;
  Switch& operator=(const Switch&) = delete;
  /// Removes the tables from shared memory.
  ~Switch() = default;

  /// The VRF of this name. Creates it if it does not exist.
  /// \throws Kiv::RangeException when the name is over 100 bytes; Tovan::OpenException.
  Vrf& vrf(std::string_view name);
  /// All VRFs by name.
  const std::map<std::string, Vrf, std::less<>>& vrfs() const { return vrfs_; }
  /// The tables of one family that all VRFs share.
  template <class F>
  const SharedTables<F>& shared() const {
    return std::get<SharedTables<F>>(shared_);
  }
  const Arp::NeighborDir& neighborDir() const { return *neighborDir_; }

  /// Puts an interface into a VRF and adds it to the IPv4 and the IPv6 interfaces.
  void setInterface(Zemit::IntfId intf, std::string_view vrf);
  /// Removes the interface from the IPv4 and the IPv6 interfaces, with its addresses. It keeps its
  /// VRF.
  void removeInterface(Zemit::IntfId intf);

  /// Sets or removes an address. Has no effect on an interface that was not set.
  void setAddress(Zemit::IntfId intf, const Zemit::IpAddrWithMask& addr, bool secondary,
                  bool present = true);
  void setAddress(Zemit::IntfId intf, const Zemit::Ip6AddrWithMask& addr, bool present = true);

  /// Sets or removes a neighbour in the interface's table. Creates the table if it does not exist.
  template <class Addr>
  void setNeighbor(Zemit::IntfId intf, const Arp::BasicNeighborStatus<Addr>& neighbor,
                   bool present = true);
  /// A prefetch hint: a neighbour will be set soon.
  template <class Addr>
  void expectNeighbor(Zemit::IntfId intf, const Addr& addr) const {
    const auto* table = neighborDir_->tableOf(intf);
    if (table != nullptr) FamilyOf<Addr>::neighborExpect(*table, addr);
  }
  /// Creates an interface's neighbour table if it does not exist, or removes it with its
  /// neighbours.
  void setNeighborTable(Zemit::IntfId intf, bool present = true);

  /// \throws Kiv::RangeException when the id is 0 or over 2^32 - 1.
  template <class Addr>
  void setFec(const Tovan::BasicFec<Tovan::BasicVia<Addr>>& fec, bool present = true);
  /// Announces all FECs of a family without a change.
  template <class F>
  void notifyFecs() const {
    shared<F>().forwarding->fecNotify();
  }

  /// Sets or removes a FIB route: a host route in the table of the FIB's host routes, any other in
  /// the route table. Then notifies the machine, also when nothing changed.
  /// \throws Kiv::RangeException from the machine, when the route's FEC has over 128 vias.
  template <class Prefix, class Type>
  void setRoute(std::string_view vrf, const Tovan::BasicRoute<Prefix, Type>& route,
                bool present = true);

  /// Sets a virtual address of a first-hop redundancy group.
  void setVirtualIp(const Routing::Fhrp::VrfIpWithMaskPair& virtualIp, bool present = true);
  void setVirtualIp(const Routing::Fhrp::VrfIpPair& virtualIp, bool present = true);

  /// Tells a machine whether its inputs are complete. \throws as setRoute().
  template <class F>
  void setInitialized(std::string_view vrf, bool initialized);
  void setRibReady(std::string_view vrf, bool ready);
  void setStartRibReadyVerification(std::string_view vrf, bool start);

  /// The shortest time between two calls of tendTables() that is of use while tables are shared.
  static constexpr std::chrono::seconds kTendingInterval{5};
  /// Checks the shared tables for damage and repairs it, and retries to get memory that was
  /// refused. A call checks the next few pages. It checks all pages when `all` is true, and when
  /// damage was found since the last call. Returns true when no table lacks memory.
  bool tendTables(bool all = false);
  /// Whether readers who open the shared tables by name find them.
  bool tablesAreCurrent() const;
  /// Has the machines repeat all work that they may have missed when a table could not grow or lost
  /// entries. Call it after setting all inputs again: interfaces, FECs, routes, neighbours.
  /// \throws as setRoute().
  void redo();

  /// Tells the readers of the shared tables whether the initial inputs are still being read, so
  /// that further routes will follow soon. Initially false.
  void setLoading(bool loading) { publish(loading_, loading); }
  /// Tells them whether entries may be missing, because memory was refused or a table was damaged,
  /// and not all of them are set again. Initially false.
  void setIncomplete(bool incomplete) { publish(incomplete_, incomplete); }

  /// The counters of a VRF's machines; empty when the VRF does not exist.
  Counters counters(std::string_view vrf) const;

  /// Keeps the last changes of host routes: this number for each VRF and family. The default, 0,
  /// keeps none. Memory is allocated here and when a VRF is created. Forgets earlier changes.
  void historyIs(std::size_t entriesPerVrf);
  /// The kept changes of the host routes at or inside a prefix or an address, oldest first; empty
  /// when the VRF does not exist.
  /// \throws Kiv::RangeException when `prefix` is neither a prefix nor an address.
  std::vector<HistoryEntry> history(std::string_view vrf, std::string_view prefix) const;
  /// Sets a function that is called at each change of a host route in any VRF. It is called whether
  /// or not changes are kept, and must not change the switch. An empty function: no observer.
  void historyObserverIs(std::function<void(const HistoryEntry&)> observer);

  /// Enables trace levels, one bit for each, for the machines of one VRF. The levels of the trace
  /// facilities apply in addition. The speed of other VRFs' machines does not change.
  /// \throws Kiv::RangeException when the VRF does not exist.
  void traceLevelIs(std::string_view vrf, uint32_t levels);
  /// Restricts the traces of traceLevelIs() to messages about one address and messages about no
  /// address. An empty text removes the restriction.
  /// \throws Kiv::RangeException when the VRF does not exist or `address` is not an address.
  void traceAddressIs(std::string_view vrf, std::string_view address);

  /// Deletes a machine. Its root and all tables stay.
  template <class F>
  void teardown(std::string_view vrf) {
    Vrf& torn = this->vrf(vrf);
    torn.template routing<F>().root->routeSmDel();
    publishState(torn);
  }

 private:
  /// Removes the tables from shared memory in its destructor, also when the switch's constructor
  /// fails.
  struct SharedTablesRemover {
    const std::string& sharedName;
    /// The process that owns the tables; 0 until the name is known to be free. A child process
    /// removes nothing.
    int process = 0;

    ~SharedTablesRemover();
  };

  /// The identity of a neighbour. The order is that of the addresses.
  template <class F>
  struct NeighborKey {
    typename F::Addr addr;
    Zemit::IntfId intf;

    uint32_t hash() const { return Kiv::hashWord((uint64_t{addr.hash()} << 32) | intf.value()); }
    friend auto operator<=>(const NeighborKey&, const NeighborKey&) = default;
  };
  template <class F>
  using NeighborIndex = Kiv::OrderedHashMap<NeighborKey<F>, Kiv::Present>;

  Tovan::Access access() const;
  void publishState(const Vrf& vrf) const;
  void publish(bool& former, bool now);
  template <class F>
  void openShared();
  template <class F>
  void openRouting(Vrf& vrf);
  void newMachine(Vrf& vrf, HostRouting<Ipv4>& routing);
  void newMachine(Vrf& vrf, HostRouting<Ipv6>& routing);

  /// Opens the history of a VRF's machines with the configured number of entries.
  void openHistory(const std::string& name, Vrf& vrf, bool forgets);
  Vrf& knownVrf(std::string_view name);

  template <class F>
  void settleInside(const HostRouting<F>& routing, const typename F::Prefix& prefix);
  template <class F>
  void redo(const HostRouting<F>& routing);
  template <class F>
  void settleOn(const std::set<Zemit::IntfId>& intfs);

  const Options options_;
  // The machines of the VRFs use the members before `vrfs_`, so these outlive the VRFs.
  Kiv::ActivityConfig::Ptr activity_ = Kiv::make<Kiv::ActivityConfig>();
  Kiv::HashMap<Zemit::IntfId, L3::Intf::Status::Ptr> l3Statuses_;
  Interface::AllIntfStatusDir::Ptr intfStatusDir_;
  Arp::NeighborDir::Ptr neighborDir_;
  std::tuple<SharedTables<Ipv4>, SharedTables<Ipv6>> shared_;
  std::map<std::string, Vrf, std::less<>> vrfs_;
  /// The interfaces on which each address is a neighbour. Kept only when settling is enabled.
  std::tuple<NeighborIndex<Ipv4>, NeighborIndex<Ipv6>> neighborIndices_;
  Tovan::TendRound tendRound_;
  uint64_t corruptions_ = 0;  // of all tables of the process, when they were tended last
  bool loading_ = false;
  bool incomplete_ = false;
  bool isSettling_ = false;  // the machines read it to tell the cause of an announcement
  std::size_t historyEntries_ = 0;
  std::function<void(const HistoryEntry&)> historyObserver_;
  // Destroyed first, while the tables are still open, so that no other process can own the names.
  SharedTablesRemover sharedTables_{options_.sharedName};
};

}  // namespace Daemon
