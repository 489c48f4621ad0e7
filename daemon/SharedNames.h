// The names of a switch's tables in shared memory.
#pragma once

#include <cstddef>
#include <string_view>

namespace Daemon {

/// The maximum length of a shared name. The file names of the tables also contain the VRF's name.
inline constexpr size_t kMaxSharedNameBytes = 100;

/// True when `name` is a valid shared name: not empty, not too long, without "." and "/".
bool isSharedName(std::string_view name);

/// Removes the tables that a former process left under `name`.
/// \throws Tovan::OpenException when another process owns them; removes nothing then.
void removeSharedLeftovers(std::string_view name);

}  // namespace Daemon
