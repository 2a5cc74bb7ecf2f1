// Throughput of tarn_dt_convert over 64 Mi source elements, against memcpy of the destination's
// bytes measured in the same run. Bytes processed count the elements read and written; the
// counter x_memcpy is the conversion's time over memcpy's for as many destination bytes.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_timing.h"
#include "tarnio/arrays/data_type.h"

namespace {

namespace dt = Tarn::dt;

constexpr std::size_t kCount = std::size_t{64} << 20;
constexpr std::size_t kMaxStride = 2;
constexpr std::size_t kPatternLength = std::size_t{1} << 20;

// kMaxStride * kCount elements: a random pattern of fixed seed, repeated.
template <class T, class Distribution>
std::vector<std::byte> tiled(Distribution distribution) {
  std::mt19937_64 generator(20240611);
  std::vector<T> pattern(kPatternLength);
  for (T& value : pattern) value = static_cast<T>(distribution(generator));
  std::vector<std::byte> data(kMaxStride * kCount * sizeof(T));
  for (std::size_t at = 0; at < data.size(); at += sizeof(T) * kPatternLength) {
    std::memcpy(&data[at], pattern.data(), sizeof(T) * kPatternLength);
  }
  return data;
}

std::vector<std::byte> make_source(DataType type) {
  switch (type) {
    case dt::uint16:
      return tiled<std::uint16_t>(std::uniform_int_distribution<int>(0, 65535));
    case dt::int16:
      return tiled<std::int16_t>(std::uniform_int_distribution<int>(-32768, 32767));
    case dt::single:
      return tiled<float>(std::uniform_real_distribution<float>(-1e6f, 1e6f));
    default:
      return tiled<double>(std::uniform_real_distribution<double>(-1e6, 1e6));
  }
}

const std::vector<std::byte>& source(DataType type) {
  static std::map<DataType, std::vector<std::byte>> sources;
  auto [found, fresh] = sources.try_emplace(type);
  if (fresh) found->second = make_source(type);
  return found->second;
}

// Large enough for every destination, its pages touched once before any timing.
std::vector<std::byte>& destination() {
  static std::vector<std::byte> bytes(kCount * tarn_dt_get_size(dt::cplx_single));
  return bytes;
}

// Seconds per memcpy of kCount elements, by destination element size.
std::map<std::size_t, double>& memcpy_seconds() {
  static std::map<std::size_t, double> seconds;
  return seconds;
}

void memcpy_bench(benchmark::State& state, std::size_t element_size) {
  const std::size_t bytes = kCount * element_size;
  const std::byte* from = source(dt::double_).data();
  std::byte* to = destination().data();
  memcpy_seconds()[element_size] = tarnio_bench::timed(state, [&] {
    std::memcpy(to, from, bytes);
    benchmark::ClobberMemory();
  });
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(2 * bytes));
}

void convert_bench(benchmark::State& state, DataType src_dt, DataType dst_dt,
                   std::size_t src_stride) {
  const std::byte* from = source(src_dt).data();
  std::byte* to = destination().data();
  int result = 0;
  const double seconds = tarnio_bench::timed(state, [&] {
    result |= tarn_dt_convert_with_strides(src_dt, dst_dt, from, src_stride, to, 1, kCount, nullptr,
                                           nullptr);
    benchmark::ClobberMemory();
  });
  if (result != 0) state.SkipWithError("conversion not supported");
  const std::size_t dst_size = tarn_dt_get_size(dst_dt);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(
                                                   kCount * (tarn_dt_get_size(src_dt) + dst_size)));
  const auto baseline = memcpy_seconds().find(dst_size);
  if (baseline != memcpy_seconds().end()) state.counters["x_memcpy"] = seconds / baseline->second;
}

struct Pair {
  const char* label;
  DataType src_dt;
  DataType dst_dt;
};

constexpr Pair kPairs[] = {
    {"uint16_to_single", dt::uint16, dt::single},
    {"uint16_to_double", dt::uint16, dt::double_},
    {"int16_to_uint8", dt::int16, dt::uint8},
    {"double_to_single", dt::double_, dt::single},
    {"single_to_cplx_single", dt::single, dt::cplx_single},
    {"double_to_int32", dt::double_, dt::int32},
    {"uint16_copy", dt::uint16, dt::uint16},
};

}  // namespace

int main(int argc, char** argv) {
  // The baselines run first, so that every conversion finds its own.
  for (const std::size_t size : std::initializer_list<std::size_t>{1, 2, 4, 8}) {
    const std::string name = "memcpy/" + std::to_string(size) + "_bytes_per_element";
    benchmark::RegisterBenchmark(name.c_str(), memcpy_bench, size)->Unit(benchmark::kMillisecond);
  }
  for (const std::size_t stride : {std::size_t{1}, kMaxStride}) {
    for (const Pair& pair : kPairs) {
      const std::string name =
          std::string("convert/") + pair.label + "/src_stride:" + std::to_string(stride);
      benchmark::RegisterBenchmark(name.c_str(), convert_bench, pair.src_dt, pair.dst_dt, stride)
          ->Unit(benchmark::kMillisecond);
    }
  }
  return tarnio_bench::run_benchmarks(argc, argv);
}
