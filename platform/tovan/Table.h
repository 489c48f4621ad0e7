// The parts of a shared-memory table that do not depend on its entries: header and memory.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/kiv/containers/Hash.h"
#include "platform/tovan/Exceptions.h"
#include "platform/tovan/TableMemory.h"

namespace Tovan {

/// The start of a table's memory.
struct TableHeader {
  /// Fixed when the table is made.
  struct Identity {
    uint64_t layout;     ///< hash of the types of key and value, and of their sizes
    Kiv::HashSeed seed;  ///< of this table, for all processes
  };
  std::atomic<uint64_t> magic;  ///< stored last: a table without it is unfinished
  uint64_t version;
  Identity identity;
  uint64_t identityChecksum;

  alignas(64) std::atomic<uint64_t> bytes;  ///< size of the memory
  std::atomic<uint64_t> size;               ///< number of entries, guarded()
  /// In the low byte, the number of hash bits that select a page. Above it, a count that is odd
  /// during a repair.
  std::atomic<uint64_t> directory;
  std::atomic<uint64_t> status;  ///< see Table::status(), guarded()

  /// See Table::changeCount(). In a cache line of its own, because each change would otherwise
  /// evict the line that look-ups read.
  alignas(64) std::atomic<uint64_t> changes;
};

/// A number of 32 bits with its complement in the upper half. Damage makes the halves disagree.
constexpr uint64_t guarded(uint32_t number) {
  return uint64_t{~number} << 32 | number;
}
constexpr bool isSound(uint64_t word) {
  return word == guarded(static_cast<uint32_t>(word));
}

/// Waits until a writer has completed its change of an entry.
class Patience {
 public:
  explicit Patience(const TableMemory& memory) : memory_(memory) {}

  /// Waits a little. Returns whether to read again: false if there is no writer any more, or it
  /// does not complete the change in time.
  bool again() { return ++looks_ < kQuickLooks || wait(); }
  /// Whether again() found no writer.
  bool writerIsGone() const { return writerIsGone_; }

 private:
  static constexpr uint32_t kQuickLooks = 64;
  bool wait();

  const TableMemory& memory_;
  uint32_t looks_ = 0;
  bool writerIsGone_ = false;
  std::chrono::steady_clock::time_point deadline_;
};

/// A round of checks of a group of tables. A round checks each page once, either in one turn or a
/// few pages at each turn. A turn continues where the last one ended. The same object is passed to
/// all tables of the group.
class TendRound {
 public:
  /// A round of one turn.
  TendRound() : number_(next()) {}
  /// Begins a turn of at most `pages`. If the last turn did not use all its pages, all tables were
  /// checked, and the next round begins.
  void turnIs(size_t pages) {
    if (pagesLeft_ != 0) number_ = next();
    pagesLeft_ = pages;
  }
  /// Begins a new round, of one turn.
  void turnIsWhole() { *this = TendRound(); }

  /// Identifies the round in this process; never 0.
  uint64_t number() const { return number_; }
  /// Takes one page of this turn. Returns false if none is left.
  bool takePage() {
    if (pagesLeft_ == 0) return false;
    --pagesLeft_;
    return true;
  }

 private:
  static uint64_t next() {
    static std::atomic<uint64_t> last = 0;
    return ++last;
  }

  uint64_t number_;
  size_t pagesLeft_ = ~size_t{0};
};

/// The base of all tables. Its members do not depend on the entries of the table.
class Table {
 public:
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  const std::string& name() const { return name_; }
  bool isReadOnly() const { return !memory_.isWritable(); }
  /// Bits that the writer publishes about the whole table. Their meaning depends on the kind of the
  /// table. A new writer begins with 0. Damaged bits read as 0.
  uint32_t status() const {
    const uint64_t word = header().status.load(std::memory_order_acquire);
    return isSound(word) ? static_cast<uint32_t>(word) : 0;
  }
  /// \throws ReadOnlyException on a reader.
  void statusIs(uint32_t status);
  /// The number of changes. A reader that sees a change counted can read the change. A next writer
  /// continues the count.
  uint64_t changeCount() const { return header().changes.load(std::memory_order_acquire); }
  /// Whether a process has the table open for writing. If not, it does not change.
  bool hasWriter() const { return !isReadOnly() || memory_.hasOtherWriter(); }
  /// Whether the name leads to this table. False after the table was removed, or replaced by
  /// another one: its contents do not change any more.
  bool isCurrent() const { return memory_.isCurrent(); }
  /// Whether another object, in this process or another, has the table open for writing.
  bool hasOtherWriter() const { return memory_.hasOtherWriter(); }
  /// The memory that the table takes, in bytes, including what it reserves for new entries. A
  /// reader counts all that the table ever took.
  size_t bytes() const {
    const size_t most = shape_.pagesAt - shape_.topBytes;
    const size_t directory = depth() < 32 ? sizeof(uint64_t) << depth() : most;
    const size_t pages = isReadOnly() ? memory_.bytes() - shape_.pagesAt : reservedBytes();
    return shape_.topBytes + std::min(directory, most) + pages;
  }

  /// Counts damage, keeps the message, and reports it; see tableReports(). Called by the table when
  /// it repairs itself, and by a caller that caught a CorruptionDetectedException.
  virtual void corruptionDetected(const std::string& message);
  /// How often corruptionDetected() was called.
  size_t corruptions() const { return corruptions_; }
  const std::string& lastCorruption() const { return lastCorruption_; }

  /// Checks that the memory agrees with the header.
  /// \throws CorruptionDetectedException when it is not, ReadOnlyException on a reader.
  void validateFiles();

