// The OME model on an acquisition's OME-XML: one image of 100000 planes and 1000 ROIs that the
// image references. Reading the document into a root (references resolved) and writing it
// back are set against pugixml's parse and save of the same text in the same run (x_pugixml,
// limit 2); the heap a read root holds is set against the size of the text (x_text, limit 6).
// Lookups, ID counting and resolving every reference are timed on a document and on one twice
// its size: x_linear is the time per element of the larger over the smaller (limit 1.5).

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>
#include <utility>

#include "bench/bench_timing.h"
#include "bench/heap_watch.h"
#include "bench/pugixml_baseline.h"
#include "tarnio/ome/root.h"

// The counting operators pair malloc with free; once inlined beside the element classes'
// constructors, GCC takes the pair for a mismatch.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void* operator new(std::size_t size) {
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  return tarnio_bench::count_allocation(block);
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* block) noexcept {
  tarnio_bench::count_release(block);
  std::free(block);
}
void operator delete[](void* block) noexcept { operator delete(block); }
void operator delete(void* block, std::size_t) noexcept { operator delete(block); }
void operator delete[](void* block, std::size_t) noexcept { operator delete(block); }

namespace {

// An acquisition of `planes` planes (10 channels, 100 time points) and `rois` ROIs with a
// rectangle each, all referenced by the image, and `detectors` detectors.
std::string make_document(int planes, int rois, int detectors) {
  const int z_count = planes / 1000;
  std::string xml = fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<OME xmlns=\"http://www.openmicroscopy.org/Schemas/OME/2016-06\">\n"
      "  <Instrument ID=\"Instrument:0\">\n");
  for (int d = 0; d < detectors; ++d) {
    xml += fmt::format("    <Detector ID=\"Detector:{}\" Type=\"PMT\" Gain=\"1.5\"/>\n", d);
  }
  xml += fmt::format(
      "  </Instrument>\n"
      "  <Image ID=\"Image:0\" Name=\"acquisition\">\n"
      "    <AcquisitionDate>2026-01-01T12:00:00</AcquisitionDate>\n"
      "    <InstrumentRef ID=\"Instrument:0\"/>\n"
      "    <Pixels ID=\"Pixels:0\" DimensionOrder=\"XYZCT\" Type=\"uint16\" SizeX=\"512\" "
      "SizeY=\"512\" SizeZ=\"{}\" SizeC=\"10\" SizeT=\"100\" PhysicalSizeX=\"0.065\" "
      "PhysicalSizeY=\"0.065\">\n",
      z_count);
  for (int c = 0; c < 10; ++c) {
    xml += fmt::format("      <Channel ID=\"Channel:0:{}\" Name=\"channel {}\"/>\n", c, c);
  }
  xml += "      <MetadataOnly/>\n";
  for (int p = 0; p < planes; ++p) {
    xml += fmt::format(
        "      <Plane TheZ=\"{}\" TheC=\"{}\" TheT=\"{}\" DeltaT=\"{}\" DeltaTUnit=\"s\" "
        "ExposureTime=\"0.01\" PositionX=\"{}\" PositionY=\"1.25\" PositionZ=\"{}\"/>\n",
        p % z_count, p / z_count % 10, p / z_count / 10, 0.125 * p, 0.5 * (p % 7),
        0.1 * (p % z_count));
  }
  xml += "    </Pixels>\n";
  for (int r = 0; r < rois; ++r) xml += fmt::format("    <ROIRef ID=\"ROI:{}\"/>\n", r);
  xml += "  </Image>\n";
  for (int r = 0; r < rois; ++r) {
    xml += fmt::format(
        "  <ROI ID=\"ROI:{0}\"><Union><Rectangle ID=\"Shape:{0}\" X=\"{1}\" Y=\"{2}\" "
        "Width=\"10\" Height=\"12.5\"/></Union></ROI>\n",
        r, r % 500, r / 500);
  }
  return xml + "</OME>\n";
}

