// The memory of a hash table: its blocks, and the control bytes that a search reads.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "platform/kiv/containers/Export.h"

namespace Kiv::detail {

/// The states of the slots of one group, and whether a search continues in another group.
///
/// A control byte is kEmptySlot, kNoSlot, or the tag of the key in the slot. Zero means empty, so
/// that fresh pages from the operating system are empty groups.
struct alignas(16) HashGroup {
  static constexpr uint32_t kSlots = 15;
  static constexpr uint8_t kEmptySlot = 0;
  static constexpr uint8_t kNoSlot = 1;  ///< in a small block: there is no memory for the slot
  static constexpr uint8_t kFirstTag = 2;

  uint8_t control[kSlots];
  /// A bit for each eighth of all hashes. It is set when a key with such a hash was stored in
  /// another group because this one was full. A search ends here if the bit of its hash is clear.
  uint8_t overflow;

  /// The group that a control byte belongs to.
  static HashGroup* of(uint8_t* controlByte) {
    return reinterpret_cast<HashGroup*>(reinterpret_cast<uintptr_t>(controlByte) &
                                        ~uintptr_t{sizeof(HashGroup) - 1});
  }
  static constexpr uint8_t tagOf(uint32_t hash) {
    return std::max(static_cast<uint8_t>(hash), kFirstTag);
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
  static uint32_t tagged(const HashGroup& group, uint32_t hash) {
    return matching(group, HashGroup::tagOf(hash));
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
/// The same as WordMatcher, for all bytes at once.
class Sse2Matcher {
 public:
  static uint32_t matching(const HashGroup& group, uint8_t byte) {
    return bits(_mm_cmpeq_epi8(load(group), _mm_set1_epi8(static_cast<char>(byte))));
  }
  static uint32_t tagged(const HashGroup& group, uint32_t hash) {
    const int tags = static_cast<int>(kFourTags[hash & 0xff]);
    return bits(_mm_cmpeq_epi8(load(group), _mm_set1_epi32(tags)));
  }
  static uint32_t full(const HashGroup& group) {
    const __m128i bytes = load(group);
    return bits(_mm_cmpeq_epi8(_mm_max_epu8(bytes, _mm_set1_epi8(HashGroup::kFirstTag)), bytes));
  }

 private:
  // The tag, four times, for each low byte of a hash: one load instead of the instructions that
  // limit and replicate a tag.
  static constexpr auto kFourTags = [] {
    std::array<uint32_t, 256> tags{};
    for (uint32_t low = 0; low < tags.size(); ++low)
      tags[low] = 0x01010101U * HashGroup::tagOf(low);
    return tags;
  }();

  static __m128i load(const HashGroup& group) {
    return _mm_load_si128(reinterpret_cast<const __m128i*>(&group));
  }
  static uint32_t bits(__m128i bytes) {
    return static_cast<uint32_t>(_mm_movemask_epi8(bytes)) & ((1U << HashGroup::kSlots) - 1);
  }
};
using HashMatcher = Sse2Matcher;
#else
using HashMatcher = WordMatcher;
#endif

/// The head of a table's memory. The slots follow it, and the groups precede it, with group 0 last.
/// So one pointer leads to both, however many there are.
struct HashBlock {
  uint32_t size;        ///< elements of the map; in a block that is being emptied, of the block
  uint32_t free;        ///< insertions before the table is rebuilt
  uint32_t generation;  ///< see HashMap::generation()
  uint8_t shift;        ///< a hash shifted right by this is the number of its group
  uint8_t slotsOfOne;   ///< if there is only one group: the number of its slots
  bool isMapped;        ///< the memory comes from the operating system, not from the heap
  bool emptiesAnother;  ///< elements of an older block are still to be moved here

  size_t groupCount() const noexcept { return size_t{1} << (32 - shift); }
  size_t slotCount() const noexcept {
    return groupCount() == 1 ? slotsOfOne : groupCount() * HashGroup::kSlots;
  }
  /// How many elements fit before searches become long.
  size_t capacity() const noexcept {
    return groupCount() == 1 ? slotsOfOne : slotCount() - slotCount() / 8;
  }
  /// \returns true when `group` belongs to this block.
  bool holds(const HashGroup* group) noexcept {
    return group <= this->group(0) && group >= this->group(groupCount() - 1);
  }
  HashGroup* group(size_t number) noexcept {
    return reinterpret_cast<HashGroup*>(this) - 1 - number;
  }
  /// The first slot of a group.
  std::byte* slots(size_t group, size_t slotSize) noexcept {
    return reinterpret_cast<std::byte*>(this + 1) + group * HashGroup::kSlots * slotSize;
  }

  /// The block that is being emptied into this one, its last group first.
  struct alignas(16) Emptying {
    HashBlock* block;
    size_t groups;      ///< the groups still to be emptied
    std::byte* end;     ///< where the memory ends that has not been given back or moved yet
    std::byte* reused;  ///< the lowest page that was moved to this block
  };
  /// \pre emptiesAnother
  Emptying& emptying() noexcept {
    return *(reinterpret_cast<Emptying*>(group(groupCount() - 1)) - 1);
  }

  /// A block with a capacity of at least `elements`, all slots empty.
  /// \throws std::bad_alloc
  static HashBlock* allocate(size_t elements, size_t slotSize);
  /// The size of the memory.
  size_t bytes(size_t slotSize) const noexcept;
  /// Where the memory ends.
  std::byte* end(size_t slotSize) noexcept;
  /// Allows the kernel to replace small pages by huge ones in the background.
  void useHugePages(size_t slotSize) noexcept;
  /// Releases the memory up to `end`; the memory behind it was released before.
  void release(std::byte* end) noexcept;
  /// Moves the pages of the slots behind the first `groups` groups to the block `to`, or gives them
  /// back if that is impossible. Waits until they fill a huge page, so that a system call is worth
  /// its time. Moving a page takes a fiftieth of the time of giving it back and getting a new one.
  ///
  /// \param end     where the memory of this block ends.
  /// \param filled  the first group of `to` that has been filled; groups are filled in descending
  ///                order.
  /// \param reused  the lowest page that was moved to `to`.
  /// \returns where the memory of this block ends now.
  std::byte* moveBehind(size_t groups, size_t slotSize, std::byte* end, HashBlock& to,
                        size_t filled, std::byte*& reused) noexcept;
  /// Gives back the pages around a slot when no element is left on them. The slots stay usable.
  void releaseAround(void* slot, size_t slotSize) noexcept;

 private:
  /// True when no group has elements between two places among the slots.
  bool isUnused(const std::byte* from, const std::byte* to, size_t slotSize) noexcept;
};

/// The block of a map without memory. It has no slot; a map recognises it by its address.
struct NoHashBlock {
  HashGroup group;
  HashBlock block;
};
KIV_EXPORT inline constexpr NoHashBlock kNoHashBlock = {
    .group = {.control = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}, .overflow = 0},  // kNoSlot
    .block = {.size = 0,
              .free = 0,
              .generation = 0,
              .shift = 32,
              .slotsOfOne = 0,
              .isMapped = false,
              .emptiesAnother = false}};

/// The last number that nextHashGeneration() has given.
KIV_EXPORT inline constinit thread_local uint32_t lastHashGeneration = 0;

/// Draws a number for HashBlock::generation that no block of this thread has had before, unless
/// four billion numbers were drawn since. Zero is reserved for the empty map.
inline uint32_t nextHashGeneration() noexcept {
  if (++lastHashGeneration == 0) ++lastHashGeneration;
  return lastHashGeneration;
}

}  // namespace Kiv::detail
