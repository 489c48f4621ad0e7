// What a state machine remembers to tell which neighbours are its affair.
#pragma once

#include <cstdint>
#include <optional>

#include "hostcore/Account.h"
#include "hostcore/Road.h"
#include "platform/kiv/HashMap.h"
#include "platform/kiv/SmallVector.h"
#include "platform/kiv/Watch.h"
#include "platform/tovan/FibTypes.h"
#include "platform/zemit/IntfId.h"

namespace HostCore {

/// The part of a machine that HostCore::Listening keeps.
template <class R, class Fec>
struct Interest {
  using Road = HostCore::Road<R, Fec>;
  using Account = HostCore::Account<R, Fec>;
  using Addr = typename Road::Addr;
  using Prefix = typename Road::Prefix;

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
  /// The tracked prefixes whose route was written with another FEC and has not been announced yet.
  Kiv::HashMap<Prefix, Kiv::Present> unannounced;
  /// What it knows of its inputs at once, whoever changes them.
  Kiv::Watch<Prefix> routes;
  Kiv::Watch<Prefix> hostRoutes;
  Kiv::Watch<Tovan::Fib::FecId> fecChanges;
  Kiv::Watch<Addr> virtualAddrs;
  /// The host route that the machine itself is writing to the route table.
  std::optional<Prefix> ownWrite;
  /// The route that is handed to handleRoute() has just been read from its table.
  bool routeIsRead = false;
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
  /// What it keeps for its people, also where they may only look at the machine.
  mutable Account account;
};

}  // namespace HostCore
