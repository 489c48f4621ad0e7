// An allocation failure at a chosen moment.
#pragma once

#include <cstddef>

namespace Sample {

/// Makes one allocation by `new` fail during its lifetime: the next, or the `count`th from now.
class ShortMemory {
 public:
  explicit ShortMemory(size_t count);
  ShortMemory(const ShortMemory&) = delete;
  ShortMemory& operator=(const ShortMemory&) = delete;
  ~ShortMemory();
  /// True when the failing allocation was attempted.
  bool hasRunOut() const;
};

}  // namespace Sample
