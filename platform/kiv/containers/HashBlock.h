// The memory of a hash table: its blocks, and the control bytes by which slots are found.
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

/// The states of the slots of one group, and whether to look for a key beyond it.
///
/// A control byte is kEmptySlot, kNoSlot or the tag of the key in the slot. Zero means empty, so
/// that fresh pages from the operating system are empty groups.
struct alignas(16) HashGroup {
  static constexpr uint32_t kSlots = 15;
  static constexpr uint8_t kEmptySlot = 0;
  static constexpr uint8_t kNoSlot = 1;  ///< in a small block: there is no memory for the slot
  static constexpr uint8_t kFirstTag = 2;

  uint8_t control[kSlots];
  /// The keys that went on to another group because this one was full, one bit for each eighth of
  /// all hashes. A search that finds the bit of its hash clear is over.
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
/// Does the same for all bytes at once.
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
  // By the low byte of a hash: one load instead of the steps that limit and spread a tag.
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

/// The head of a table's memory. The slots follow it; the groups stand before it, group 0 last. So
/// both are found from one pointer, whatever their number.
struct HashBlock {
  uint32_t size;        ///< the map's elements; in a block that is being emptied, its own
  uint32_t free;        ///< insertions before the table is rebuilt
  uint32_t generation;  ///< see HashMap::generation()
  uint8_t shift;        ///< by this, a hash becomes the number of its group
  uint8_t slotsOfOne;   ///< of the group, when it is the only one: slots there is memory for
  bool isMapped;        ///< the memory comes from the operating system, not from the heap
  bool emptiesAnother;  ///< elements of an older block are still to be moved here

  size_t groupCount() const noexcept { return size_t{1} << (32 - shift); }
  size_t slotCount() const noexcept {
    return groupCount() == 1 ? slotsOfOne : groupCount() * HashGroup::kSlots;
  }
  /// The elements that fit before searches become long.
  size_t capacity() const noexcept {
    return groupCount() == 1 ? slotsOfOne : slotCount() - slotCount() / 8;
  }
  /// \returns true when `group` is one of its own.
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
    std::byte* end;     ///< of the memory that has not been given back or moved yet
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
  /// Lets the system put huge pages in place of small ones, in its own time.
  void useHugePages(size_t slotSize) noexcept;
  /// Releases the memory up to `end`; the memory behind it was released before.
  void release(std::byte* end) noexcept;
  /// Moves the pages of the slots behind the first `groups` groups to another block, or else gives
  /// them back, when it is worth a call. Moving a page takes a fiftieth of the time of giving it
  /// back and getting a new one.
  ///
  /// \param filled  the group from which on the other block has been filled, in descending order.
  /// \param reused  the lowest page that was moved there.
  /// \returns where the rest ends.
  std::byte* moveBehind(size_t groups, size_t slotSize, std::byte* end, HashBlock& to,
                        size_t filled, std::byte*& reused) noexcept;
  /// Gives back the pages around a slot when no element is left on them. The slots stay usable.
  void releaseAround(void* slot, size_t slotSize) noexcept;

 private:
  /// True when no group has elements between two places among the slots.
  bool isUnused(const std::byte* from, const std::byte* to, size_t slotSize) noexcept;
};

/// The block of a map without memory: it has no slot. Known by its address.
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

/// Draws a number for HashBlock::generation that no block of this thread has shown before, unless
/// four billion were drawn since. Zero is the empty map's.
inline uint32_t nextHashGeneration() noexcept {
  if (++lastHashGeneration == 0) ++lastHashGeneration;
  return lastHashGeneration;
}

}  // namespace Kiv::detail
