// Prefix tries beside one flat hash map for each prefix length and DPDK's FIB library: longest
// match, insertion, deletion, the slowest single insertions, memory. Skips peers that are not
// installed.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#ifdef HOSTROUTE_HAS_BOOST
#include <boost/unordered/unordered_flat_map.hpp>
#endif
#ifdef HOSTROUTE_HAS_ABSL
#include <absl/container/flat_hash_map.h>
#endif
#ifdef HOSTROUTE_HAS_DPDK
#include <rte_eal.h>
#include <rte_fib.h>
#include <rte_fib6.h>
#include <rte_lpm6.h>
#include <rte_malloc.h>
#endif

#include "platform/kiv/containers/HashMap.h"
#include "platform/routing/Trie.h"

namespace {

using Zemit::Ip6Addr;
using Zemit::Ip6Prefix;
using Zemit::IpAddr;
using Zemit::Prefix;

using Random = std::mt19937_64;

/// The share of a prefix length, per mille. The shares are roughly those of the Internet's tables.
struct Share {
  uint32_t len;
  uint32_t perMille;
};
constexpr Share kShares4[] = {{24, 600}, {23, 98}, {22, 105}, {21, 50}, {20, 48}, {19, 30},
                              {18, 15},  {17, 8},  {16, 14},  {15, 5},  {14, 4},  {13, 3},
                              {12, 2},   {11, 1},  {10, 1},   {9, 1},   {8, 1},   {25, 3},
                              {26, 3},   {28, 2},  {29, 2},   {30, 2},  {32, 2}};
constexpr Share kShares6[] = {{48, 455}, {32, 130}, {44, 95}, {40, 100}, {36, 50}, {29, 35},
                              {47, 25},  {46, 25},  {45, 10}, {42, 15},  {34, 10}, {33, 10},
                              {28, 5},   {30, 5},   {64, 15}, {56, 10},  {128, 5}};

template <size_t N>
uint32_t drawLen(const Share (&shares)[N], Random& random) {
  auto at = static_cast<uint32_t>(random() % 1000);
  for (const Share& share : shares) {
    if (at < share.perMille) return share.len;
    at -= share.perMille;
  }
  throw std::logic_error("shares are less than a thousand");
}

Prefix draw(Random& random, const std::vector<Prefix>&) {
  const auto addr = static_cast<uint32_t>(0x01000000 + random() % (0xE0000000 - 0x01000000));
  return Prefix::enclosing(IpAddr(addr), drawLen(kShares4, random));
}
/// Short prefixes are random in a few large blocks. Most longer prefixes are inside a former
/// prefix.
Ip6Prefix draw(Random& random, const std::vector<Ip6Prefix>& former) {
  constexpr uint64_t kBlocks[] = {0x2001, 0x2400, 0x2600, 0x2604, 0x2800, 0x2a00, 0x2a02, 0x2c00};
  const uint32_t len = drawLen(kShares6, random);
  uint64_t high = kBlocks[random() % 8] << 48 | (random() >> 16);
  if (len > 32 && !former.empty() && random() % 4 != 0) {
    high = former[random() % former.size()].addr().subnetFirst(32).high() | (random() >> 32);
  }
  return Ip6Prefix::enclosing(Ip6Addr(high, random()), len);
}

template <class P>
constexpr size_t kPrefixes = std::is_same_v<P, Prefix> ? 1'000'000 : 200'000;

/// Different prefixes in random order.
template <class P>
const std::vector<P>& prefixes() {
  static const auto result = [] {
    Random random(1);
    std::vector<P> drawn;
    Kiv::HashMap<P, Kiv::Present> seen;
    while (drawn.size() < kPrefixes<P>) {
      const P prefix = draw(random, drawn);
      if (seen.insert(prefix)) drawn.push_back(prefix);
    }
    return drawn;
  }();
  return result;
}

IpAddr inside(const Prefix& prefix, Random& random) {
  const uint32_t host = prefix.addr().subnetLast(prefix.len()).value() - prefix.addr().value();
  return IpAddr(prefix.addr().value() | (static_cast<uint32_t>(random()) & host));
}
Ip6Addr inside(const Ip6Prefix& prefix, Random& random) {
  const Ip6Addr last = prefix.addr().subnetLast(prefix.len());
  return {prefix.addr().high() | (random() & (last.high() ^ prefix.addr().high())),
          prefix.addr().low() | (random() & (last.low() ^ prefix.addr().low()))};
}

/// Addresses in randomly chosen prefixes.
template <class P>
const std::vector<typename P::Addr>& addresses() {
  static const auto result = [] {
    Random random(2);
    std::vector<typename P::Addr> drawn;
    for (size_t i = 0; i < size_t{1} << 20; ++i) {
      drawn.push_back(inside(prefixes<P>()[random() % prefixes<P>().size()], random));
    }
    return drawn;
  }();
  return result;
}

size_t heapBytes() {
  const auto info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

/// Our trie. match() returns the length of the longest match.
template <class P>
class OurTrie {
 public:
  using Prefix = P;
  void insert(const P& prefix) { trie_->routeIs(prefix, true); }
  void erase(const P& prefix) { trie_->routeDel(prefix); }
  uint32_t match(const typename P::Addr& addr) const { return trie_->longestMatch(addr).len(); }
  size_t bytes() const { return trie_->bytes(); }

 private:
  Kiv::Ptr<Routing::BasicTrie<P>> trie_ = Kiv::make<Routing::BasicTrie<P>>();
};

uint32_t key(const IpAddr& addr) {
  return addr.value();
}
std::pair<uint64_t, uint64_t> key(const Ip6Addr& addr) {
  return {addr.high(), addr.low()};
}
template <class P>
using Key = decltype(key(typename P::Addr()));

/// One hash map for each length. A look-up tries the lengths in use, the longest first. The value
/// represents a next hop.
template <class P, class Map>
class PerLength {
 public:
  using Prefix = P;
  void insert(const P& prefix) {
    Map& map = maps_[prefix.len()];
    if (map.empty()) {
      used_.push_back(prefix.len());
      std::ranges::sort(used_, std::greater());
    }
    map.emplace(key(prefix.addr()), prefix.len());
  }
  void erase(const P& prefix) {
    Map& map = maps_[prefix.len()];
    map.erase(key(prefix.addr()));
    if (map.empty()) std::erase(used_, prefix.len());
  }
  uint32_t match(const typename P::Addr& addr) const {
    for (const uint32_t len : used_) {
      if (maps_[len].contains(key(addr.subnetFirst(len)))) return len;
    }
    return P::kNullLen;
  }
  size_t bytes() const { return heapBytes() - before_; }

 private:
  size_t before_ = heapBytes();
  std::vector<uint32_t> used_;
  std::array<Map, P::kMaxLen + 1> maps_;
};
#ifdef HOSTROUTE_HAS_BOOST
template <class P>
using Boost = PerLength<P, boost::unordered_flat_map<Key<P>, uint32_t>>;
#endif
#ifdef HOSTROUTE_HAS_ABSL
template <class P>
using Absl = PerLength<P, absl::flat_hash_map<Key<P>, uint32_t>>;
#endif

#ifdef HOSTROUTE_HAS_DPDK
/// Starts DPDK without huge pages and without devices.
void startDpdk() {
  static const bool started = [] {
    const char* args[] = {"trie_bench", "--no-huge", "--no-shconf", "--no-pci",         "-m",
                          "3072",       "-l",        "0",           "--log-level=error"};
    return rte_eal_init(std::size(args), const_cast<char**>(args)) >= 0;
  }();
  if (!started) throw std::runtime_error("rte_eal_init");
}

size_t dpdkBytes() {
  rte_malloc_socket_stats stats{};
  rte_malloc_get_socket_stats(0, &stats);
  return stats.heap_allocsz_bytes;
}

class Dpdk4 {
 public:
  using Prefix = Zemit::Prefix;
  Dpdk4() {
    startDpdk();
    before_ = dpdkBytes();
    rte_fib_conf conf{};
    conf.type = RTE_FIB_DIR24_8;
    conf.default_nh = 0x7fff;
    conf.max_routes = 1 << 20;
    conf.dir24_8.nh_sz = RTE_FIB_DIR24_8_2B;
    conf.dir24_8.num_tbl8 = 1 << 14;
    fib_ = rte_fib_create("fib", 0, &conf);
    if (fib_ == nullptr) throw std::runtime_error("rte_fib_create");
  }
  ~Dpdk4() { rte_fib_free(fib_); }
  void insert(const Prefix& prefix) {
    if (rte_fib_add(fib_, prefix.addr().value(), uint8_t(prefix.len()), prefix.len()) != 0) {
      throw std::runtime_error("rte_fib_add");
    }
  }
  void erase(const Prefix& prefix) {
    rte_fib_delete(fib_, prefix.addr().value(), uint8_t(prefix.len()));
  }
  uint32_t match(const IpAddr& addr) const {
    uint32_t ip = addr.value();
    uint64_t hop;
    rte_fib_lookup_bulk(fib_, &ip, &hop, 1);
    return uint32_t(hop);
  }
  size_t bytes() const { return dpdkBytes() - before_; }

 private:
  rte_fib* fib_;
  size_t before_;
};

/// An IPv6 address in DPDK's form.
struct Bytes {
  explicit Bytes(const Ip6Addr& addr) {
    const uint64_t words[] = {__builtin_bswap64(addr.high()), __builtin_bswap64(addr.low())};
    std::memcpy(bytes, words, sizeof(bytes));
  }
  uint8_t bytes[16];
};

class Dpdk6 {
 public:
  using Prefix = Ip6Prefix;
  Dpdk6() {
    startDpdk();
    before_ = dpdkBytes();
    rte_fib6_conf conf{};
    conf.type = RTE_FIB6_TRIE;
    conf.default_nh = 0x7fff;
    conf.max_routes = 1 << 18;
    conf.trie.nh_sz = RTE_FIB6_TRIE_4B;
    conf.trie.num_tbl8 = 1 << 19;
    fib_ = rte_fib6_create("fib6", 0, &conf);
    if (fib_ == nullptr) throw std::runtime_error("rte_fib6_create");
  }
  ~Dpdk6() { rte_fib6_free(fib_); }
  void insert(const Ip6Prefix& prefix) {
    if (rte_fib6_add(fib_, Bytes(prefix.addr()).bytes, uint8_t(prefix.len()), prefix.len()) != 0) {
      throw std::runtime_error("rte_fib6_add");
    }
  }
  void erase(const Ip6Prefix& prefix) {
    rte_fib6_delete(fib_, Bytes(prefix.addr()).bytes, uint8_t(prefix.len()));
  }
  uint32_t match(const Ip6Addr& addr) const {
    Bytes ip(addr);
    uint64_t hop;
    rte_fib6_lookup_bulk(fib_, &ip.bytes, &hop, 1);
    return uint32_t(hop);
  }
  size_t bytes() const { return dpdkBytes() - before_; }

 private:
  rte_fib6* fib_;
  size_t before_;
};

/// Only for look-ups, because a deletion takes milliseconds.
class Lpm6 {
 public:
  using Prefix = Ip6Prefix;
  Lpm6() {
    startDpdk();
    before_ = dpdkBytes();
    const rte_lpm6_config conf{.max_rules = 1 << 18, .number_tbl8s = 1 << 19, .flags = 0};
    lpm_ = rte_lpm6_create("lpm6", 0, &conf);
    if (lpm_ == nullptr) throw std::runtime_error("rte_lpm6_create");
  }
  ~Lpm6() { rte_lpm6_free(lpm_); }
  void insert(const Ip6Prefix& prefix) {
    if (rte_lpm6_add(lpm_, Bytes(prefix.addr()).bytes, uint8_t(prefix.len()), prefix.len()) != 0) {
      throw std::runtime_error("rte_lpm6_add");
    }
  }
  uint32_t match(const Ip6Addr& addr) const {
    uint32_t hop = 0;
    rte_lpm6_lookup(lpm_, Bytes(addr).bytes, &hop);
    return hop;
  }
  size_t bytes() const { return dpdkBytes() - before_; }

 private:
  rte_lpm6* lpm_;
  size_t before_;
};
#endif

template <class Set>
std::unique_ptr<Set> filled() {
  auto set = std::make_unique<Set>();
  for (const auto& prefix : prefixes<typename Set::Prefix>()) set->insert(prefix);
  return set;
}

/// Look-ups that each depend on the result of the previous one.
template <class Set>
void longestMatch(benchmark::State& state) {
  using P = typename Set::Prefix;
  const auto& asked = addresses<P>();
  const auto set = filled<Set>();
  size_t at = 0;
  for (auto _ : state) {
    at = (at + set->match(asked[at])) & (asked.size() - 1);
  }
  benchmark::DoNotOptimize(at);
  state.counters["B/prefix"] = double(set->bytes()) / double(prefixes<P>().size());
}

/// One insertion into a set that grows from empty.
template <class Set>
void insertion(benchmark::State& state) {
  const auto& all = prefixes<typename Set::Prefix>();
  auto set = std::make_unique<Set>();
  size_t at = 0;
  for (auto _ : state) {
    if (at == all.size()) {
      state.PauseTiming();
      set.reset();
      set = std::make_unique<Set>();
      at = 0;
      state.ResumeTiming();
    }
    set->insert(all[at++]);
  }
}

/// One deletion from a set that shrinks to empty.
template <class Set>
void deletion(benchmark::State& state) {
  auto all = prefixes<typename Set::Prefix>();
  std::shuffle(all.begin(), all.end(), Random(3));
  auto set = filled<Set>();
  size_t at = 0;
  for (auto _ : state) {
    if (at == all.size()) {
      state.PauseTiming();
      set.reset();
      set = filled<Set>();
      at = 0;
      state.ResumeTiming();
    }
    set->erase(all[at++]);
  }
}

/// The slowest single insertions while a set grows from empty.
template <class Set>
void slowestInsertion(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  const auto& all = prefixes<typename Set::Prefix>();
  std::vector<double> nanoseconds;
  for (auto _ : state) {
    nanoseconds.clear();
    Set set;
    for (const auto& prefix : all) {
      const auto start = Clock::now();
      set.insert(prefix);
      nanoseconds.push_back(std::chrono::duration<double, std::nano>(Clock::now() - start).count());
    }
  }
  std::ranges::sort(nanoseconds);
  state.counters["p50_ns"] = nanoseconds[nanoseconds.size() / 2];
  state.counters["p99.99_ns"] = nanoseconds[nanoseconds.size() / 10000 * 9999];
  state.counters["max_ns"] = nanoseconds.back();
}

template <class Set>
void add(const std::string& name) {
  constexpr auto kOnce = kPrefixes<typename Set::Prefix>;
  benchmark::RegisterBenchmark((name + "/longestMatch").c_str(), longestMatch<Set>);
  benchmark::RegisterBenchmark((name + "/insertion").c_str(), insertion<Set>)->Iterations(kOnce);
  benchmark::RegisterBenchmark((name + "/deletion").c_str(), deletion<Set>)->Iterations(kOnce);
  benchmark::RegisterBenchmark((name + "/slowestInsertion").c_str(), slowestInsertion<Set>)
      ->Iterations(1)
      ->Unit(benchmark::kMillisecond);
}

[[maybe_unused]] const bool added = [] {
  add<OurTrie<Prefix>>("ip4/trie");
  add<OurTrie<Ip6Prefix>>("ip6/trie");
#ifdef HOSTROUTE_HAS_BOOST
  add<Boost<Prefix>>("ip4/boost");
  add<Boost<Ip6Prefix>>("ip6/boost");
#endif
#ifdef HOSTROUTE_HAS_ABSL
  add<Absl<Prefix>>("ip4/absl");
  add<Absl<Ip6Prefix>>("ip6/absl");
#endif
#ifdef HOSTROUTE_HAS_DPDK
  add<Dpdk4>("ip4/dpdk");
  add<Dpdk6>("ip6/dpdk");
  benchmark::RegisterBenchmark("ip6/lpm6/longestMatch", longestMatch<Lpm6>);
#endif
  return true;
}();

}  // namespace
