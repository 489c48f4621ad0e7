// The seeds of the tests' random scenarios.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

namespace Replay {

/// `count` seeds; only one under a sanitizer. A sanitizer is twenty times slower, and the faults
/// that it finds do not need a rare order of events.
inline auto seeds([[maybe_unused]] uint64_t count) {
#ifdef __SANITIZE_ADDRESS__
  count = 1;
#endif
  return testing::Range<uint64_t>(1, count + 1);
}

}  // namespace Replay
