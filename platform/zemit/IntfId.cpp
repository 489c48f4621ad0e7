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

Registry& registry() {
  static Registry& only = *new Registry;  // never destroyed: other destructors may print names
  return only;
}

}  // namespace

constinit std::array<std::atomic<Kiv::String8*>, IntfId::kChunks> IntfId::chunks_{};

IntfId IntfId::of(const Kiv::String8& name) {
  if (name.empty()) return IntfId();
  auto& [mutex, ids] = registry();
  const std::lock_guard lock(mutex);
  const auto [known, isNew] = ids.try_emplace(name, static_cast<uint32_t>(ids.size()) + 1);
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

std::optional<IntfId> IntfId::find(const Kiv::String8& name) {
  if (name.empty()) return IntfId();
  auto& [mutex, ids] = registry();
  const std::lock_guard lock(mutex);
  const auto known = ids.find(name);
  return known == ids.end() ? std::nullopt : std::optional(IntfId(known->second));
}

}  // namespace Zemit
