#include "platform/zemit/IntfId.h"

#include <mutex>

#include "platform/kiv/containers/NumberIndex.h"

namespace Zemit {
namespace {

/// The ids by name. The names themselves stand in the chunks alone.
struct Registry {
  std::mutex mutex;
  Kiv::NumberIndex ids;
  uint32_t last = 0;
};

Registry& registry() {
  static Registry& only = *new Registry;  // never destroyed: other destructors may print names
  return only;
}

}  // namespace

constinit std::array<std::atomic<Kiv::String8*>, IntfId::kChunks> IntfId::chunks_{};

IntfId IntfId::of(const Kiv::String8& name) {
  if (name.empty()) return IntfId();
  auto& [mutex, ids, last] = registry();
  const std::lock_guard lock(mutex);
  const auto isSought = [&](uint32_t value) { return IntfId(value).name() == name; };
  if (const uint32_t* known = ids.find(name.hash(), isSought)) return IntfId(*known);
  const auto [chunk, at] = place(last + 1);
  Kiv::String8* names = chunks_[chunk].load(std::memory_order_relaxed);
  if (names == nullptr) {
    names = new Kiv::String8[kFirstChunkSize << chunk];
    chunks_[chunk].store(names, std::memory_order_release);
  }
  names[at] = name;
  ids.add(name.hash(), last + 1);
  return IntfId(++last);
}

std::optional<IntfId> IntfId::find(const Kiv::String8& name) {
  if (name.empty()) return IntfId();
  auto& [mutex, ids, last] = registry();
  const std::lock_guard lock(mutex);
  const auto isSought = [&](uint32_t value) { return IntfId(value).name() == name; };
  const uint32_t* known = ids.find(name.hash(), isSought);
  return known == nullptr ? std::nullopt : std::optional(IntfId(*known));
}

}  // namespace Zemit
