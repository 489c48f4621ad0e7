// What the feed remembers and how it compares: the inside of Feed.
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

/// Keeps beside each other what the switch was told and what has to be looked at again.
///
/// The mirror's reports only mark keys. flush() works out, for each marked key, what the switch
/// should be told by the mirror as it is then, and hands out the difference to what it was told; so
/// marking a key twice, or one that did not change, does no harm.
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
  /// Of every route: there is one to each prefix.
  static constexpr Routing::RoutePreference kPreference = 1;

  template <class F>
  struct ToldRoute {
    typename Fecs<F>::Fec* fec = nullptr;  ///< null where no host can be behind the route
    uint32_t metric = 0;
    typename F::RouteType type = {};

    friend bool operator==(const ToldRoute&, const ToldRoute&) = default;
  };
  template <class F>
  using ToldRoutes = Kiv::HashMap<typename F::Prefix, ToldRoute<F>>;

  /// A VRF that the switch has. It stays when its device goes, without routes.
  struct Vrf {
    std::string name;
    size_t number = 0;             ///< its place among all
    std::optional<TableId> table;  ///< none while there is no device
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

  /// What an interface should be to the switch.
  struct Role {
    Zemit::IntfId intf;
    Vrf* vrf = nullptr;       ///< none where it has no layer 3
    bool isSelected = false;  ///< its neighbours count
    bool resolves = false;    ///< it gets a neighbour table before its first neighbour
  };

  /// An interface of the kernel's.
  struct Port {
    Role role;
    std::vector<ToldAddress> vrrpAddresses;
    // What the switch was told; no interface and no VRF where it was not.
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
    Zemit::EthAddr mac;  ///< worked out by the first step that looks at it
    bool isFed = false;  ///< whether it is known already that it counts
  };
  using TextMaker = std::function<std::string()>;
  using RouteKey = std::pair<Vrf*, Prefix>;
  /// A virtual address: its VRF, itself and the length of its subnet.
  using VirtualKey = std::tuple<std::string, Address, uint32_t>;

  // The steps of flush(), in their order. What goes is told in the reverse order of what comes:
  // neighbours while there is still a route over them.
  void findVrfs();
  void findRoles();
  void findAddresses();
  void withdrawNeighbors(const Output& output);
  void withdrawVirtualAddresses(const std::set<VirtualKey>& wanted, const Output& output);
  void withdrawInterfaces(const Output& output);
  void tellInterfaces(const Output& output);
  void tellRoutes(const Output& output);
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

  /// \param passes  whether it passes by itself.
  void warn(FeedWarning::About about, bool passes, const TextMaker& text);

  Mirror& mirror_;
  FeedOptions options_;
  std::function<void(const FeedWarning&)> sink_;
  bool tellsPassing_ = false;
  std::unordered_set<size_t> warned_;  // hashes of the texts

  // What the switch was told.
  std::deque<Vrf> vrfs_;  // in the order in which it was told of them; never shrinks
  std::map<std::string, Vrf*, std::less<>> vrfByName_;
  std::map<LinkIndex, Port> ports_;
  std::map<Zemit::IntfId, LinkIndex> links_;
  std::set<VirtualKey> virtualAddresses_;
  FecIds fecIds_;
  std::tuple<Fecs<Daemon::Ipv4>, Fecs<Daemon::Ipv6>> fecs_{fecIds_, fecIds_};

  // What has to be looked at again.
  bool isComplete_ = false;
  bool everything_ = true;  // then nothing is marked one by one
  std::set<LinkIndex> markedLinks_;
  std::set<LinkIndex> markedAddresses_;
  std::vector<std::pair<TableId, Prefix>> markedRoutes_;
  std::vector<MarkedNeighbor> markedNeighbors_;

  // Within a flush.
  std::map<LinkIndex, std::vector<ToldAddress>> wantedAddresses_;
  std::set<LinkIndex> renamedLinks_;  // routes through them have to be looked at again
  std::set<Vrf*> changedVrfs_;        // as have all routes of these
  std::vector<RouteKey> routeKeys_;

  std::set<LinkIndex> awaitedLinks_;  // of next hops, without a layer 3 as yet
  std::map<LinkIndex, Vrf*> vrfByDevice_;
  std::multimap<TableId, Vrf*> vrfsByTable_;
  LinkIndex lastLink_ = 0;  // the one that port() found last
  Port* lastPort_ = nullptr;
};

}  // namespace Linux
