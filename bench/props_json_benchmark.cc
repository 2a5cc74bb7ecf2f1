// The JSON form of property values: tarn_export_json and tarn_import_json of (a) one array of
// 10^6 doubles and (b) a struct of 10^5 members with small values, against JSON::write printing
// and JSON::read parsing the same text in the same run. Bytes processed count the JSON text; the
// counter x_json is the time over the JSON library's alone (the limit is 3).

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

#include "bench/bench_timing.h"
#include "tarnio/json/read_write.h"
#include "tarnio/props/json.h"

namespace {

constexpr std::size_t kDoubles = 1'000'000;
constexpr std::size_t kMembers = 100'000;

TProp make_doubles() {
  std::mt19937_64 random(20240611);
  std::uniform_real_distribution<double> value(-1e3, 1e3);
  TProparray<double> array(TPropSize{kDoubles});
  for (double& element : array) element = value(random);
  return TProp(std::move(array));
}

// Members "p000000" ... of a double, a short string, a logical or three doubles in turn.
TProp make_struct() {
  std::mt19937_64 random(20240612);
  std::uniform_real_distribution<double> value(-1e3, 1e3);
  TPropstruct members;
  members.reserve(kMembers);
  TProp result(std::move(members));
  for (std::size_t i = 0; i < kMembers; ++i) {
    TProp member;
    switch (i % 4) {
      case 0:
        member = TProp(value(random));
        break;
      case 1:
        member = TProp(fmt::format("value {}", i));
        break;
      case 2:
        member = TProp(i % 3 == 0);
        break;
      default: {
        TProparray<double> triple(TPropSize{3});
        for (double& element : triple) element = value(random);
        member = TProp(std::move(triple));
      }
    }
    result.get<TPropstruct>().set(fmt::format("p{:06}", i), std::move(member));
  }
  return result;
}

struct Case {
  TProp tree;
  std::string text;
  double read_seconds = 0;
  double write_seconds = 0;
};

Case& doubles_case() {
  static Case c{make_doubles(), {}};
  if (c.text.empty()) c.text = tarn_export_json(c.tree);
  return c;
}

Case& struct_case() {
  static Case c{make_struct(), {}};
  if (c.text.empty()) c.text = tarn_export_json(c.tree);
  return c;
}

void set_bytes(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

void json_read(benchmark::State& state, Case& (*get)()) {
  Case& c = get();
  c.read_seconds = tarnio_bench::timed(state, [&] {
    JSON::Value tree = JSON::read(c.text);
    benchmark::DoNotOptimize(tree);
  });
  set_bytes(state, c.text.size());
}

void prop_import(benchmark::State& state, Case& (*get)()) {
  Case& c = get();
  const double seconds = tarnio_bench::timed(state, [&] {
    TProp tree = tarn_import_json(c.text);
    benchmark::DoNotOptimize(tree);
  });
  set_bytes(state, c.text.size());
  state.counters["x_json"] = seconds / c.read_seconds;
}

void json_write(benchmark::State& state, Case& (*get)()) {
  Case& c = get();
  const JSON::Value tree = JSON::read(c.text);
  std::size_t size = 0;
  c.write_seconds = tarnio_bench::timed(state, [&] { size = JSON::write(tree).size(); });
  set_bytes(state, size);
}

void prop_export(benchmark::State& state, Case& (*get)()) {
  Case& c = get();
  std::size_t size = 0;
  const double seconds =
      tarnio_bench::timed(state, [&] { size = tarn_export_json(c.tree).size(); });
  set_bytes(state, size);
  state.counters["x_json"] = seconds / c.write_seconds;
}

}  // namespace

int main(int argc, char** argv) {
  // The JSON library's runs come first, so that ours find their baselines.
  for (const auto& [name, get] :
       {std::pair{"doubles_1e6", &doubles_case}, std::pair{"struct_1e5", &struct_case}}) {
    const std::string prefix(name);
    benchmark::RegisterBenchmark((prefix + "/read/JSON::read").c_str(), json_read, get)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((prefix + "/read/tarn_import_json").c_str(), prop_import, get)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((prefix + "/write/JSON::write").c_str(), json_write, get)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((prefix + "/write/tarn_export_json").c_str(), prop_export, get)
        ->Unit(benchmark::kMillisecond);
  }
  return tarnio_bench::run_benchmarks(argc, argv);
}
