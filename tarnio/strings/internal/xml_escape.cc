#include "tarnio/strings/internal/xml_escape.h"

namespace Tarn::strings::internal {
namespace {

void append_reference(std::string& out, char c) {
  switch (c) {
    case '&':
      out += "&amp;";
      return;
    case '<':
      out += "&lt;";
      return;
    case '>':
      out += "&gt;";
      return;
    case '"':
      out += "&quot;";
      return;
    case '\'':
      out += "&apos;";
      return;
    default: {
      const unsigned code = static_cast<unsigned char>(c);
      out += "&#";
      if (code < 10) out += '0';
      out += std::to_string(code);
      out += ';';
    }
  }
}

}  // namespace

void append_xml_escaped(std::string& out, std::string_view text, std::string_view specials) {
  std::size_t start = 0;
  while (true) {
    const std::size_t found = text.find_first_of(specials, start);
    out.append(text.substr(start, found - start));
    if (found == std::string_view::npos) return;
    append_reference(out, text[found]);
    start = found + 1;
  }
}

}  // namespace Tarn::strings::internal
