// The runtime's clock.
#pragma once

#include <functional>

namespace Kiv {

/// The time in seconds: of the system's real-time clock, unless another was put in its place.
double now();

/// Makes `clock` the source of now(), for tests and replays; an empty one restores the system's.
void clockIs(std::function<double()> clock);

}  // namespace Kiv
