// The cost of a trace statement with its level off: the same loop with and without the statement.
#include <benchmark/benchmark.h>

#include "platform/kiv/containers/Hash.h"
#include "platform/kiv/runtime/Trace.h"

namespace {

Kiv::TraceFacility facility("TraceBench", "TraceBenchSm");

class Machine final : public Kiv::NamedEntity {
 public:
  Machine() : NamedEntity("machine") {}

  /// A short handler of a few instructions, which depend on those of the previous call.
  template <bool kTraces>
  [[gnu::noinline]] uint32_t handle(uint32_t key) const {
    if constexpr (kTraces) {
      KIV_TRACE(facility, 7, *this, "handling " << key << " for " << *this);
    }
    return Kiv::hashWord(key);
  }
};

template <bool kTraces>
void handler(benchmark::State& state) {
  const auto machine = Kiv::make<Machine>();
  uint32_t key = 1;
  for (auto _ : state) {
    for (int i = 0; i < 1024; ++i) key = machine->handle<kTraces>(key);
    benchmark::DoNotOptimize(key);
  }
  state.SetItemsProcessed(state.iterations() * 1024);
}
BENCHMARK(handler<false>)->Name("handler/without_statement");
BENCHMARK(handler<true>)->Name("handler/disabled_statement");

}  // namespace
