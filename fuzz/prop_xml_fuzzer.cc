// Fuzz target for the XML form of property values. tarn_import_xml with dialect detection either
// returns a value or throws a std::runtime_error; anything else fails. A value that imports must
// export in the property form (dialect 2) and import back equal: kinds, shapes, elements, ids,
// user bits and info records.
//
// The property form refuses, on import as on export, what XML cannot carry (control characters,
// member names that are no valid names, nesting beyond the limit). The other dialects may read
// such a value from a document; for those only, the export may refuse it.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "tarnio/props/compare.h"
#include "tarnio/props/prop.h"
#include "tarnio/props/xml.h"

namespace {

namespace xml_format = Tarn::props::xml_format;

[[noreturn]] void fail(std::string_view what, std::string_view detail) {
  tarnio_fuzz::fail("prop_xml_fuzzer", what, detail);
}

bool same_info(const TProp& a, const TProp& b) {
  const std::shared_ptr<const TPropInfo> x = a.get_info();
  const std::shared_ptr<const TPropInfo> y = b.get_info();
  const std::string none;
  return (x ? x->unit : none) == (y ? y->unit : none) &&
         (x ? x->description : none) == (y ? y->description : none);
}

bool same_infos(const TProp& a, const TProp& b);

bool same_member_infos(const TPropstruct& a, const TPropstruct& b) {
  auto other = b.begin();
  for (const auto& member : a) {
    if (!same_infos(member.second, (other++)->second)) return false;
  }
  return true;
}

// The info records of every value in two trees that is_equal found equal. Trees nest at most
// kMaxXmlDepth levels, so recursion is bounded.
bool same_infos(const TProp& a, const TProp& b) {
  if (!same_info(a, b)) return false;
  if (const auto* members = a.get_if<TPropstruct>()) {
    return same_member_infos(*members, b.get<TPropstruct>());
  }
  if (const auto* structs = a.get_if<TProparray<TPropstruct>>()) {
    const auto& others = b.get<TProparray<TPropstruct>>();
    for (std::size_t i = 0; i < structs->element_count(); ++i) {
      if (!same_member_infos((*structs)[i], others[i])) return false;
    }
  } else if (const auto* cells = a.get_if<TProparray<TProp>>()) {
    const auto& others = b.get<TProparray<TProp>>();
    for (std::size_t i = 0; i < cells->element_count(); ++i) {
      if (!same_infos((*cells)[i], others[i])) return false;
    }
  }
  return true;
}

bool is_property_form(const std::string& text) {
  try {
    tarn_import_xml(text, xml_format::property);
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = tarnio_fuzz::input_text(data, size);
  TProp value;
  try {
    value = tarn_import_xml(text, xml_format::detect);
  } catch (const std::runtime_error&) {
    return 0;
  }
  std::string xml;
  try {
    xml = tarn_export_xml(value, xml_format::property);
  } catch (const std::runtime_error& error) {
    if (is_property_form(text))
      fail("a value read from the property form does not export", error.what());
    return 0;
  }
  TProp again;
  try {
    again = tarn_import_xml(xml, xml_format::detect);
  } catch (const std::runtime_error& error) {
    fail("the exported text does not import", std::string(error.what()) + "\n" + xml);
  }
  if (!Tarn::props::is_equal(value, again, Tarn::props::CompareTraits{.compare_ids = true}) ||
      !same_infos(value, again)) {
    fail("the exported text imports as another value",
         "exported:\n" + xml + "\nexported again:\n" + tarn_export_xml(again));
  }
  return 0;
}
