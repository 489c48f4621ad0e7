#include "platform/tovan/IntfNames.h"

#include <algorithm>
#include <cstring>

namespace Tovan {

IntfNames::IntfNames(const TableConfig& config) : names_(config), intfs_(1) {
  // What a former writer published keeps its number.
  if (!names_.isReadOnly()) {
    for (uint32_t number = 1; number <= names_.size(); ++number) fetch(number);
  }
}

uint32_t IntfNames::numberOf(Zemit::IntfId intf) {
  if (intf == Zemit::IntfId()) return 0;
  if (intf.value() < numbers_.size() && numbers_[intf.value()] != 0) {
    return numbers_[intf.value()];
  }
  const std::string_view name = intf.name();
  KIV_REQUIRE(name.size() <= kMaxBytes, "IntfName::bytes > 127 not allowed");
  Text text{};
  std::copy(name.begin(), name.end(), text.bytes.begin());
  const auto number = static_cast<uint32_t>(intfs_.size());
  names_.set(number, text);
  learn(number, intf);
  return number;
}

Zemit::IntfId IntfNames::fetch(uint32_t number) const {
  const auto text = names_.get(number);
  if (!text) return {};
  const size_t size = ::strnlen(text->bytes.data(), kMaxBytes);
  const auto intf = Zemit::IntfId::of(std::string_view(text->bytes.data(), size));
  if (number == intfs_.size()) learn(number, intf);
  return intf;
}

void IntfNames::learn(uint32_t number, Zemit::IntfId intf) const {
  intfs_.push_back(intf);
  if (numbers_.size() <= intf.value()) numbers_.resize(intf.value() + 1);
  numbers_[intf.value()] = number;
}

}  // namespace Tovan
