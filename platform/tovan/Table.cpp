// The parts of a shared-memory table that do not depend on its entries: header and memory.
#include "platform/tovan/Table.h"

#include <algorithm>
#include <initializer_list>
#include <string_view>
#include <thread>
#include <utility>

#include "platform/tovan/Reports.h"

namespace Tovan {
namespace {

constexpr uint64_t kMagic = 0x6e61'766f'5420'7068;
constexpr uint64_t kVersion = 4;
constexpr auto kLongestUpdate = std::chrono::milliseconds(250);
/// The number of pages of a new table, and the least number by which a table grows.
constexpr size_t kFirstPages = 4;
constexpr auto kBetweenLooks = std::chrono::microseconds(20);

constexpr uint64_t mix(uint64_t hash, uint64_t word) {
  return Kiv::detail::fold(hash ^ word, 0x9e37'79b9'7f4a'7c15) ^ word;
}

/// Identifies the name of a layout, and the sizes of its entries and pages.
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
      layout_(layoutOf(config.layout,
                       {shape.keyBytes, shape.valueBytes, shape.pagesAt, shape.pageBytes})),
      memory_(config, shape.pagesAt + shape.maxPages * shape.pageBytes) {
  if (isReadOnly()) awaitCreation();
  const bool unfinished =
      memory_.bytes() == 0 ||
      (memory_.bytes() >= shape_.topBytes && header().magic.load(std::memory_order_acquire) == 0);
  if (!isReadOnly() && unfinished) {
    isNew_ = true;
    try {
      create();
    } catch (const NoSpaceException&) {
      memory_.remove();
      throw;
    }
  } else {
    const auto what = fault();
    if (!what.empty()) throw OpenException(titleOf(name_) + " " + what);
  }
  countPages();
  if (isReadOnly()) return;
  for (size_t i = 0; i < kHeaderWords; ++i) left_[i] = headerWord(i);
  headerIs(kBytes, memory_.bytes());
  headerIs(kStatus, guarded(0));
  const size_t data = std::max(memory_.endOfData(), shape_.pagesAt) - shape_.pagesAt;
  const size_t written = (data + shape_.pageBytes - 1) / shape_.pageBytes;
  reserved_ = std::min(pages_, static_cast<uint32_t>(isNew_ ? kFirstPages : written));
}

void Table::corruptionDetected(const std::string& message) {
  ++corruptions_;
  lastCorruption_ = message;
  reportCorruption(name_, message);
}

void Table::statusIs(uint32_t status) {
  requireWritable("statusIs to read-only Tovan table");
  headerIs(kStatus, guarded(status));
}

void Table::create() {
  memory_.clear();
  provide(0, shape_.topBytes);
  provide(shape_.pagesAt, kFirstPages * shape_.pageBytes);
  auto& top = header();
  top.version = kVersion;
  top.identity = {.layout = layout_, .seed = Kiv::drawHashSeed()};
  top.identityChecksum = checksum(top.identity);
  top.bytes.store(memory_.bytes(), std::memory_order_relaxed);
  top.size.store(guarded(0), std::memory_order_relaxed);
  // As in a repair: readers wait until the directory is made.
  top.directory.store(uint64_t{1} << 8, std::memory_order_relaxed);
  top.magic.store(kMagic, std::memory_order_release);
}

/// Waits while a writer makes the table.
void Table::awaitCreation() const {
  for (Patience patience(memory_);;) {
    memory_.refresh();
    const bool isMade = memory_.bytes() >= sizeof(TableHeader) &&
                        header().magic.load(std::memory_order_acquire) != 0;
    if (isMade || !patience.again()) return;
  }
}

void Table::restore() {
  if (memory_.isCut()) {
    provide(0, shape_.topBytes);
    provide(shape_.pagesAt, left_[kBytes] - shape_.pagesAt);
    memory_.remap();
    countPages();
    reserved_ = pages_;
    corruptionDetected(describe("memory of", memory_.bytes(), "bytes was cut short"));
  }
  for (size_t i = 0; i < kHeaderWords; ++i) {
    if (isUnused(i) || headerWord(i).load(std::memory_order_relaxed) == left_[i]) continue;
    corruptionDetected(describe("header at byte", i * sizeof(left_[i]), "is not as it was left"));
    headerWord(i).store(left_[i], std::memory_order_release);
  }
}

void Table::keepName() {
  if (memory_.isCurrent()) {
    lostName_.clear();
    return;
  }
  const auto say = [&](std::string what) {
    if (what == lostName_) return;
    lostName_ = std::move(what);
    corruptionDetected(lostName_);
  };
  if (lostName_.empty()) say(titleOf(name_) + " was removed, and is made again");
  try {
    memory_.makeAgain({{{0, bytes() - reservedBytes()}, {shape_.pagesAt, reservedBytes()}}});
    lostName_.clear();
  } catch (const OpenException& failure) {
    say(failure.what());
  } catch (const NoSpaceException& refusal) {
    reportRefusal(name_, bytes(), refusal.what());
    throw;
  }
}

void Table::provide(size_t at, size_t bytes) {
  try {
    memory_.provide(at, bytes);
    isShort_ = false;
  } catch (const NoSpaceException& refusal) {
    isShort_ = true;
    const bool isMade = memory_.bytes() >= shape_.pagesAt;
    reportRefusal(name_, isMade ? this->bytes() : 0, refusal.what());
    throw;
  }
}

std::string Table::fault() const {
  memory_.refresh();
  if (memory_.bytes() < sizeof(TableHeader)) return "is too short to be a table";
  const auto& top = header();
  const uint64_t magic = top.magic.load(std::memory_order_acquire);
  if (magic == 0) return "was never finished";
  if (magic != kMagic) return "is not a Tovan table";
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
  noteIfCut();
  const auto what = fault();
  if (!what.empty()) throw CorruptionDetectedException(titleOf(name_) + " " + what);
}

std::string Table::describe(const char* place, size_t index, const char* what) const {
  return titleOf(name_) + ": " + place + " " + std::to_string(index) + " " + what;
}

void Table::raise(const char* place, size_t index, const char* what) const {
  throw CorruptionDetectedException(describe(place, index, what));
}

void Table::raiseUnfinished(const Patience& patience, const char* place, size_t index,
                            const char* what) const {
  if (patience.writerIsGone()) raise(place, index, what);
  throw BusyException(describe(place, index, "is being changed by a writer that does not go on"));
}

void Table::countPages() const {
  const size_t bytes = std::max(memory_.bytes(), shape_.pagesAt) - shape_.pagesAt;
  pages_ = static_cast<uint32_t>(std::min(bytes / shape_.pageBytes, shape_.maxPages));
}

bool Table::isBackedByNow(uint32_t number) const {
  if (!isReadOnly()) return false;
  memory_.refresh();
  countPages();
  return number < pages_;
}

TableMemory::Part Table::morePages() const {
  // More would take too long for one insertion.
  const size_t bytes = std::min(reservedBytes() / 8, TableMemory::kLargeRequest);
  return {.at = shape_.pagesAt + reservedBytes(),
          .bytes = std::max(bytes, kFirstPages * shape_.pageBytes)};
}

void Table::pagesAreAdded(const TableMemory::Part& added) {
  headerIs(kBytes, memory_.bytes());
  countPages();
  const size_t bytes = added.at + added.bytes - shape_.pagesAt;
  reserved_ = std::min(pages_, static_cast<uint32_t>(bytes / shape_.pageBytes));
}

void Table::addPages() {
  const auto more = morePages();
  provide(more.at, more.bytes);
  pagesAreAdded(more);
}

bool Table::addSparePages() {
  const auto more = morePages();
  try {
    memory_.provide(more.at, more.bytes);
  } catch (const NoSpaceException&) {
    return false;
  }
  pagesAreAdded(more);
  return true;
}

void Table::giveBackPages(uint32_t number) {
  const size_t kept = number * shape_.pageBytes;
  memory_.giveBack(shape_.pagesAt + kept, reservedBytes() - kept);
  reserved_ = number;
}

bool Patience::wait() {
  const auto now = std::chrono::steady_clock::now();
  if (looks_ == kQuickLooks) {
    deadline_ = now + kLongestUpdate;
  } else if (writerIsGone_ || now > deadline_) {
    return false;
  }
  // It may have completed the change before it ended, so the caller reads once more.
  writerIsGone_ = !memory_.hasOtherWriter();
  if (!writerIsGone_) std::this_thread::sleep_for(kBetweenLooks);
  return true;
}

}  // namespace Tovan
