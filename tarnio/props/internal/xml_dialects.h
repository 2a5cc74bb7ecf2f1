#pragma once

// The readers and writers of the three XML dialects behind tarn_export_xml and tarn_import_xml
// (xml.h). Readers get the parsed document of the detected dialect; writers return the text.

#include <pugixml.hpp>
#include <string>

#include "tarnio/props/prop.h"

namespace Tarn::props::internal {

// Dialect 1, the legacy toolbox form.
TProp read_toolbox_xml(const pugi::xml_document& document);
std::string write_toolbox_xml(const TProp& value);

// Dialect 2, the property form; `with_version` writes the "tprop_version" attribute.
TProp read_property_xml(const pugi::xml_document& document);
std::string write_property_xml(const TProp& value, bool with_version);

// Dialect 3, the LabVIEW data form.
TProp read_labview_xml(const pugi::xml_document& document);
std::string write_labview_xml(const TProp& value);

}  // namespace Tarn::props::internal
