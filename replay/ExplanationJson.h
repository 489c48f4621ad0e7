// An explanation for programs.
#pragma once

#include <nlohmann/json.hpp>

#include "daemon/Explain.h"

namespace Replay {

/// The explanation as an object, members in the order in which the machine decides. What does not
/// apply is left out.
nlohmann::ordered_json toJson(const Daemon::Explanation& explanation);

}  // namespace Replay
