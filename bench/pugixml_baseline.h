#pragma once

// pugixml's parse and save of a document, the baseline that the XML readers and writers of the
// library are set against, timed as bench_timing.h times everything.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <pugixml.hpp>
#include <string>

#include "bench/bench_timing.h"

namespace tarnio_bench {

// Collects what pugixml saves.
struct StringWriter final : pugi::xml_writer {
  std::string text;
  void write(const void* data, std::size_t size) override {
    text.append(static_cast<const char*>(data), size);
  }
};

// Mean CPU seconds of parsing `xml` into a document.
inline double pugixml_parse_seconds(benchmark::State& state, const std::string& xml) {
  return timed(state, [&] {
    pugi::xml_document parsed;
    benchmark::DoNotOptimize(parsed.load_buffer(xml.data(), xml.size()));
  });
}

// Mean CPU seconds of saving the parsed `xml`, indented by two spaces; `bytes` gets the size of
// the saved text.
inline double pugixml_save_seconds(benchmark::State& state, const std::string& xml,
                                   std::size_t& bytes) {
  pugi::xml_document parsed;
  parsed.load_buffer(xml.data(), xml.size());
  return timed(state, [&] {
    StringWriter writer;
    parsed.save(writer, "  ");
    bytes = writer.text.size();
  });
}

}  // namespace tarnio_bench
