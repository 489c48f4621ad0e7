// The exceptions of the runtime.
#pragma once

#include <exception>
#include <string>
#include <utility>

#include "platform/kiv/containers/Export.h"

namespace Pindo {

/// Base of every exception the platform raises.
class KIV_EXPORT Exception : public std::exception {
 public:
  explicit Exception(std::string message) : message_(std::move(message)) {}

  /// The reason, for people.
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

}  // namespace Pindo

namespace Kiv {

/// An operation of the runtime is not possible.
class KIV_EXPORT Exception : public Pindo::Exception {
 public:
  using Pindo::Exception::Exception;
};

/// A value or an argument is outside the range that its type allows.
class KIV_EXPORT RangeException : public Exception {
 public:
  using Exception::Exception;
};

}  // namespace Kiv

/// Refuses an argument: raises Kiv::RangeException with `text` unless `condition` holds.
#define KIV_REQUIRE(condition, text)     \
  do {                                   \
    if (!(condition)) [[unlikely]]       \
      throw ::Kiv::RangeException(text); \
  } while (false)
