// The memory a table lives in: private or named, growing in place.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Tovan {

/// Where a table lives, and what its opener may do.
enum class Access {
  Embedded,  ///< a new table in this process's own memory
  Write,     ///< the named table, created when absent, taken over when its last writer is gone
  Read,      ///< the named table of another process
};

/// What a table is opened with.
struct TableConfig {
  Access access = Access::Embedded;
  /// The name that other processes attach by, such as "leaf1.route4"; an embedded table's only
  /// appears in messages. A table belongs to what stands before its first dot.
  std::string name = {};
  /// What key and value are, such as "route4/1": tables of another layout are not opened.
  std::string layout = {};
};

/// One table's memory. Its addresses never change: all it may ever need is reserved at the start.
///
/// A child that is forked keeps the memory of the parent's tables to read as far as they have grown
/// by then. It does not write them, and does not keep others from doing so.
class TableMemory {
 public:
  /// Bytes of the memory.
  struct Part {
    size_t at;
    size_t bytes;
  };
  /// Who asks for so much at once will ask for more.
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

  /// Makes the bytes from `at` on usable, new ones zero.
  /// \throws NoSpaceException, changing nothing.
  void provide(size_t at, size_t bytes);
  /// Looks how far the writer has grown the table by now, and whether its file has a name.
  void refresh();
  /// Whether the file had no name any more when that was last looked.
  bool isUnlinked() const { return isUnlinked_; }
  /// Gives all memory back, so that provide() starts from zeroes.
  void clear();
  /// Whether another process, or another object of this one, has the table open for writing.
  bool hasOtherWriter() const;
  /// Whether the name leads to this memory; always so for private memory.
  bool isCurrent() const;
  /// Takes the name away, if it leads here: processes that are attached keep the memory, nobody
  /// finds it any more.
  void remove();
  /// Makes another file under the name, which leads nowhere, with these parts of the memory in it;
  /// it takes the place of the former one. It is complete, and locked, before the name leads to it.
  /// \throws OpenException when there is a file under the name, or one cannot be made;
  ///   NoSpaceException.
  void makeAgain(const std::array<Part, 2>& parts);

  /// Whether the file was found to be shorter than it was. Zeroes stand in place of what is missing
  /// then, which no other process sees.
  bool isCut() const { return isCut_.load(std::memory_order_relaxed); }
  /// Notes that it was. Called by signal handlers, too.
  void noteCut() { isCut_ = true; }
  /// Maps a file that was cut short as it is now. Returns false when there is none, or it is empty.
  bool remap();
  /// Lets go of what a forked child must not share with its parent.
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

/// What a table is called in messages.
std::string titleOf(std::string_view table);

/// The names of the shared tables of `owner`: `owner` itself and "owner.anything"; of all if empty.
/// \throws OpenException when there is no folder of shared tables.
std::vector<std::string> tablesOf(std::string_view owner);
/// Removes the tables that belong to `owner`, readable or not, and tells how many there were: none
/// where there is no folder of them. Those that this process opened for writing are removed even if
/// it has no file descriptor left. What another process has open for writing stays, and what was
/// put in place of a table of this process.
size_t removeTablesOf(std::string_view owner);

}  // namespace Tovan
