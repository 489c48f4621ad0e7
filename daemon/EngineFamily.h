// The address families as the engine knows them.
#pragma once

#include <type_traits>

#include "daemon/Family.h"

namespace Daemon {

/// The engine's own type of a daemon's family. Instantiate the engine's templates with this type,
/// because the machines of a switch share objects whose types depend on it.
template <class F>
using EngineFamily = std::conditional_t<F::kNumber == 4, Routing::Host::Ipv4, Routing6::Host::Ipv6>;

}  // namespace Daemon
