// Resolving the path "a.b{3}.c(2,1)" with tarn_prop_getp_ex, against the member lookups the
// walk cannot avoid: TPropstruct::find in each struct on the way, for the same names. The
// counter x_find is the walk's time over that baseline's; us_per_path is the figure that must
// stay within a few microseconds.
//
// Two trees, every searched struct holding its target last:
// - spread, 10^5 members in all: the root holds 316 members, "a" last; the 315 before it are
//   structs of 316 numbers each. "a" holds 316 members, "b" last, a cell array of 8 whose cell 3
//   is a struct of 316 members, "c" last: a 4x3 double array. Three lookups among 316 members.
// - wide: the root holds only "a", a struct of 10^5 members with "b" last; "b{3}" is as above.
// Member names are "m" and a number, as typical parameter names differ in a few characters.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/bench_timing.h"
#include "tarnio/props/path.h"
#include "tarnio/props/prop.h"

namespace {

constexpr std::string_view kPath = "a.b{3}.c(2,1)";
constexpr std::size_t kSpreadWidth = 316;
constexpr std::size_t kWideWidth = 100'000;

// `width` members: width - 1 fillers from `make_filler`, then `name` holding `last`.
template <class MakeFiller>
TPropstruct members(std::size_t width, std::string_view name, TProp last, MakeFiller make_filler) {
  TPropstruct record;
  record.reserve(width);
  for (std::size_t i = 0; i + 1 < width; ++i) {
    std::string filler(1, 'm');
    filler += std::to_string(i);
    record.set(filler, make_filler(i));
  }
  record.set(name, std::move(last));
  return record;
}

TProp number(std::size_t i) { return TProp(static_cast<double>(i)); }

// "b": cells of "none" but cell 3, which holds `width` members ending in "c".
TProp cell_b(std::size_t width) {
  TProp cells = TProp::cell({8});
  cells(3) = TProp(members(width, "c", TProp::array(Tarn::dt::double_, {4, 3}), number));
  return cells;
}

TProp spread_tree() {
  TProp a(members(kSpreadWidth, "b", cell_b(kSpreadWidth), number));
  return TProp(members(kSpreadWidth, "a", std::move(a), [](std::size_t) {
    return TProp(members(kSpreadWidth, "m", TProp(0.0), number));
  }));
}

TProp wide_tree() {
  TPropstruct root;
  root.set("a", TProp(members(kWideWidth, "b", cell_b(kSpreadWidth), number)));
  return TProp(std::move(root));
}

const TPropstruct& struct_of(const TProp& value) { return value.get<TPropstruct>(); }

// The structs the walk searches, with the names it looks for.
std::vector<std::pair<const TPropstruct*, std::string_view>> searches(const TProp& tree) {
  const TProp& a = struct_of(tree).find("a")->second;
  const TProp& b = struct_of(a).find("b")->second;
  return {{&struct_of(tree), "a"}, {&struct_of(a), "b"}, {&struct_of(b(3)), "c"}};
}

struct Shape {
  const char* label;
  TProp (*make)();
};

constexpr Shape kShapes[] = {{"spread", spread_tree}, {"wide", wide_tree}};

std::map<std::string, double>& find_seconds() {
  static std::map<std::string, double> seconds;
  return seconds;
}

std::map<std::string, double>& path_seconds() {
  static std::map<std::string, double> seconds;
  return seconds;
}

TProp& tree_of(const Shape& shape) {
  static std::map<std::string, TProp> trees;
  auto [found, fresh] = trees.try_emplace(shape.label);
  if (fresh) found->second = shape.make();
  return found->second;
}

void find_bench(benchmark::State& state, const Shape* shape) {
  const auto looked_up = searches(tree_of(*shape));
  find_seconds()[shape->label] = tarnio_bench::timed(state, [&] {
    for (const auto& [record, name] : looked_up) {
      auto found = record->find(name);
      benchmark::DoNotOptimize(found);
    }
  });
}

void path_bench(benchmark::State& state, const Shape* shape) {
  TProp& tree = tree_of(*shape);
  std::string error;
  bool resolved = true;
  const double seconds = tarnio_bench::timed(state, [&] {
    auto entry = tarn_prop_getp_ex(&tree, kPath, &error, false);
    resolved &= entry.first != nullptr && entry.second == TPropSize{2, 1};
    benchmark::DoNotOptimize(entry);
  });
  if (!resolved) state.SkipWithError(("path did not resolve: " + error).c_str());
  path_seconds()[shape->label] = seconds;
  state.counters["us_per_path"] = seconds * 1e6;
  const auto baseline = find_seconds().find(shape->label);
  if (baseline != find_seconds().end()) state.counters["x_find"] = seconds / baseline->second;
}

}  // namespace

int main(int argc, char** argv) {
  for (const Shape& shape : kShapes) {
    const std::string label = shape.label;
    benchmark::RegisterBenchmark(("find/" + label).c_str(), find_bench, &shape)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(("path/" + label).c_str(), path_bench, &shape)
        ->Unit(benchmark::kMicrosecond);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  for (const auto& [label, seconds] : path_seconds()) {
    std::printf("%.*s on the %s tree: %.3f us per path\n", static_cast<int>(kPath.size()),
                kPath.data(), label.c_str(), seconds * 1e6);
  }
  return 0;
}
