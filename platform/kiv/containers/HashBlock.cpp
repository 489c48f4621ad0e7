// The memory of a hash table: its allocation and release.
#include "platform/kiv/containers/HashBlock.h"

#include <sys/mman.h>

#include <algorithm>
#include <exception>
#include <new>

namespace Kiv::detail {

namespace {

constexpr size_t kPage = 4096;
constexpr size_t kHugePage = size_t{2} << 20;
// Memory of at least this size is mapped. The kernel provides a zeroed page at its first access,
// and a few pages are given back at a time, so no single insertion takes long. The pages are small
// while a block is being filled: for a huge page, the kernel may first have to move other pages
// away, which takes milliseconds.
constexpr size_t kMappedBytes = 2 * kHugePage;

constexpr size_t roundUp(size_t bytes, size_t unit) {
  return (bytes + unit - 1) & ~(unit - 1);
}

/// The bytes before the slots, a multiple of the size of a group, so that each group is in one
/// cache line.
size_t headBytes(size_t groups) {
  const size_t emptying = groups == 1 ? 0 : sizeof(HashBlock::Emptying);
  return emptying + groups * sizeof(HashGroup) + sizeof(HashBlock);
}
size_t blockBytes(size_t groups, size_t slots, size_t slotSize) {
  const size_t bytes = headBytes(groups) + slots * slotSize;
  return bytes < kMappedBytes ? bytes : roundUp(bytes, kPage);
}

/// How many slots of one group fit into the memory that the heap allocates for `elements` slots.
/// The heap allocates multiples of 16 bytes, and uses 8 of them itself.
size_t slotsInHeapBlock(size_t elements, size_t slotSize) {
  const size_t usable = roundUp(blockBytes(1, elements, slotSize) + 8, 16) - 8;
  return std::min<size_t>(HashGroup::kSlots, (usable - headBytes(1)) / slotSize);
}

/// The start of the huge page that contains `at`, or of the next one.
std::byte* downToHugePage(std::byte* at) {
  return at - reinterpret_cast<uintptr_t>(at) % kHugePage;
}
std::byte* upToHugePage(std::byte* at) {
  return downToHugePage(at + kHugePage - 1);
}

/// Maps memory that is aligned to huge pages, so that the kernel can use them.
std::byte* map(size_t bytes) {
  const size_t mappedBytes = bytes + kHugePage;
  void* mapped =
      mmap(nullptr, mappedBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) throw std::bad_alloc();
  auto* const first = static_cast<std::byte*>(mapped);
  std::byte* const start = upToHugePage(first);
  if (start != first) munmap(first, static_cast<size_t>(start - first));
  munmap(start + bytes, static_cast<size_t>(first + mappedBytes - (start + bytes)));
  return start;
}

/// Moves pages over pages that were never written. Returns false if the kernel refuses.
bool movePages(std::byte* from, size_t bytes, std::byte* to) noexcept {
  if (mremap(from, bytes, bytes, MREMAP_MAYMOVE | MREMAP_FIXED, to) != MAP_FAILED) return true;
  // The kernel may have unmapped the pages at `to` before it failed.
  const void* const mapped =
      mmap(to, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
  if (mapped == MAP_FAILED) std::terminate();
  return false;
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
  if (!isMapped) std::memset(memory, HashGroup::kEmptySlot, headBytes(groups));
  auto* block = reinterpret_cast<HashBlock*>(memory + headBytes(groups)) - 1;
  *block = {.size = 0,
            .free = 0,
            .generation = 0,
            .shift = static_cast<uint8_t>(32 - std::countr_zero(groups)),
            .slotsOfOne = static_cast<uint8_t>(groups == 1 ? slots : 0),
            .isMapped = isMapped,
            .emptiesAnother = false};
  block->free = static_cast<uint32_t>(block->capacity());
  if (groups == 1) {
    std::memset(block->group(0)->control + slots, HashGroup::kNoSlot, HashGroup::kSlots - slots);
  }
  return block;
}

size_t HashBlock::bytes(size_t slotSize) const noexcept {
  return slotCount() == 0 ? 0 : blockBytes(groupCount(), slotCount(), slotSize);
}

std::byte* HashBlock::end(size_t slotSize) noexcept {
  return slots(0, slotSize) - headBytes(groupCount()) + bytes(slotSize);
}

void HashBlock::useHugePages(size_t slotSize) noexcept {
  if (!isMapped) return;
  std::byte* const start = slots(0, 0) - headBytes(groupCount());
  madvise(start, static_cast<size_t>(end(slotSize) - start), MADV_HUGEPAGE);
}

void HashBlock::release(std::byte* end) noexcept {
  std::byte* const start = slots(0, 0) - headBytes(groupCount());
  if (isMapped) {
    munmap(start, static_cast<size_t>(end - start));
  } else {
    ::operator delete(start);
  }
}

std::byte* HashBlock::moveBehind(size_t groups, size_t slotSize, std::byte* end, HashBlock& to,
                                 size_t filled, std::byte*& reused) noexcept {
  if (!isMapped) return end;
  std::byte* const unused = upToHugePage(slots(groups, slotSize));
  while (end > unused) {
    std::byte* const piece = downToHugePage(end - 1);
    const auto bytes = static_cast<size_t>(end - piece);
    // Aligned to huge pages, so that the kernel moves whole page tables.
    std::byte* const target =
        downToHugePage(std::min(reused, to.slots(filled, slotSize))) - kHugePage;
    if (to.isMapped && target >= to.slots(0, slotSize) &&
        to.isUnused(target, target + bytes, slotSize) && movePages(piece, bytes, target)) {
      reused = target;
    } else {
      munmap(piece, bytes);
    }
    end = piece;
  }
  return end;
}

void HashBlock::releaseAround(void* slot, size_t slotSize) noexcept {
  if (!isMapped) return;
  std::byte* const page = downToHugePage(static_cast<std::byte*>(slot));
  std::byte* const first = slots(0, slotSize);
  std::byte* const from = std::max(page, first + -reinterpret_cast<uintptr_t>(first) % kPage);
  std::byte* const to = std::min(page + kHugePage, end(slotSize));
  if (from >= to) return;
  if (!isUnused(from, to, slotSize)) return;
  madvise(from, static_cast<size_t>(to - from), MADV_DONTNEED);
}

bool HashBlock::isUnused(const std::byte* from, const std::byte* to, size_t slotSize) noexcept {
  const std::byte* const first = slots(0, slotSize);
  const size_t groupBytes = HashGroup::kSlots * slotSize;
  const size_t last = std::min(static_cast<size_t>(to - 1 - first) / groupBytes, groupCount() - 1);
  for (auto number = static_cast<size_t>(from - first) / groupBytes; number <= last; ++number) {
    if (HashMatcher::full(*group(number)) != 0) return false;
  }
  return true;
}

}  // namespace Kiv::detail
