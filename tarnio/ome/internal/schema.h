#pragma once

// The element types of OME-XML 2016-06 as tables: per element its attributes with their value
// types, its children in schema order, and the type of its text. The tables are generated
// from ome.xsd at build time (tools/ome_schema); OME-XML reading and writing follow them.
//
// Elements that may stand for one another (light sources, shapes, annotations) form a group:
// one child entry whose key is the group's base type ("LightSource", "Shape", "Annotation")
// and whose element types are the group's members.
//
// Immutable static data; thread-safe.

#include <cstdint>
#include <limits>
#include <span>
#include <string_view>

namespace OME::internal {

enum class Value_Type : std::uint8_t { none, string, integer, number, boolean, keyword };

inline constexpr double kUnbounded = std::numeric_limits<double>::infinity();

struct Simple_Type {
  Value_Type type = Value_Type::none;
  std::string_view name;                       // the schema's name of the type, for messages
  std::span<const std::string_view> keywords;  // of an enumeration
  // The range of a number; the minimum itself is excluded when `above_minimum`.
  double minimum = -kUnbounded;
  double maximum = kUnbounded;
  bool above_minimum = false;
};

struct Attribute_Type {
  std::string_view name;
  Simple_Type value;
  bool required = false;
  std::string_view default_value;  // empty when the schema gives none
};

struct Child_Type {
  std::string_view key;           // the JSON member that holds the children
  std::span<const int> elements;  // indices into element_types(); several for a group
  bool many = false;              // more than one may occur
};

struct Element_Type {
  std::string_view name;
  std::span<const Attribute_Type> attributes;
  std::span<const Child_Type> children;
  Simple_Type text;          // type none when the element has no text content
  bool any_content = false;  // holds foreign XML (the value of an XML annotation)
};

// All element types; the first is the root element OME.
std::span<const Element_Type> element_types() noexcept;

// The first element type of that name that has the attribute, or null.
const Element_Type* find_element_type(std::string_view element,
                                      std::string_view attribute) noexcept;

}  // namespace OME::internal
