// Throughput of JSON::from_xml and JSON::to_xml on a generated OME-XML document of about
// 20 MiB (one image, 50 channels, 10000 planes with their attributes, a hash and a map
// annotation each), against pugixml parsing and saving the same document in the same run.
// Bytes processed count the XML text; the counter x_pugixml is the time over pugixml's.

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <pugixml.hpp>
#include <random>
#include <string>

#include "bench/bench_timing.h"
#include "bench/pugixml_baseline.h"
#include "tarnio/json/value.h"
#include "tarnio/json/xml.h"

namespace {

constexpr int kChannels = 50;
constexpr int kPlanes = 10000;
constexpr int kEntriesPerPlane = 32;

std::string make_document() {
  std::mt19937_64 generator(20240611);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  std::string xml =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<OME xmlns=\"http://www.openmicroscopy.org/Schemas/OME/2016-06\"\n"
      "     xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\"\n"
      "     xsi:schemaLocation=\"http://www.openmicroscopy.org/Schemas/OME/2016-06 "
      "http://www.openmicroscopy.org/Schemas/OME/2016-06/ome.xsd\">\n"
      "  <Image ID=\"Image:0\" Name=\"benchmark\">\n"
      "    <AcquisitionDate>2024-06-11T12:00:00</AcquisitionDate>\n"
      "    <Pixels ID=\"Pixels:0\" DimensionOrder=\"XYZCT\" Type=\"uint16\" SizeX=\"512\" "
      "SizeY=\"512\" SizeZ=\"20\" SizeC=\"50\" SizeT=\"10\" PhysicalSizeX=\"0.065\" "
      "PhysicalSizeXUnit=\"\xC2\xB5m\" PhysicalSizeY=\"0.065\" PhysicalSizeYUnit=\"\xC2\xB5m\" "
      "BigEndian=\"false\">\n";
  for (int c = 0; c < kChannels; ++c) {
    xml += fmt::format(
        "      <Channel ID=\"Channel:0:{}\" Name=\"Channel {}\" SamplesPerPixel=\"1\" "
        "EmissionWavelength=\"{:.1f}\" EmissionWavelengthUnit=\"nm\" "
        "ExcitationWavelength=\"{:.1f}\" ExcitationWavelengthUnit=\"nm\" Color=\"{}\">"
        "<LightPath/></Channel>\n",
        c, c, 400 + 300 * unit(generator), 350 + 300 * unit(generator),
        static_cast<std::int32_t>(generator()));
  }
  xml += "      <MetadataOnly/>\n";
  for (int p = 0; p < kPlanes; ++p) {
    xml += fmt::format(
        "      <Plane TheZ=\"{}\" TheC=\"{}\" TheT=\"{}\" DeltaT=\"{}\" DeltaTUnit=\"s\" "
        "ExposureTime=\"{}\" ExposureTimeUnit=\"ms\" PositionX=\"{}\" "
        "PositionXUnit=\"\xC2\xB5m\" PositionY=\"{}\" PositionYUnit=\"\xC2\xB5m\" "
        "PositionZ=\"{}\" PositionZUnit=\"\xC2\xB5m\">\n"
        "        <HashSHA1>{:016x}{:016x}{:08x}</HashSHA1>\n"
        "        <AnnotationRef ID=\"Annotation:{}\"/>\n"
        "      </Plane>\n",
        p % 20, p / 20 % 50, p / 1000, 0.25 * p + unit(generator), 10 + 90 * unit(generator),
        1e4 * unit(generator), 1e4 * unit(generator), 100 * unit(generator), generator(),
        generator(), static_cast<std::uint32_t>(generator()), p);
  }
  xml += "    </Pixels>\n  </Image>\n  <StructuredAnnotations>\n";
  for (int p = 0; p < kPlanes; ++p) {
    xml += fmt::format(
        "    <MapAnnotation ID=\"Annotation:{}\" Namespace=\"example.org/acquisition/plane\">\n"
        "      <Value>\n",
        p);
    for (int e = 0; e < kEntriesPerPlane; ++e) {
      xml += fmt::format("        <M K=\"setting.{}\">{}</M>\n", e, unit(generator));
    }
    xml += "      </Value>\n    </MapAnnotation>\n";
  }
  xml += "  </StructuredAnnotations>\n</OME>\n";
  return xml;
}

const std::string& document() {
  static const std::string text = make_document();
  return text;
}

// Seconds of one run of pugixml's parse and save.
double pugixml_parse_seconds = 0;
double pugixml_save_seconds = 0;

void set_bytes(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
  state.counters["MiB"] = static_cast<double>(bytes) / (1 << 20);
}

void pugixml_parse(benchmark::State& state) {
  pugixml_parse_seconds = tarnio_bench::pugixml_parse_seconds(state, document());
  set_bytes(state, document().size());
}

void pugixml_save(benchmark::State& state) {
  std::size_t bytes = 0;
  pugixml_save_seconds = tarnio_bench::pugixml_save_seconds(state, document(), bytes);
  set_bytes(state, bytes);
}

void from_xml(benchmark::State& state) {
  const std::string& xml = document();
  const double seconds = tarnio_bench::timed(state, [&] {
    const JSON::Value read = JSON::from_xml(xml);
    benchmark::DoNotOptimize(&read);
  });
  set_bytes(state, xml.size());
  if (pugixml_parse_seconds > 0) state.counters["x_pugixml"] = seconds / pugixml_parse_seconds;
}

void to_xml(benchmark::State& state) {
  const JSON::Value read = JSON::from_xml(document());
  std::size_t bytes = 0;
  const double seconds = tarnio_bench::timed(state, [&] { bytes = JSON::to_xml(read).size(); });
  set_bytes(state, bytes);
  if (pugixml_save_seconds > 0) state.counters["x_pugixml"] = seconds / pugixml_save_seconds;
}

}  // namespace

int main(int argc, char** argv) {
  // The baselines run first, so that JSON's figures find theirs.
  benchmark::RegisterBenchmark("xml/pugixml_parse", pugixml_parse)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("xml/from_xml", from_xml)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("xml/pugixml_save", pugixml_save)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("xml/to_xml", to_xml)->Unit(benchmark::kMillisecond);
  return tarnio_bench::run_benchmarks(argc, argv);
}
