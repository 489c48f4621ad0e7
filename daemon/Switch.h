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
#include "platform/l3/IntfStatus.h"
#include "platform/routing/SeqConfig.h"
#include "platform/rovel/Readiness.h"
#include "platform/rovel/SeqInfo.h"

namespace Daemon {

/// The host routing of one VRF and family: its tables, its root and, in the root, its machine.
template <class F>
struct HostRouting {
  // What the machine is lent stands before the root, and so outlives it.
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

/// What all VRFs share of one family.
template <class F>
struct SharedTables {
  typename F::ForwardingStatus::Ptr forwarding;
  typename F::VirtualIpStatus::Ptr virtualIps;
  Kiv::Ptr<typename F::IpStatus> intfs;
};

/// The tables of a switch and the host-route machines of its VRFs, as one process holds them.
///
/// Each operation does what it says to the tables; the machines that watch them react before it
/// returns. Whoever changes a FIB route has to tell the machine, so setRoute() does that too. What
/// removes an entry that is not there does nothing.
///
/// A VRF appears when it is first named, with a machine for each family that is not initialized;
/// the VRF "default" is always there.
class Switch {
 public:
  static constexpr const char* kDefaultVrf = "default";

  struct Options {
    /// Whether to settle after each change of a FIB route or FEC. A wider route may take the host
    /// routes of neighbours away that it does not lead to; settling announces those neighbours
    /// again.
    bool settles = false;
    /// The name under which other processes find the route tables and FECs; empty for none.
    std::string sharedName = {};
  };

  Switch() : Switch(Options()) {}
  /// \throws Kiv::RangeException when the shared name is malformed; Tovan::OpenException when
  ///   another switch has it or the tables cannot be made.
  explicit Switch(Options options);
  Switch(const Switch&) = delete;
  Switch& operator=(const Switch&) = delete;
  /// Removes the tables from shared memory.
  ~Switch() = default;

  /// The VRF of this name, made if there is none.
  /// \throws Kiv::RangeException when the name is over 100 bytes; Tovan::OpenException.
  Vrf& vrf(std::string_view name);
  /// All VRFs by name.
  const std::map<std::string, Vrf, std::less<>>& vrfs() const { return vrfs_; }
  /// What the VRFs share of one family.
  template <class F>
  const SharedTables<F>& shared() const {
    return std::get<SharedTables<F>>(shared_);
  }
  const Arp::NeighborDir& neighborDir() const { return *neighborDir_; }

  /// Puts an interface into a VRF, and gives it a place among the interfaces that do IPv4 and IPv6.
  void setInterface(Zemit::IntfId intf, std::string_view vrf);
  /// Takes the interface out of both places, with its addresses. Its VRF stays what it was.
  void removeInterface(Zemit::IntfId intf);

  /// An interface that was not set has no addresses: nothing is done then.
  void setAddress(Zemit::IntfId intf, const Zemit::IpAddrWithMask& addr, bool secondary,
                  bool present = true);
  void setAddress(Zemit::IntfId intf, const Zemit::Ip6AddrWithMask& addr, bool present = true);

  /// Sets a neighbour in the interface's table, which is made first where there is none.
  template <class Addr>
  void setNeighbor(Zemit::IntfId intf, const Arp::BasicNeighborStatus<Addr>& neighbor,
                   bool present = true);
  /// A prefetch hint: a neighbour will be set soon.
  template <class Addr>
  void expectNeighbor(Zemit::IntfId intf, const Addr& addr) const {
    const auto* table = neighborDir_->tableOf(intf);
    if (table != nullptr) FamilyOf<Addr>::neighborExpect(*table, addr);
  }
  /// Makes an empty table where there is none; or removes the table with its neighbours.
  void setNeighborTable(Zemit::IntfId intf, bool present = true);

  /// \throws Kiv::RangeException when the id is 0 or over 2^32 - 1.
  template <class Addr>
  void setFec(const Tovan::BasicFec<Tovan::BasicVia<Addr>>& fec, bool present = true);
  /// Announces all FECs of a family without a change.
  template <class F>
  void notifyFecs() const {
    shared<F>().forwarding->fecNotify();
  }

  /// Sets a FIB route: a host route among the FIB's host routes, any other in the route table.
  /// Then tells the machine, whether or not that changed anything.
  /// \throws Kiv::RangeException from the machine, when the route's FEC has over 128 vias.
  template <class Prefix, class Type>
  void setRoute(std::string_view vrf, const Tovan::BasicRoute<Prefix, Type>& route,
                bool present = true);

  /// Sets a virtual address of a first-hop redundancy group.
  void setVirtualIp(const Routing::Fhrp::VrfIpWithMaskPair& virtualIp, bool present = true);
  void setVirtualIp(const Routing::Fhrp::VrfIpPair& virtualIp, bool present = true);

  /// Tells a machine that its inputs are complete, or no longer. \throws as setRoute().
  template <class F>
  void setInitialized(std::string_view vrf, bool initialized);
  void setRibReady(std::string_view vrf, bool ready);
  void setStartRibReadyVerification(std::string_view vrf, bool start);

