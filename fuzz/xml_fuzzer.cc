// Fuzz target for XML text. JSON::from_xml either returns a tree or throws a std::runtime_error
// "XML parse error at offset ..."; anything else fails. A tree that reads has the documented
// shape (an object whose one member is a list of one item) and must come back equal from the
// document JSON::to_xml writes of it, with and without indentation.
//
// XML cannot hold control characters other than tab, line feed and carriage return, yet
// from_xml keeps those that a document spells as character references (&#1;): a tree holding
// one is refused by to_xml with "JSON value cannot be written as XML: ...", which is checked
// instead of the round trip.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "tarnio/json/read_write.h"
#include "tarnio/json/value.h"
#include "tarnio/json/xml.h"

namespace {

constexpr std::string_view kShapeError = "JSON value cannot be written as XML: ";

[[noreturn]] void fail(std::string_view what, std::string_view detail) {
  tarnio_fuzz::fail("xml_fuzzer", what, detail);
}

bool is_control_character(char c) {
  return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r';
}

// Whether a string anywhere in the tree holds a control character that XML cannot hold. Walks
// with a stack of its own: trees nest up to JSON::kMaxDepth levels.
bool holds_control_character(const JSON::Value& tree) {
  std::vector<const JSON::Value*> unseen{&tree};
  while (!unseen.empty()) {
    const JSON::Value& value = *unseen.back();
    unseen.pop_back();
    if (value.is_string()) {
      for (const char c : value.get_string()) {
        if (is_control_character(c)) return true;
      }
    } else if (value.is_list()) {
      for (const JSON::Value& item : value.items()) unseen.push_back(&item);
    } else if (value.is_object()) {
      for (const JSON::Member& member : value.members()) unseen.push_back(&member.value());
    }
  }
  return false;
}

void check_refused(const JSON::Value& tree) {
  try {
    const std::string xml = JSON::to_xml(tree);
    fail("to_xml wrote a control character", xml);
  } catch (const std::runtime_error& error) {
    if (!std::string_view(error.what()).starts_with(kShapeError)) {
      fail("to_xml threw an undocumented message", error.what());
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto read = [](std::string_view xml) { return JSON::from_xml(xml); };
  const auto tree = tarnio_fuzz::read_or_refuse<std::runtime_error>("xml_fuzzer", text, read,
                                                                    {"XML parse error at offset "});
  if (!tree) return 0;
  if (!tree->is_object() || tree->size() != 1 || !tree->members()[0].value().is_list() ||
      tree->members()[0].value().size() != 1) {
    fail("from_xml made a tree of another shape", JSON::write(*tree, 2));
  }
  if (holds_control_character(*tree)) {
    check_refused(*tree);
    return 0;
  }
  for (const int indent : {-1, 0, 2}) {
    tarnio_fuzz::check_round_trip<std::runtime_error>(
        "xml_fuzzer", *tree, [=](const JSON::Value& t) { return JSON::to_xml(t, indent); }, read,
        [](const JSON::Value& t) { return JSON::write(t, 2); });
  }
  return 0;
}
