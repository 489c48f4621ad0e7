// How many random scenarios the tests go through.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

namespace Replay {

/// The seeds of the scenarios: `count` of them. Under a sanitizer, which takes twenty times as
/// long, one: the faults that it finds do not hang on a rare order of events.
inline auto seeds([[maybe_unused]] uint64_t count) {
#ifdef __SANITIZE_ADDRESS__
  count = 1;
#endif
  return testing::Range<uint64_t>(1, count + 1);
}

}  // namespace Replay