  /// How often tendTables() is to be called while tables are shared.
  static constexpr std::chrono::seconds kTendingInterval{5};
  /// Checks the shared tables, repairs what was changed from outside, and requests refused memory
  /// again. A call checks the next few pages of the tables; it checks all of them with `all`, and
  /// when damage was found since the last call. Returns whether every table got its memory.
  bool tendTables(bool all = false);
  /// Whether readers who open the shared tables by name find them.
  bool tablesAreCurrent() const;
  /// Has the machines do again whatever they may have left undone when a table could not grow or
  /// gave up entries. Before that, what they are made of is to be set again: interfaces, FECs,
  /// routes, neighbours. \throws as setRoute().
  void redo();

  /// Tells the readers of the shared tables whether the inputs that there were at the start are
  /// still being read, so that more routes are to come at once. They are not, unless told so.
  void setLoading(bool loading);

  /// What the machines of a VRF have counted; nothing when there is no such VRF.
  Counters counters(std::string_view vrf) const;

  /// Keeps the last changes of each VRF's host routes, so many of each family; 0, the default,
  /// keeps none. The memory is taken when this is called, or the VRF made. What was kept is
  /// forgotten.
  void historyIs(std::size_t entriesPerVrf);
  /// The changes that are kept of the host routes at or inside a prefix, given as text, newest
  /// last; none when there is no such VRF. \throws Kiv::RangeException when `prefix` is neither a
  /// prefix nor an address.
  std::vector<HistoryEntry> history(std::string_view vrf, std::string_view prefix) const;
  /// Is called with each change of a host route in any VRF from now on, as it is made, whether or
  /// not changes are kept; it must not change the switch. An empty one ends that.
  void historyObserverIs(std::function<void(const HistoryEntry&)> observer);

  /// Traces these levels, a bit for each, of what the machines of one VRF do, beside the levels
  /// that the facilities have for all. The machines of other VRFs go on as fast as before.
  /// \throws Kiv::RangeException when there is no such VRF.
  void traceLevelIs(std::string_view vrf, uint32_t levels);
  /// Restricts what traceLevelIs() lets through to one address, given as text, and what concerns no
  /// address in particular; an empty one ends that.
  /// \throws Kiv::RangeException when there is no such VRF, or it is no address.
  void traceAddressIs(std::string_view vrf, std::string_view address);

  /// Deletes a machine. Its root and all tables stay.
  template <class F>
  void teardown(std::string_view vrf) {
    Vrf& torn = this->vrf(vrf);
    torn.template routing<F>().root->routeSmDel();
    publishState(torn);
  }

 private:
  /// Takes the tables from shared memory when it goes, also where the switch could not be made.
  struct SharedTablesRemover {
    const std::string& sharedName;
    int process = 0;  ///< whose tables they are, once no other switch has the name; no child's

    ~SharedTablesRemover();
  };

  template <class F>
  using NeighborIndex = std::set<std::pair<typename F::Addr, Zemit::IntfId>>;

  Tovan::Access access() const;
  void publishState(const Vrf& vrf) const;
  template <class F>
  void openShared();
  template <class F>
  void openRouting(Vrf& vrf);
  void newMachine(Vrf& vrf, HostRouting<Ipv4>& routing);
  void newMachine(Vrf& vrf, HostRouting<Ipv6>& routing);

  /// Gives the machines of a VRF as much of a history as is asked for.
  void openHistory(const std::string& name, Vrf& vrf, bool forgets);
  Vrf& knownVrf(std::string_view name);

  template <class F>
  void settleInside(const HostRouting<F>& routing, const typename F::Prefix& prefix);
  template <class F>
  void redo(const HostRouting<F>& routing);
  template <class F>
  void settleOn(const std::set<Zemit::IntfId>& intfs);

  const Options options_;
  // Everything down to the VRFs is lent to their machines, and so outlives them.
  Kiv::ActivityConfig::Ptr activity_ = Kiv::make<Kiv::ActivityConfig>();
  Kiv::HashMap<Zemit::IntfId, L3::Intf::Status::Ptr> l3Statuses_;
  Interface::AllIntfStatusDir::Ptr intfStatusDir_;
  Arp::NeighborDir::Ptr neighborDir_;
  std::tuple<SharedTables<Ipv4>, SharedTables<Ipv6>> shared_;
  std::map<std::string, Vrf, std::less<>> vrfs_;
  /// Where each address is a neighbour, in the order of the addresses. Kept while settling is on.
  std::tuple<NeighborIndex<Ipv4>, NeighborIndex<Ipv6>> neighborIndices_;
  Tovan::TendRound tendRound_;
  uint64_t corruptions_ = 0;  // of all tables of the process, when they were tended last
  bool loading_ = false;
  bool isSettling_ = false;  // lent to the machines, which tell by it why a neighbour is announced
  std::size_t historyEntries_ = 0;
  std::function<void(const HistoryEntry&)> historyObserver_;
  // Goes first, while the tables are still open: nobody can have taken the names over.
  SharedTablesRemover sharedTables_{options_.sharedName};
};

}  // namespace Daemon
