// What a state machine remembers to tell which neighbours are its affair.
#pragma once

#include <cstdint>

#include "hostcore/Road.h"
#include "platform/kiv/HashMap.h"
#include "platform/kiv/SmallVector.h"
#include "platform/tovan/FibTypes.h"
#include "platform/zemit/IntfId.h"

namespace HostCore {

/// The part of a machine that HostCore::Listening keeps.
template <class R, class Fec>
struct Interest {
  using Road = HostCore::Road<R, Fec>;
  using Addr = typename Road::Addr;

  /// A FEC of tracked routes.
  struct FecUse {
    uint32_t routes = 0;                    ///< how many resolve through it
    Kiv::SmallVector<Zemit::IntfId> intfs;  ///< of its vias
  };

  Kiv::HashMap<Tovan::Fib::FecId, FecUse> fecs;
  /// The interfaces through which tracked routes leave, each with the number of such vias.
  Kiv::HashMap<Zemit::IntfId, uint32_t> intfs;
  /// The addresses whose next merge may change something, whatever occasions it.
  Kiv::HashMap<Addr, Kiv::Present> due;
  /// Of the neighbour table whose neighbour is being handled; else null.
  Road* road = nullptr;
  /// Counts what may have changed the cover of an address.
  uint64_t coverChanges = 1;
  /// How many handlers are running, one within the other.
  uint32_t handlers = 0;
  /// Counts how often the host route of a neighbour was written or withdrawn.
  uint64_t hostRouteChanges = 0;
  /// The routes that were there have been handled once.
  bool hasBegun = false;
  /// Something has passed the machine by: its remaining memory of it proves nothing.
  bool isBlind = false;
};

}  // namespace HostCore
