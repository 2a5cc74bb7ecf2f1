// Generates, from ome.xsd, the element tables of OME-XML (tarnio/ome/internal/schema.h) and
// the typed element classes of the OME model (tools/ome_schema/emit_classes.cc).
//
//   ome_schema_generator ome.xsd TABLES.cc MEMBERS.h CLASSES.h CLASSES.cc
//
// Each element definition of the schema becomes one Element_Type: attributes and children are
// collected through the chain of base types, base first, children in schema order; a
// reference to an abstract element (a substitution group) or an unbounded choice becomes one
// child entry keyed by the group's base type.

#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <pugixml.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tools/ome_schema/schema_model.h"

namespace {

using namespace ome_schema;

std::string strip(const std::string& name) {
  const auto colon = name.find(':');
  return colon == std::string::npos ? name : name.substr(colon + 1);
}

class Generator {
 public:
  explicit Generator(pugi::xml_node schema) {
    for (pugi::xml_node node : schema.children()) {
      const std::string kind = node.name();
      const std::string name = node.attribute("name").value();
      if (kind == "xsd:element") {
        elements_[name] = node;
        if (const auto group = node.attribute("substitutionGroup")) {
          groups_[group.value()].push_back(name);
        }
      } else if (kind == "xsd:complexType") {
        complex_types_[name] = node;
      } else if (kind == "xsd:simpleType") {
        simple_types_[name] = node;
      }
    }
    define(elements_.at("OME"));
    for (const Element& element : elements_out_) {
      for (const Child& child : element.children) {
        const bool group =
            child.elements.size() > 1 ||
            elements_out_[static_cast<std::size_t>(child.elements[0])].name != child.key;
        if (group && !groups_out_.contains(child.key)) {
          Element base;
          base.name = child.key;
          base.type_name = child.key;
          complex_type(complex_types_.at(child.key), base);
          groups_out_[child.key] = std::move(base);
        }
      }
    }
  }

  Schema schema() const { return Schema{elements_out_, groups_out_}; }

  std::string emit() const {
    std::ostringstream out;
    out << "// Generated from ome.xsd by tools/ome_schema; do not edit.\n\n"
        << "#include \"tarnio/ome/internal/schema.h\"\n\n"
        << "namespace OME::internal {\nnamespace {\n\n"
        << "using V = Value_Type;\n\n";
    // One keyword array per distinct keyword list (inline enumerations share names), emitted
    // where it is first used.
    std::map<std::vector<std::string>, std::string> keyword_lists;
    auto simple = [&](const Simple& s, std::ostringstream& definitions) {
      std::string list = "{}";
      if (!s.keywords.empty()) {
        auto [known, added] = keyword_lists.try_emplace(
            s.keywords, "kKeywords" + std::to_string(keyword_lists.size()));
        list = known->second;
        if (added) {
          definitions << "constexpr std::string_view " << list << "[] = {";
          for (const std::string& k : s.keywords) definitions << "\"" << k << "\", ";
          definitions << "};\n";
        }
      }
      return "{V::" + s.type + ", \"" + s.name + "\", " + list + ", " + s.minimum + ", " +
             s.maximum + ", " + (s.above_minimum ? "true" : "false") + "}";
    };
    std::ostringstream table;
    table << "constexpr Element_Type kElements[] = {\n";
    for (std::size_t i = 0; i < elements_out_.size(); ++i) {
      const Element& e = elements_out_[i];
      std::ostringstream definitions;
      std::string attributes = "{}";
      std::string children = "{}";
      if (!e.attributes.empty()) {
        std::ostringstream rows;
        for (const Attribute& a : e.attributes) {
          rows << "    {\"" << a.name << "\", " << simple(a.value, definitions) << ", "
               << (a.required ? "true" : "false") << ", \"" << a.default_value << "\"},\n";
        }
        attributes = "kAttributes" + std::to_string(i);
        definitions << "constexpr Attribute_Type " << attributes << "[] = {\n"
                    << rows.str() << "};\n";
      }
      if (!e.children.empty()) {
        std::ostringstream rows;
        for (std::size_t c = 0; c < e.children.size(); ++c) {
          const Child& child = e.children[c];
          const std::string list = "kChildElements" + std::to_string(i) + "_" + std::to_string(c);
          definitions << "constexpr int " << list << "[] = {";
          for (int index : child.elements) definitions << index << ", ";
          definitions << "};\n";
          rows << "    {\"" << child.key << "\", " << list << ", "
               << (child.many ? "true" : "false") << "},\n";
        }
        children = "kChildren" + std::to_string(i);
        definitions << "constexpr Child_Type " << children << "[] = {\n" << rows.str() << "};\n";
      }
      const std::string text = simple(e.text, definitions);
      out << definitions.str();
      table << "    {\"" << e.name << "\", " << attributes << ", " << children << ", " << text
            << ", " << (e.any_content ? "true" : "false") << "},\n";
    }
    table << "};\n";
    out << "\n"
        << table.str() << "\n}  // namespace\n\n"
        << "std::span<const Element_Type> element_types() noexcept { return kElements; }\n\n"
        << "}  // namespace OME::internal\n";
    return out.str();
  }

