// Shared-memory maps beside a bare seqlock table and LMDB: updates, look-ups and growth.
//
// The bare table is the minimum that gives readers consistent entries: fixed size, no checksum, no
// journal.
#include <benchmark/benchmark.h>
#include <lmdb.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "platform/tovan/TovanMap.h"

namespace {

using Value = std::array<uint64_t, 4>;
using Map = Tovan::TovanMap<uint64_t, Value>;
using Tovan::Access;

Value valueOf(uint64_t n) {
  return {n, n, n, n};
}

/// The keys 1..count in random order, which no prefetcher can predict.
std::vector<uint64_t> shuffledKeys(size_t count) {
  std::vector<uint64_t> keys(count);
  std::iota(keys.begin(), keys.end(), 1);
  std::shuffle(keys.begin(), keys.end(), std::mt19937_64(1));
  return keys;
}

Tovan::TableConfig named(Access access) {
  return {.access = access, .name = "bench" + std::to_string(::getpid()), .layout = "bench"};
}

class EmbeddedMap : public Map {
 public:
  explicit EmbeddedMap(size_t) : Map({.name = "bench"}) {}
};

class SharedMap : public Map {
 public:
  explicit SharedMap(size_t) : Map(named(Access::Write)) {}
  ~SharedMap() override { cleanup(); }
};

class BareTable {
 public:
  explicit BareTable(size_t count) : mask_(std::bit_ceil(count * 2) - 1) {
    slots_ = static_cast<Slot*>(
        ::mmap(nullptr, bytes(), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  }
  ~BareTable() { ::munmap(slots_, bytes()); }

  void set(uint64_t key, const Value& value) {
    Slot& slot = find(key);
    const uint32_t sequence = slot.sequence.load(std::memory_order_relaxed);
    slot.sequence.store(sequence + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    slot.key.store(key, std::memory_order_relaxed);
    for (size_t i = 0; i < value.size(); ++i) {
      slot.words[i].store(value[i], std::memory_order_relaxed);
    }
    slot.sequence.store(sequence + 2, std::memory_order_release);
  }
  std::optional<Value> get(uint64_t key) const {
    const Slot& slot = find(key);
    for (;;) {
      const uint32_t sequence = slot.sequence.load(std::memory_order_acquire);
      Value value;
      for (size_t i = 0; i < value.size(); ++i) {
        value[i] = slot.words[i].load(std::memory_order_relaxed);
      }
      const uint64_t found = slot.key.load(std::memory_order_relaxed);
      std::atomic_thread_fence(std::memory_order_acquire);
      if (sequence % 2 != 0 || slot.sequence.load(std::memory_order_relaxed) != sequence) continue;
      if (found != key) return std::nullopt;
      return value;
    }
  }
  size_t bytes() const { return (mask_ + 1) * sizeof(Slot); }

 private:
  struct alignas(64) Slot {
    std::atomic<uint32_t> sequence;
    std::atomic<uint64_t> key;
    std::array<std::atomic<uint64_t>, 4> words;
  };
  Slot& find(uint64_t key) const {
    uint64_t at = Kiv::hashWord(key) & mask_;
    for (;; at = (at + 1) & mask_) {
      const uint64_t there = slots_[at].key.load(std::memory_order_relaxed);
      if (there == key || there == 0) return slots_[at];
    }
  }

  uint64_t mask_;
  Slot* slots_;
};

/// LMDB in memory, without synchronisation to disk. Commits after every kBatch writes.
class Lmdb {
 public:
  static constexpr size_t kBatch = 1000;

  explicit Lmdb(size_t) : Lmdb("/dev/shm/lmdb-bench" + std::to_string(::getpid())) {}
  explicit Lmdb(const std::string& path) : path_(path) {
    ::mkdir(path_.c_str(), 0700);
    mdb_env_create(&env_);
    mdb_env_set_mapsize(env_, size_t{1} << 30);
    mdb_env_open(env_, path_.c_str(), MDB_WRITEMAP | MDB_MAPASYNC | MDB_NOSYNC | MDB_NOMETASYNC,
                 0600);
    begin(0);
    mdb_dbi_open(transaction_, nullptr, MDB_INTEGERKEY, &table_);
  }
  ~Lmdb() {
    mdb_txn_abort(transaction_);
    mdb_env_close(env_);
    std::filesystem::remove_all(path_);
  }

  void set(uint64_t key, Value value) {
    if (!writing_) {
      mdb_txn_abort(transaction_);
      begin(0);
    }
    MDB_val k{sizeof(key), &key};
    MDB_val v{sizeof(value), &value};
    if (mdb_put(transaction_, table_, &k, &v, 0) != 0) std::abort();
    if (++pending_ == kBatch) {
      commit();
      begin(0);
    }
  }
  std::optional<Value> get(uint64_t key) {
    if (writing_) {
      commit();
      begin(MDB_RDONLY);
    }
    MDB_val k{sizeof(key), &key};
    MDB_val v;
    if (mdb_get(transaction_, table_, &k, &v) != 0) return std::nullopt;
    Value value;
    std::memcpy(&value, v.mv_data, sizeof(value));
    return value;
  }

 private:
  void begin(unsigned flags) {
    if (mdb_txn_begin(env_, nullptr, flags, &transaction_) != 0) std::abort();
    writing_ = flags == 0;
    pending_ = 0;
  }
  void commit() {
    if (mdb_txn_commit(transaction_) != 0) std::abort();
  }

  std::string path_;
  MDB_env* env_ = nullptr;
  MDB_txn* transaction_ = nullptr;
  MDB_dbi table_ = 0;
  bool writing_ = true;
  size_t pending_ = 0;
};

/// A reader of another process's LMDB. Renews its snapshot after every thousand look-ups.
class LmdbReader {
 public:
  explicit LmdbReader(const std::string& path) {
    mdb_env_create(&env_);
    mdb_env_set_mapsize(env_, size_t{1} << 30);
    mdb_env_open(env_, path.c_str(), MDB_RDONLY, 0600);
    if (mdb_txn_begin(env_, nullptr, MDB_RDONLY, &transaction_) != 0) std::abort();
    mdb_dbi_open(transaction_, nullptr, MDB_INTEGERKEY, &table_);
  }
  ~LmdbReader() {
    mdb_txn_abort(transaction_);
    mdb_env_close(env_);
  }
  std::optional<Value> get(uint64_t key) {
    if (++lookUps_ == Lmdb::kBatch) {
      mdb_txn_reset(transaction_);
      if (mdb_txn_renew(transaction_) != 0) std::abort();
      lookUps_ = 0;
    }
    MDB_val k{sizeof(key), &key};
    MDB_val v;
    if (mdb_get(transaction_, table_, &k, &v) != 0) return std::nullopt;
    Value value;
    std::memcpy(&value, v.mv_data, sizeof(value));
    return value;
  }

 private:
  MDB_env* env_ = nullptr;
  MDB_txn* transaction_ = nullptr;
  MDB_dbi table_ = 0;
  size_t lookUps_ = 0;
};

template <class Table>
void fill(Table& table, const std::vector<uint64_t>& keys) {
  for (const uint64_t key : keys) table.set(key, valueOf(key));
}

/// Updates of existing entries.
template <class Table>
void update(benchmark::State& state) {
  const auto keys = shuffledKeys(static_cast<size_t>(state.range(0)));
  Table table(keys.size());
  fill(table, keys);
  size_t i = 0;
  for (auto _ : state) {
    table.set(keys[i], valueOf(i));
    if (++i == keys.size()) i = 0;
  }
}

/// Fills an empty table. Reports the time of one insertion.
template <class Table>
void insertAll(benchmark::State& state) {
  const auto keys = shuffledKeys(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    Table table(keys.size());
    fill(table, keys);
  }
  state.counters["perInsertion"] = benchmark::Counter(
      static_cast<double>(keys.size()),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

template <class Table>
void lookUpAll(benchmark::State& state, Table& table, const std::vector<uint64_t>& keys) {
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(table.get(keys[i]));
    if (++i == keys.size()) i = 0;
  }
}

/// Look-ups in the writer's own object.
template <class Table>
void lookUp(benchmark::State& state) {
  const auto keys = shuffledKeys(static_cast<size_t>(state.range(0)));
  Table table(keys.size());
  fill(table, keys);
  lookUpAll(state, table, keys);
}

// Tables for two processes: owned() opens the table in the writer, attached() in the reader.

class TwoSidedMap {
 public:
  explicit TwoSidedMap(size_t) {}
  ~TwoSidedMap() { Tovan::removeTablesOf(config_.name); }
  std::unique_ptr<Map> owned() const {
    auto config = config_;
    config.access = Access::Write;
    return std::make_unique<Map>(config);
  }
  std::unique_ptr<Map> attached() const { return std::make_unique<Map>(config_); }

 private:
  Tovan::TableConfig config_ = named(Access::Read);
};

class TwoSidedBareTable {
 public:
  explicit TwoSidedBareTable(size_t count) : table_(count) {}
  BareTable* owned() { return &table_; }
  BareTable* attached() { return &table_; }

 private:
  BareTable table_;
};

class TwoSidedLmdb {
 public:
  explicit TwoSidedLmdb(size_t) {}
  ~TwoSidedLmdb() { std::filesystem::remove_all(path_); }
  std::unique_ptr<Lmdb> owned() const { return std::make_unique<Lmdb>(path_); }
  std::unique_ptr<LmdbReader> attached() const { return std::make_unique<LmdbReader>(path_); }

 private:
  std::string path_ = "/dev/shm/lmdb-bench" + std::to_string(::getpid());
};

/// Look-ups in another process's table, which is unchanged or continuously updated.
template <class TwoSided>
void lookUpAttached(benchmark::State& state) {
  const auto keys = shuffledKeys(static_cast<size_t>(state.range(0)));
  const bool busy = state.range(1) != 0;
  TwoSided table(keys.size());
  int filled[2];
  if (::pipe(filled) != 0) std::abort();
  const pid_t writer = ::fork();
  if (writer == 0) {
    const auto owned = table.owned();
    fill(*owned, keys);
    if (::write(filled[1], "", 1) != 1) ::_exit(1);
    while (!busy) ::pause();
    for (;;) fill(*owned, keys);
  }
  char byte;
  if (::read(filled[0], &byte, 1) != 1) std::abort();
  {
    const auto attached = table.attached();
    lookUpAll(state, *attached, keys);
  }
  ::kill(writer, SIGKILL);
  ::waitpid(writer, nullptr, 0);
  ::close(filled[0]);
  ::close(filled[1]);
}

double cpuMicroseconds() {
  timespec now;
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

/// The costs of single insertions while the table grows: the longest, and the 99.99th percentile.
/// Processor time, including page faults and system calls, excluding other processes.
template <class Table>
void growth(benchmark::State& state) {
  const auto keys = shuffledKeys(static_cast<size_t>(state.range(0)));
  std::vector<double> longest, usual;
  double bytes = 0;
  for (auto _ : state) {
    Table table(keys.size());
    std::vector<double> times(keys.size());
    for (size_t i = 0; i < keys.size(); ++i) {
      const double start = cpuMicroseconds();
      table.set(keys[i], valueOf(i));
      times[i] = cpuMicroseconds() - start;
    }
    bytes = static_cast<double>(table.bytes());
    std::sort(times.begin(), times.end());
    longest.push_back(times.back());
    usual.push_back(times[times.size() - times.size() / 10000 - 1]);
  }
  // The minimum of several runs, because the processor time of interrupts is charged to the running
  // thread.
  state.counters["longest_us"] = *std::min_element(longest.begin(), longest.end());
  state.counters["p99.99_us"] = *std::min_element(usual.begin(), usual.end());
  state.counters["bytesPerEntry"] = bytes / static_cast<double>(keys.size());
}

constexpr int64_t kSmall = 100'000;
constexpr int64_t kLarge = 1'000'000;

BENCHMARK(update<EmbeddedMap>)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(update<SharedMap>)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(update<BareTable>)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(update<Lmdb>)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(insertAll<EmbeddedMap>)->Arg(kSmall)->Arg(kLarge)->Unit(benchmark::kMillisecond);
BENCHMARK(insertAll<SharedMap>)->Arg(kSmall)->Arg(kLarge)->Unit(benchmark::kMillisecond);
BENCHMARK(insertAll<BareTable>)->Arg(kSmall)->Arg(kLarge)->Unit(benchmark::kMillisecond);
BENCHMARK(insertAll<Lmdb>)->Arg(kSmall)->Arg(kLarge)->Unit(benchmark::kMillisecond);
BENCHMARK(lookUp<EmbeddedMap>)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(lookUp<SharedMap>)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(lookUp<BareTable>)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(lookUp<Lmdb>)->Arg(kSmall)->Arg(kLarge);
#define BENCHMARK_ATTACHED(TwoSided)  \
  BENCHMARK(lookUpAttached<TwoSided>) \
      ->ArgNames({"entries", "busy"}) \
      ->ArgsProduct({{kSmall, kLarge}, {0, 1}})
BENCHMARK_ATTACHED(TwoSidedMap);
BENCHMARK_ATTACHED(TwoSidedBareTable);
BENCHMARK_ATTACHED(TwoSidedLmdb);
BENCHMARK(growth<EmbeddedMap>)->Arg(kLarge)->Iterations(5)->Unit(benchmark::kMillisecond);
BENCHMARK(growth<SharedMap>)->Arg(kLarge)->Iterations(5)->Unit(benchmark::kMillisecond);
// This table does not grow: the baseline of page faults, interrupts and the clock.
BENCHMARK(growth<BareTable>)->Arg(kLarge)->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace
