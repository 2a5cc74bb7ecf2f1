#pragma once

// Timing shared by the benchmarks: each figure is printed beside its limit as a ratio of two
// measurements of the same run, and both are taken with this. Also the common end of every
// benchmark's main().

#include <benchmark/benchmark.h>
#include <time.h>

namespace tarnio_bench {

inline double thread_cpu_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// Runs `body` once per iteration and returns the mean CPU seconds of one: the machine is shared,
// and CPU time keeps the ratios steady when other work competes for the cores.
template <class Body>
double timed(benchmark::State& state, Body body) {
  const double start = thread_cpu_seconds();
  for (auto _ : state) body();
  return (thread_cpu_seconds() - start) / static_cast<double>(state.iterations());
}

// Runs the registered benchmarks with the command line's options; the exit status of main().
inline int run_benchmarks(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace tarnio_bench
