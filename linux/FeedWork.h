// The implementation of Feed: its state and its steps.
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <unordered_set>
#include <utility>

#include "linux/Fecs.h"
#include "linux/Feed.h"
#include "platform/kiv/containers/HashMap.h"

namespace Linux {

/// Stores the present inputs of the switch, and the keys that changed.
///
/// A report of the mirror only marks a key. flush() derives the inputs of each marked key from the
/// present mirror and hands out the difference to the former inputs. So a key may be marked twice
/// or without a change.
class Feed::Work final : public Mirror::Observer {
 public:
  Work(Mirror& mirror, FeedOptions options);
  ~Work() override;

  void onLink(LinkIndex index) override;
  void onAddress(LinkIndex link, const Address& addr) override;
  void onNeighbor(LinkIndex link, const Address& addr) override;
  void onRoute(TableId table, const Prefix& prefix) override;

  void flush(const Output& output, const Expect& expect);
  void setComplete() { isComplete_ = true; }
  void setOptions(FeedOptions options);
  void snapshot(const Output& output) const;
  void setWarningSink(std::function<void(const FeedWarning&)> sink, bool tellsPassing);
  std::string vrfOf(LinkIndex link) const;
  LinkIndex linkOf(Zemit::IntfId intf) const;
  NeighborVerdict verdictOn(const Neighbor& neighbor) const;

 private:
  /// The preference of all routes. Each prefix has one route.
  static constexpr Routing::RoutePreference kPreference = 1;

  template <class F>
  struct ToldRoute {
    typename Fecs<F>::Fec* fec = nullptr;  ///< null if no host can be behind the route
    uint32_t metric = 0;
    typename F::RouteType type = {};

    friend bool operator==(const ToldRoute&, const ToldRoute&) = default;
  };
  template <class F>
  using ToldRoutes = Kiv::HashMap<typename F::Prefix, ToldRoute<F>>;

  /// A VRF of the switch. Without its device it stays and has no routes.
  struct Vrf {
    std::string name;
    size_t number = 0;             ///< its position among all
    std::optional<TableId> table;  ///< none without a device
    bool isTold = false;
    bool isInitialized = false;
    std::tuple<ToldRoutes<Daemon::Ipv4>, ToldRoutes<Daemon::Ipv6>> routes;
  };

  struct ToldAddress {
    Address addr;
    uint32_t len = 0;
    bool isSecondary = false;

    friend bool operator==(const ToldAddress&, const ToldAddress&) = default;
  };
  template <class F>
  using ToldNeighbors = Kiv::HashMap<typename F::Addr, Zemit::EthAddr>;

  /// The wanted state of an interface in the switch.
  struct Role {
    Zemit::IntfId intf;
    Vrf* vrf = nullptr;       ///< null without layer 3
    bool isSelected = false;  ///< its neighbours count
    bool resolves = false;    ///< it gets a neighbour table before its first neighbour
  };

  /// An interface of the kernel.
  struct Port {
    Role role;
    std::vector<ToldAddress> vrrpAddresses;
    // The present inputs of the switch. It has no such interface if `vrf` is null.
    Zemit::IntfId intf;
    Vrf* vrf = nullptr;
    bool hasTable = false;
    std::vector<ToldAddress> addresses;
    std::tuple<ToldNeighbors<Daemon::Ipv4>, ToldNeighbors<Daemon::Ipv6>> neighbors;

    bool isToldAs(const Role& wanted) const { return intf == wanted.intf && vrf == wanted.vrf; }
  };

  static Daemon::Operation operationOf(Zemit::IntfId intf, const ToldAddress& address,
                                       bool present);

  struct MarkedNeighbor {
    LinkIndex link = 0;
    Address addr;
    Zemit::EthAddr mac;  ///< derived by the first step that handles it
    bool isFed = false;  ///< whether it is certain that the neighbour is fed
  };
  using TextMaker = std::function<std::string()>;
  using RouteKey = std::pair<Vrf*, Prefix>;
  /// A virtual address: its VRF, itself and the length of its subnet.
  using VirtualKey = std::tuple<std::string, Address, uint32_t>;

