// Region copies out of in-memory uint16 stacks, into uint16 (a plain copy) and into single
// (with conversion): every second pixel of a 4096 x 4096 plane, plane 32 of a 2048 x 2048 x 64
// stack, and lines along that stack's slowest axis. Each is printed beside memcpy of as many
// destination bytes, measured in the same run, as the counter x_memcpy. A line takes 64
// elements 8 MiB apart, each from memory, which no 128-byte memcpy can match; its counter
// x_gather compares it with a plain loop that reads the same 64 elements.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "bench/bench_timing.h"
#include "tarnio/arrays/data_type.h"
#include "tarnio/arrays/region.h"
#include "tarnio/arrays/stack_interface.h"
#include "tarnio/stack_factory/create_stack.h"

namespace {

namespace dt = Tarn::dt;
using Tarn::arrays::Region;
using Tarn::arrays::StackInterface;

constexpr std::uint64_t kPlaneSide = 4096;
constexpr std::uint64_t kStackSide = 2048;
constexpr std::uint64_t kStackDepth = 64;
constexpr std::uint64_t kStackPlane = kStackSide * kStackSide;
// Lines visited in turn, so that every copy of a line reads memory, not the caches.
constexpr std::size_t kLines = 4096;

// A uint16 stack of `shape` holding a random pattern of fixed seed, repeated.
std::unique_ptr<StackInterface> make_stack(std::initializer_list<std::uint64_t> shape) {
  auto stack = Tarn::create_stack(dt::uint16, shape);
  std::mt19937_64 generator(20240611);
  std::vector<std::uint16_t> pattern(std::size_t{1} << 20);
  for (std::uint16_t& value : pattern) value = static_cast<std::uint16_t>(generator());
  const std::span<std::byte> bytes = stack->bytes();
  const std::size_t pattern_bytes = pattern.size() * sizeof(std::uint16_t);
  for (std::size_t at = 0; at < bytes.size(); at += pattern_bytes) {
    std::memcpy(&bytes[at], pattern.data(), std::min(pattern_bytes, bytes.size() - at));
  }
  return stack;
}

StackInterface& plane_stack() {
  static const auto stack = make_stack({kPlaneSide, kPlaneSide});
  return *stack;
}

StackInterface& deep_stack() {
  static const auto stack = make_stack({kStackSide, kStackSide, kStackDepth});
  return *stack;
}

// Large enough for every destination, its pages touched once before any timing.
std::vector<std::byte>& destination() {
  static std::vector<std::byte> bytes(kStackPlane * sizeof(float), std::byte{1});
  return bytes;
}

// The (x, y) of the lines, scattered over the plane.
const std::vector<std::uint64_t>& line_positions() {
  static const std::vector<std::uint64_t> positions = [] {
    std::mt19937_64 generator(7);
    std::vector<std::uint64_t> result(kLines);
    for (std::uint64_t& p : result) p = generator() % kStackPlane;
    return result;
  }();
  return positions;
}

const std::vector<Region>& line_regions() {
  static const std::vector<Region> regions = [] {
    std::vector<Region> result;
    for (const std::uint64_t p : line_positions()) {
      result.emplace_back(std::vector<std::uint64_t>{p % kStackSide, p / kStackSide, 0},
                          std::vector<std::uint64_t>{1, 1, kStackDepth});
    }
    return result;
  }();
  return regions;
}

// Seconds per memcpy, by bytes copied; seconds per gathered line, by destination type.
std::map<std::size_t, double>& memcpy_seconds() {
  static std::map<std::size_t, double> seconds;
  return seconds;
}

std::map<DataType, double>& gather_seconds() {
  static std::map<DataType, double> seconds;
  return seconds;
}

void memcpy_bench(benchmark::State& state, std::size_t bytes) {
  const std::byte* from = deep_stack().bytes().data();
  std::byte* to = destination().data();
  memcpy_seconds()[bytes] = tarnio_bench::timed(state, [&] {
    std::memcpy(to, from, bytes);
    benchmark::ClobberMemory();
  });
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(2 * bytes));
}

// The line copied by hand: 64 loads 8 MiB apart, converted by a plain cast.
template <class T>
void gather_line(const std::uint16_t* stack, std::uint64_t position, T* out) {
  for (std::uint64_t z = 0; z < kStackDepth; ++z) {
    out[z] = static_cast<T>(stack[position + z * kStackPlane]);
  }
}

