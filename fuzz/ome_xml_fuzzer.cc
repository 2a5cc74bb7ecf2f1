// Fuzz target for OME-XML text. OME::read_OME_XML either returns a tree or throws
// OME::Invalid_Data with one of its documented messages; anything else fails. A tree that
// reads must be written by write_OME_XML and read back as the same tree, and a root holding it
// resolves its references or reports the missing ID.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "tarnio/json/read_write.h"
#include "tarnio/ome/errors.h"
#include "tarnio/ome/ome_xml.h"
#include "tarnio/ome/root.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto read = [](std::string_view xml) { return OME::read_OME_XML(xml); };
  auto tree = tarnio_fuzz::read_or_refuse<OME::Invalid_Data>(
      "ome_xml_fuzzer", text, read,
      {"OME-XML parse error at offset ", "Unsupported OME-XML namespace '", "Invalid ",
       "Unknown member '", "Repeated attribute '"});
  if (!tree) return 0;
  tarnio_fuzz::check_round_trip<OME::Invalid_Data>(
      "ome_xml_fuzzer", *tree, [](const JSON::Value& t) { return OME::write_OME_XML(t); }, read,
      [](const JSON::Value& t) { return JSON::write(t, 2); });
  OME::Root root;
  root.assign(std::move(*tree));
  try {
    root.resolve_references();
  } catch (const OME::Invalid_Argument& error) {
    if (!std::string_view(error.what()).starts_with("Incomplete data: missing ")) {
      tarnio_fuzz::fail("ome_xml_fuzzer", "resolve_references threw an undocumented message",
                        error.what());
    }
  }
  return 0;
}