  // The steps of flush(), in their order. Removals are fed in the reverse order of additions, so
  // that the routes of a removed neighbour still exist.
  void findVrfs();
  void findRoles();
  void findAddresses();
  void withdrawNeighbors(const Output& output);
  void withdrawVirtualAddresses(const std::set<VirtualKey>& wanted, const Output& output);
  void withdrawInterfaces(const Output& output);
  void tellInterfaces(const Output& output);
  void tellRoutes(const Output& output);
  void gatherSharedAddresses();
  void tellNeighbors(const Output& output, const Expect& expect);
  void tellVirtualAddresses(const std::set<VirtualKey>& wanted, const Output& output);
  void tellReadiness(const Output& output);

  Port* port(LinkIndex link);
  Role roleOf(const Link& link);
  static NeighborVerdict verdictOn(const Neighbor& neighbor, const Role& role);
  Vrf* vrfNamed(const std::string& name);
  void markNeighborsOf(LinkIndex link, const Port& port);
  void findRouteKeys();
  std::vector<ToldAddress> addressesOf(const Link& link, Port& port);
  template <class F>
  std::optional<Zemit::EthAddr> wantedMac(const Port& port, LinkIndex link,
                                          const typename F::Addr& addr);
  std::set<VirtualKey> wantedVirtualAddresses() const;

  // Routes: FeedRoutes.cpp.
  template <class F>
  struct WantedRoute {
    std::vector<typename F::Via> vias;
    uint32_t metric = 0;
    typename F::RouteType type = {};
  };
  template <class F>
  std::optional<WantedRoute<F>> wantedRoute(const Vrf& vrf, const typename F::Prefix& prefix);
  template <class F>
  std::optional<WantedRoute<F>> coverRoute(const Vrf& vrf, const typename F::Prefix& prefix);
  template <class F>
  std::optional<WantedRoute<F>> useOf(const Route& route);
  template <class F>
  std::vector<typename F::Via> viasOf(const Route& route, const std::vector<NextHop>& hops);
  bool isSilentlyIgnored(const Route& route) const;
  std::string objectionTo(const Route& route) const;
  std::string objectionTo(const NextHop& hop, bool& passes);
  std::string missingNexthop(uint32_t id, int depth) const;
  void warnOfLocalRoutes(const Prefix& prefix);
  template <class F>
  bool prepareRoute(Vrf& vrf, const typename F::Prefix& prefix, const Output& output);
  template <class F>
  void tellRoute(const Vrf& vrf, const typename F::Prefix& prefix, const Output& output) const;
  void tellRoutesOf(const std::vector<RouteKey>& keys, const Output& output) const;
  void tellAllRoutes(const Output& output) const;

  /// Reports a warning unless it was reported before. \param passes  whether it passes by itself.
  void warn(FeedWarning warning, bool passes, const TextMaker& text);

  Mirror& mirror_;
  FeedOptions options_;
  std::function<void(const FeedWarning&)> sink_;
  bool tellsPassing_ = false;
  std::unordered_set<size_t> warned_;  // hashes of the texts

  // The present inputs of the switch.
  std::deque<Vrf> vrfs_;  // in the order of their appearance; never shrinks
  std::map<std::string, Vrf*, std::less<>> vrfByName_;
  std::map<LinkIndex, Port> ports_;
  std::map<Zemit::IntfId, LinkIndex> links_;
  std::set<VirtualKey> virtualAddresses_;
  FecIds fecIds_;
  std::tuple<Fecs<Daemon::Ipv4>, Fecs<Daemon::Ipv6>> fecs_{fecIds_, fecIds_};

  // The marked keys.
  bool isComplete_ = false;
  bool everything_ = true;  // then no single keys are marked
  std::set<LinkIndex> markedLinks_;
  std::set<LinkIndex> markedAddresses_;
  std::vector<std::pair<TableId, Prefix>> markedRoutes_;
  std::vector<MarkedNeighbor> markedNeighbors_;

  // Within a flush.
  std::map<LinkIndex, std::vector<ToldAddress>> wantedAddresses_;
  std::set<LinkIndex> renamedLinks_;  // their routes are marked
  std::set<Vrf*> changedVrfs_;        // all of their routes are marked
  std::vector<RouteKey> routeKeys_;

  std::set<LinkIndex> awaitedLinks_;  // interfaces of next hops that have no layer 3 yet
  std::map<LinkIndex, Vrf*> vrfByDevice_;
  std::multimap<TableId, Vrf*> vrfsByTable_;
  LinkIndex lastLink_ = 0;  // the last result of port()
  Port* lastPort_ = nullptr;
};

}  // namespace Linux
