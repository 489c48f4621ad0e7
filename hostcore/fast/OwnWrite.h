// The writes of a machine to its own route table.
#pragma once

#include <optional>
#include <utility>

#include "hostcore/Family.h"
#include "hostcore/fast/Prefetch.h"
#include "hostcore/fast/Relevance.h"

namespace HostCore {

/// The scope in which the machine itself writes the host route of one address to the route table.
template <Family F>
class WriteScope {
 public:
  using Prefix = typename F::Prefix;
  using Route = typename F::Route;

  /// \param replaced  the route table's record of the address.
  /// \param isMerge   whether the write leaves the record that a merge would write.
  WriteScope(typename F::RouteSm& sm, const typename F::Addr& addr, const Route& replaced,
             bool isMerge = true)
      : state_(sm.fast()), former_(std::exchange(state_.ownWrite, hostPrefix<F>(addr))) {
    if (isMerge) Relevance<F>(sm).merged(addr);
    Prefetch<F>(sm).replacedAdjacency(replaced.fecId);
  }
  WriteScope(const WriteScope&) = delete;
  WriteScope& operator=(const WriteScope&) = delete;
  ~WriteScope() { state_.ownWrite = former_; }

 private:
  typename F::RouteSm::FastState& state_;
  std::optional<Prefix> former_;
};

}  // namespace HostCore
