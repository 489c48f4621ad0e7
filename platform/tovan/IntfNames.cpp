#include "platform/tovan/IntfNames.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace Tovan {

IntfNames::IntfNames(const TableConfig& config) : names_(config) {
  if (names_.isReadOnly()) return;
  // The names of a former writer keep their numbers. Damaged names leave gaps.
  for (const auto& [number, text] : names_) {
    learn(number, read(text));
    passOver(number);
  }
}

uint32_t IntfNames::numberOf(Zemit::IntfId intf) {
  if (intf == Zemit::IntfId()) return 0;
  if (intf.value() < numbers_.size() && numbers_[intf.value()] != 0) {
    return numbers_[intf.value()];
  }
  const std::string_view name = intf.name();
  KIV_REQUIRE(name.size() <= kMaxBytes, "IntfName::bytes > 127 not allowed");
  const uint32_t number = next_;
  names_.set(number, textOf(name));
  learn(number, intf);
  passOver(number);
  mend();
  return number;
}

/// Publishes the names again that the table lost.
void IntfNames::mend() {
  while (names_.takeDropped()) {
    for (uint32_t number = 1; number < intfs_.size(); ++number) {
      if (intfs_[number] == Zemit::IntfId()) continue;
      names_.set(number, textOf(intfs_[number].name()));
    }
  }
}

IntfNames::Text IntfNames::textOf(std::string_view name) {
  Text text{};
  std::copy(name.begin(), name.end(), text.bytes.begin());
  return text;
}

void IntfNames::passOver(uint32_t number) {
  next_ = std::max(next_, number + 1);
}

Zemit::IntfId IntfNames::fetch(uint32_t number) const {
  const auto text = names_.get(number);
  if (!text) return {};
  const auto intf = read(*text);
  learn(number, intf);
  return intf;
}

Zemit::IntfId IntfNames::read(const Text& text) {
  const size_t size = ::strnlen(text.bytes.data(), kMaxBytes);
  return Zemit::IntfId::of(std::string_view(text.bytes.data(), size));
}

void IntfNames::learn(uint32_t number, Zemit::IntfId intf) const {
  if (intfs_.size() <= number) intfs_.resize(size_t{number} + 1);
  intfs_[number] = intf;
  if (numbers_.size() <= intf.value()) numbers_.resize(intf.value() + 1);
  numbers_[intf.value()] = number;
}

}  // namespace Tovan
