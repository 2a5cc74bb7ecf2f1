#pragma once

// The XMLAnnotations whose Value the model reads as typed JSON rather than keeping it as XML
// text: the extension annotations of the vendor domain, the older separate channel
// annotations and OME's modulo annotation.
//
// Mapping between the JSON member of such an annotation and the XML of its Value, both ways:
// - The JSON member (`member`: "extension", "Value" for the older channel annotations,
//   "Modulo") is a list with one record; the Value holds one element (`element`: "Extension",
//   "Lines", "Gating", "Deactivation", "Modulo") in the namespace `element_namespace`,
//   declared as its default namespace (xmlns). The modulo element names it in its attribute
//   "namespace" too, where OME's modulo readers look for it; reading takes either.
// - A scalar member of a record is an attribute of the record's element, converted by its type
//   (integers and numbers as JSON numbers, booleans as JSON booleans, keywords checked against
//   their table, units checked by the units library); a member that holds records or texts is
//   a list of child elements named after the member, in member order.
// - An annotation without the JSON member has an empty Value.
// Reading refuses what the tables do not know; OME::Invalid_Data "Unknown member '{name}' in
// {path}." and "Invalid {type} '{text}' in {path}."; writing refuses a tree of another shape with
// "JSON value cannot be written as OME-XML: {reason}.".
//
// Immutable static data; thread-safe.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "tarnio/json/value.h"

namespace OME::internal {

enum class Member_Kind : std::uint8_t {
  string,
  integer,
  number,
  boolean,
  keyword,
  unit,
  records,
  texts
};

struct Record_Type;

struct Member_Type {
  Member_Type(std::string_view member_name, Member_Kind member_kind,
              const Record_Type* item_type = nullptr,
              std::span<const std::string_view> member_keywords = {})
      : name(member_name), kind(member_kind), record(item_type), keywords(member_keywords) {}

  std::string_view name;
  Member_Kind kind;
  const Record_Type* record;                   // the item type of records
  std::span<const std::string_view> keywords;  // of a keyword
};

struct Record_Type {
  std::span<const Member_Type> members;
};

struct Typed_Annotation {
  std::string annotation_namespace;
  std::string_view member;
  std::string_view element;
  std::string element_namespace;
  bool namespace_attribute = false;  // the element names its namespace in "namespace" too
  const Record_Type* record = nullptr;
};

// Null when the namespace is not one of them.
const Typed_Annotation* find_typed_annotation(std::string_view annotation_namespace);

// Reading: replaces the XML text of the Value of an annotation item ({"Value": [{"#xml":
// "..."}]}) by the typed member when its Namespace is one of the typed annotations; leaves any
// other item as it is.
void read_typed_annotation(JSON::Value& item);
// Writing: the item itself, or, for an item with a typed member, a copy in `scratch` whose
// Value holds the member as XML text.
const JSON::Value& untyped_annotation(const JSON::Value& item, JSON::Value& scratch);

}  // namespace OME::internal
