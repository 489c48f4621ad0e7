// What all shared-memory tables have, whatever their entries: header, refusals, reports.
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

/// Stands at the start of a table's memory.
struct TableHeader {
  /// Fixed when the table is made.
  struct Identity {
    uint64_t layout;     ///< hash of what key and value are, and of how they are laid out
    Kiv::HashSeed seed;  ///< the table's own, so that all processes find an entry in one place
  };
  std::atomic<uint64_t> magic;  ///< stored last: a table without it was never finished
  uint64_t version;
  Identity identity;
  uint64_t identityChecksum;

  alignas(64) std::atomic<uint64_t> bytes;  ///< how large the memory is
  std::atomic<uint64_t> size;               ///< how many entries there are, guarded()
  /// What readers find entries by: in the low byte the number of hash bits that choose a page, and
  /// above it a count of repairs, which is odd during one.
  std::atomic<uint64_t> directory;
  std::atomic<uint64_t> status;  ///< see Table::status(), guarded()

  /// See Table::changeCount(). Apart from what look-ups read, which it would take from their
  /// caches.
  alignas(64) std::atomic<uint64_t> changes;
};

/// A number of 32 bits with its complement above it, which show each other's damage.
constexpr uint64_t guarded(uint32_t number) {
  return uint64_t{~number} << 32 | number;
}
constexpr bool isSound(uint64_t word) {
  return word == guarded(static_cast<uint32_t>(word));
}

/// Waits for a writer to finish what a reader found half done.
class Patience {
 public:
  explicit Patience(const TableMemory& memory) : memory_(memory) {}

  /// Waits a little. Returns whether to look again: not when there is no writer any more, or none
  /// that comes to an end.
  bool again() { return ++looks_ < kQuickLooks || wait(); }
  /// Whether there was no writer when it was last looked.
  bool writerIsGone() const { return writerIsGone_; }

 private:
  static constexpr uint32_t kQuickLooks = 64;
  bool wait();

  const TableMemory& memory_;
  uint32_t looks_ = 0;
  bool writerIsGone_ = false;
  std::chrono::steady_clock::time_point deadline_;
};

/// How much of a number of tables is looked at: all of it, or a few pages at each turn, which goes
/// on where the last one ended. All the tables are to be given the same object.
class TendRound {
 public:
  /// A round that is done in one turn.
  TendRound() : number_(next()) {}
  /// Begins a turn of at most `pages`. Where the last one had pages left, all tables have been
  /// looked at, and the next round begins.
  void turnIs(size_t pages) {
    if (pagesLeft_ != 0) number_ = next();
    pagesLeft_ = pages;
  }
  /// Begins a new round, of one turn.
  void turnIsWhole() { *this = TendRound(); }

  /// Tells this round from all others of the process; not 0.
  uint64_t number() const { return number_; }
  /// Whether one page more may be looked at in this turn, which is taken for it then.
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

/// What all tables have, whatever their entries.
class Table {
 public:
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  const std::string& name() const { return name_; }
  bool isReadOnly() const { return !memory_.isWritable(); }
  /// What the writer says of the table as a whole; a new writer begins with 0, and what is damaged
  /// reads as 0. The bits are for those who write and read such tables to agree on.
  uint32_t status() const {
    const uint64_t word = header().status.load(std::memory_order_acquire);
    return isSound(word) ? static_cast<uint32_t>(word) : 0;
  }
  /// \throws ReadOnlyException on a reader.
  void statusIs(uint32_t status);
  /// How many changes there were: it differs when there was one since. Whoever sees a change
  /// counted sees the change. It goes on where a writer is followed by another.
  uint64_t changeCount() const { return header().changes.load(std::memory_order_acquire); }
  /// Whether a process has the table open for writing: else it stays as it is.
  bool hasWriter() const { return !isReadOnly() || memory_.hasOtherWriter(); }
  /// Whether the table is the one that its name leads to: not when it was removed, whether or not
  /// another was made in its place. What is read of it is what its last writer left.
  bool isCurrent() const { return memory_.isCurrent(); }
  /// Whether another object, in this process or another, has the table open for writing.
  bool hasOtherWriter() const { return memory_.hasOtherWriter(); }
  /// The memory that the table takes, in bytes, used or kept for entries to come.
  size_t bytes() const {
    const size_t most = shape_.pagesAt - shape_.topBytes;
    const size_t directory = depth() < 32 ? sizeof(uint64_t) << depth() : most;
    return memory_.bytes() - shape_.pagesAt + shape_.topBytes + std::min(directory, most);
  }

