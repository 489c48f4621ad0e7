// The names of a machine's inputs, in the order of its constructor.
#pragma once

#include <array>

#include "platform/kiv/reflection/TypeTable.h"

namespace Routing::Host {

inline constexpr std::array<Kiv::ArgumentName, 13> kMachineInputs{
    "kivFwkActivity", "routeStatus",     "fwdStatus", "hostStatus", "ribReadyStatus",
    "seqConfig",      "ipv4SeqInfo",     "adjHelper", "ipStatus",   "neighborDirByIntfName",
    "root",           "virtualIpStatus", "vrfName"};

}  // namespace Routing::Host

namespace Routing6::Host {

inline constexpr std::array<Kiv::ArgumentName, 13> kMachineInputs{
    "kivFwkActivity",   "routeStatus", "fwdStatus", "hostStatus", "ribReadyStatus",
    "seqConfig",        "ipv6SeqInfo", "adjHelper", "ipStatus",   "neighborDirByIntfName",
    "virtualIp6Status", "root",        "vrfName"};

}  // namespace Routing6::Host
