// Looking a neighbour's address up in the FIB.
#pragma once

#include <algorithm>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "hostcore/Account.h"
#include "hostcore/Family.h"
#include "hostcore/ManagementPort.h"
#include "hostcore/fast/ShortCuts.h"
#include "platform/kiv/containers/SmallVector.h"
#include "platform/obu/FibLookup.h"

namespace HostCore {

/// `prefixes` in the order in which routes are handled. A neighbour that several prefixes cover is
/// then filed under the longest, independent of the order of the collection.
template <class Prefix>
std::vector<Prefix> shortestFirst(std::vector<Prefix> prefixes) {
  std::sort(prefixes.begin(), prefixes.end(), [](const Prefix& a, const Prefix& b) {
    return std::make_tuple(a.len(), a.addr()) < std::make_tuple(b.len(), b.addr());
  });
  return prefixes;
}

/// The keys of a walk in ascending order. Some results depend on the order in which neighbours are
/// handled, such as the ids of their adjacencies. This order makes them the same in each run.
template <class Iterator>
auto ascending(Iterator walk) {
  Kiv::SmallVector<std::remove_cvref_t<decltype(walk.key())>> keys;
  for (; walk; ++walk) keys.insert(keys.end(), walk.key());
  std::sort(keys.begin(), keys.end());
  return keys;
}

/// The neighbours of a table inside `prefix`, in ascending order.
template <Family F>
std::vector<typename F::Addr> neighborsInside(const Arp::ArpIntfStatus& table,
                                              const typename F::Prefix& prefix) {
  if (isNull(prefix)) return {};
  return F::neighborsBetween(table, prefix.addr(), prefix.addr().subnetLast(prefix.len()));
}

/// The look-ups that say whether a neighbour may have a host route.
template <Family F>
class Lookup {
 public:
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;
  using Route = typename F::Route;

  using Cover = CoverOf<F>;

  explicit Lookup(const typename F::RouteSm& sm) : sm_(sm) {}

  /// The FIB route with exactly this prefix, or a record whose key is the null prefix. Host
  /// prefixes are the host-route status', all others the route table's.
  Route doFibLookup(const Prefix& prefix) const;

  /// The longest FIB prefix that covers `ip`, if its FEC leaves through the table's interface; else
  /// none.
  ///
  /// If the longest prefix leaves through another interface, a shorter one that leaves through this
  /// one does not count.
  Cover checkIpAddressAgainstFib(const Addr& ip, const Arp::ArpIntfStatus::PtrConst& table) const;

  /// Finds that prefix, and returns the reason if there is none. `cover` gets the part of the
  /// covering route that was found.
  Lack findCover(const Addr& ip, const Arp::ArpIntfStatus* table, Cover& cover) const;
  /// The same for an address that is no neighbour: finds a route that covers it.
  Lack findCover(const Addr& ip, Cover& cover) const;

 private:
  /// The input that the machine lacks, of those that every look-up needs.
  Lack findInputs() const {
    if (sm_.routeStatusRaw() == nullptr) return Lack::RouteStatus;
    return sm_.hostStatusRaw() == nullptr ? Lack::HostStatus : Lack::None;
  }
  /// Reads the route of the prefix that covers an address, with its FEC.
  Lack readCover(const Prefix& longest, Cover& cover) const;
  const auto& trie() const { return Kiv::validPtr(Kiv::validPtr(sm_.rootRaw()).trieRaw()); }

  const typename F::RouteSm& sm_;
};

template <Family F>
typename F::Route Lookup<F>::doFibLookup(const Prefix& prefix) const {
  if (prefix.len() == Addr::kBits) {
    const auto* hostStatus = sm_.hostStatusRaw();
    return hostStatus == nullptr ? Tovan::noRoute<typename F::Route>(prefix)
                                 : hostStatus->route(prefix);
  }
  return Obu::readRoute(sm_.routeStatusRaw(), prefix);
}

template <Family F>
Lack Lookup<F>::readCover(const Prefix& longest, Cover& cover) const {
  cover.route = sm_.doFibLookup(longest);
  if (cover.route.key != longest) {
    cover.route = {.key = longest};
    return Lack::Record;
  }
  if (cover.route.fecId == Tovan::Fib::invalidFecId) return Lack::Fec;
  cover.fec = Obu::readFec(sm_.forwardingStatus(), cover.route.fecId);
  return Lack::None;
}

template <Family F>
Lack Lookup<F>::findCover(const Addr& ip, Cover& cover) const {
  if (const Lack lack = findInputs(); lack != Lack::None) return lack;
  const Prefix longest = trie().longestMatch(hostPrefix<F>(ip));
  return isNull(longest) ? Lack::Cover : readCover(longest, cover);
}

template <Family F>
Lack Lookup<F>::findCover(const Addr& ip, const Arp::ArpIntfStatus* table, Cover& cover) const {
  if (const Lack lack = findInputs(); lack != Lack::None) return lack;
  if (table == nullptr) return Lack::Table;
  const Prefix longest = trie().longestMatch(hostPrefix<F>(ip));
  if (isNull(longest)) return Lack::Cover;
  return cachedCover<F>(sm_, longest, table->intfId(), cover, [&] {
    if (const Lack lack = readCover(longest, cover); lack != Lack::None) return lack;
    return Obu::leavesThrough(cover.fec, table->intfId()) ? Lack::None : Lack::Interface;
  });
}

template <Family F>
auto Lookup<F>::checkIpAddressAgainstFib(const Addr& ip,
                                         const Arp::ArpIntfStatus::PtrConst& table) const -> Cover {
  Cover cover;
  const Lack lack = findCover(ip, table.get(), cover);
  if (lack == Lack::None) return cover;
  ++sm_.account().counts.refused[static_cast<size_t>(lack)];
  const Prefix& longest = cover.route.key;
  switch (lack) {
    case Lack::RouteStatus:
      KIV_TRACE(F::trace(), 0, sm_, "routeStatus is unset");
      break;
    case Lack::HostStatus:
      KIV_TRACE(F::trace(), 0, sm_, "hostStatus is unset");
      break;
    case Lack::Table:
      KIV_TRACE(F::trace(), 0, sm_, "arpIntfStatus is unset");
      break;
    case Lack::Cover:
      KIV_TRACE(F::trace(), 1, sm_, "there is no route with a prefix for " << ip);
      break;
    case Lack::Record:
      KIV_TRACE(F::trace(), 0, sm_,
                "there is no route for "
                    << longest << " which is a prefix that should have an associated route");
      break;
    case Lack::Fec:
      KIV_TRACE(F::trace(), 1, sm_,
                "there is no adjacency associated with the route for " << longest);
      break;
    case Lack::Interface:
      KIV_TRACE(F::trace(), 7, sm_,
                "the matching prefix for "
                    << ip << " did not have a interface route on the interface " << table->name());
      break;
    case Lack::None:
    case Lack::DirectVia:
    case Lack::Skipped:
      break;
  }
  return {};
}

}  // namespace HostCore
