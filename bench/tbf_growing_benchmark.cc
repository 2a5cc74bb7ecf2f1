// A growing TBF stack (its last dimension variable, written chunk by chunk) against a plain
// write() loop of the same bytes, measured in the same run: 32 realistic 16-bit microscopy
// planes of 2048 x 2048 (microscopy_data.h; 256 MiB), written one plane per call.
//   library  create_file, add_stack(uint16, {2048, 2048, 1}), set_variable_last_dimension,
//            one write per plane (each plane a chunk, committed to the file when complete),
//            commit, close.
//   loop     open a new file, one write() per plane, fsync, close.
//   x_grow   the library's throughput over the loop's; limit >= 0.9.
// The label says whether the limit holds. After the timing, the stack is read back once and
// must hold the 32 planes.
//
// Timing is wall-clock time (manual time): the disk is part of the cost. Each iteration times
// both sides, in alternating order, both writing a new file (the old one removed first). Both
// sides end with the data durable: the library's close() syncs, the loop calls fsync. On a disk
// shared with other work an fsync now and then stalls for up to a second, on either side, about
// five times the usual cost of a write; so that such a stall does not decide the ratio, the
// ratio and the rates are those of the median times of the two sides. The files go to the directory
// named by $TARNIO_BENCH_DIR (default: the current one) and are removed at the end.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <vector>

#include "bench/bench_files.h"
#include "bench/bench_timing.h"
#include "bench/microscopy_data.h"
#include "tarnio/arrays/data_type.h"
#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/bf/stack_imp.h"

namespace tarnio_bench {
namespace {

namespace fs = std::filesystem;
namespace dt = Tarn::dt;
using Mode = Tarn::bf::DiskFile::Mode;

constexpr std::uint64_t kSide = 2048;
constexpr std::uint64_t kPlaneSamples = kSide * kSide;
constexpr std::uint64_t kPlaneBytes = kPlaneSamples * sizeof(std::uint16_t);
constexpr std::uint64_t kPlanes = 32;
constexpr std::uint64_t kStackBytes = kPlaneBytes * kPlanes;
constexpr double kStackMB = static_cast<double>(kStackBytes) / 1e6;

const std::vector<std::uint16_t>& samples() {
  static const std::vector<std::uint16_t> values = MicroscopyData().planes(0, kPlanes);
  return values;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t half = values.size() / 2;
  return values.size() % 2 == 1 ? values[half] : (values[half - 1] + values[half]) / 2;
}

// The loop the library is held against: one write() per plane, fsync, close.
void loop_write(const fs::path& path, std::span<const std::uint16_t> data) {
  write_file(path, std::as_bytes(data), kPlaneBytes, Sync::yes);
}

void library_write(const fs::path& path, std::span<const std::uint16_t> data) {
  auto file = Tarn::create_file();
  file->open(path, Mode::write);
  auto stack = file->add_stack(dt::uint16, {kSide, kSide, 1});
  stack->set_variable_last_dimension(true);
  for (std::uint64_t at = 0; at < data.size(); at += kPlaneSamples) {
    stack->write(data.subspan(at, kPlaneSamples));
  }
  stack->commit();
  file->close();
}

// Throws unless the file holds one stack of kPlanes planes equal to `data`.
void check_read_back(const fs::path& path, std::span<const std::uint16_t> data) {
  auto file = Tarn::open_file(path, Mode::read);
  const auto stack = file->stack(0);
  if (stack->shape() != std::vector<std::uint64_t>{kSide, kSide, kPlanes}) {
    throw std::runtime_error("the grown stack has another shape");
  }
  std::vector<std::uint16_t> back(data.size());
  stack->read(0, std::span(back));
  if (!std::equal(back.begin(), back.end(), data.begin())) {
    throw std::runtime_error("the grown stack holds other samples");
  }
  file->close();
}

void BM_Grow(benchmark::State& state) {
  const fs::path library_path = bench_file("grow.tbf");
  const fs::path loop_path = bench_file("loop.raw");
  const std::span<const std::uint16_t> data(samples());
  std::vector<double> library_seconds, loop_seconds;
  bool loop_first = true;
  try {
    for (auto _ : state) {
      remove_file(library_path);
      remove_file(loop_path);
      double seconds = 0;
      run_both(
          loop_first,
          [&] { loop_seconds.push_back(wall_seconds([&] { loop_write(loop_path, data); })); },
          [&] { seconds = wall_seconds([&] { library_write(library_path, data); }); });
      library_seconds.push_back(seconds);
      state.SetIterationTime(seconds);
    }
    check_read_back(library_path, data);
  } catch (const std::exception& error) {
    state.SkipWithError(error.what());
  }
  remove_file(library_path);
  remove_file(loop_path);
  if (state.error_occurred()) return;
  const double library_median = median(library_seconds);
  const double loop_median = median(loop_seconds);
  const double speed = loop_median / library_median;
  state.counters["x_grow"] = speed;
  state.counters["library_MBps"] = kStackMB / library_median;
  state.counters["loop_MBps"] = kStackMB / loop_median;
  state.SetLabel(verdict("x_grow", speed, true, 0.9));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kStackBytes));
}

// Registers the benchmark, the data made before the first timing.
void register_benchmarks() {
  (void)samples();
  register_manual_time("write_growing/uint16_2048x2048xN", BM_Grow, 9);
}

}  // namespace
}  // namespace tarnio_bench

int main(int argc, char** argv) {
  tarnio_bench::register_benchmarks();
  return tarnio_bench::run_benchmarks(argc, argv);
}
