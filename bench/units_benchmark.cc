// Parsing unit texts and values with units, the texts that stack infos and OME metadata carry.
// Each case prints ns_per_parse beside its limit of one microsecond as x_limit, and the heap
// allocations of one parse: a parse may allocate only for its result's text, which needs none
// up to 15 bytes.

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "bench/bench_timing.h"
#include "tarnio/units/base_unit.h"
#include "tarnio/units/runtime_value.h"

namespace {

std::atomic<std::size_t> allocations{0};

constexpr double kLimitSeconds = 1e-6;

constexpr const char* kUnitTexts[] = {
    "um", "nm", "ms", "Hz", "°C", "m/s", "um^-1", "mW", "reference frame", "J/(kg*K)"};
constexpr const char* kValueTexts[] = {"1.5 um", "0.065 µm", "20 °C", "100 ms", "488 nm", "3/s"};

template <class Parse>
void measure(benchmark::State& state, const char* text, Parse parse) {
  const std::size_t before = allocations.load();
  const double seconds = tarnio_bench::timed(state, [&] { benchmark::DoNotOptimize(parse(text)); });
  state.SetLabel(text);
  state.counters["ns_per_parse"] = seconds * 1e9;
  state.counters["x_limit"] = seconds / kLimitSeconds;
  state.counters["allocs_per_parse"] =
      static_cast<double>(allocations.load() - before) / static_cast<double>(state.iterations());
}

void BM_ParseUnit(benchmark::State& state) {
  measure(state, kUnitTexts[state.range(0)],
          [](const char* text) { return Tarn::units::BaseUnit::parse(text); });
}
BENCHMARK(BM_ParseUnit)->DenseRange(0, std::size(kUnitTexts) - 1);

void BM_ParseValue(benchmark::State& state) {
  measure(state, kValueTexts[state.range(0)],
          [](const char* text) { return Tarn::units::RuntimeValue::parse(text); });
}
BENCHMARK(BM_ParseValue)->DenseRange(0, std::size(kValueTexts) - 1);

}  // namespace

// Counting replacements of the global allocation functions. g++ sees free() meet a pointer that
// an operator new returned and warns, not knowing that this operator new is malloc.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

int main(int argc, char** argv) { return tarnio_bench::run_benchmarks(argc, argv); }
