// Replaces the standard atomics by those of a model. Each source of the weak-order test includes
// this first, so that the code of the tables runs in the model.
#pragma once

// These headers use the standard atomics: the standard library, and the runtime below the tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <charconv>
#include <chrono>
#include <concepts>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <sstream>
#include <stack>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "platform/kiv/containers/Hash.h"
#include "platform/kiv/containers/SmallVector.h"
#include "platform/kiv/runtime/Attributes.h"
#include "platform/kiv/runtime/Trace.h"
#include "platform/kiv/runtime/Watch.h"
#include "platform/zemit/IntfId.h"
#include "platform/zemit/Ip6Addr.h"
#include "platform/zemit/IpAddr.h"
#include "platform/zemit/Prefix.h"
#include "tests/weakorder/Model.h"

/// Parameters with the place of a call. Clang 14 has no std::source_location.
#define WEAK_CALLER                                                 \
  const char *file = __builtin_FILE(), int line = __builtin_LINE(), \
             const char *function = __builtin_FUNCTION()

namespace std {

/// An atomic whose plain loads and stores go through the model.
template <class T>
class WeakAtomic : public Weak::RealAtomic<T> {
  using Real = Weak::RealAtomic<T>;

 public:
  using Real::Real;

  T load(memory_order order = memory_order_seq_cst, WEAK_CALLER) const noexcept {
    if (!Weak::model.isOn()) return Real::load(order);
    return Weak::fromWord<T>(
        Weak::model.load(this, Weak::toWord(Real::load(order)), order, {file, line, function}));
  }
  void store(T value, memory_order order = memory_order_seq_cst, WEAK_CALLER) noexcept {
    if (Weak::model.isOn()) {
      const uint64_t former = Weak::toWord(Real::load(memory_order_relaxed));
      Weak::model.store(this, former, Weak::toWord(value), order, {file, line, function});
    }
    Real::store(value, order);
  }
  // NOLINTNEXTLINE(google-explicit-constructor): like the standard one.
  operator T() const noexcept { return load(); }
  T operator=(T value) noexcept {
    store(value);
    return value;
  }
};

inline void weakFence(memory_order order, WEAK_CALLER) noexcept {
  Weak::model.fence(order, {file, line, function});
}

}  // namespace std

#define atomic WeakAtomic
#define atomic_thread_fence weakFence
