// The memory of a hash table: its blocks, and the control bytes by which slots are found.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace Kiv::detail {

/// The states of the slots of one group, and whether to look for a key beyond it.
///
/// A control byte is kEmptySlot, kNoSlot or the tag of the key in the slot. Zero means empty, so
/// that fresh pages from the operating system are empty groups.
struct HashGroup {
  static constexpr uint32_t kSlots = 15;
  static constexpr uint8_t kEmptySlot = 0;
  static constexpr uint8_t kNoSlot = 1;  ///< in a small block: there is no memory for the slot
  static constexpr uint8_t kFirstTag = 2;

  uint8_t control[kSlots];
  /// The keys that went on to another group because this one was full, one bit for each eighth of
  /// all hashes. A search that finds the bit of its hash clear is over.
  uint8_t overflow;

  static uint8_t tagOf(uint32_t hash) {
    const auto low = static_cast<uint8_t>(hash);
    return low < kFirstTag ? static_cast<uint8_t>(low + 8) : low;
  }
  static uint8_t overflowBitOf(uint32_t hash) { return static_cast<uint8_t>(1U << (hash & 7)); }
  bool hasOverflowed(uint32_t hash) const { return (overflow & overflowBitOf(hash)) != 0; }
};
static_assert(sizeof(HashGroup) == 16);

/// Compares all control bytes of a group, eight at a time. Bit i of a result stands for slot i.
class WordMatcher {
 public:
  static uint32_t matching(const HashGroup& group, uint8_t byte) {
    return bits(group, [byte](uint64_t word) { return zeroBytes(word ^ (kOnes * byte)); });
  }
  static uint32_t full(const HashGroup& group) {
    return bits(group, [](uint64_t word) { return ~zeroBytes(word & (kOnes * 0xfe)) & kHighBits; });
  }

 private:
  static constexpr uint64_t kOnes = 0x0101010101010101;
  static constexpr uint64_t kHighBits = 0x8080808080808080;

  // The high bit of each byte that is zero; no byte carries into the next.
  static uint64_t zeroBytes(uint64_t word) {
    return ~(((word & ~kHighBits) + ~kHighBits) | word) & kHighBits;
  }
  template <class Test>
  static uint32_t bits(const HashGroup& group, Test test) {
    uint64_t words[2];
    std::memcpy(words, &group, sizeof words);
    uint64_t result = 0;
    for (int i = 0; i < 2; ++i) {
      if constexpr (std::endian::native == std::endian::big) words[i] = __builtin_bswap64(words[i]);
      // The product collects the eight high bits in its top byte.
      result |= ((test(words[i]) >> 7) * 0x0102040810204080 >> 56) << (8 * i);
    }
    return static_cast<uint32_t>(result) & ((1U << HashGroup::kSlots) - 1);
  }
};

#ifdef __SSE2__
/// Does the same for all bytes at once.
class Sse2Matcher {
 public:
  static uint32_t matching(const HashGroup& group, uint8_t byte) {
    return bits(_mm_cmpeq_epi8(load(group), _mm_set1_epi8(static_cast<char>(byte))));
  }
  static uint32_t full(const HashGroup& group) {
    const __m128i bytes = load(group);
    return bits(_mm_cmpeq_epi8(_mm_max_epu8(bytes, _mm_set1_epi8(HashGroup::kFirstTag)), bytes));
  }

 private:
  static __m128i load(const HashGroup& group) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(&group));
  }
  static uint32_t bits(__m128i bytes) {
    return static_cast<uint32_t>(_mm_movemask_epi8(bytes)) & ((1U << HashGroup::kSlots) - 1);
  }
};
using HashMatcher = Sse2Matcher;
#else
using HashMatcher = WordMatcher;
#endif

/// The head of a table's memory. The groups follow it; the slots stand before it, slot 0 last. So
/// both are found from one pointer, whatever their number.
struct HashBlock {
  uint32_t size;        ///< the map's elements; in a block that is being emptied, its own
  uint32_t free;        ///< insertions before the table is rebuilt
  uint32_t generation;  ///< see HashMap::generation()
  uint8_t shift;        ///< by this, a hash becomes the number of its group
  uint8_t slotsOfOne;   ///< when there is one group only: the slots there is memory for
  bool isMapped;        ///< the memory comes from the operating system, not from the heap
  bool emptiesAnother;  ///< elements of an older block are still to be moved here

  size_t groupCount() const noexcept { return size_t{1} << (32 - shift); }
  size_t slotCount() const noexcept {
    return slotsOfOne + (groupCount() & ~size_t{1}) * HashGroup::kSlots;
  }
  HashGroup* groups() noexcept { return reinterpret_cast<HashGroup*>(this + 1); }

  /// The block that is being emptied into this one, its last group first.
  struct Emptying {
    HashBlock* block;
    size_t groups;     ///< the groups still to be emptied
    std::byte* start;  ///< of the memory that has not been given back yet
  };
  /// \pre emptiesAnother
  Emptying& emptying() noexcept { return *reinterpret_cast<Emptying*>(groups() + groupCount()); }

  /// The elements that fit before searches become long.
  size_t capacity() const noexcept {
    return groupCount() == 1 ? slotsOfOne : slotCount() - slotCount() / 8;
  }

  /// A block with a capacity of at least `elements`, all slots empty.
  /// \throws std::bad_alloc
  static HashBlock* allocate(size_t elements, size_t slotSize);
  /// Where the memory starts.
  std::byte* start(size_t slotSize) noexcept;
  /// The size of the memory.
  size_t bytes(size_t slotSize) const noexcept;
  /// Gives back the memory from `from` on, what stands before that is given back already.
  void release(size_t slotSize, std::byte* from) noexcept;
  void release(size_t slotSize) noexcept { release(slotSize, start(slotSize)); }
  /// Gives back what it can of the slots before those of the first `groups` groups, when it is
  /// worth a call. \returns where the rest starts.
  std::byte* releaseBehind(size_t groups, size_t slotSize, std::byte* from) noexcept;
};

/// Draws a number for HashBlock::generation that no block of this thread has shown before.
inline uint32_t nextHashGeneration() noexcept {
  static constinit thread_local uint32_t last = 0;
  return ++last;
}

}  // namespace Kiv::detail
