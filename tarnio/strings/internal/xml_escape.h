#pragma once

// Escaping of text for XML documents that the library writes itself. Each writer picks the
// characters it escapes: the markup characters always, CR so that it survives the line-end
// normalisation of readers, and in attribute values the white space a reader would fold.

#include <string>
#include <string_view>

namespace Tarn::strings::internal {

// Appends `text` to `out` with every character found in `specials` replaced: '&', '<', '>', '"'
// and '\'' by their entities, any other by a decimal character reference of at least two digits
// ("&#13;", "&#09;"). The other characters, UTF-8 sequences included, are copied as they are.
void append_xml_escaped(std::string& out, std::string_view text, std::string_view specials);

}  // namespace Tarn::strings::internal
