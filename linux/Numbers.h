// Counters of the Linux side, with their descriptions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "daemon/Counters.h"

namespace Linux {

/// One number. Its row lives as long as the program.
struct Number {
  const Daemon::CounterInfo* info = nullptr;
  std::string labelValue;  ///< empty for a row without a label
  uint64_t value = 0;
};
using Numbers = std::vector<Number>;

/// A row whose number is a member of `Owner`.
template <class Owner>
struct CountedMember {
  Daemon::CounterInfo info;
  uint64_t Owner::*value;

  void addTo(Numbers& numbers, const Owner& owner) const {
    numbers.push_back({&info, {}, owner.*value});
  }
};

}  // namespace Linux
