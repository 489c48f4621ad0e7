// Changes of host routes for programs.
#pragma once

#include <nlohmann/json.hpp>

#include "daemon/History.h"

namespace Replay {

/// A change as an object. What does not apply is left out; "became" and "because" are for people.
nlohmann::ordered_json toJson(const Daemon::HistoryEntry& entry);

}  // namespace Replay
