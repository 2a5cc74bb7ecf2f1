#pragma once

// The element types of ome.xsd as the generator reads them: each element definition with its
// attributes and children collected through its chain of base types, base first.

#include <map>
#include <string>
#include <vector>

namespace ome_schema {

struct Simple {
  std::string type = "none";  // a Value_Type enumerator
  std::string name;           // the schema's type name, or the attribute's for an inline type
  std::vector<std::string> keywords;
  std::string minimum = "-kUnbounded";
  std::string maximum = "kUnbounded";
  bool above_minimum = false;
  bool inline_type = false;  // declared inside its attribute
};

struct Attribute {
  std::string name;
  Simple value;
  bool required = false;
  std::string default_value;
};

struct Child {
  std::string key;
  std::vector<int> elements;
  bool many = false;
};

struct Element {
  std::string name;
  std::vector<Attribute> attributes;
  std::vector<Child> children;
  Simple text;
  bool any_content = false;
  std::string type_name;  // the named complex type, empty for an inline one
  std::string base;       // the last base type of that type ("Reference" for an ImageRef)
  int parent = -1;        // the element that first held this one
};

struct Schema {
  std::vector<Element> elements;  // the first is the root element OME
  // The abstract base types of the substitution groups ("LightSource", "Shape",
  // "Annotation"), by name.
  std::map<std::string, Element> groups;
};

// The C++ source of the element classes: {header of the mixins and enumerations, header of the
// concrete classes, source of the keyword tables and root lists}.
struct Class_Sources {
  std::string members_header;
  std::string classes_header;
  std::string source;
};
Class_Sources emit_classes(const Schema& schema);

}  // namespace ome_schema
