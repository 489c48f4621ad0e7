#include "platform/kiv/containers/String.h"

#include <cstring>
#include <limits>
#include <new>

#include "platform/kiv/containers/Exception.h"

namespace Kiv {

StringN::StringN(std::string_view text) {
  if (text.empty()) return;
  KIV_REQUIRE(text.size() <= std::numeric_limits<uint32_t>::max(), "String::bytes too long");
  void* memory = ::operator new(sizeof(Bytes) + text.size());
  bytes_ = new (memory) Bytes{.references = 1,
                              .hash = hashBytes(text.data(), text.size()),
                              .size = static_cast<uint32_t>(text.size())};
  std::memcpy(static_cast<void*>(bytes_ + 1), text.data(), text.size());
}

void StringN::release() noexcept {
  if (bytes_->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  bytes_->~Bytes();
  ::operator delete(bytes_);
}

}  // namespace Kiv
