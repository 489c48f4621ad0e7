// Changes of host routes as JSON.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "daemon/History.h"

namespace Replay {

/// A change as an object. Members that do not apply are left out. The texts of "became" and
/// "because" are for people to read.
nlohmann::ordered_json toJson(const Daemon::HistoryEntry& entry);

}  // namespace Replay
