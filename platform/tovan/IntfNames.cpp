#include "platform/tovan/IntfNames.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace Tovan {

IntfNames::IntfNames(const TableConfig& config) : names_(config) {
  if (names_.isReadOnly()) return;
  // The names of a former writer keep their numbers. Damaged names leave gaps.
  for (const auto& [number, text] : names_) {
    const auto intf = read(text);
    learn(number, intf);
    numberIs(intf, number);
    ++unused_;
    next_ = std::max(next_, number + 1);
  }
}

uint32_t IntfNames::take(Zemit::IntfId intf) {
  if (intf == Zemit::IntfId()) return 0;
  uint32_t number = intf.value() < numbers_.size() ? numbers_[intf.value()] : 0;
  if (number != 0) {
    Known& known = *find(number);
    if (known.uses++ == 0) --unused_;
    return number;
  }
  const std::string_view name = intf.name();
  KIV_REQUIRE(name.size() <= kMaxBytes, "IntfName::bytes > 127 not allowed");
  number = next_;
  names_.set(number, textOf(name));
  ++next_;
  numberIs(intf, number);
  ++learn(number, intf).uses;
  mend();
  return number;
}

void IntfNames::hold(uint32_t number) {
  next_ = std::max(next_, number + 1);
  Known* known = find(number);
  if (known != nullptr && known->uses++ == 0) --unused_;
}

void IntfNames::drop(uint32_t number) {
  Known* known = find(number);
  if (known == nullptr || known->uses == 0 || --known->uses != 0) return;
  ++unused_;
  if (unused_ > kMostUnused + (names_.size() - unused_) / 2) removeUnused();
}

void IntfNames::removeUnused() {
  forEachKnown([&](uint32_t number, Known& known) {
    // The highest number stays, so that the next writer knows which numbers were assigned.
    if (known.uses != 0 || number + 1 == next_) return;
    names_.erase(number);
    numbers_[known.intf.value()] = 0;
    known = {};
    --unused_;
  });
  const size_t last = next_ / kChunk;
  for (size_t chunk = 0; chunk < std::min(chunks_.size(), last); ++chunk) {
    const auto isUnknown = [](const Known& known) { return known.intf == Zemit::IntfId(); };
    if (chunks_[chunk] && std::ranges::all_of(*chunks_[chunk], isUnknown)) chunks_[chunk] = nullptr;
  }
  mend();
}

/// Publishes the names again that the table lost.
void IntfNames::mend() {
  while (names_.takeDropped()) {
    forEachKnown([&](uint32_t number, const Known& known) {
      names_.set(number, textOf(known.intf.name()));
    });
  }
}

IntfNames::Text IntfNames::textOf(std::string_view name) {
  Text text{};
  std::copy(name.begin(), name.end(), text.bytes.begin());
  return text;
}

Zemit::IntfId IntfNames::fetch(uint32_t number) const {
  const auto text = names_.get(number);
  if (!text) return {};
  return learn(number, read(*text)).intf;
}

Zemit::IntfId IntfNames::read(const Text& text) {
  const size_t size = ::strnlen(text.bytes.data(), kMaxBytes);
  return Zemit::IntfId::of(std::string_view(text.bytes.data(), size));
}

IntfNames::Known& IntfNames::learn(uint32_t number, Zemit::IntfId intf) const {
  const size_t chunk = number / kChunk;
  if (chunks_.size() <= chunk) chunks_.resize(chunk + 1);
  if (chunks_[chunk] == nullptr) chunks_[chunk] = std::make_unique<Chunk>();
  Known& known = (*chunks_[chunk])[number % kChunk];
  known.intf = intf;
  return known;
}

void IntfNames::numberIs(Zemit::IntfId intf, uint32_t number) {
  if (numbers_.size() <= intf.value()) numbers_.resize(intf.value() + 1);
  numbers_[intf.value()] = number;
}

}  // namespace Tovan
