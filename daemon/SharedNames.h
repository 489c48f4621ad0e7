// What a switch's tables in shared memory are called.
#pragma once

#include <cstddef>
#include <string_view>

namespace Daemon {

/// The names of the tables' files have that of a VRF in them, too.
inline constexpr size_t kMaxSharedNameBytes = 100;

/// True when `name` can name the tables of a switch: not empty, not too long, no "." and no "/".
bool isSharedName(std::string_view name);

/// Removes the tables that a former owner left under `name`.
/// \throws Tovan::OpenException when an owner lives; everything is left as it was then.
void removeSharedLeftovers(std::string_view name);

}  // namespace Daemon
