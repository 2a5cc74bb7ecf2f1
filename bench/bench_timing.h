#pragma once

// Timing shared by the benchmarks: each figure is printed beside its limit as a ratio of two
// measurements of the same run, and both are taken with this: CPU time of a benchmark's loop,
// wall-clock time of one call, both sides of a comparison run in alternating order, buffers
// touched before any timing, and the label's verdict on each limit. Also the common parts of
// every benchmark's main(): registering a benchmark timed by wall clock, and running them all.
// Nothing here keeps state but the buffers, which are made on first use and never freed.

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <time.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tarnio_bench {

using Clock = std::chrono::steady_clock;

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

// Wall-clock seconds from `start` to now.
inline double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Wall-clock seconds of one call of `body`: for work that waits on the disk or on other
// processes, whose cost CPU time does not show.
template <class Body>
double wall_seconds(Body body) {
  const auto start = Clock::now();
  body();
  return seconds_since(start);
}

// Runs both sides of one iteration of a comparison, the one that went first last time second, so
// that neither always meets the state the other left behind. `first_side_first` starts true.
template <class FirstSide, class SecondSide>
void run_both(bool& first_side_first, FirstSide first_side, SecondSide second_side) {
  if (first_side_first) {
    first_side();
    second_side();
  } else {
    second_side();
    first_side();
  }
  first_side_first = !first_side_first;
}

// The buffer that reads land in: kSamples 16-bit values, the same buffer on every call. Its pages
// are touched on the first call, which main() makes before any timing, so that no side pays for
// faulting them in.
template <std::size_t kSamples>
std::span<std::uint16_t> destination() {
  static std::vector<std::uint16_t> values(kSamples, 1);
  return values;
}

// "name value >= limit ok" for a label; "MISSES" in place of "ok" where the value is on the
// wrong side of its limit. `at_least` says which side is right.
inline std::string verdict(const std::string& name, double value, bool at_least, double limit) {
  const bool ok = at_least ? value >= limit : value <= limit;
  return fmt::format("{} {:.3f} {} {}{}", name, value, at_least ? ">=" : "<=", limit,
                     ok ? " ok" : " MISSES");
}

// Registers `run` as the benchmark `name`, run exactly `iterations` times and timed by the
// seconds it gives SetIterationTime(), printed in milliseconds. Arguments are added to what it
// returns, which the benchmark library owns.
inline benchmark::internal::Benchmark* register_manual_time(const char* name,
                                                            void (*run)(benchmark::State&),
                                                            benchmark::IterationCount iterations) {
  return benchmark::RegisterBenchmark(name, run)
      ->UseManualTime()
      ->Iterations(iterations)
      ->Unit(benchmark::kMillisecond);
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
