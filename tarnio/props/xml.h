#pragma once

// The XML form of property values, in three dialects:
//   1  the legacy toolbox form (root attribute "xml_tb_version"), as the MATLAB XML toolbox
//      writes and reads it;
//   2  the property form, our own (root element "root" with "tprop_version" 1), which carries
//      every kind, shape, id and user bit exactly;
//   3  the LabVIEW data form (root "LVData", first child "Version"), as LabVIEW's XML functions
//      write and read it.
// Import detects the dialect; the layout of each dialect, and the mapping of kinds where a
// dialect cannot express one, is described at its reader and writer.
//
// Failures are std::runtime_error with the documented messages; errors at an element read
// "{message}\nLocation:\n{element path}". Nesting deeper than kMaxXmlDepth elements is refused.
// Thread-safe: no shared state.

#include <string>

#include "tarnio/export.h"
#include "tarnio/props/prop.h"

namespace Tarn::props::xml_format {
inline constexpr int detect = 0;  // import only
inline constexpr int toolbox = 1;
inline constexpr int property = 2;
inline constexpr int labview = 3;
inline constexpr int dialect_mask = 0xFF;
// Export without the "tprop_version" attribute.
inline constexpr int no_version = 0x1000;
}  // namespace Tarn::props::xml_format

namespace Tarn::props {
inline constexpr int kMaxXmlDepth = 1000;
}

// The text of `value` in dialect `format & xml_format::dialect_mask` (2 when 0), indented by
// four spaces per level.
TARNIO_EXPORT std::string tarn_export_xml(const TProp& value,
                                          int format = Tarn::props::xml_format::property);
// The value written in `text`; `format` 0 accepts any dialect, another dialect code requires it.
TARNIO_EXPORT TProp tarn_import_xml(const std::string& text,
                                    int format = Tarn::props::xml_format::detect);
