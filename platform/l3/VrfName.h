// Names of VRFs.
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>
#include <utility>

#include "platform/kiv/containers/Exception.h"
#include "platform/kiv/containers/String.h"

namespace L3 {

/// The name of a VRF. The default value is the empty name.
class VrfName {
 public:
  static constexpr size_t kMaxBytes = 100;

  VrfName() = default;
  /// \throws Kiv::RangeException when `name` is longer than kMaxBytes.
  explicit VrfName(Kiv::String name) : value_(std::move(name)) {
    KIV_REQUIRE(value_.size() <= kMaxBytes, "VrfName::bytes > 100 not allowed");
  }

  const Kiv::String& value() const noexcept { return value_; }
  uint32_t hash() const noexcept { return value_.hash(); }

  friend bool operator==(const VrfName&, const VrfName&) = default;
  friend auto operator<=>(const VrfName&, const VrfName&) = default;

 private:
  Kiv::String value_;
};

inline std::ostream& operator<<(std::ostream& os, const VrfName& name) {
  return os << name.value();
}

}  // namespace L3
