#include "platform/zemit/IntfId.h"

#include <mutex>
#include <unordered_map>

namespace Zemit {
namespace {

/// The ids by name.
struct Registry {
  std::mutex mutex;
  std::unordered_map<Kiv::String8, uint32_t, Kiv::Hash<Kiv::String8>> ids;
};

}  // namespace

constinit std::array<std::atomic<Kiv::String8*>, IntfId::kChunks> IntfId::chunks_{};

IntfId IntfId::of(const Kiv::String8& name) {
  if (name.empty()) return IntfId();
  static Registry& registry = *new Registry;  // never destroyed: destructors may print names
  const std::lock_guard lock(registry.mutex);
  const auto [known, isNew] =
      registry.ids.try_emplace(name, static_cast<uint32_t>(registry.ids.size()) + 1);
  const uint32_t value = known->second;
  if (isNew) {
    const auto [chunk, at] = place(value);
    Kiv::String8* names = chunks_[chunk].load(std::memory_order_relaxed);
    if (names == nullptr) {
      names = new Kiv::String8[kFirstChunkSize << chunk];
      chunks_[chunk].store(names, std::memory_order_release);
    }
    names[at] = name;
  }
  return IntfId(value);
}

}  // namespace Zemit
