// The layout of a TovanMap's memory: slots, pages, the directory's entries, the journal, and the
// checksums over them.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/kiv/containers/Hash.h"
#include "platform/tovan/Table.h"

namespace Tovan {

/// The memory begins with a Top. The directory follows at kTopBytes, and the pages at kPagesAt.
template <class Key, class Value>
class MapLayout {
 protected:
  using Word = uint64_t;
  static constexpr size_t kKeyWords = (sizeof(Key) + sizeof(Word) - 1) / sizeof(Word);
  static constexpr size_t kValueWords = (sizeof(Value) + sizeof(Word) - 1) / sizeof(Word);
  /// The bytes of an entry: the key, then the value, each padded with zeroes to whole words.
  using Words = std::array<Word, kKeyWords + kValueWords>;

  // The low bits of a slot's sequence are its state; the others count its changes. A slot whose
  // state is 0 is free, and ends the search for a key.
  static constexpr uint32_t kBusy = 1;  ///< the slot is being written
  static constexpr uint32_t kLive =
      2;  ///< it has an entry; with kBusy, the entry is being replaced
  static constexpr uint32_t kGone = 4;  ///< its entry was removed; a search continues behind it
  static constexpr uint32_t kState = kBusy | kLive | kGone;
  static constexpr uint32_t kChange = 8;
  // The checksum of a removed entry is replaced by this, so that a flipped bit of the state does
  // not restore the entry.
  static constexpr uint32_t kSpoilt = 2;

  struct Slot {
    std::atomic<uint32_t> sequence;
    std::atomic<uint32_t> checksum;  ///< of the entry, an odd number; zero in a free slot
    std::array<std::atomic<Word>, kKeyWords + kValueWords> words;

    uint32_t state() const { return sequence.load(std::memory_order_relaxed) & kState; }
    bool isLive() const { return (state() & kLive) != 0; }
    void setState(uint32_t state) {
      sequence.store((sequence.load(std::memory_order_relaxed) & ~kState) + kChange + state,
                     std::memory_order_release);
    }
    /// Removes the entry. A reader that sees the spoilt checksum also sees that the state changed.
    void retire() {
      setState(kGone);
      checksum.store(kSpoilt, std::memory_order_release);
    }
  };

  /// A page is small enough to be copied quickly.
  static constexpr uint32_t kSlots =
      static_cast<uint32_t>(std::clamp<size_t>(3840 / sizeof(Slot), 16, 80));
  /// When an insertion needs a free slot of a page that uses this many, the page is copied.
  static constexpr uint32_t kMaxUsed = kSlots - kSlots / 8;

  /// The entries whose hash ends in the `depth` bits of `pattern`. When two pages are for the same
  /// entry, because a writer was killed while it copied one, the higher serial number counts.
  struct alignas(64) Page {
    std::atomic<uint32_t> serial;
    std::atomic<uint32_t> pattern;
    std::atomic<uint32_t> depth;
    std::atomic<uint32_t> seal;  ///< stored last: checksum of the above; zero for an unused page
    std::atomic<uint32_t> used;  ///< how many slots are not free
    alignas(64) std::array<Slot, kSlots> slots;  ///< aligned, so that few of them cross cache lines
  };

  static constexpr uint32_t kMaxDepth = 19;

  struct Top {
    TableHeader header;
    /// The last replacement of a value, stored before the slot is written. If the writer is killed
    /// while it writes the slot, the next one takes the entry from here.
    struct Journal {
      uint64_t offset;  ///< of the slot
      uint32_t checksum;
      Words words;
    } journal;
  };
  static constexpr size_t kMemoryPage = 4096;
  static constexpr size_t kTopBytes = (sizeof(Top) + kMemoryPage - 1) / kMemoryPage * kMemoryPage;
  static constexpr size_t kPagesAt = kTopBytes + (sizeof(uint64_t) << kMaxDepth);

  /// An entry of the directory: the number of a page plus one, and above it the page's serial
  /// number. So an entry that is read twice with the same bits did not change in between.
  class PageRef {
   public:
    explicit PageRef(uint64_t bits) : bits_(bits) {}
    PageRef(uint32_t number, uint32_t serial) : bits_(uint64_t{serial} << 32 | (number + 1)) {}
    uint64_t bits() const { return bits_; }
    /// For an empty entry, larger than the number of any page.
    uint32_t number() const { return static_cast<uint32_t>(bits_) - 1; }
    uint32_t serial() const { return static_cast<uint32_t>(bits_ >> 32); }
    bool operator==(const PageRef&) const = default;