  /// Told of every inconsistency: by those who caught a CorruptionDetectedException, and by the
  /// table when it repairs itself. Counts, keeps the message, and reports it; see tableReports().
  virtual void corruptionDetected(const std::string& message);
  /// How often corruptionDetected() was called.
  size_t corruptions() const { return corruptions_; }
  const std::string& lastCorruption() const { return lastCorruption_; }

  /// Checks that the table's memory is what its header says.
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

  /// How many bits of a hash choose a page.
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
  /// For what is half done, and was when `patience` came to an end.
  /// \throws BusyException when a writer lives, else CorruptionDetectedException.
  [[noreturn]] void raiseUnfinished(const Patience& patience, const char* place, size_t index,
                                    const char* what) const;

  // The writer keeps what stands in the header: nothing that it relies on is changed from outside.
  // By its words, of which two are not used.
  static constexpr size_t kHeaderWords = 12;
  static constexpr bool isUnused(size_t word) { return word == 6 || word == 7; }
  enum HeaderWord : uint8_t { kBytes = 8, kSize = 9, kDirectory = 10, kStatus = 11 };
  void headerIs(HeaderWord which, uint64_t word) {
    left_[which] = word;
    headerWord(which).store(word, std::memory_order_release);
  }
  uint64_t left(HeaderWord which) const { return left_[which]; }
  /// Whether the header is as this writer left it, with no repair begun but not ended, and the file
  /// as long as it was when it was last used.
  bool isAsLeft() const {
    uint64_t differing = memory_.isCut() | (left_[kDirectory] >> 8 & 1);
#pragma GCC unroll 12
    for (size_t i = 0; i < kHeaderWords; ++i) {
      if (isUnused(i)) continue;
      differing |= headerWord(i).load(std::memory_order_relaxed) ^ left_[i];
    }
    return differing == 0;
  }
  /// Looks how long the file is.
  void noteIfCut() {
    const size_t known = memory_.bytes();
    memory_.refresh();
    if (memory_.bytes() < known) memory_.noteCut();
  }
  /// Whether the file had no name any more when noteIfCut() looked.
  bool isUnlinked() const {
    return memory_.isUnlinked();
  }
  /// Makes the file as long as it was, and the header what it was. \throws NoSpaceException.
  void restore();
  /// Makes a file again that was removed under its name, with all that is in it. Where that cannot
  /// be, as when another file has the name, it is reported and the table goes on without a name.
  /// \throws NoSpaceException.
  void keepName();
  /// For a reader that met damage: whether to look again, at what has come in place of a file that
  /// was cut short.
  bool isMappedAnew() const {
    return isReadOnly() && memory_.remap();
  }
  /// Whether memory was refused since it was granted last.
  bool isShort() const {
    return isShort_;
  }
  /// Whether this object has made the table.
  bool isNew() const {
    return isNew_;
  }

  /// Makes memory usable. \throws NoSpaceException, changing nothing; it is reported.
  void provide(size_t at, size_t bytes);
  /// How many pages are backed by memory.
  uint32_t pages() const {
    return pages_;
  }
  /// Whether page `number`, as read from the table, is backed by memory.
  bool isBacked(uint32_t number) const {
    return number < pages_ || isBackedByNow(number);
  }
  /// Adds pages. \throws NoSpaceException, changing nothing.
  void addPages();

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

  const Shape shape_;
  const std::string name_;
  uint64_t layout_;
  mutable TableMemory memory_;
  mutable uint32_t pages_ = 0;
  bool isNew_ = false;
  bool isShort_ = false;
  std::string lostName_;  // what was last said of a file that is not there under its name
  std::array<uint64_t, kHeaderWords> left_{};
  size_t corruptions_ = 0;
  std::string lastCorruption_;
};

}  // namespace Tovan
