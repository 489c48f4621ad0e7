// Assertions: a broken invariant stops the process.
#pragma once

#include <string_view>

namespace Kiv {

/// Reports a broken invariant on standard error and aborts.
///
/// \param expression  the condition that did not hold, as written.
/// \param module      the source module, such as "HostRouteSm".
/// \param function    the full signature of the function.
[[noreturn]] void assertionFailed(std::string_view expression, std::string_view module, int line,
                                  std::string_view function) noexcept;

}  // namespace Kiv

/// Unless `expression` holds, reports it with the module, the line and the function's full
/// signature, and stops the process.
#define KIV_ASSERT(module, expression) KIV_ASSERT_AS(module, expression, #expression)

/// KIV_ASSERT that shows `text`, which does not depend on the spelling of the expression.
#define KIV_ASSERT_AS(module, expression, text)                            \
  do {                                                                     \
    if (!(expression)) [[unlikely]]                                        \
      ::Kiv::assertionFailed(text, module, __LINE__, __PRETTY_FUNCTION__); \
  } while (false)
