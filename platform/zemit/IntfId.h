// Interface ids: small numbers that stand for interface names.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <compare>
#include <cstdint>
#include <optional>
#include <ostream>

#include "platform/kiv/containers/Hash.h"
#include "platform/kiv/containers/String.h"

namespace Zemit {

/// The id of an interface. The process has one id for each name and never reuses it. The default
/// value means "no interface" and has an empty name.
///
/// Ids are numbered, and therefore sort, in the order in which names were first used. They are
/// valid in this process only. All functions are thread-safe.
class IntfId {
 public:
  constexpr IntfId() = default;
  /// The id of the interface called `name`. Assigns a new id to a new name.
  static IntfId of(const Kiv::String8& name);
  /// The id of the interface called `name`; nothing when the name has no id yet.
  static std::optional<IntfId> find(const Kiv::String8& name);

  /// Above the ids of all interfaces: the end of a range.
  static constexpr IntfId highest() { return IntfId(UINT32_MAX); }

  constexpr uint32_t value() const { return value_; }
  /// The interface's name. Takes no lock; the reference stays valid for the life of the process.
  const Kiv::String8& name() const {
    if (value_ == 0) return kNoName;
    const auto [chunk, at] = place(value_);
    return chunks_[chunk].load(std::memory_order_acquire)[at];
  }

  /// Whether the interface is a management port, by its name.
  bool isManagementPort() const { return name().view().starts_with("Management"); }

  uint32_t hash() const { return Kiv::hashWord(value_); }

  friend constexpr auto operator<=>(const IntfId&, const IntfId&) = default;

 private:
  struct Place {
    size_t chunk;
    size_t at;
  };
  static constexpr size_t kFirstChunkSize = 64;
  static constexpr size_t kChunks = 27;  // enough for 2^32 ids

  constexpr explicit IntfId(uint32_t value) : value_(value) {}

  /// Chunk n holds the names of kFirstChunkSize << n ids, which never move.
  static constexpr Place place(uint32_t value) {
    const uint64_t position = uint64_t{value} + kFirstChunkSize;
    const auto chunk = static_cast<size_t>(std::bit_width(position / kFirstChunkSize)) - 1;
    return {chunk, position - (kFirstChunkSize << chunk)};
  }

  static inline const Kiv::String8 kNoName;
  static std::array<std::atomic<Kiv::String8*>, kChunks> chunks_;

  uint32_t value_ = 0;
};

/// Prints the interface's name.
inline std::ostream& operator<<(std::ostream& os, IntfId intfId) {
  return os << intfId.name();
}

}  // namespace Zemit
