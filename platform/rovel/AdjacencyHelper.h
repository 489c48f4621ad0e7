// The keeper of the adjacencies that host routes refer to.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "platform/rovel/HostStatus.h"
#include "platform/tovan/ForwardingStatus.h"
#include "platform/tovan/RouteStatus.h"

namespace Rovel {

/// Hands out one adjacency for each distinct via set, and counts the references on it.
///
/// Host adjacencies are stored in their host-route table. FIB adjacencies are stored in the
/// forwarding status with its FECs, where readers of the route table resolve them.
///
/// Derive from it to keep adjacencies elsewhere.
///
/// \tparam H  the family's host-route table.  \tparam W  its forwarding status.
template <class H, class W>
class BasicAdjacencyHelper : public Kiv::NamedEntity {
 public:
  using HostTable = H;
  using RouteTable = Tovan::BasicRouteStatus<typename H::Route>;
  using ViaSet = typename H::ViaSet;
  using FecId = Tovan::Fib::FecId;
  using Ptr = Kiv::Ptr<BasicAdjacencyHelper>;
  using PtrConst = Kiv::Ptr<const BasicAdjacencyHelper>;

  /// \param fwdStatus  where FIB adjacencies are published; null publishes them nowhere.
  BasicAdjacencyHelper(Kiv::Name name, typename W::Ptr fwdStatus)
      : NamedEntity(std::move(name)),
        fwdStatus_(std::move(fwdStatus)),
        space_(FecId{fwdStatus_ ? fwdStatus_->newAdjacencySpace() : 1} << 32) {}

  /// The table's adjacency for `vias`, with one more reference.
  virtual FecId doGetOrCreateHostAdjacency(const ViaSet& vias,
                                           const typename HostTable::Ptr& table) {
    return table->adjacencies().take(vias).first;
  }
  /// Drops one reference on an adjacency of the table.
  virtual void doDropRefOnHostAdjacency(const typename HostTable::Ptr& table, FecId adjIndex) {
    table->adjacencies().drop(adjIndex);
  }

  /// The FIB adjacency for `vias`, with one more reference. \throws Tovan::NoSpaceException.
  virtual FecId doGetOrCreateFibAdjacency(const ViaSet& vias);
  /// The same without a search if the adjacency is `likely`.
  FecId takeFibAdjacency(const ViaSet& vias, FecId likely) {
    likely_ = likely;
    return doGetOrCreateFibAdjacency(vias);
  }
  /// True when the FEC is the adjacency for `vias` that this helper handed out, and its published
  /// record can be read.
  bool isFibAdjacency(FecId fecId, const ViaSet& vias) const {
    const uint32_t index = indexOf(fecId);
    return fibAdjacencies_.has(index, vias) && isPublished(index);
  }
  /// Drops one reference on a FIB adjacency. A FEC that this helper did not hand out is left alone.
  virtual void doDropRefOnFibAdjacency(FecId fecId);

  /// Repairs the reference counts and the published FIB adjacencies. The counts are compared with
  /// the routes that hold references: a damaged host route has lost its own. Not to be called while
  /// host routes are being written.
  ///
  /// \param routeTables  all route tables that have FIB adjacencies of this helper.
  /// \param hostTables   host-route tables to compare, too; each has adjacencies of its own.
  /// \returns how many adjacencies were mended.
  /// \throws Tovan::CorruptionDetectedException when a route table cannot be walked, or
  ///         Tovan::NoSpaceException; adjacencies that were mended before stay so.
  virtual size_t validate(std::span<const typename RouteTable::PtrConst> routeTables,
                          std::span<const typename HostTable::Ptr> hostTables = {});

  /// Prefetches the memory that a new FIB adjacency of `vias` needs.
  void prefetchNew(const ViaSet& vias) const {
    fibAdjacencies_.prefetch(vias);
    if (fwdStatus_) fwdStatus_->prefetch(space_ | fibAdjacencies_.next(), true);
  }
  /// Prefetches for the removal of the last user of the FIB adjacency of `vias`.
  void prefetchLast(const ViaSet& vias) const { fibAdjacencies_.prefetch(vias); }
  /// Prefetches for a FIB adjacency that is taken again or dropped.
  void prefetch(FecId fecId) const {
    fibAdjacencies_.prefetch(uint64_t{indexOf(fecId)});
    if (fwdStatus_) fwdStatus_->prefetch(fecId);
  }

  /// The FIB adjacencies handed out.
  const AdjacencyTable<ViaSet>& fibAdjacencies() const noexcept { return fibAdjacencies_; }

 private:
  /// The index of an adjacency that this helper handed out; 0 for any other FEC.
  uint32_t indexOf(FecId fecId) const {
    const auto index = static_cast<uint32_t>(fecId);
    return fecId == (space_ | index) ? index : 0;
  }

