// Fetching memory ahead.
#pragma once

namespace Kiv {

/// Begins to fetch the cache line of `place`, which may be any address. Reads nothing.
inline void prefetch(const void* place) {
  __builtin_prefetch(place);
  // GCC takes a function that does nothing but fetch for one without effect, and drops its calls.
  asm volatile("");
}

}  // namespace Kiv