const std::string& document() {
  static const std::string text = make_document(100000, 1000, 10);
  return text;
}

double pugixml_parse_seconds = 0;
double pugixml_save_seconds = 0;

void pugixml_parse(benchmark::State& state) {
  pugixml_parse_seconds = tarnio_bench::pugixml_parse_seconds(state, document());
}

void pugixml_save(benchmark::State& state) {
  std::size_t bytes = 0;
  pugixml_save_seconds = tarnio_bench::pugixml_save_seconds(state, document(), bytes);
}

void read(benchmark::State& state) {
  const double seconds = tarnio_bench::timed(state, [&] {
    OME::Root root;
    root.read_XML(document());
  });
  state.SetLabel(tarnio_bench::verdict("x_pugixml", seconds / pugixml_parse_seconds, false, 2));
}

void write(benchmark::State& state) {
  OME::Root root;
  root.read_XML(document());
  const double seconds = tarnio_bench::timed(state, [&] {
    const std::string xml = root.XML();
    benchmark::DoNotOptimize(xml.data());
  });
  state.SetLabel(tarnio_bench::verdict("x_pugixml", seconds / pugixml_save_seconds, false, 2));
}

void memory(benchmark::State& state) {
  double extra = 0;
  for (auto _ : state) {
    tarnio_bench::HeapWatch watch;
    OME::Root root;
    root.read_XML(document());
    extra = watch.extra_bytes();
  }
  state.SetLabel(
      tarnio_bench::verdict("x_text", extra / static_cast<double>(document().size()), false, 6));
}

// CPU seconds per element of `work` on a root of `size` elements, the mean of 20 runs.
template <typename Work>
double per_element(int size, Work work) {
  constexpr int kRuns = 20;
  OME::Root root;
  root.read_XML(make_document(1000, size, size));
  const double start = tarnio_bench::thread_cpu_seconds();
  for (int run = 0; run < kRuns; ++run) work(root, size);
  return (tarnio_bench::thread_cpu_seconds() - start) / kRuns / size;
}

template <typename Work>
void linear(benchmark::State& state, Work work) {
  constexpr int kSmall = 2000;
  double small = 0;
  double large = 0;
  for (auto _ : state) {
    small = per_element(kSmall, work);
    large = per_element(2 * kSmall, work);
  }
  state.counters["ns_per_element"] = 1e9 * large;
  state.SetLabel(tarnio_bench::verdict("x_linear", large / small, false, 1.5));
}

void resolve_all(benchmark::State& state) {
  linear(state, [](OME::Root& root, int) { root.resolve_references(); });
}

void find_last(benchmark::State& state) {
  linear(state, [](OME::Root& root, int size) {
    benchmark::DoNotOptimize(&root.find_detector(fmt::format("Detector:{}", size - 1)));
  });
}

void count_IDs(benchmark::State& state) {
  linear(state, [](OME::Root& root, int) {
    std::size_t total = 0;
    for (OME::ROI& roi : root.ROIs()) total += roi.ID().count();
    benchmark::DoNotOptimize(total);
  });
}

}  // namespace

int main(int argc, char** argv) {
  // The baselines run first, so that the model's figures find theirs.
  benchmark::RegisterBenchmark("ome/pugixml_parse", pugixml_parse)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("ome/read", read)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("ome/pugixml_save", pugixml_save)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("ome/write", write)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("ome/memory", memory)->Iterations(1)->Unit(benchmark::kMillisecond);
  using Run = void (*)(benchmark::State&);
  for (const auto& [name, run] :
       {std::pair<const char*, Run>{"ome/resolve_references", resolve_all},
        std::pair<const char*, Run>{"ome/find_detector", find_last},
        std::pair<const char*, Run>{"ome/ID_count", count_IDs}}) {
    benchmark::RegisterBenchmark(name, run)->Iterations(1)->Unit(benchmark::kMillisecond);
  }
  return tarnio_bench::run_benchmarks(argc, argv);
}
