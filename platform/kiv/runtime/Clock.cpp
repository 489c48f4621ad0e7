#include "platform/kiv/runtime/Clock.h"

#include <chrono>
#include <utility>

namespace Kiv {

namespace {
std::function<double()>& injected() {
  static std::function<double()> clock;
  return clock;
}
}  // namespace

double now() {
  if (const auto& clock = injected()) return clock();
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

void clockIs(std::function<double()> clock) {
  injected() = std::move(clock);
}

}  // namespace Kiv
