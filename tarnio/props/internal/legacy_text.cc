#include "tarnio/props/internal/legacy_text.h"

#include <iconv.h>

#include <boost/locale/utf.hpp>
#include <cerrno>
#include <cstddef>
#include <iterator>

#include "tarnio/props/internal/xml_support.h"

namespace Tarn::props::internal {
namespace {

// An iconv descriptor from Windows-1252 to UTF-8, closed on destruction; invalid when the
// platform has no converter for the code page.
class Converter {
 public:
  Converter() : handle_(iconv_open("UTF-8", "WINDOWS-1252")) {}
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;
  ~Converter() {
    if (valid()) iconv_close(handle_);
  }
  bool valid() const noexcept { return handle_ != reinterpret_cast<iconv_t>(-1); }
  iconv_t get() const noexcept { return handle_; }

 private:
  iconv_t handle_;
};

// Appends the byte as the code point of the same value.
void append_as_code_point(std::string& out, unsigned char byte) {
  boost::locale::utf::utf_traits<char>::encode(byte, std::back_inserter(out));
}

}  // namespace

std::string windows1252_to_utf8(std::string_view text) {
  std::string out;
  Converter converter;
  if (!converter.valid()) {
    for (const char c : text) append_as_code_point(out, static_cast<unsigned char>(c));
    return out;
  }
  // One byte of the code page is at most three bytes of UTF-8.
  std::string buffer(3 * text.size() + 4, '\0');
  char* in = const_cast<char*>(text.data());
  std::size_t in_left = text.size();
  while (in_left > 0) {
    char* converted = buffer.data();
    std::size_t out_left = buffer.size();
    const std::size_t result = iconv(converter.get(), &in, &in_left, &converted, &out_left);
    out.append(buffer.data(), converted);
    if (result == static_cast<std::size_t>(-1)) {
      if (errno == E2BIG) continue;
      // An undefined byte: kept as the control character of its value.
      append_as_code_point(out, static_cast<unsigned char>(*in));
      ++in;
      --in_left;
    }
  }
  return out;
}

bool document_is_utf8(const pugi::xml_document& document) {
  // Walks every node without recursion.
  pugi::xml_node node = document.first_child();
  while (node) {
    if (!is_valid_utf8(node.name()) || !is_valid_utf8(node.value())) return false;
    for (const pugi::xml_attribute attribute : node.attributes()) {
      if (!is_valid_utf8(attribute.value())) return false;
    }
    if (node.first_child()) {
      node = node.first_child();
      continue;
    }
    while (node && !node.next_sibling()) node = node.parent();
    if (node) node = node.next_sibling();
  }
  return true;
}

std::string DocumentText::text_of(const pugi::xml_node& element) const {
  std::string text;
  for (pugi::xml_node child = element.first_child(); child; child = child.next_sibling()) {
    if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) {
      text += child.value();
    }
  }
  return legacy_ ? windows1252_to_utf8(text) : text;
}

}  // namespace Tarn::props::internal