 private:
  int define(pugi::xml_node node) {
    const auto known = indices_.find(node.internal_object());
    if (known != indices_.end()) return known->second;
    const int index = static_cast<int>(elements_out_.size());
    indices_[node.internal_object()] = index;
    elements_out_.emplace_back();
    Element e;
    e.name = node.attribute("name").value();
    e.type_name = node.attribute("type").value();
    if (!complex_types_.contains(e.type_name)) e.type_name.clear();
    if (!e.type_name.empty() || node.child("xsd:complexType")) e.base = root_base(node);
    if (!parents_.empty()) e.parent = parents_.back();
    parents_.push_back(index);
    if (const auto type = node.attribute("type")) {
      const auto complex = complex_types_.find(type.value());
      if (complex != complex_types_.end()) {
        complex_type(complex->second, e);
      } else {
        e.text = simple_type(type.value());
      }
    } else if (const auto inline_complex = node.child("xsd:complexType")) {
      complex_type(inline_complex, e);
    } else if (const auto inline_simple = node.child("xsd:simpleType")) {
      e.text = simple_node(inline_simple, e.name);
    } else {
      e.text = Simple{"string", "xsd:anyType", {}};
    }
    parents_.pop_back();
    elements_out_[static_cast<std::size_t>(index)] = std::move(e);
    return index;
  }

  void complex_type(pugi::xml_node type, Element& e) {
    for (pugi::xml_node part : type.children()) {
      const std::string kind = part.name();
      if (kind == "xsd:complexContent" || kind == "xsd:simpleContent") {
        const pugi::xml_node extension = part.child("xsd:extension");
        const std::string base = extension.attribute("base").value();
        const auto complex = complex_types_.find(base);
        if (complex != complex_types_.end()) {
          complex_type(complex->second, e);
        } else {
          e.text = simple_type(base);
        }
        complex_type(extension, e);
      } else if (kind == "xsd:sequence" || kind == "xsd:choice") {
        particles(part, e);
      } else if (kind == "xsd:attribute") {
        Attribute a;
        a.name = part.attribute("name").value();
        a.required = std::string(part.attribute("use").value()) == "required";
        a.default_value = part.attribute("default").value();
        a.value = part.attribute("type") ? simple_type(part.attribute("type").value())
                                         : simple_node(part.child("xsd:simpleType"), a.name);
        a.value.inline_type = !part.attribute("type");
        e.attributes.push_back(std::move(a));
      }
    }
  }

  static bool unbounded(pugi::xml_node particle) {
    const std::string max = particle.attribute("maxOccurs").value();
    return !max.empty() && max != "1";
  }

  void particles(pugi::xml_node group, Element& e) {
    if (std::string(group.name()) == "xsd:choice" && unbounded(group)) {
      Child child;
      for (pugi::xml_node item : group.children("xsd:element")) {
        const pugi::xml_node target = elements_.at(item.attribute("ref").value());
        if (child.key.empty()) child.key = root_base(target);
        child.elements.push_back(define(target));
      }
      child.many = true;
      e.children.push_back(std::move(child));
      return;
    }
    for (pugi::xml_node item : group.children()) {
      const std::string kind = item.name();
      if (kind == "xsd:sequence" || kind == "xsd:choice") {
        particles(item, e);
      } else if (kind == "xsd:any") {
        e.any_content = true;
      } else if (kind == "xsd:element") {
        Child child;
        child.many = unbounded(item);
        if (const auto ref = item.attribute("ref")) {
          const pugi::xml_node target = elements_.at(ref.value());
          if (target.attribute("abstract").as_bool()) {
            child.key = target.attribute("type").value();
            for (const std::string& member : groups_.at(ref.value())) {
              child.elements.push_back(define(elements_.at(member)));
            }
          } else {
            child.key = ref.value();
            child.elements.push_back(define(target));
          }
        } else {
          child.key = item.attribute("name").value();
          child.elements.push_back(define(item));
        }
        e.children.push_back(std::move(child));
      }
    }
  }

