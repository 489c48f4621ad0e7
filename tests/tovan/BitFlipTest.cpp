// Flips every bit of a table in turn: no reader may get a wrong value, or miss one without a
// report.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "platform/tovan/Reports.h"
#include "tests/tovan/SharedTable.h"

namespace Tovan {
namespace {

/// Counts of the results of reading a table after a bit was flipped.
struct Findings {
  size_t flips = 0;
  size_t told = 0;  ///< flips that were reported
  size_t wrong = 0;
  size_t silentlyLost = 0;
};

class BitFlipTest : public SharedTable {
 protected:
  /// Only each n-th bit, to save time; scripts/flip-bits flips all.
  static size_t stride() {
    const char* asked = std::getenv("HOSTROUTE_FLIP_STRIDE");
    return asked == nullptr ? 97 : std::strtoul(asked, nullptr, 10);
  }
  static constexpr uint64_t key(uint64_t n) { return 0x5eed'0000'0000'0000 + n; }

  /// Makes a table from which each third key was removed, and maps its file.
  void make(uint64_t entries) {
    entries_ = entries;
    {
      Map table = writer();
      for (uint64_t n = 0; n < entries; ++n) table.set(key(n), Repeated(n));
      for (uint64_t n = 0; n < entries; n += 3) table.erase(key(n));
    }
    map();
    former_.assign(bytes_, bytes_ + size_);
  }
  void map() {
    fd_ = file();
    size_ = static_cast<size_t>(::lseek(fd_, 0, SEEK_END));
    bytes_ =
        static_cast<uint8_t*>(::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0));
  }
  void unmap() {
    if (bytes_ != nullptr) ::munmap(std::exchange(bytes_, nullptr), size_);
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }
  void TearDown() override {
    unmap();
    SharedTable::TearDown();
  }
  bool isThere(uint64_t n) const { return n % 3 != 0; }
  uint64_t there() const { return entries_ - (entries_ + 2) / 3; }
  bool isRight(uint64_t n, const std::optional<Repeated>& value) const {
    return value ? isThere(n) && value->word() == n && value->isWhole() : !isThere(n);
  }

  /// The places of the bits that are read: header, directory, pages.
  std::vector<size_t> bits(size_t every) const {
    constexpr size_t kTop = 4096;
    constexpr size_t kPages = kTop + (size_t{8} << 19);
    std::vector<size_t> all;
    for (size_t at = 0; at < size_ * 8; at += every) {
      const size_t byte = at / 8;
      if (byte < kTop + 256 || byte >= kPages) all.push_back(at);
    }
    return all;
  }
  void flip(size_t bit) { bytes_[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8); }
  void putBack() {
    ASSERT_EQ(::ftruncate(fd_, static_cast<off_t>(size_)), 0);
    for (size_t at = 0; at < size_; at += 4096) {
      if (std::memcmp(bytes_ + at, &former_[at], std::min<size_t>(4096, size_ - at)) != 0) {
        std::memcpy(bytes_ + at, &former_[at], std::min<size_t>(4096, size_ - at));
      }
    }
  }

  /// Random bits of a large table.
  std::vector<size_t> someBits(size_t count) const {
    const auto all = bits(1);
    std::mt19937 random(1);
    std::vector<size_t> some(count);
    for (size_t& bit : some) bit = all[random() % all.size()];
    return some;
  }

  /// Looks up every key, and walks through all entries.
  void read(const Map& table, Findings& findings) {
    bool isTold = false;
    for (uint64_t n = 0; n < entries_; ++n) {
      try {
        const auto value = table.get(key(n));
        if (value && !isRight(n, value)) ++findings.wrong;
        if (!value && isThere(n)) ++findings.silentlyLost;
      } catch (const Pindo::Exception&) {
        isTold = true;
      }
    }
    bool walkIsTold = false;
    size_t met = 0;
    const auto visit = [&](const Map::Item& item) {
      const uint64_t n = item.key - key(0);
      ++met;
      if (n >= entries_ || !isThere(n) || item.value.word() != n) ++findings.wrong;
    };
    try {
      table.forEachSound(visit, [&](const std::string&) { walkIsTold = true; });
    } catch (const Pindo::Exception&) {
      walkIsTold = true;
    }
    if (!walkIsTold && (met < there() || table.size() != there())) ++findings.silentlyLost;
    findings.told += isTold || walkIsTold;
  }

  void atRest(const std::vector<size_t>& chosen) {
    Findings findings;
    const Map reading = reader();
    for (const size_t bit : chosen) atRest(bit, reading, findings);
    expectGood(findings);
  }
  /// Flips a bit while there is no writer, and reads with an open reader, a new one, and the next
  /// writer.
  void atRest(size_t bit, const Map& reading, Findings& findings) {
    ++findings.flips;
    flip(bit);
    read(reading, findings);
    try {
      read(reader(), findings);
    } catch (const OpenException&) {
      ++findings.told;
    }
    try {
      const uint64_t reported = corruptionCount();
      const Map next = writer();
      const bool isTold = corruptionCount() != reported;
      size_t met = 0;
      for (uint64_t n = 0; n < entries_; ++n) {
        const auto value = next.get(key(n));
        met += value.has_value();
        if (value && !isRight(n, value)) ++findings.wrong;
        if (!value && isThere(n) && !isTold) ++findings.silentlyLost;
      }
      if (next.size() != met) ++findings.wrong;
      findings.told += isTold;
    } catch (const OpenException&) {
      ++findings.told;
    }
    putBack();
  }

