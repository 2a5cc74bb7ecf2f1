#pragma once

// What the three XML dialects share: where an element is, errors located at an element, the
// nesting limit and text checks.

#include <pugixml.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tarnio/strings/internal/encoding.h"

namespace Tarn::props::internal {

// The element's path from the root, each step with its one-based place among the siblings of
// the same name when there are several: "/root/params/item[3]".
std::string element_path(const pugi::xml_node& element);

// A failure at an element: what() is "{message}\nLocation:\n{element path}".
class LocatedXmlError : public std::runtime_error {
 public:
  LocatedXmlError(const std::string& message, const pugi::xml_node& element);
};

// Runs `read` for `element`; a std::runtime_error that is not yet located leaves as a
// LocatedXmlError at `element`.
template <typename Read>
auto at_element(const pugi::xml_node& element, Read&& read) -> decltype(read()) {
  try {
    return read();
  } catch (const LocatedXmlError&) {
    throw;
  } catch (const std::runtime_error& error) {
    throw LocatedXmlError(error.what(), element);
  }
}

// Throws "Attribute '{name}' does not exist" when `element` lacks the attribute.
pugi::xml_attribute required_attribute(const pugi::xml_node& element, const char* name);

// Parses a whole document; malformed text is std::runtime_error
// "Malformed xml: {reason} at line {line}, column {column}.". Elements nested deeper than
// kMaxXmlDepth are "Xml nesting deeper than {kMaxXmlDepth} levels.".
void parse_document(pugi::xml_document& document, std::string_view text);

using Tarn::strings::internal::is_valid_utf8;

// The characters that XML 1.0 cannot carry, not even as references: U+0000 to U+001F but tab,
// line feed and carriage return.
inline bool is_forbidden_control(unsigned char c) noexcept {
  return c < 0x20 && c != '\t' && c != '\n' && c != '\r';
}

}  // namespace Tarn::props::internal
