#include "tarnio/props/xml.h"

#include <fmt/format.h>

#include <cmath>
#include <pugixml.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tarnio/props/internal/number_text.h"
#include "tarnio/props/internal/xml_dialects.h"
#include "tarnio/props/internal/xml_support.h"

namespace {

namespace internal = Tarn::props::internal;
namespace xml_format = Tarn::props::xml_format;

// The version of the property form that this library writes and reads.
constexpr double kPropertyVersion = 1;

// The number in the root's "tprop_version"; 0 when it is missing or not a number.
double property_version(const pugi::xml_node& root) {
  double version = 0;
  if (!internal::parse_number(internal::trim_blanks(root.attribute("tprop_version").value()),
                              version) ||
      std::isnan(version)) {
    return 0;
  }
  return version;
}

pugi::xml_node first_child_element(const pugi::xml_node& node) {
  for (pugi::xml_node child = node.first_child(); child; child = child.next_sibling()) {
    if (child.type() == pugi::node_element) return child;
  }
  return {};
}

int detect_dialect(const pugi::xml_node& root) {
  const double version = property_version(root);
  if (version > kPropertyVersion) {
    throw std::runtime_error("Xml input of newer version than library.");
  }
  if (version >= kPropertyVersion) return xml_format::property;
  if (root.attribute("xml_tb_version")) return xml_format::toolbox;
  if (std::string_view(root.name()) == "LVData" &&
      std::string_view(first_child_element(root).name()) == "Version") {
    return xml_format::labview;
  }
  throw std::runtime_error("Could not determine xml format.");
}

}  // namespace

std::string tarn_export_xml(const TProp& value, int format) {
  const int dialect = format & xml_format::dialect_mask;
  switch (dialect) {
    case xml_format::toolbox:
      return internal::write_toolbox_xml(value);
    case xml_format::detect:
    case xml_format::property:
      return internal::write_property_xml(value, (format & xml_format::no_version) == 0);
    case xml_format::labview:
      return internal::write_labview_xml(value);
    default:
      throw std::runtime_error(fmt::format("Unknown xml format {}.", dialect));
  }
}

TProp tarn_import_xml(const std::string& text, int format) {
  pugi::xml_document document;
  internal::parse_document(document, text);
  const int dialect = detect_dialect(document.document_element());
  const int wanted = format & xml_format::dialect_mask;
  if (wanted != xml_format::detect && wanted != dialect) {
    throw std::runtime_error("Specified format does not match the xml string.");
  }
  switch (dialect) {
    case xml_format::toolbox:
      return internal::read_toolbox_xml(document);
    case xml_format::labview:
      return internal::read_labview_xml(document);
    default:
      return internal::read_property_xml(document);
  }
}
