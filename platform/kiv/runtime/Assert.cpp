#include "platform/kiv/runtime/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Kiv {

void assertionFailed(std::string_view expression, std::string_view module, int line,
                     std::string_view function) noexcept {
  std::fprintf(stderr, "assertion failed: %.*s (%.*s:%d, %.*s)\n",
               static_cast<int>(expression.size()), expression.data(),
               static_cast<int>(module.size()), module.data(), line,
               static_cast<int>(function.size()), function.data());
  std::abort();
}

}  // namespace Kiv
