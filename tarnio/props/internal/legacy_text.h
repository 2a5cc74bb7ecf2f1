#pragma once

// Text of documents written in the Windows-1252 code page, as older acquisition programs save
// them. A document is read as UTF-8 when every name, attribute value and text in it is valid
// UTF-8, and otherwise as Windows-1252 throughout (a document has one encoding, so a run of
// bytes that happens to be valid UTF-8 in a Windows-1252 document is not taken for it).
// Thread-safe: no shared state.

#include <pugixml.hpp>
#include <string>
#include <string_view>

namespace Tarn::props::internal {

// `text` read as Windows-1252, as UTF-8. The five bytes the code page leaves undefined (0x81,
// 0x8D, 0x8F, 0x90, 0x9D) become the control characters of the same value.
std::string windows1252_to_utf8(std::string_view text);

// Whether every element name, attribute value and text of the document is valid UTF-8.
bool document_is_utf8(const pugi::xml_document& document);

// The text of one document as UTF-8: as it is, or converted from Windows-1252 when the document
// is not valid UTF-8.
class DocumentText {
 public:
  explicit DocumentText(const pugi::xml_document& document)
      : legacy_(!document_is_utf8(document)) {}

  // Whether the document is read as Windows-1252.
  bool legacy() const noexcept { return legacy_; }
  // `text` (a name or value of the document) as UTF-8.
  std::string operator()(std::string_view text) const {
    return legacy_ ? windows1252_to_utf8(text) : std::string(text);
  }
  // The element's own text, its text and CDATA children joined, as UTF-8.
  std::string text_of(const pugi::xml_node& element) const;

 private:
  bool legacy_;
};

}  // namespace Tarn::props::internal