void gather_bench(benchmark::State& state, DataType dst_dt) {
  const auto* stack = reinterpret_cast<const std::uint16_t*>(deep_stack().bytes().data());
  std::byte* to = destination().data();
  std::size_t line = 0;
  gather_seconds()[dst_dt] = tarnio_bench::timed(state, [&] {
    const std::uint64_t position = line_positions()[line++ % kLines];
    if (dst_dt == dt::single) {
      gather_line(stack, position, reinterpret_cast<float*>(to));
    } else {
      gather_line(stack, position, reinterpret_cast<std::uint16_t*>(to));
    }
    benchmark::ClobberMemory();
  });
  state.SetBytesProcessed(state.iterations() *
                          static_cast<std::int64_t>(kStackDepth * (2 + tarn_dt_get_size(dst_dt))));
}

// Copies one of `regions` per iteration, in turn, out of `stack` as `dst_dt`.
void region_bench(benchmark::State& state, StackInterface& stack,
                  const std::vector<Region>& regions, DataType dst_dt) {
  std::byte* to = destination().data();
  std::size_t next = 0;
  const double seconds = tarnio_bench::timed(state, [&] {
    stack.copy_out(regions[next++ % regions.size()], dst_dt, to);
    benchmark::ClobberMemory();
  });
  const std::uint64_t elements = regions.front().number_of_elements();
  const std::size_t written = elements * tarn_dt_get_size(dst_dt);
  state.SetBytesProcessed(state.iterations() *
                          static_cast<std::int64_t>(elements * sizeof(std::uint16_t) + written));
  const auto baseline = memcpy_seconds().find(written);
  if (baseline != memcpy_seconds().end()) state.counters["x_memcpy"] = seconds / baseline->second;
  if (elements == kStackDepth) {
    const auto gathered = gather_seconds().find(dst_dt);
    if (gathered != gather_seconds().end()) state.counters["x_gather"] = seconds / gathered->second;
  }
}

}  // namespace

int main(int argc, char** argv) {
  static const std::vector<Region> every_second_pixel{
      Region({0, 0}, {kPlaneSide / 2, kPlaneSide / 2}, {2, 2})};
  static const std::vector<Region> plane_32{
      Region::slice(std::vector<std::uint64_t>{kStackSide, kStackSide, kStackDepth}, 2, 32)};
  // The stacks are built before the first timing.
  (void)plane_stack();
  (void)deep_stack();
  (void)line_regions();

  // The baselines run first, so that every region copy finds its own.
  for (const std::size_t elements : {kStackDepth, kStackPlane}) {
    for (const std::size_t size : {sizeof(std::uint16_t), sizeof(float)}) {
      const std::size_t bytes = elements * size;
      const std::string name = "memcpy/" + std::to_string(bytes) + "_bytes";
      benchmark::RegisterBenchmark(name.c_str(), memcpy_bench, bytes)
          ->Unit(benchmark::kMicrosecond);
    }
  }
  for (const DataType dst_dt : {dt::uint16, dt::single}) {
    const std::string name = std::string("gather/line_to_") + tarn_dt_get_name(dst_dt);
    benchmark::RegisterBenchmark(name.c_str(), gather_bench, dst_dt)->Unit(benchmark::kMicrosecond);
  }
  struct Case {
    const char* label;
    StackInterface* stack;
    const std::vector<Region>* regions;
  };
  const Case cases[] = {
      {"every_second_pixel_of_4096x4096", &plane_stack(), &every_second_pixel},
      {"plane_32_of_2048x2048x64", &deep_stack(), &plane_32},
      {"line_along_z_of_2048x2048x64", &deep_stack(), &line_regions()},
  };
  for (const Case& c : cases) {
    for (const DataType dst_dt : {dt::uint16, dt::single}) {
      const std::string name =
          std::string("copy_out/") + c.label + "/uint16_to_" + tarn_dt_get_name(dst_dt);
      benchmark::RegisterBenchmark(name.c_str(), region_bench, std::ref(*c.stack),
                                   std::cref(*c.regions), dst_dt)
          ->Unit(benchmark::kMicrosecond);
    }
  }
  return tarnio_bench::run_benchmarks(argc, argv);
}
