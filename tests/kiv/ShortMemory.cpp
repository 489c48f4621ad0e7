#include "tests/kiv/ShortMemory.h"

#include <cstdlib>
#include <new>

namespace {

size_t allocationsLeft = 0;  // 0: no allocation fails

}  // namespace

namespace Sample {

ShortMemory::ShortMemory(size_t count) {
  allocationsLeft = count;
}
ShortMemory::~ShortMemory() {
  allocationsLeft = 0;
}
bool ShortMemory::hasRunOut() const {
  return allocationsLeft == 0;
}

}  // namespace Sample

void* operator new(size_t bytes) {
  const bool isLast = allocationsLeft == 1;
  if (allocationsLeft != 0) --allocationsLeft;
  void* memory = isLast ? nullptr : std::malloc(bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
// Defined because AddressSanitizer's version returns memory that only its own delete may free.
void* operator new(size_t bytes, const std::nothrow_t&) noexcept try {
  return ::operator new(bytes);
} catch (const std::bad_alloc&) {
  return nullptr;
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}