  // The last base type of an element's type chain ("Annotation" for XMLAnnotation).
  std::string root_base(pugi::xml_node element) const {
    pugi::xml_node type = element.child("xsd:complexType");
    std::string name = element.attribute("type").value();
    if (!name.empty()) type = complex_types_.at(name);
    for (;;) {
      const pugi::xml_node extension = type.child("xsd:complexContent").child("xsd:extension");
      if (!extension) return name;
      name = extension.attribute("base").value();
      type = complex_types_.at(name);
    }
  }

  Simple simple_type(const std::string& name) const {
    if (name.starts_with("xsd:")) return builtin(name);
    return simple_node(simple_types_.at(name), name);
  }

  Simple simple_node(pugi::xml_node node, const std::string& name) const {
    if (node.child("xsd:list")) return Simple{"string", name, {}};
    const pugi::xml_node restriction = node.child("xsd:restriction");
    Simple s = simple_type(restriction.attribute("base").value());
    s.name = name;
    for (pugi::xml_node keyword : restriction.children("xsd:enumeration")) {
      s.keywords.push_back(keyword.attribute("value").value());
    }
    if (!s.keywords.empty()) s.type = "keyword";
    if (const auto facet = restriction.child("xsd:minInclusive"))
      s.minimum = facet.attribute("value").value();
    if (const auto facet = restriction.child("xsd:minExclusive")) {
      s.minimum = facet.attribute("value").value();
      s.above_minimum = true;
    }
    if (const auto facet = restriction.child("xsd:maxInclusive"))
      s.maximum = facet.attribute("value").value();
    return s;
  }

  static Simple builtin(const std::string& name) {
    static const std::map<std::string, std::string> kTypes = {{"xsd:int", "integer"},
                                                              {"xsd:long", "integer"},
                                                              {"xsd:integer", "integer"},
                                                              {"xsd:nonNegativeInteger", "integer"},
                                                              {"xsd:positiveInteger", "integer"},
                                                              {"xsd:nonNegativeLong", "integer"},
                                                              {"xsd:float", "number"},
                                                              {"xsd:double", "number"},
                                                              {"xsd:boolean", "boolean"}};
    const auto it = kTypes.find(name);
    Simple s{it == kTypes.end() ? "string" : it->second, strip(name), {}};
    if (name == "xsd:int") {
      s.minimum = "-2147483648.0";
      s.maximum = "2147483647.0";
    }
    return s;
  }

  std::map<std::string, pugi::xml_node> elements_, complex_types_, simple_types_;
  std::map<std::string, std::vector<std::string>> groups_;
  std::map<const void*, int> indices_;
  std::vector<Element> elements_out_;
  std::map<std::string, Element> groups_out_;
  std::vector<int> parents_;  // the elements being defined, innermost last
};

}  // namespace

// Writes `text` to `path`; false, after saying so, when it cannot.
bool write_file(const char* path, const std::string& text) {
  std::ofstream out(path);
  out << text;
  if (out.good()) return true;
  std::cerr << path << ": cannot be written\n";
  return false;
}

int main(int argc, char** argv) {
  if (argc != 6) {
    std::cerr << "usage: ome_schema_generator ome.xsd TABLES.cc MEMBERS.h CLASSES.h CLASSES.cc\n";
    return 2;
  }
  pugi::xml_document schema;
  const pugi::xml_parse_result parsed = schema.load_file(argv[1]);
  if (!parsed) {
    std::cerr << argv[1] << ": " << parsed.description() << "\n";
    return 1;
  }
  try {
    const Generator generator(schema.child("xsd:schema"));
    const Class_Sources classes = emit_classes(generator.schema());
    const bool written =
        write_file(argv[2], generator.emit()) && write_file(argv[3], classes.members_header) &&
        write_file(argv[4], classes.classes_header) && write_file(argv[5], classes.source);
    return written ? 0 : 1;
  } catch (const std::exception& error) {
    std::cerr << argv[1] << ": " << error.what() << "\n";
    return 1;
  }
}
