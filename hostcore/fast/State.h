// The state of a machine's short cuts. It decides nothing about a table.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "platform/kiv/containers/HashMap.h"
#include "platform/kiv/containers/Ptr.h"
#include "platform/kiv/containers/SmallVector.h"
#include "platform/kiv/runtime/Entity.h"
#include "platform/kiv/runtime/Watch.h"
#include "platform/tovan/FibTypes.h"
#include "platform/zemit/IntfId.h"

namespace HostCore {

template <class R, class Fec>
class CoverCache;
class MachineIndexBase;

template <class R, class Fec>
struct FastState {
  using Prefix = decltype(R::key);
  using Addr = typename Prefix::Addr;

  /// A FEC of tracked routes.
  struct FecUse {
    uint32_t routes = 0;                    ///< the number of routes that resolve through it
    Kiv::SmallVector<Zemit::IntfId> intfs;  ///< of its vias
  };

  /// \name Trust, see Trust.h
  /// @{
  bool isTrusted = true;
  /// The number of running handlers, one within the other.
  uint32_t handlers = 0;
  /// The route that handleRoute() is about to get was read from its table.
  bool routeIsRead = false;
  /// The set of merges that wait for the machine to be initialized, when one was last added, and
  /// how many there were then. Null when none waits.
  Kiv::Ptr<const Kiv::Entity> deferredIn;
  size_t deferred = 0;

  /// Merges were added to `waiting`, which has `count` now.
  void mergesDeferred(const Kiv::Entity& waiting, size_t count) {
    deferredIn = Kiv::Ptr<const Kiv::Entity>(&waiting);
    deferred = count;
  }
  /// @}

  /// \name The cache, see CoverCache.h
  /// @{
  /// The cache of the table whose neighbour is being handled; else null.
  CoverCache<R, Fec>* cache = nullptr;
  /// Goes up with each change that may concern the cover of an address.
  uint64_t coverVersion = 1;
  /// @}

  /// \name Repeated events, see Repeat.h
  /// @{
  /// The number of times that a step has written or removed a host route in a table of the root.
  uint64_t writes = 0;
  /// The last neighbour whose handler was not within another one, and `writes` when it began.
  Addr neighbor;
  uint64_t neighborBegan = 0;
  /// The mark that was last given to a cover. At its highest value, no cover gets one any more.
  uint32_t lastMark = 0;
  /// @}

  /// \name Relevance, see Relevance.h
  /// @{
  /// The FECs of the tracked routes.
  Kiv::HashMap<Tovan::Fib::FecId, FecUse> fecs;
  /// The interfaces through which tracked routes leave, each with the number of such vias.
  Kiv::HashMap<Zemit::IntfId, uint32_t> intfs;
  /// The addresses whose next merge may change something.
  Kiv::HashMap<Addr, Kiv::Present> due;
  /// The tracked prefixes whose route was written with another FEC and not announced yet.
  Kiv::HashMap<Prefix, Kiv::Present> unannounced;
  /// The host route that the machine itself is writing to the route table.
  std::optional<Prefix> ownWrite;
  Kiv::Watch<Prefix> routeWatch;
  Kiv::Watch<Prefix> hostRouteWatch;
  Kiv::Watch<Tovan::Fib::FecId> fecWatch;
  Kiv::Watch<Addr> virtualIpWatch;
  /// @}

  /// \name Missing reactors, see Reactors.h
  /// @{
  /// Of the switch's machines; null unless this machine is sparse.
  std::shared_ptr<MachineIndexBase> index;
  /// The index of the machines over the inputs with which this machine began, sparse or not.
  std::shared_ptr<MachineIndexBase> placing;
  /// When the machine began; see Kiv::Notifiee::now().
  uint64_t began = 0;
  /// True while each change of a neighbour table may concern the machine.
  bool isAlert = false;
  /// True while the neighbours of all tables are still to be put among the deferred merges.
  bool hasNoted = false;
  std::function<void()> makeAll;
  std::function<void()> addNoted;
  /// The keys under which the index lists the machine.
  Kiv::HashMap<Tovan::Fib::FecId, Kiv::Present> listedFecs;
  Kiv::HashMap<Zemit::IntfId, Kiv::Present> listedTables;
  Kiv::HashMap<Zemit::IntfId, Kiv::Present> listedFilters;
  /// @}
};

}  // namespace HostCore
