// Explanations as JSON.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "daemon/Explain.h"

namespace Replay {

/// The explanation as an object. The members are in the order in which the machine decides. Members
/// that do not apply are left out.
nlohmann::ordered_json toJson(const Daemon::Explanation& explanation);

}  // namespace Replay
