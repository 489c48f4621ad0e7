// Memory that runs out at a chosen moment.
#pragma once

#include <cstddef>

namespace Sample {

/// While one stands, one allocation by `new` fails: the next, or the `count`th from now.
class ShortMemory {
 public:
  explicit ShortMemory(size_t count);
  ShortMemory(const ShortMemory&) = delete;
  ShortMemory& operator=(const ShortMemory&) = delete;
  ~ShortMemory();
  /// Whether the allocation that fails has been made.
  bool hasRunOut() const;
};

}  // namespace Sample