  /// Flips each bit in a signal handler, between two instructions of a reading, and restores it
  /// after another reading.
  void whileRead(const std::vector<size_t>& chosen) {
    const auto former = std::signal(SIGALRM, [](int) {
      if (waits_ != 0) *toFlip_ ^= static_cast<uint8_t>(1U << bitToFlip_ % 8);
      waits_ = 0;
    });
    Findings findings;
    const Map reading = reader();
    std::mt19937 random(2);
    for (const size_t bit : chosen) {
      toFlip_ = bytes_ + bit / 8;
      bitToFlip_ = bit;
      waits_ = 1;
      itimerval soon{};
      soon.it_value.tv_usec = static_cast<suseconds_t>(1 + random() % (entries_ / 3));
      ::setitimer(ITIMER_REAL, &soon, nullptr);
      for (Findings other; waits_ != 0;) {
        read(reading, other);
        findings.wrong += std::exchange(other.wrong, 0);
        findings.silentlyLost += std::exchange(other.silentlyLost, 0);
      }
      read(reading, findings);
      flip(bit);
    }
    std::signal(SIGALRM, former);
    findings.flips = chosen.size();
    expectGood(findings);
  }

  static void expectGood(const Findings& findings) {
    EXPECT_GT(findings.told, 0U);
    EXPECT_EQ(findings.wrong, 0U) << "in " << findings.flips << " flips";
    EXPECT_EQ(findings.silentlyLost, 0U) << "in " << findings.flips << " flips";
    std::printf("%zu bits flipped, %zu times told, %zu wrong values, %zu silent losses\n",
                findings.flips, findings.told, findings.wrong, findings.silentlyLost);
  }

  // For the signal handler.
  static inline uint8_t* volatile toFlip_ = nullptr;
  static inline volatile size_t bitToFlip_ = 0;
  static inline volatile std::sig_atomic_t waits_ = 0;

  uint64_t entries_ = 0;
  int fd_ = -1;
  uint8_t* bytes_ = nullptr;
  size_t size_ = 0;
  std::vector<uint8_t> former_;
};

TEST_F(BitFlipTest, OfASmallTable) {
  make(60);
  atRest(bits(stride()));
  whileRead(bits(stride()));
}

TEST_F(BitFlipTest, OfALargeTable) {
  make(3000);
  atRest(someBits(20000 / stride()));
  whileRead(someBits(20000 / stride()));
}

// The next changes repair any damage, for the writer and for readers.
TEST_F(BitFlipTest, UnderALivingWriter) {
  make(60);
  unmap();
  const auto table = std::make_unique<Map>(config(Access::Write));
  const Map reading = reader();
  map();
  size_t flips = 0;
  for (const size_t bit : bits(stride())) {
    flip(bit);
    ++flips;
    for (uint64_t n = 0; n < entries_; ++n) {
      try {
        ASSERT_TRUE(isRight(n, table->get(key(n)))) << "bit " << bit;
      } catch (const CorruptionDetectedException&) {
      }
    }
    for (uint64_t n = 0; n < entries_; ++n) {
      if (isThere(n)) {
        table->set(key(n), Repeated(n));
      } else {
        table->erase(key(n));
      }
    }
    ASSERT_EQ(table->size(), there()) << "bit " << bit;
    for (const Map* opened : {&reading, static_cast<const Map*>(table.get())}) {
      for (uint64_t n = 0; n < entries_; ++n) {
        ASSERT_TRUE(isRight(n, opened->get(key(n)))) << "bit " << bit;
      }
      ASSERT_EQ(opened->size(), table->size()) << "bit " << bit;
    }
    ASSERT_NO_THROW(reader()) << "bit " << bit;
  }
  EXPECT_GT(flips, 100U);
}

// A writer that makes no changes also finds the damage, reports it once, and announces every entry
// that is lost.
TEST_F(BitFlipTest, UnderAWriterThatTends) {
  make(60);
  unmap();
  Map table = writer();
  const Map reading = reader();
  map();
  Findings findings;
  Findings meanwhile;
  std::atomic<bool> ends = false;
  const Map third = reader();
  std::thread other([&] {
    while (!ends) read(third, meanwhile);
  });
  for (const size_t bit : bits(stride())) {
    const size_t reported = table.corruptions();
    flip(bit);
    ++findings.flips;
    tend(table);
    const size_t told = table.corruptions() - reported;
    findings.told += told;
    EXPECT_LE(told, 1U) << "bit " << bit << ": " << table.lastCorruption();
    const bool hasDropped = table.takeDropped().has_value();
    for (uint64_t n = 0; n < entries_; ++n) {
      const auto value = reading.get(key(n));
      if (value && !isRight(n, value)) ++findings.wrong;
      if (value || !isThere(n)) continue;
      if (told == 0 || !hasDropped) ++findings.silentlyLost;
      table.set(key(n), Repeated(n));
    }
    ASSERT_EQ(reading.size(), there()) << "bit " << bit;
    tend(table);
    ASSERT_EQ(table.corruptions(), reported + told) << "bit " << bit;
  }
  ends = true;
  other.join();
  findings.wrong += meanwhile.wrong;
  expectGood(findings);
}

}  // namespace
}  // namespace Tovan