 protected:
  /// How the memory is divided: a top with the header, then pages.
  struct Shape {
    uint32_t keyBytes;
    uint32_t valueBytes;
    size_t topBytes;
    size_t pagesAt;  ///< where the pages begin
    size_t pageBytes;
    size_t maxPages;
  };

  Table(const TableConfig& config, const Shape& shape);
  virtual ~Table() = default;

  /// How many bits of a hash select a page.
  uint32_t depth() const {
    return static_cast<uint8_t>(header().directory.load(std::memory_order_acquire));
  }
  TableHeader& header() const { return *reinterpret_cast<TableHeader*>(memory_.base()); }
  TableMemory& memory() { return memory_; }
  const TableMemory& memory() const { return memory_; }

  /// \throws ReadOnlyException with `refusal` on a reader.
  void requireWritable(const char* refusal) const {
    if (isReadOnly()) [[unlikely]]
      throw ReadOnlyException(refusal);
  }
  /// The message for an inconsistency at `place` `index`.
  std::string describe(const char* place, size_t index, const char* what) const;
  /// \throws CorruptionDetectedException with that message.
  [[noreturn]] void raise(const char* place, size_t index, const char* what) const;
  /// For a change that was not completed while `patience` lasted.
  /// \throws BusyException when a writer lives, else CorruptionDetectedException.
  [[noreturn]] void raiseUnfinished(const Patience& patience, const char* place, size_t index,
                                    const char* what) const;

  // The writer keeps a copy of the header's words, so that it does not rely on memory that other
  // processes can change. Two of the words are not used.
  static constexpr size_t kHeaderWords = 12;
  static constexpr bool isUnused(size_t word) { return word == 6 || word == 7; }
  enum HeaderWord : uint8_t { kBytes = 8, kSize = 9, kDirectory = 10, kStatus = 11 };
  void headerIs(HeaderWord which, uint64_t word) {
    left_[which] = word;
    headerWord(which).store(word, std::memory_order_release);
  }
  uint64_t left(HeaderWord which) const { return left_[which]; }
  /// Whether the header is as this writer left it, no repair is incomplete, and the file is not
  /// known to have been cut short.
  bool isAsLeft() const {
    uint64_t differing = memory_.isCut() | (left_[kDirectory] >> 8 & 1);
#pragma GCC unroll 12
    for (size_t i = 0; i < kHeaderWords; ++i) {
      if (isUnused(i)) continue;
      differing |= headerWord(i).load(std::memory_order_relaxed) ^ left_[i];
    }
    return differing == 0;
  }
  /// Finds out whether the file was cut short.
  void noteIfCut() {
    const size_t known = memory_.bytes();
    memory_.refresh();
    if (memory_.bytes() < known) memory_.noteCut();
  }
  /// Whether the file had no name when noteIfCut() was called.
  bool isUnlinked() const {
    return memory_.isUnlinked();
  }
  /// Restores the length of the file, and the header. \throws NoSpaceException.
  void restore();
  /// Makes the file again, with its contents, if it was removed or renamed. If that is impossible,
  /// for instance because another file has the name, reports it; the table is then used without a
  /// name.
  /// \throws NoSpaceException.
  void keepName();
  /// Maps a file that was cut short anew, for a reader that found damage. Returns whether to read
  /// again.
  bool isMappedAnew() const {
    return isReadOnly() && memory_.remap();
  }
  /// Whether the last request for memory was refused.
  bool isShort() const {
    return isShort_;
  }
  /// Whether this object made the table.
  bool isNew() const {
    return isNew_;
  }

  /// Makes memory usable. \throws NoSpaceException, changing nothing; the refusal is reported.
  void provide(size_t at, size_t bytes);
  /// How many pages fit into the memory.
  uint32_t pages() const {
    return pages_;
  }
  /// Whether page `number`, as read from the table, is within the memory.
  bool isBacked(uint32_t number) const {
    return number < pages_ || isBackedByNow(number);
  }
  /// How many pages the writer may use. The writer must not access the pages behind these, which
  /// take no memory: they were given back, or never written.
  uint32_t reserved() const {
    return reserved_;
  }
  /// Reserves some more pages. Pages that were given back are zero unless others wrote to them.
  /// \throws NoSpaceException, changing nothing; the refusal is reported.
  void addPages();
  /// The same, but a refusal is not reported. Returns whether there are more pages.
  bool addSparePages();
  /// Gives the memory of the pages from `number` on back. \pre no entry of the directory names them
  void giveBackPages(uint32_t number);
  /// Gives back the memory of the directory that is not needed for `depth` bits.
  void giveBackDirectory(uint32_t depth) {
    const size_t used = sizeof(uint64_t) << depth;
    memory_.giveBack(shape_.topBytes + used, used);
  }

 private:
  std::atomic<uint64_t>& headerWord(size_t number) const {
    return reinterpret_cast<std::atomic<uint64_t>*>(memory_.base())[number];
  }
  void create();
  void awaitCreation() const;
  /// What is wrong with the memory or its header; nothing if all is well.
  std::string fault() const;
  bool isBackedByNow(uint32_t number) const;
  void countPages() const;
  size_t reservedBytes() const {
    return reserved_ * shape_.pageBytes;
  }
  TableMemory::Part morePages() const;
  void pagesAreAdded(const TableMemory::Part& added);

  const Shape shape_;
  const std::string name_;
  uint64_t layout_;
  mutable TableMemory memory_;
  mutable uint32_t pages_ = 0;
  uint32_t reserved_ = 0;
  bool isNew_ = false;
  bool isShort_ = false;
  std::string lostName_;  // the last report that the file has lost its name
  std::array<uint64_t, kHeaderWords> left_{};
  size_t corruptions_ = 0;
  std::string lastCorruption_;
};

}  // namespace Tovan
