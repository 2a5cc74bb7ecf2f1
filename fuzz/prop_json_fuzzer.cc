// Fuzz target for the JSON form of property values. tarn_import_json either returns a value or
// throws a std::runtime_error with one of the documented messages (the JSON reader's, a malformed
// tagged value's, or the nesting limit's); anything else fails. A value that imports must export,
// import again as an equal value (ids and user bits included) and export to the same text; a
// document without tagged values must export back to an equal JSON value.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "tarnio/json/read_write.h"
#include "tarnio/json/value.h"
#include "tarnio/props/compare.h"
#include "tarnio/props/json.h"

namespace {

[[noreturn]] void fail(std::string_view what, std::string_view detail) {
  tarnio_fuzz::fail("prop_json_fuzzer", what, detail);
}

bool is_documented(std::string_view message) {
  return message.starts_with("JSON parse error at line ") ||
         message.starts_with("Invalid property JSON") ||
         message == "Property JSON nested deeper than 1000 levels.";
}

// Whether any object of the document has the key that marks a tagged value. Imported documents
// are at most a few thousand levels deep.
bool has_tagged_value(const JSON::Value& json) {
  if (json.is_list()) {
    for (const JSON::Value& item : json.items()) {
      if (has_tagged_value(item)) return true;
    }
  } else if (json.is_object()) {
    if (json.contains("#type")) return true;
    for (const JSON::Member& member : json.members()) {
      if (has_tagged_value(member.value())) return true;
    }
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = tarnio_fuzz::input_text(data, size);
  TProp value;
  try {
    value = tarn_import_json(text);
  } catch (const std::runtime_error& error) {
    if (!is_documented(error.what())) fail("import threw an undocumented message", error.what());
    return 0;
  }

  std::string exported;
  TProp again;
  try {
    exported = tarn_export_json(value);
    again = tarn_import_json(exported);
  } catch (const std::runtime_error& error) {
    fail("an imported value does not export and import again", error.what());
  }
  if (!Tarn::props::is_equal(value, again, Tarn::props::CompareTraits{.compare_ids = true})) {
    fail("the exported text imports as another value", exported);
  }
  if (tarn_export_json(again) != exported) {
    fail("exporting the value again gives other text", exported);
  }

  const JSON::Value document = JSON::read(text);
  if (!has_tagged_value(document) && !(JSON::read(exported) == document)) {
    fail("a plain document exports as another JSON value", exported);
  }
  return 0;
}
