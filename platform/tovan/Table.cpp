// What all shared-memory tables have, whatever their entries: header, refusals, reports.
#include "platform/tovan/Table.h"

#include <algorithm>
#include <initializer_list>
#include <string_view>
#include <thread>

namespace Tovan {
namespace {

constexpr uint64_t kMagic = 0x6e61'766f'5420'7068;
constexpr uint64_t kVersion = 4;
constexpr auto kLongestUpdate = std::chrono::milliseconds(250);
/// A table is made with so many pages, and grows by as many at least.
constexpr size_t kFirstPages = 4;
constexpr auto kBetweenLooks = std::chrono::microseconds(20);

constexpr uint64_t mix(uint64_t hash, uint64_t word) {
  return Kiv::detail::fold(hash ^ word, 0x9e37'79b9'7f4a'7c15) ^ word;
}

/// A number for what the entries are called and the sizes that they and the pages have.
uint64_t layoutOf(std::string_view name, std::initializer_list<uint64_t> sizes) {
  uint64_t layout = 0;
  for (const char c : name) layout = mix(layout, static_cast<uint8_t>(c));
  for (const uint64_t size : sizes) layout = mix(layout, size);
  return layout;
}

uint64_t checksum(const TableHeader::Identity& identity) {
  return mix(mix(identity.layout, identity.seed.add), identity.seed.multiply);
}

}  // namespace

Table::Table(const TableConfig& config, const Shape& shape)
    : shape_(shape),
      name_(config.name),
      readOnly_(config.access == Access::Read),
      layout_(layoutOf(config.layout,
                       {shape.keyBytes, shape.valueBytes, shape.pagesAt, shape.pageBytes})),
      memory_(config, shape.pagesAt + shape.maxPages * shape.pageBytes) {
  const bool unfinished =
      memory_.bytes() == 0 ||
      (memory_.bytes() >= shape_.topBytes && header().magic.load(std::memory_order_acquire) == 0);
  if (!readOnly_ && unfinished) {
    create();
  } else {
    const auto what = fault();
    if (!what.empty()) throw OpenException(titleOf(name_) + " " + what);
  }
  countPages();
  if (!readOnly_) statusIs(0);
}

void Table::statusIs(uint64_t status) {
  requireWritable("statusIs to read-only Tovan table");
  header().status.store(status, std::memory_order_release);
}

void Table::create() {
  memory_.clear();
  memory_.provide(0, shape_.topBytes);
  memory_.provide(shape_.pagesAt, kFirstPages * shape_.pageBytes);
  auto& top = header();
  top.version = kVersion;
  top.identity = {.layout = layout_, .seed = Kiv::drawHashSeed()};
  top.identityChecksum = checksum(top.identity);
  top.bytes.store(memory_.bytes(), std::memory_order_relaxed);
  // Readers wait for the directory, which is derived as in a repair.
  top.directory.store(uint64_t{1} << 8, std::memory_order_relaxed);
  top.magic.store(kMagic, std::memory_order_release);
}

std::string Table::fault() const {
  memory_.refresh();
  if (memory_.bytes() < sizeof(TableHeader)) return "is too short to be a table";
  const auto& top = header();
  if (top.magic.load(std::memory_order_acquire) != kMagic) return "is not a Tovan table";
  if (top.version != kVersion) {
    return "has version " + std::to_string(top.version) + ", known is " + std::to_string(kVersion);
  }
  if (top.identityChecksum != checksum(top.identity)) return "has a damaged header";
  if (top.identity.layout != layout_) return "has another layout";
  const uint64_t expected = top.bytes.load(std::memory_order_acquire);
  memory_.refresh();  // it may have grown since the first look
  if (memory_.bytes() < std::max(expected, shape_.pagesAt + shape_.pageBytes)) {
    return "is truncated: " + std::to_string(memory_.bytes()) + " bytes of " +
           std::to_string(expected);
  }
  return {};
}

void Table::validateFiles() {
  requireWritable("validateFiles to read-only Tovan table");
  const auto what = fault();
  if (!what.empty()) throw CorruptionDetectedException(titleOf(name_) + " " + what);
}

std::string Table::describe(const char* place, size_t index, const char* what) const {
  return titleOf(name_) + ": " + place + " " + std::to_string(index) + " " + what;
}

void Table::raise(const char* place, size_t index, const char* what) const {
  throw CorruptionDetectedException(describe(place, index, what));
}

void Table::countPages() const {
  const size_t bytes = std::max(memory_.bytes(), shape_.pagesAt) - shape_.pagesAt;
  pages_ = static_cast<uint32_t>(std::min(bytes / shape_.pageBytes, shape_.maxPages));
}

bool Table::isBackedByNow(uint32_t number) const {
  if (!readOnly_) return false;
  memory_.refresh();
  countPages();
  return number < pages_;
}

void Table::addPages() {
  // More at once would hold up the insertion that needs it.
  const size_t bytes = std::min(pages_ * shape_.pageBytes / 8, TableMemory::kLargeRequest);
  memory_.provide(shape_.pagesAt + pages_ * shape_.pageBytes,
                  std::max(bytes, kFirstPages * shape_.pageBytes));
  header().bytes.store(memory_.bytes(), std::memory_order_release);
  countPages();
}

bool Patience::wait() {
  const auto now = std::chrono::steady_clock::now();
  if (looks_ == kQuickLooks) {
    deadline_ = now + kLongestUpdate;
  } else if (writerIsGone_ || now > deadline_) {
    return false;
  }
  // It may have finished before it went: one more look.
  writerIsGone_ = !memory_.hasOtherWriter();
  if (!writerIsGone_) std::this_thread::sleep_for(kBetweenLooks);
  return true;
}

}  // namespace Tovan
