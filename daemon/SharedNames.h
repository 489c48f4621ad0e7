// What a switch's tables in shared memory are called.
#pragma once

#include <string_view>

namespace Daemon {

/// True when `name` can name the tables of a switch: not empty, no "." and no "/".
bool isSharedName(std::string_view name);

/// Removes the tables that a former owner left under `name`.
/// \throws Tovan::OpenException when an owner lives; everything is left as it was then.
void removeSharedLeftovers(std::string_view name);

}  // namespace Daemon