   private:
    uint64_t bits_;
  };

  static Words pack(const Key& key) {
    Words words{};
    std::memcpy(words.data(), &key, sizeof(Key));
    return words;
  }
  static Words pack(const Key& key, const Value& value) {
    Words words = pack(key);
    std::memcpy(words.data() + kKeyWords, &value, sizeof(Value));
    return words;
  }
  /// Copies word by word: a wider load would wait for words that were just stored.
  template <class T>
  static void unpack(const Word* words, T& to) {
#pragma GCC unroll 8
    for (size_t at = 0; at < sizeof(T); at += sizeof(Word)) {
      std::memcpy(reinterpret_cast<std::byte*>(&to) + at, words + at / sizeof(Word),
                  std::min(sizeof(Word), sizeof(T) - at));
    }
  }
  template <class T>
  static T blank() {
    return std::bit_cast<T>(std::array<std::byte, sizeof(T)>{});
  }
  template <class T>
  static T unpack(const Word* words) {
    T made = blank<T>();
    unpack(words, made);
    return made;
  }
  static Key keyOf(const Words& words) {
    return unpack<Key>(words.data());
  }
  static Value valueOf(const Words& words) {
    return unpack<Value>(words.data() + kKeyWords);
  }
  static void load(const Slot& from, Words& words) {
#pragma GCC unroll 8
    for (size_t i = 0; i < words.size(); ++i) {
      words[i] = from.words[i].load(std::memory_order_relaxed);
    }
  }
  static bool hasKey(const Slot& slot, const Words& key) {
    uint64_t differing = 0;
    for (size_t i = 0; i < kKeyWords; ++i) {
      differing |= slot.words[i].load(std::memory_order_relaxed) ^ key[i];
    }
    return differing == 0;
  }
  static bool sameKey(const Words& a, const Words& b) {
    uint64_t differing = 0;
    for (size_t i = 0; i < kKeyWords; ++i) differing |= a[i] ^ b[i];
    return differing == 0;
  }

  /// The hash of the key.
  static uint64_t hashOf(const Kiv::HashSeed& seed, const Words& words) {
    uint64_t hash = seed.add;
    for (size_t i = 0; i < kKeyWords; ++i) hash = Kiv::detail::fold(hash ^ words[i], seed.multiply);
    // Folded again: with some seeds, consecutive keys would otherwise share so many low bits that
    // no split could separate them.
    return Kiv::detail::fold(hash, seed.multiply);
  }
  /// The checksum of an entry, an odd number. \param hash  of its key.
  static uint32_t checksumOf(const Kiv::HashSeed& seed, uint64_t hash, const Words& words) {
    uint64_t sum = hash;
    size_t i = kKeyWords;
    for (; i + 1 < words.size(); i += 2) {
      sum = Kiv::detail::fold(sum ^ words[i], seed.multiply ^ words[i + 1]);
    }
    if (i < words.size()) sum = Kiv::detail::fold(sum ^ words[i], seed.multiply);
    return static_cast<uint32_t>(sum >> 32) | 1;
  }
  /// The checksum of a page's head, an odd number.
  static uint32_t sealOf(const Kiv::HashSeed& seed, const Page& page) {
    const uint64_t what = uint64_t{page.pattern.load(std::memory_order_relaxed)} << 32 |
                          page.depth.load(std::memory_order_relaxed);
    const uint32_t serial = page.serial.load(std::memory_order_relaxed);
    return static_cast<uint32_t>(Kiv::detail::fold(what ^ seed.add, seed.multiply ^ serial)) | 1;
  }

  static uint32_t low(uint64_t hash, uint32_t bits) {
    return static_cast<uint32_t>(hash) & ((uint32_t{1} << bits) - 1);
  }
  /// The slot of a page at which the search for a key begins.
  static uint32_t home(uint64_t hash) {
    return static_cast<uint32_t>((hash >> 32) * kSlots >> 32);
  }
  static uint32_t after(uint32_t slot) {
    return slot + 1 == kSlots ? 0 : slot + 1;
  }
};

}  // namespace Tovan
