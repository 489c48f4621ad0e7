// What all shared-memory tables have, whatever their entries: header, refusals, reports.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/kiv/Hash.h"
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
  static constexpr size_t kVersions = 512;

  std::atomic<uint64_t> magic;  ///< stored last: a table without it was never finished
  uint64_t version;
  Identity identity;
  uint64_t identityChecksum;

  alignas(64) std::atomic<uint64_t> bytes;  ///< how large the memory is
  std::atomic<uint32_t> buckets;            ///< how many buckets there are
  std::atomic<uint32_t> used;               ///< slots from here on were never used
  std::atomic<uint32_t> size;               ///< how many entries there are

  /// Bucket b counts its changes other than insertions in versions[b % kVersions]; the count is
  /// odd during one. A reader that finds nothing and the same even count before and after knows
  /// that there was nothing to find.
  alignas(64) std::atomic<uint32_t> versions[kVersions];
};

/// What all tables have, whatever their entries.
class Table {
 public:
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  const std::string& name() const { return name_; }
  bool isReadOnly() const { return readOnly_; }
  /// How many entries there are.
  size_t size() const { return header().size.load(std::memory_order_relaxed); }
  /// The memory that the table takes, in bytes, used or kept for entries to come.
  size_t bytes() const { return memory_.bytes(); }

  /// Told of every inconsistency: by those who caught a CorruptionDetectedException, and by the
  /// table when it repairs itself. Counts, and keeps the message.
  virtual void corruptionDetected(const std::string& message) {
    ++corruptions_;
    lastCorruption_ = message;
  }
  /// How often corruptionDetected() was called.
  size_t corruptions() const { return corruptions_; }
  const std::string& lastCorruption() const { return lastCorruption_; }

  /// Checks that the table's memory is what its header says.
  /// \throws CorruptionDetectedException when it is not, ReadOnlyException on a reader.
  void validateFiles();

 protected:
  /// How the memory is divided: a top with the header, then segments.
  struct Shape {
    uint32_t keyBytes;
    uint32_t valueBytes;
    uint32_t slotsPerSegment;
    uint32_t buckets;  ///< of a new table
    size_t topBytes;
    size_t segmentBytes;
    size_t maxSegments;
  };

  Table(const TableConfig& config, const Shape& shape);
  virtual ~Table() = default;

  /// Whether a writer before us left the table, in whatever state.
  bool isTakenOver() const { return takenOver_; }
  TableHeader& header() const { return *reinterpret_cast<TableHeader*>(memory_.base()); }
  TableMemory& memory() { return memory_; }
  const TableMemory& memory() const { return memory_; }

  /// \throws ReadOnlyException "`operation` to read-only Tovan table" on a reader.
  void requireWritable(const char* operation) const {
    if (readOnly_) [[unlikely]]
      refuse(operation);
  }
  /// The exception for an inconsistency at `place` `index`.
  CorruptionDetectedException corrupt(const char* place, size_t index, const char* what) const;

  /// How many slots are backed by memory.
  uint32_t slots() const { return slots_; }
  /// Whether slot or bucket `index`, as read from the table, is backed by memory.
  bool isBacked(uint32_t index) const { return index < slots_ || isBackedByNow(index); }
  /// Adds at least one segment. \throws NoSpaceException, changing nothing.
  void addSegment();

 private:
  [[noreturn]] static void refuse(const char* operation);
  void create();
  /// What is wrong with the memory or its header; nothing if all is well.
  std::string fault() const;
  bool isBackedByNow(uint32_t index) const;
  void countSlots() const;

  const Shape shape_;
  const std::string name_;
  const bool readOnly_;
  bool takenOver_ = false;
  uint64_t layout_;
  mutable TableMemory memory_;
  mutable uint32_t slots_ = 0;
  size_t corruptions_ = 0;
  std::string lastCorruption_;
};

/// Waits for a writer to finish what a reader found half done.
class Patience {
 public:
  explicit Patience(const TableMemory& memory) : memory_(memory) {}

  /// Waits a little. Returns whether to look again: not when there is no writer any more, or none
  /// that comes to an end.
  bool again() { return ++looks_ < kQuickLooks || wait(); }

 private:
  static constexpr uint32_t kQuickLooks = 64;
  bool wait();

  const TableMemory& memory_;
  uint32_t looks_ = 0;
  bool writerIsGone_ = false;
  std::chrono::steady_clock::time_point deadline_;
};

}  // namespace Tovan
