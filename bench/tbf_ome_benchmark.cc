// The OME description of a TBF file with 10000 stacks, each with its image. Closing the file
// (the images' OME-XML written into the metadata block) is set against pugixml's print of the
// same XML (x_pugixml, limit 2), both in CPU seconds. Closing includes writing and syncing the
// block, so x_bytes sets it against closing a file that holds the same XML as a plain entry
// (no limit: it shows what describing the stacks adds to storing the bytes). Opening a file whose
// "ome_xml" holds that XML is set against reading the XML into an OME root (x_parse, limit 0.2):
// opening must not parse the description.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>

#include "bench/bench_files.h"
#include "bench/bench_timing.h"
#include "bench/pugixml_baseline.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/ome/root.h"

namespace {

using Mode = Tarn::bf::DiskFile::Mode;

constexpr int kStacks = 10000;

// A file being written, its stacks committed (without data), not yet closed.
std::shared_ptr<Tarn::bf::FileInterface> open_file_with_stacks(const std::filesystem::path& path) {
  auto file = Tarn::create_file();
  file->open(path, Mode::write);
  for (int i = 0; i < kStacks; ++i) {
    const auto stack = file->add_stack(Tarn::dt::uint16, {512, 512, 3, 16});
    stack->set_name("tile " + std::to_string(i));
    stack->set_labels({"X", "Y", "C", "Z"});
    stack->set_lengths({51.2, 51.2, 3, 8});
    for (const std::uint64_t axis : {0u, 1u, 3u}) {
      stack->set_units(axis, Tarn::units::RuntimeValue(1.0, "µm"));
    }
    stack->set_no_data(true);
    stack->commit();
  }
  return file;
}

std::string written_xml;
double pugixml_print_seconds = 0;

// CPU seconds of closing a file that holds `xml` as its only entry, the mean of `runs`.
double close_plain_entry_seconds(const std::string& xml, int runs) {
  const auto path = tarnio_bench::bench_file("ome_plain.tbf");
  double seconds = 0;
  for (int run = 0; run < runs; ++run) {
    auto file = Tarn::create_file(false);
    file->open(path, Mode::write);
    file->set_metadata("ome_xml", xml);
    const double start = tarnio_bench::thread_cpu_seconds();
    file->close();
    seconds += tarnio_bench::thread_cpu_seconds() - start;
  }
  tarnio_bench::remove_file(path);
  return seconds / runs;
}

void close_file(benchmark::State& state) {
  const auto path = tarnio_bench::bench_file("ome_close.tbf");
  double seconds = 0;
  for (auto _ : state) {
    const auto file = open_file_with_stacks(path);
    const double start = tarnio_bench::thread_cpu_seconds();
    file->close();
    const double cpu = tarnio_bench::thread_cpu_seconds() - start;
    seconds += cpu;
    state.SetIterationTime(cpu);
  }
  seconds /= static_cast<double>(state.iterations());
  written_xml = Tarn::open_file(path, Mode::read)->metadata().at("ome_xml");
  tarnio_bench::remove_file(path);

  state.counters["xml_MiB"] = static_cast<double>(written_xml.size()) / (1 << 20);
  state.counters["x_bytes"] = seconds / close_plain_entry_seconds(written_xml, 3);
  state.SetLabel(tarnio_bench::verdict("x_pugixml", seconds / pugixml_print_seconds, false, 2));
}

void pugixml_print(benchmark::State& state) {
  if (written_xml.empty()) {
    const auto path = tarnio_bench::bench_file("ome_baseline.tbf");
    open_file_with_stacks(path)->close();
    written_xml = Tarn::open_file(path, Mode::read)->metadata().at("ome_xml");
    tarnio_bench::remove_file(path);
  }
  std::size_t bytes = 0;
  pugixml_print_seconds = tarnio_bench::pugixml_save_seconds(state, written_xml, bytes);
}

void open_without_parsing(benchmark::State& state) {
  const auto path = tarnio_bench::bench_file("ome_open.tbf");
  {
    auto file = Tarn::create_file(false);
    file->open(path, Mode::write);
    file->set_metadata("ome_xml", written_xml);
    file->close();
  }
  OME::Root root;
  double open = 0;
  double parse = 0;
  for (auto _ : state) {
    double start = tarnio_bench::thread_cpu_seconds();
    benchmark::DoNotOptimize(Tarn::open_file(path, Mode::read)->metadata().size());
    open += tarnio_bench::thread_cpu_seconds() - start;
    start = tarnio_bench::thread_cpu_seconds();
    root.read_XML(written_xml);
    parse += tarnio_bench::thread_cpu_seconds() - start;
  }
  tarnio_bench::remove_file(path);
  state.SetLabel(tarnio_bench::verdict("x_parse", open / parse, false, 0.2));
}

}  // namespace

int main(int argc, char** argv) {
  // The baseline runs first, so that the file's figure finds it.
  benchmark::RegisterBenchmark("tbf_ome/pugixml_print", pugixml_print)
      ->Unit(benchmark::kMillisecond);
  tarnio_bench::register_manual_time("tbf_ome/close_10000_stacks", close_file, 3);
  benchmark::RegisterBenchmark("tbf_ome/open", open_without_parsing)
      ->Iterations(5)
      ->Unit(benchmark::kMillisecond);
  return tarnio_bench::run_benchmarks(argc, argv);
}
