// The runtime's clock.
#pragma once

#include <functional>

namespace Kiv {

/// The time in seconds, by the system's real-time clock or by the clock that replaced it.
double now();

/// Makes `clock` the source of now(), for tests and replays. An empty function restores the system
/// clock.
void clockIs(std::function<double()> clock);

}  // namespace Kiv
