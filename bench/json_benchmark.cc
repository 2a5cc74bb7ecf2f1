// JSON::read and JSON::write over a ~50 MiB document of records, against the parser library the
// reader is built on (nlohmann::json::parse and dump) measured in the same run. Bytes processed
// count the JSON text read or written; the counter x_nlohmann is the time over the library's, and
// x_text_size the heap bytes a parsed tree holds over the size of its text.

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <malloc.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <new>
#include <nlohmann/json.hpp>
#include <random>
#include <string>

#include "bench/bench_timing.h"
#include "tarnio/json/read_write.h"

namespace {

// Heap bytes in use, as malloc counts them; every allocation of the process goes through the
// replaced operators below.
std::size_t live_bytes = 0;

void* allocate(std::size_t size) {
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  live_bytes += malloc_usable_size(block);
  return block;
}

void release(void* block) noexcept {
  if (block == nullptr) return;
  live_bytes -= malloc_usable_size(block);
  std::free(block);
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void operator delete(void* block) noexcept { release(block); }
void operator delete[](void* block) noexcept { release(block); }
void operator delete(void* block, std::size_t) noexcept { release(block); }
void operator delete[](void* block, std::size_t) noexcept { release(block); }

namespace {

constexpr std::size_t kTextSize = std::size_t{50} << 20;

// Records {"id", "name", "x", "y", "tags", "valid"} of fixed seed, up to kTextSize bytes.
const std::string& document() {
  static const std::string text = [] {
    std::mt19937_64 random(20240611);
    std::uniform_real_distribution<double> coordinate(-1000.0, 1000.0);
    constexpr const char* kTags[] = {"\"a\"", "\"b\"", "\"cell\"", "\"nucleus\"", "\"z\""};
    std::string out = "[";
    out.reserve(kTextSize + 256);
    for (std::int64_t id = 0; out.size() < kTextSize; ++id) {
      if (id > 0) out += ",\n";
      fmt::format_to(std::back_inserter(out),
                     R"({{"id": {}, "name": "sample_{:06}", "x": {}, "y": {}, "tags": [{}, {}], )"
                     R"("valid": {}}})",
                     id * 7919 - 1000000, id, coordinate(random), coordinate(random),
                     kTags[random() % 5], kTags[random() % 5], random() % 2 == 0);
    }
    out += "]";
    return out;
  }();
  return text;
}

// Seconds of the library's parse and dump, for the ratios.
double library_parse_seconds = 0;
double library_dump_seconds = 0;

// Heap bytes that `make` leaves allocated in what it returns, over the text size.
template <class Make>
double tree_over_text(Make make) {
  const std::size_t before = live_bytes;
  const auto tree = make();
  return static_cast<double>(live_bytes - before) / static_cast<double>(document().size());
}

void set_bytes(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

void library_parse(benchmark::State& state) {
  const std::string& text = document();
  library_parse_seconds = tarnio_bench::timed(state, [&] {
    auto tree = nlohmann::json::parse(text);
    benchmark::DoNotOptimize(tree);
  });
  set_bytes(state, text.size());
  state.counters["x_text_size"] = tree_over_text([&] { return nlohmann::json::parse(text); });
}

void json_read(benchmark::State& state) {
  const std::string& text = document();
  const double seconds = tarnio_bench::timed(state, [&] {
    JSON::Value tree = JSON::read(text);
    benchmark::DoNotOptimize(tree);
  });
  set_bytes(state, text.size());
  state.counters["x_nlohmann"] = seconds / library_parse_seconds;
  state.counters["x_text_size"] = tree_over_text([&] { return JSON::read(text); });
}

void library_dump(benchmark::State& state) {
  const nlohmann::json tree = nlohmann::json::parse(document());
  std::size_t size = 0;
  library_dump_seconds = tarnio_bench::timed(state, [&] { size = tree.dump().size(); });
  set_bytes(state, size);
}

void json_write(benchmark::State& state) {
  const JSON::Value tree = JSON::read(document());
  std::size_t size = 0;
  const double seconds = tarnio_bench::timed(state, [&] { size = JSON::write(tree).size(); });
  set_bytes(state, size);
  state.counters["x_nlohmann"] = seconds / library_dump_seconds;
}

}  // namespace

int main(int argc, char** argv) {
  // The library's runs come first, so that ours find their baselines.
  benchmark::RegisterBenchmark("read/nlohmann_parse", library_parse)
      ->Unit(benchmark::kMillisecond)
      ->MinTime(2.0);
  benchmark::RegisterBenchmark("read/JSON::read", json_read)
      ->Unit(benchmark::kMillisecond)
      ->MinTime(2.0);
  benchmark::RegisterBenchmark("write/nlohmann_dump", library_dump)
      ->Unit(benchmark::kMillisecond)
      ->MinTime(2.0);
  benchmark::RegisterBenchmark("write/JSON::write", json_write)
      ->Unit(benchmark::kMillisecond)
      ->MinTime(2.0);
  return tarnio_bench::run_benchmarks(argc, argv);
}
