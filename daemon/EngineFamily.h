// The address families as the engine knows them.
#pragma once

#include <type_traits>

#include "daemon/Family.h"

namespace Daemon {

/// The engine's own type of a daemon's family. The engine's templates must be given this one: what
/// they share between the machines of a switch has its type.
template <class F>
using EngineFamily = std::conditional_t<F::kNumber == 4, Routing::Host::Ipv4, Routing6::Host::Ipv6>;

}  // namespace Daemon
