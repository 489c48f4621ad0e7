// Prefetching of memory.
#pragma once

namespace Kiv {

/// Loads the cache line of `place` in the background. `place` may be any address, also an invalid
/// one.
inline void prefetch(const void* place) {
  __builtin_prefetch(place);
  // GCC considers a function that only prefetches to have no effect, and drops its calls.
  asm volatile("");
}

}  // namespace Kiv
