#pragma once

// The OME-XML samples of the tests (tests/data/ome/samples, read from the source tree, where
// the tests run) and the offline check of a document against the OME 2016-06 schema.

#include <fmt/format.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace Tarn::testing {

inline const std::filesystem::path kOMESamples = "tests/data/ome/samples";

inline std::string read_text(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Whether `xml`, written to `file`, validates against the schema; xmllint's complaints go to
// "{file}.log".
inline bool validates_as_OME_XML(const std::string& xml, const std::filesystem::path& file) {
  std::ofstream(file) << xml;
  const std::string command = fmt::format(
      "XML_CATALOG_FILES=tests/data/ome/schema/2016-06/catalog.xml xmllint --noout --nonet "
      "--schema tests/data/ome/schema/2016-06/ome.xsd {0} 2>{0}.log",
      file.string());
  return std::system(command.c_str()) == 0;
}

}  // namespace Tarn::testing
