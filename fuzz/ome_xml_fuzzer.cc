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

namespace {

[[noreturn]] void fail(std::string_view what, std::string_view detail) {
  tarnio_fuzz::fail("ome_xml_fuzzer", what, detail);
}

bool documented(std::string_view message) {
  for (const std::string_view start :
       {"OME-XML parse error at offset ", "Unsupported OME-XML namespace '", "Invalid ",
        "Unknown member '"}) {
    if (message.starts_with(start)) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  JSON::Value tree;
  try {
    tree = OME::read_OME_XML(text);
  } catch (const OME::Invalid_Data& error) {
    if (!documented(error.what())) fail("read_OME_XML threw an undocumented message", error.what());
    return 0;
  }
  std::string xml;
  try {
    xml = OME::write_OME_XML(tree);
  } catch (const OME::Invalid_Data& error) {
    fail("write_OME_XML refused a tree that read_OME_XML made",
         std::string(error.what()) + "\n" + JSON::write(tree, 2));
  }
  JSON::Value again;
  try {
    again = OME::read_OME_XML(xml);
  } catch (const OME::Invalid_Data& error) {
    fail("the written document does not read back", std::string(error.what()) + "\n" + xml);
  }
  if (!(again == tree)) {
    fail("the written document reads back as another tree",
         "tree:\n" + JSON::write(tree, 2) + "\nwrote:\n" + xml + "\nread back:\n" +
             JSON::write(again, 2));
  }
  OME::Root root;
  root.assign(std::move(tree));
  try {
    root.resolve_references();
  } catch (const OME::Invalid_Argument& error) {
    if (!std::string_view(error.what()).starts_with("Incomplete data: missing ")) {
      fail("resolve_references threw an undocumented message", error.what());
    }
  }
  return 0;
}
