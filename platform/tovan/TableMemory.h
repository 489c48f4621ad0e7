// The memory of a table: private or named, growing in place.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Tovan {

/// How a table is opened.
enum class Access {
  Embedded,  ///< a new table in this process's own memory
  Write,     ///< the named table; created if absent, taken over if its last writer has ended
  Read,      ///< the named table of another process
};

/// The parameters of opening a table.
struct TableConfig {
  Access access = Access::Embedded;
  /// The name under which other processes open the table, such as "leaf1.route4". The name of an
  /// embedded table appears in messages only. The part before the first dot is the owner's name.
  std::string name = {};
  /// The name of the layout of key and value, such as "route4/1". Opening a table of another layout
  /// fails.
  std::string layout = {};
};

/// The memory of a table. Its address never changes, because the largest address range that it may
/// need is reserved at the start.
///
/// A forked child can read the tables of its parent. It cannot write them, and does not hold their
/// locks.
class TableMemory {
 public:
  /// Bytes of the memory.
  struct Part {
    size_t at;
    size_t bytes;
  };
  /// Private memory for a request of at least this size is provided in huge pages.
  static constexpr size_t kLargeRequest = size_t{16} << 10;

  /// \param maxBytes  where the memory may end at most.
  /// \throws OpenException when the name is malformed or absent, or another writer lives.
  TableMemory(const TableConfig& config, size_t maxBytes);
  TableMemory(const TableMemory&) = delete;
  TableMemory& operator=(const TableMemory&) = delete;
  ~TableMemory();

  std::byte* base() const { return base_; }
  /// Where the memory ends, as of the last provide() or refresh().
  size_t bytes() const { return bytes_; }
  /// False for a reader, and in a forked child.
  bool isWritable() const { return isWritable_; }

  /// Makes `bytes` from `at` on usable. New bytes are zero.
  /// \throws NoSpaceException, changing nothing.
  void provide(size_t at, size_t bytes);
  /// Gives the memory of a part back, which reads as zeroes from then on. The length stays. Whole
  /// memory pages are given back: both ends are rounded up, so nothing may be used from the end of
  /// the part to that of its last memory page. Before it is written again, provide() is needed.
  void giveBack(size_t at, size_t bytes);
  /// Where the last written memory page ends: behind it, nothing was provided, or nothing written
  /// since. The end of the memory if the system does not tell.
  size_t endOfData() const;
  /// Reads how long the file is now, and whether it still has a name.
  void refresh();
  /// Whether the file had no name at the last refresh().
  bool isUnlinked() const { return isUnlinked_; }
  /// Gives all memory back, so that provide() starts from zeroes.
  void clear();
  /// Whether another process, or another object of this one, has the table open for writing.
  bool hasOtherWriter() const;
  /// Whether the name leads to this memory; always so for private memory.
  bool isCurrent() const;
  /// Removes the name if it leads to this memory. Processes that have the table open keep it.
  void remove();
  /// Makes a new file with these parts of the memory after the former one lost its name; the rest
  /// of its length takes no memory. The new file is complete and locked before it gets the name.
  /// \throws OpenException when there is a file under the name, or one cannot be made;
  ///   NoSpaceException.
  void makeAgain(const std::array<Part, 2>& parts);

  /// Whether the file was cut short. This process then reads zeroes in place of the missing part.
  bool isCut() const { return isCut_.load(std::memory_order_relaxed); }
  /// Notes that the file was cut short. Also called by a signal handler.
  void noteCut() { isCut_ = true; }
  /// Maps the file as it is now, after it was cut short. Returns false when it was not, or is
  /// empty.
  bool remap();
  /// Closes the descriptors that a forked child must not share with its parent.
  void leaveToParent();
  const std::string& name() const { return name_; }

 private:
  std::string name_;
  int fd_ = -1;
  std::byte* base_ = nullptr;
  const size_t reserved_;
  size_t bytes_ = 0;
  const int protection_;
  bool isWritable_;
  bool isUnlinked_ = false;
  std::atomic<bool> isCut_ = false;
};

/// The form of a table's name in messages.
std::string titleOf(std::string_view table);

/// The names of all shared tables. \throws OpenException when there is no folder of shared tables.
std::vector<std::string> allTables();
/// The tables of `owner`: `owner` itself, and all names that begin with `owner` and a dot.
/// \throws as allTables().
std::vector<std::string> tablesOf(std::string_view owner);
/// Removes the tables of `owner`, readable or not, and returns their number.
/// Tables that this process opened for writing are removed even if it has no file descriptor left.
/// A table that another process has open for writing is not removed, nor is a file that replaced a
/// table of this process.
size_t removeTablesOf(std::string_view owner);
/// The same for a process that is about to end. Afterwards a thread that opens a table for writing,
/// or creates one again, is blocked until the process ends.
size_t removeTablesForGood(std::string_view owner);

}  // namespace Tovan