  using Uses = std::vector<uint32_t>;  // how many routes hold each adjacency, by its index

  typename W::Fec fecOf(uint32_t index) const {
    typename W::Fec fec(space_ | index);
    for (const auto& member : fibAdjacencies_.viaSet(index)) fec.newVia(member.via);
    return fec;
  }
  bool isPublished(uint32_t index) const {
    return !fwdStatus_ || fwdStatus_->adjacencyIsSound(space_ | index);
  }
  /// Publishes a FIB adjacency anew if its record is damaged. Returns whether it was.
  bool mendPublished(uint32_t index) {
    if (isPublished(index)) return false;
    fwdStatus_->adjacencyReplace(fecOf(index));
    return true;
  }
  static void count(Uses& uses, uint64_t index) {
    if (index < uses.size()) ++uses[index];
  }
  static size_t validateHosts(HostTable& table);

  typename W::Ptr fwdStatus_;
  FecId likely_ = Tovan::Fib::invalidFecId;  // a hint
  FecId space_;  // the upper half of the ids of this helper's FIB adjacencies
  AdjacencyTable<ViaSet> fibAdjacencies_;
};

template <class H, class W>
Tovan::Fib::FecId BasicAdjacencyHelper<H, W>::doGetOrCreateFibAdjacency(const ViaSet& vias) {
  if (isFibAdjacency(likely_, vias)) {
    fibAdjacencies_.share(indexOf(likely_));
    return likely_;
  }
  const auto [index, isNew] = fibAdjacencies_.take(vias);
  try {
    if (!isNew) {
      mendPublished(index);
    } else if (fwdStatus_) {
      fwdStatus_->adjacencyIs(fecOf(index));
    }
  } catch (...) {
    fibAdjacencies_.drop(index);
    throw;
  }
  return space_ | index;
}

template <class H, class W>
void BasicAdjacencyHelper<H, W>::doDropRefOnFibAdjacency(FecId fecId) {
  const uint32_t index = indexOf(fecId);
  // A number is free again only when nothing is left under it.
  if (fibAdjacencies_.users(index) == 1 && fwdStatus_) fwdStatus_->adjacencyDel(fecId);
  fibAdjacencies_.drop(index);
}

template <class H, class W>
size_t BasicAdjacencyHelper<H, W>::validate(
    std::span<const typename RouteTable::PtrConst> routeTables,
    std::span<const typename HostTable::Ptr> hostTables) {
  Uses uses(size_t{fibAdjacencies_.last()} + 1);
  for (const auto& table : routeTables) {
    if (!table) continue;
    table->map().forEachSound(
        [&](const auto& item) { count(uses, indexOf(item.value.withKey(item.key).fecId)); },
        [&](const std::string& damage) { table->corruptionDetected(damage); });
  }
  size_t mended = 0;
  for (uint32_t index = 1; index < uses.size(); ++index) {
    const uint32_t users = fibAdjacencies_.users(index);
    if (users == 0) continue;
    if (uses[index] == 0 && fwdStatus_) fwdStatus_->adjacencyDel(space_ | index);
    const bool isPublishedAnew = uses[index] != 0 && mendPublished(index);
    if (users != uses[index]) fibAdjacencies_.usersAre(index, uses[index]);
    mended += isPublishedAnew || users != uses[index];
  }
  for (const auto& table : hostTables) {
    if (table) mended += validateHosts(*table);
  }
  return mended;
}

template <class H, class W>
size_t BasicAdjacencyHelper<H, W>::validateHosts(HostTable& table) {
  auto& adjacencies = table.adjacencies();
  Uses uses(size_t{adjacencies.last()} + 1);
  table.forEachRoute([&](const auto& route) { count(uses, route.fecId); });
  size_t mended = 0;
  for (uint32_t index = 1; index < uses.size(); ++index) {
    const uint32_t users = adjacencies.users(index);
    if (users == 0 || users == uses[index]) continue;
    adjacencies.usersAre(index, uses[index]);
    ++mended;
  }
  return mended;
}

using AdjacencyHelper = BasicAdjacencyHelper<Routing::Host::Status, Tovan::Fib::ForwardingStatus>;
using Adjacency6Helper =
    BasicAdjacencyHelper<Routing6::Host::Status, Tovan::Fib6::ForwardingStatus>;

// Compiled once, in AdjacencyHelper.cpp.
extern template class AdjacencyTable<ViaSet>;
extern template class AdjacencyTable<Via6Set>;
extern template class BasicAdjacencyHelper<Routing::Host::Status, Tovan::Fib::ForwardingStatus>;
extern template class BasicAdjacencyHelper<Routing6::Host::Status, Tovan::Fib6::ForwardingStatus>;

}  // namespace Rovel
