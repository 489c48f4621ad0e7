// A model of weakly ordered memory with one writer and one reader.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Weak {

template <class T>
using RealAtomic = std::atomic<T>;

/// Also of a pointer, which is itself the value of an atomic.
template <class T>
constexpr size_t kBytesOf = sizeof(T);  // NOLINT(bugprone-sizeof-expression)

template <class T>
uint64_t toWord(T value) {
  static_assert(kBytesOf<T> <= sizeof(uint64_t));
  uint64_t word = 0;
  std::memcpy(&word, &value, kBytesOf<T>);
  return word;
}
template <class T>
T fromWord(uint64_t word) {
  T value;
  std::memcpy(&value, &word, kBytesOf<T>);
  return value;
}

/// The place of a call in the source.
struct Where {
  const char* file;
  int line;
  const char* function;
};
/// The same, "FILE:LINE of FUNCTION".
using Site = std::string;

/// The memory model of C++ for one thread that stores and another one that only loads.
///
/// The writer runs first, and its stores are logged. The modification order of each place is the
/// order of the log. A store publishes the beginning of the log: a release store all stores before
/// it, a relaxed store all stores before the last release fence. The reader knows the stores that
/// it has acquired, and those that it has read at the same place. A load may return the newest
/// known store to its place, or any later store. The writer reads nothing that readers store, so
/// these are all possible executions. seq_cst counts as acquire or release.
///
/// The reader's code runs once for each choice of the stores that its loads read. To limit the
/// number of runs, each run begins at one moment of the log, and its loads read the newest store of
/// that moment. Only a limited number of loads are exceptions. They read a newer store, which
/// advances the moment, or an older one. In the latter case, the cache line or the block of 4 KiB
/// around the place is also read as of that older moment, as far as the acquired stores allow it.
class Model {
 public:
  /// No limit to the number of exceptions: all executions are explored.
  static constexpr size_t kAll = ~size_t{0};

  bool isOn() const { return mode_ != Off; }

  /// Runs the writer, and logs its stores to tables whose names begin with `tables`. All these
  /// tables are open already.
  void record(const std::string& tables, const std::function<void()>& writer);
  /// Runs the reader for every choice, with at most `exceptions` exceptions in a run, until a run
  /// returns a complaint. Returns the complaint, or "".
  std::string explore(size_t exceptions, const std::function<std::string()>& reader);
  /// The number of runs of the last exploration, and the number of stores in the log.
  size_t runs() const { return runs_; }
  size_t stores() const { return log_.size(); }

  /// Treats the memory orders at a site as relaxed.
  void weaken(const Site& site) { weakened_ = site; }
  /// All sites with an order stronger than relaxed that were executed.
  const std::set<Site>& sites() const { return sites_; }

  // Called by the atomics.
  uint64_t load(const void* at, uint64_t stands, std::memory_order order, const Where& where);
  void store(const void* at, uint64_t former, uint64_t value, std::memory_order order,
             const Where& where);
  void fence(std::memory_order order, const Where& where);

 private:
  struct Store {
    uint64_t value;
    size_t publishes;  ///< the number of stores that become known when this store is acquired
  };
  /// The values of one place: the value before the log, then the stores of the log.
  struct Place {
    uint64_t before;
    uint64_t line;
    uint64_t block;
    std::vector<size_t> stores;
    size_t run = 0;       ///< the run to which the following members belong
    size_t lastRead = 0;  ///< the number of stores up to the last one that was read
    size_t loads = 0;
  };
  struct Choice {
    size_t taken;
    size_t count;
  };
  struct Mapping {
    uintptr_t begin;
    uintptr_t end;
    uint64_t offset;
    uint64_t file;
  };

  /// The moment of the log that a run reads in a part of the memory.
  struct Part {
    size_t run;
    size_t moment;
  };
  using Parts = std::unordered_map<uint64_t, Part>;

  size_t momentOf(const Parts& parts, uint64_t part) const;
  Place* placeOf(const void* at, bool make, uint64_t before);
  std::memory_order orderAt(std::memory_order order, const Where& where);
  size_t choose(size_t count);

  enum { Off, Recording, Exploring } mode_ = Off;
  std::vector<Mapping> mappings_;
  std::unordered_map<const void*, Place*> known_;
  std::unordered_map<uint64_t, Place> places_;
  std::vector<Store> log_;
  size_t fenced_ = 0;  // the number of stores that the writer's last release fence publishes
  // The state of the present run.
  size_t acquired_ = 0;
  size_t seen_ = 0;  // the next acquire fence acquires these stores
  size_t moment_ = 0;
  size_t left_ = 0;
  Parts lines_;   // of 64 bytes
  Parts blocks_;  // of 4096 bytes
  std::vector<Choice> choices_;
  size_t nextChoice_ = 0;
  std::vector<size_t> ways_;  // the stores that a load may read; kept, because it runs often
  size_t runs_ = 0;
  Site weakened_;
  std::set<Site> sites_;
  std::map<std::pair<const char*, int>, Site> siteOfLine_;
};

extern Model model;

}  // namespace Weak
