// The memory of a hash table: where it comes from and how it is given back.
#include "platform/kiv/HashBlock.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <new>

namespace Kiv::detail {

namespace {

// From this size on memory is mapped: its pages come zeroed when they are first touched, and
// neither clearing nor giving back the whole holds up one insertion.
constexpr size_t kMappedBytes = size_t{256} << 10;
constexpr size_t kPage = 4096;
constexpr size_t kHugePage = size_t{2} << 20;

constexpr size_t roundUp(size_t bytes, size_t unit) {
  return (bytes + unit - 1) & ~(unit - 1);
}

// Groups of a large table are aligned, so that none lies in two cache lines.
size_t slotBytes(size_t groups, size_t slots, size_t slotSize) {
  return roundUp(slots * slotSize, groups == 1 ? 8 : sizeof(HashGroup));
}
size_t blockBytes(size_t groups, size_t slots, size_t slotSize) {
  const size_t emptying = groups == 1 ? 0 : sizeof(HashBlock::Emptying);
  const size_t bytes = slotBytes(groups, slots, slotSize) + sizeof(HashBlock) +
                       groups * sizeof(HashGroup) + emptying;
  return bytes < kMappedBytes ? bytes : roundUp(bytes, kPage);
}

/// The slots of one group that fit what the heap hands out for `elements` of them: multiples of 16
/// bytes less the 8 it keeps for itself.
size_t slotsInHeapBlock(size_t elements, size_t slotSize) {
  const size_t usable = roundUp(blockBytes(1, elements, slotSize) + 8, 16) - 8;
  return std::min<size_t>(HashGroup::kSlots, (usable - blockBytes(1, 0, slotSize)) / slotSize);
}

/// Maps memory that ends on a huge page, as far as it has one: there the groups are.
std::byte* map(size_t bytes) {
  const size_t slack = bytes < kHugePage ? 0 : kHugePage;
  void* mapped =
      mmap(nullptr, bytes + slack, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) throw std::bad_alloc();
  auto* start = static_cast<std::byte*>(mapped);
  if (slack == 0) return start;
  const size_t tail = reinterpret_cast<uintptr_t>(start + bytes) % kHugePage;
  const size_t head = tail == 0 ? 0 : kHugePage - tail;
  if (head != 0) munmap(start, head);
  if (head != slack) munmap(start + head + bytes, slack - head);
  madvise(start + head, bytes, MADV_HUGEPAGE);
  return start + head;
}

}  // namespace

HashBlock* HashBlock::allocate(size_t elements, size_t slotSize) {
  size_t groups = 1;
  size_t slots = elements;
  if (elements <= HashGroup::kSlots) {
    slots = slotsInHeapBlock(elements, slotSize);
  } else {
    for (slots = 0; slots - slots / 8 < elements; slots = groups * HashGroup::kSlots) groups *= 2;
  }
  const size_t bytes = blockBytes(groups, slots, slotSize);
  const bool isMapped = bytes >= kMappedBytes;
  auto* memory = isMapped ? map(bytes) : static_cast<std::byte*>(::operator new(bytes));
  auto* block = reinterpret_cast<HashBlock*>(memory + slotBytes(groups, slots, slotSize));
  if (!isMapped) std::memset(block->groups(), HashGroup::kEmptySlot, groups * sizeof(HashGroup));
  if (groups == 1) {
    std::memset(block->groups()->control + slots, HashGroup::kNoSlot, HashGroup::kSlots - slots);
  }
  *block = {.size = 0,
            .free = 0,
            .generation = 0,
            .shift = static_cast<uint8_t>(32 - std::countr_zero(groups)),
            .slotsOfOne = static_cast<uint8_t>(groups == 1 ? slots : 0),
            .isMapped = isMapped,
            .emptiesAnother = false};
  block->free = static_cast<uint32_t>(block->capacity());
  return block;
}

std::byte* HashBlock::start(size_t slotSize) noexcept {
  return reinterpret_cast<std::byte*>(this) - slotBytes(groupCount(), slotCount(), slotSize);
}

size_t HashBlock::bytes(size_t slotSize) const noexcept {
  return blockBytes(groupCount(), slotCount(), slotSize);
}

void HashBlock::release(size_t slotSize, std::byte* from) noexcept {
  std::byte* const first = start(slotSize);
  if (isMapped) {
    munmap(from, static_cast<size_t>(first + bytes(slotSize) - from));
  } else {
    ::operator delete(first);
  }
}

std::byte* HashBlock::releaseBehind(size_t groups, size_t slotSize, std::byte* from) noexcept {
  if (!isMapped) return from;
  std::byte* end = reinterpret_cast<std::byte*>(this) - groups * HashGroup::kSlots * slotSize;
  end -= reinterpret_cast<uintptr_t>(end) % kHugePage;
  if (end <= from) return from;
  munmap(from, static_cast<size_t>(end - from));
  return end;
}

}  // namespace Kiv::detail
