// The text of next hops.
#pragma once

#include "daemon/HopText.h"

namespace Replay {

using Daemon::hopText;
using Daemon::kIpv6NextHopText;

}  // namespace Replay
