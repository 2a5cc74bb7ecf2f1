// Export and import of property values in the property XML form (dialect 2), for (a) one array
// of 10^6 doubles and (b) a struct of 10^5 members with small values (integers, doubles, short
// strings, logicals). Each is measured against pugixml in the same run: import against parsing
// the same text, export against printing the parsed document. Bytes processed count the XML
// text; the counter x_pugixml is the time over pugixml's.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <pugixml.hpp>
#include <random>
#include <string>

#include "bench/bench_timing.h"
#include "tarnio/props/prop.h"
#include "tarnio/props/xml.h"

namespace {

constexpr std::size_t kArrayElements = 1'000'000;
constexpr int kStructMembers = 100'000;

TProp make_array() {
  std::mt19937_64 generator(20240611);
  std::normal_distribution<double> noise(100.0, 15.0);
  TProp value = TProp::array(Tarn::dt::double_, {1000, kArrayElements / 1000});
  for (double& element : value.get<TProparray<double>>()) element = noise(generator);
  return value;
}

TProp make_struct() {
  std::mt19937_64 generator(20240612);
  TPropstruct members;
  members.reserve(kStructMembers);
  for (int i = 0; i < kStructMembers; ++i) {
    const std::string name = "setting_" + std::to_string(i);
    switch (i % 4) {
      case 0:
        members.set(name, TProp(static_cast<std::int32_t>(generator() % 1000)));
        break;
      case 1:
        members.set(name, TProp(static_cast<double>(generator() % 100000) / 64));
        break;
      case 2:
        members.set(name, TProp("value " + std::to_string(generator() % 100)));
        break;
      default:
        members.set(name, TProp(generator() % 2 == 0));
        break;
    }
  }
  return TProp(std::move(members));
}

struct Subject {
  TProp value;
  std::string xml;
};

// Made on first use, so that a filtered run builds only what it measures.
const Subject& subject(const std::string& name) {
  static std::map<std::string, Subject> made;
  auto found = made.find(name);
  if (found == made.end()) {
    TProp value = name == "array" ? make_array() : make_struct();
    std::string xml = tarn_export_xml(value);
    found = made.emplace(name, Subject{std::move(value), std::move(xml)}).first;
  }
  return found->second;
}

// Seconds of one run of pugixml's parse and print, by subject.
std::map<std::string, double> pugixml_parse_seconds;
std::map<std::string, double> pugixml_print_seconds;

void set_bytes(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
  state.counters["MiB"] = static_cast<double>(bytes) / (1 << 20);
}

void set_ratio(benchmark::State& state, double seconds, double baseline) {
  if (baseline > 0) state.counters["x_pugixml"] = seconds / baseline;
}

struct StringWriter final : pugi::xml_writer {
  std::string text;
  void write(const void* data, std::size_t size) override {
    text.append(static_cast<const char*>(data), size);
  }
};

// The options of the import's own parse.
constexpr unsigned kParseOptions = pugi::parse_default | pugi::parse_ws_pcdata_single;

void pugixml_parse(benchmark::State& state, const std::string& name) {
  const std::string& xml = subject(name).xml;
  pugixml_parse_seconds[name] = tarnio_bench::timed(state, [&] {
    pugi::xml_document parsed;
    benchmark::DoNotOptimize(parsed.load_buffer(xml.data(), xml.size(), kParseOptions));
  });
  set_bytes(state, xml.size());
}

void import_xml(benchmark::State& state, const std::string& name) {
  const std::string& xml = subject(name).xml;
  const double seconds = tarnio_bench::timed(state, [&] {
    const TProp read = tarn_import_xml(xml);
    benchmark::DoNotOptimize(&read);
  });
  set_bytes(state, xml.size());
  set_ratio(state, seconds, pugixml_parse_seconds[name]);
}

void pugixml_print(benchmark::State& state, const std::string& name) {
  const std::string& xml = subject(name).xml;
  pugi::xml_document parsed;
  parsed.load_buffer(xml.data(), xml.size(), kParseOptions);
  std::size_t bytes = 0;
  pugixml_print_seconds[name] = tarnio_bench::timed(state, [&] {
    StringWriter writer;
    parsed.save(writer, "    ");
    bytes = writer.text.size();
  });
  set_bytes(state, bytes);
}

void export_xml(benchmark::State& state, const std::string& name) {
  const TProp& value = subject(name).value;
  std::size_t bytes = 0;
  const double seconds = tarnio_bench::timed(state, [&] { bytes = tarn_export_xml(value).size(); });
  set_bytes(state, bytes);
  set_ratio(state, seconds, pugixml_print_seconds[name]);
}

}  // namespace

int main(int argc, char** argv) {
  // The baselines run first, so that the property form's figures find theirs.
  for (const std::string name : {"array", "struct"}) {
    const std::string prefix = "props_xml/" + name + "/";
    benchmark::RegisterBenchmark((prefix + "pugixml_parse").c_str(), pugixml_parse, name)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((prefix + "import").c_str(), import_xml, name)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((prefix + "pugixml_print").c_str(), pugixml_print, name)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((prefix + "export").c_str(), export_xml, name)
        ->Unit(benchmark::kMillisecond);
  }
  return tarnio_bench::run_benchmarks(argc, argv);
}
