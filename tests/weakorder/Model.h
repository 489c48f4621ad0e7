// A model of weakly ordered memory with one writer, and of what a reader may see in it.
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

template <class T>
uint64_t toWord(T value) {
  static_assert(sizeof(T) <= sizeof(uint64_t));
  uint64_t word = 0;
  std::memcpy(&word, &value, sizeof(T));
  return word;
}
template <class T>
T fromWord(uint64_t word) {
  T value;
  std::memcpy(&value, &word, sizeof(T));
  return value;
}

/// Where a call stands.
struct Where {
  const char* file;
  int line;
  const char* function;
};
/// The same, "FILE:LINE of FUNCTION".
using Site = std::string;

/// The memory model of C++ for one thread that stores and another that loads only.
///
/// The writer runs first, and its stores are logged. The order of the stores to each place is then
/// that of the log, and what a store publishes is a part of the log from its start: all of it up to
/// a release store, all up to the last release fence for a relaxed one. A reader's load may give
/// any store to its place from the newest on that the reader knows of, through what it acquired and
/// what it has read there before. Because readers store nothing that the writer reads, there is no
/// execution beside these, whichever of both runs when; seq_cst counts as acquire or release.
///
/// The reader's code runs once for each choice of what its loads give. To make a large number of
/// loads bearable, a run begins at one of all moments of the log, and each load gives the newest
/// store of that moment except for a limited number of times: a newer one, which moves the moment
/// on, or an older one. Then the memory around, a cache line or a block of 4 KiB, is seen as of
/// then as long as what was acquired allows.
class Model {
 public:
  /// As many exceptions as there can be: what there is to see is seen.
  static constexpr size_t kAll = ~size_t{0};

  bool isOn() const { return mode_ != Off; }

  /// Runs the writer, and logs what it stores to tables whose names begin with `tables`, which are
  /// all open.
  void record(const std::string& tables, const std::function<void()>& writer);
  /// Runs the reader for every choice, with so many exceptions in a run at most, until one returns
  /// a complaint. Returns the complaint, or "".
  std::string explore(size_t exceptions, const std::function<std::string()>& reader);
  /// How many runs the last exploration had, and over how many stores.
  size_t runs() const { return runs_; }
  size_t stores() const { return log_.size(); }

  /// Takes away what the memory orders at a site do.
  void weaken(const Site& site) { weakened_ = site; }
  /// All sites so far that had more than a relaxed order.
  const std::set<Site>& sites() const { return sites_; }

  // For the atomics.
  uint64_t load(const void* at, uint64_t stands, std::memory_order order, const Where& where);
  void store(const void* at, uint64_t former, uint64_t value, std::memory_order order,
             const Where& where);
  void fence(std::memory_order order, const Where& where);

 private:
  struct Store {
    uint64_t value;
    size_t publishes;  ///< how many stores of the log who acquires it knows
  };
  /// What was stored to one place: the value before, then stores of the log.
  struct Place {
    uint64_t before;
    uint64_t line;
    uint64_t block;
    std::vector<size_t> stores;
    size_t run = 0;       ///< of which the others are
    size_t lastRead = 0;  ///< how many of the stores are older than or are what was read last
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

  /// Since when a part of the memory has not reached the reader, in a run.
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
  size_t fenced_ = 0;  // how much of the log the writer's last release fence publishes
  // The run's.
  size_t acquired_ = 0;
  size_t seen_ = 0;  // becomes acquired at the next acquire fence
  size_t moment_ = 0;
  size_t left_ = 0;
  Parts lines_;   // of 64 bytes
  Parts blocks_;  // of 4096 bytes
  std::vector<Choice> choices_;
  size_t nextChoice_ = 0;
  size_t runs_ = 0;
  Site weakened_;
  std::set<Site> sites_;
  std::map<std::pair<const char*, int>, Site> siteOfLine_;
};

extern Model model;

}  // namespace Weak
