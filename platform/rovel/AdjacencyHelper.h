// The keeper of the adjacencies that host routes refer to.
#pragma once

#include "platform/routing/HostStatus.h"
#include "platform/tovan/ForwardingStatus.h"

namespace Rovel {

/// Hands out one adjacency for each distinct via set, and counts the references on it.
///
/// Host adjacencies live in the host-route table they are for, FIB adjacencies in the forwarding
/// status, beside its own FECs, where readers of the route table resolve them.
///
/// Derive from it to keep adjacencies elsewhere.
///
/// \tparam H  the family's host-route table.  \tparam W  its forwarding status.
template <class H, class W>
class BasicAdjacencyHelper : public Kiv::NamedEntity {
 public:
  using HostTable = H;
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
  /// The same, where `likely` may be the one: then it is not searched for.
  FecId takeFibAdjacency(const ViaSet& vias, FecId likely) {
    likely_ = likely;
    return doGetOrCreateFibAdjacency(vias);
  }
  /// True when the FEC is the adjacency for `vias` that this helper handed out.
  bool isFibAdjacency(FecId fecId, const ViaSet& vias) const {
    const uint32_t index = indexOf(fecId);
    return fibAdjacencies_.users(index) != 0 && fibAdjacencies_.viaSet(index) == vias;
  }
  /// Drops one reference on a FIB adjacency. A FEC that this helper did not hand out is left alone.
  virtual void doDropRefOnFibAdjacency(FecId fecId);

  /// Begins to fetch what is read when a new FIB adjacency of `vias` is made.
  void prefetchNew(const ViaSet& vias) const {
    fibAdjacencies_.prefetch(vias);
    if (fwdStatus_) fwdStatus_->prefetch(space_ | fibAdjacencies_.next());
  }
  /// The same for when the last user of the one of `vias` goes.
  void prefetchLast(const ViaSet& vias) const { fibAdjacencies_.prefetch(vias); }
  /// The same for when a FIB adjacency is taken again or dropped.
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

  typename W::Ptr fwdStatus_;
  FecId likely_ = Tovan::Fib::invalidFecId;  // a hint
  FecId space_;  // what the ids of this helper's FIB adjacencies have above the index
  AdjacencyTable<ViaSet> fibAdjacencies_;
};

template <class H, class W>
Tovan::Fib::FecId BasicAdjacencyHelper<H, W>::doGetOrCreateFibAdjacency(const ViaSet& vias) {
  if (isFibAdjacency(likely_, vias)) {
    fibAdjacencies_.share(indexOf(likely_));
    return likely_;
  }
  const auto [index, isNew] = fibAdjacencies_.take(vias);
  const FecId fecId = space_ | index;
  if (isNew && fwdStatus_) {
    typename W::Fec fec(fecId);
    for (const auto& member : vias) fec.newVia(member.via);
    try {
      fwdStatus_->adjacencyIs(fec);
    } catch (...) {
      fibAdjacencies_.drop(index);
      throw;
    }
  }
  return fecId;
}

template <class H, class W>
void BasicAdjacencyHelper<H, W>::doDropRefOnFibAdjacency(FecId fecId) {
  const uint32_t index = indexOf(fecId);
  // A number is free again only when nothing is left under it.
  if (fibAdjacencies_.users(index) == 1 && fwdStatus_) fwdStatus_->adjacencyDel(fecId);
  fibAdjacencies_.drop(index);
}

using AdjacencyHelper = BasicAdjacencyHelper<Routing::Host::Status, Tovan::Fib::ForwardingStatus>;
using Adjacency6Helper =
    BasicAdjacencyHelper<Routing6::Host::Status, Tovan::Fib6::ForwardingStatus>;

}  // namespace Rovel
