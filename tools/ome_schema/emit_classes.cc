// Emits the typed element classes of the OME model from the element types of ome.xsd.
//
// Every element type with attributes or children gets a member mixin
//   template <class Base> class Light_Path_Members : public Base
// with typed accessors for its attributes, its text-only children and its lists, and the
// resolution of the references below it. Classes written by hand in tarnio/ome derive from
// their mixin; every other element type also gets a concrete class here:
// - ID-carrying types derive from Element_with_ID<T> (ID prefix from the schema's ID type);
// - the kinds of a substitution group (Laser, Ellipse, XMLAnnotation) view an item of the
//   group's list and derive from Kind_of<Group>;
// - settings that refer to a component (DetectorSettings) derive from Reference<const T>;
// - the rest derive from Element<>.
// A reference whose target has a list of its own in the document (Image, Plate, Filter, ...)
// is a Reference<T>; one whose target sits deeper (Channel, WellSample, Reagent) an untyped
// Abstract_Reference, the AnnotationRef list the element's Abstract_References.

#include <algorithm>
#include <cctype>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/ome_schema/schema_model.h"

namespace ome_schema {
namespace {

// Written by hand in tarnio/ome; they derive from their generated mixins.
const std::set<std::string> kHandWritten = {"OME",
                                            "Image",
                                            "Pixels",
                                            "Channel",
                                            "Plane",
                                            "Instrument",
                                            "Objective",
                                            "Detector",
                                            "Filter",
                                            "Light_Source",
                                            "Dataset",
                                            "Project",
                                            "Folder",
                                            "ROI",
                                            "Shape",
                                            "Annotation",
                                            "Structured_Annotations",
                                            "Light_Path",
                                            "Rectangle"};
// Enumerations whose keyword tables go on with the vendor's keywords after OME's; written by
// hand in tarnio/ome/extensions/enumerations.h, which the members header includes.
const std::set<std::string> kHandWrittenEnums = {"Acquisition_Mode", "Detector_Type"};
// Hand-written types with a list of their own in the document (T::root_list).
const std::set<std::string> kHandWrittenRootListed = {
    "Image",      "Project",   "Dataset",  "Folder", "Instrument",  "ROI",
    "Annotation", "Objective", "Detector", "Filter", "Light_Source"};
const std::set<std::string> kReserved = {
    "namespace", "union", "class", "default", "operator", "delete", "new",      "float",
    "double",    "int",   "long",  "short",   "char",     "bool",   "template", "size_t"};

std::vector<std::string> words(const std::string& name) {
  std::vector<std::string> all;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const auto c = static_cast<unsigned char>(name[i]);
    const bool upper = std::isupper(c) != 0;
    bool start = all.empty();
    if (upper && i > 0) {
      const auto previous = static_cast<unsigned char>(name[i - 1]);
      const bool next_lower =
          i + 1 < name.size() && std::islower(static_cast<unsigned char>(name[i + 1])) != 0;
      start = start || std::islower(previous) != 0 || std::isdigit(previous) != 0 ||
              (std::isupper(previous) != 0 && next_lower);
    }
    if (start) all.emplace_back();
    all.back() += name[i];
  }
  return all;
}

bool acronym(const std::string& word) {
  const auto count =
      std::count_if(word.begin(), word.end(), [](unsigned char c) { return std::isupper(c) != 0; });
  return count >= 2 && std::none_of(word.begin(), word.end(),
                                    [](unsigned char c) { return std::islower(c) != 0; });
}

std::string join(const std::vector<std::string>& parts) {
  std::string joined;
  for (const std::string& part : parts) joined += (joined.empty() ? "" : "_") + part;
  return joined;
}

// PlateAcquisition → Plate_Acquisition
std::string class_name(const std::string& name) { return join(words(name)); }

// PhysicalSizeX → physical_size_x, ROIRef → ROI_ref
std::string snake(const std::string& name) {
  std::vector<std::string> parts = words(name);
  for (std::string& part : parts) {
    if (!acronym(part)) {
      std::transform(part.begin(), part.end(), part.begin(),
                     [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    }
  }
  return join(parts);
}

std::string escaped(const std::string& name) {
  return kReserved.contains(name) ? name + "_" : name;
}
std::string plural(const std::string& name) {
  return name.ends_with('s') || name.ends_with("data") ? name : name + "s";
}

std::string enumerator(const std::string& keyword) {
  std::string name;
  for (const char c : keyword) name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
  if (std::isdigit(static_cast<unsigned char>(name.front()))) name = "_" + name;
  return escaped(name);
}

std::string strip_suffix(const std::string& name, const std::string& suffix) {
  return name.ends_with(suffix) ? name.substr(0, name.size() - suffix.size()) : name;
}

bool text_only(const Element& e) {
  return e.attributes.empty() && e.children.empty() && !e.any_content && e.text.type != "none";
}

const Attribute* find_attribute(const Element& e, const std::string& name) {
  for (const Attribute& a : e.attributes) {
    if (a.name == name) return &a;
  }
  return nullptr;
}

bool is_unit(const Element& e, const Attribute& a) {
  return a.name.ends_with("Unit") && find_attribute(e, strip_suffix(a.name, "Unit")) != nullptr;
}

std::string literal(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text)
    quoted += (c == '"' || c == '\\') ? std::string("\\") + c : std::string(1, c);
  return quoted + "\"";
}

// What a child element becomes in its parent's class: a typed text, a reference (typed or
// untyped), the AnnotationRef list, or an element object.
enum class Role { text, reference, annotation_references, element };

struct Class_Info {
  std::string name;
  int index = -1;  // of the element it is emitted from; -1 for a group base
  const Element* element = nullptr;
  std::string schema_name;  // the element name as OME-XML writes it
  std::string id_prefix;    // empty for a type without an ID of its own
  std::string group;        // the group class of a kind
  std::string reference;    // the target of settings that refer to a component
  std::string list_owner;   // "OME" or "Instrument" when the type has a root list
};

class Emitter {
 public:
  explicit Emitter(const Schema& schema) : schema_(schema) { classify(); }

  Class_Sources emit() {
    std::ostringstream mixins;
    for (const Class_Info& info : classes_) mixin(info, mixins);
    Class_Sources out;
    out.members_header = members_header(mixins.str());
    out.classes_header = classes_header();
    out.source = source();
    return out;
  }

 private:
  const Element& at(int index) const { return schema_.elements[static_cast<std::size_t>(index)]; }

  void classify() {
    const auto& elements = schema_.elements;
    // The group kinds and the elements that own ID-carrying lists.
    std::map<int, std::string> kinds;
    for (const Element& e : elements) {
      for (const Child& child : e.children) {
        if (!schema_.groups.contains(child.key)) continue;
        for (int kind : child.elements) kinds[kind] = class_name(child.key);
      }
    }
    std::map<std::string, std::set<std::string>> identities;
    for (std::size_t i = 0; i < elements.size(); ++i) {
      const Element& e = elements[i];
      roles_.push_back(role_of(e));
      if (roles_.back() == Role::element) {
        identities[e.name].insert(e.type_name.empty() ? std::to_string(i) : e.type_name);
      }
    }
    for (const auto& [name, base] : schema_.groups) {
      Class_Info info;
      info.name = class_name(name);
      info.element = &base;
      info.schema_name = first_kind(name);
      info.id_prefix = name;
      classes_.push_back(info);
      by_name_[info.name] = classes_.size() - 1;
    }
    for (std::size_t i = 0; i < elements.size(); ++i) {
      const Element& e = elements[i];
      if (roles_[i] != Role::element) continue;
      std::string name = class_name(e.name);
      if (identities[e.name].size() > 1) {
        name = e.type_name.empty() ? class_name(at(e.parent).name) + "_" + name
                                   : class_name(e.type_name);
      }
      class_of_[static_cast<int>(i)] = name;
      if (by_name_.contains(name)) continue;
      Class_Info info;
      info.name = name;
      info.index = static_cast<int>(i);
      info.element = &e;
      info.schema_name = e.name;
      if (const Attribute* id = find_attribute(e, "ID")) {
        if (e.base == "Reference") {
          info.reference = target_of(e);
        } else {
          info.id_prefix = strip_suffix(id->value.name, "ID");
        }
      }
      if (kinds.contains(static_cast<int>(i))) info.group = kinds[static_cast<int>(i)];
      if (!info.id_prefix.empty() && info.group.empty() && e.parent >= 0 &&
          (at(e.parent).name == "OME" || at(e.parent).name == "Instrument")) {
        info.list_owner = at(e.parent).name;
      }
      classes_.push_back(info);
      by_name_[name] = classes_.size() - 1;
    }
  }

  Role role_of(const Element& e) const {
    if (text_only(e)) return Role::text;
    if (e.base != "Reference" || e.attributes.size() != 1) return Role::element;
    return target_of(e) == "Annotation" ? Role::annotation_references : Role::reference;
  }

  std::string first_kind(const std::string& group) const {
    for (const Element& e : schema_.elements) {
      for (const Child& child : e.children) {
        if (child.key == group) return at(child.elements.front()).name;
      }
    }
    throw std::runtime_error("group without kinds: " + group);
  }

  // The class that a reference element refers to, after the type of its ID.
  static std::string target_of(const Element& e) {
    return class_name(strip_suffix(find_attribute(e, "ID")->value.name, "ID"));
  }

  const Class_Info* info(const std::string& name) const {
    const auto it = by_name_.find(name);
    return it == by_name_.end() ? nullptr : &classes_[it->second];
  }

  bool root_listed(const std::string& name) const {
    const Class_Info* target = info(name);
    return kHandWrittenRootListed.contains(name) ||
           (target != nullptr && !target->list_owner.empty());
  }

  // Components of the instrument are referred to as constant.
  std::string reference_type(const std::string& target) const {
    const Class_Info* t = info(target);
    const bool component =
        target == "Light_Source" ||
        (t != nullptr && t->index >= 0 && at(t->element->parent).name == "Instrument");
    return "Reference<" + std::string(component ? "const " : "") + "::OME::" + target + ">";
  }

  bool needs_resolution(const std::string& name) {
    const auto known = resolves_.find(name);
    if (known != resolves_.end()) return known->second;
    resolves_[name] = false;  // a cycle adds nothing
    const Class_Info& c = *info(name);
    bool needed = false;
    for (const Child& child : c.element->children) needed = needed || child_resolves(child);
    resolves_[name] = needed;
    return needed;
  }

  bool child_resolves(const Child& child) {
    if (schema_.groups.contains(child.key)) return true;
    const int index = child.elements.front();
    switch (roles_[static_cast<std::size_t>(index)]) {
      case Role::reference:
        return root_listed(target_of(at(index)));
      case Role::element: {
        const Class_Info& c = *info(class_of_.at(index));
        return !c.id_prefix.empty() || !c.reference.empty() || needs_resolution(c.name);
      }
      default:
        return false;
    }
  }

  std::string enum_name(const std::string& owner, const Attribute& a) {
    if (!a.value.inline_type) return remember_enum(class_name(a.value.name), a.value);
    const auto known = inline_enums_.find(a.value.keywords);
    if (known != inline_enums_.end()) return known->second;
    // A name of several words stands for itself (Acquisition_Mode), one word takes its owner's
    // (Laser_Type), and so does a name already taken by other keywords.
    std::string name = class_name(a.name);
    if (words(a.name).size() == 1 || enums_.contains(name)) name = owner + "_" + name;
    inline_enums_[a.value.keywords] = name;
    return remember_enum(name, a.value);
  }

  std::string remember_enum(const std::string& name, const Simple& value) {
    if (!enums_.contains(name)) {
      enums_[name] = value;
      enum_order_.push_back(name);
    }
    return name;
  }

  std::string cpp_type(const Simple& value, const std::string& enum_type) const {
    if (value.type == "integer") return "std::int64_t";
    if (value.type == "number") return "double";
    if (value.type == "boolean") return "bool";
    if (value.type == "keyword" && !enum_type.empty()) return enum_type;
    return "std::string_view";
  }

  std::string default_of(const std::string& type, const Attribute& a) const {
    if (type == "std::string_view") return literal(a.default_value);
    if (type == "double") {
      return a.default_value.find_first_of(".eE") == std::string::npos ? a.default_value + ".0"
                                                                       : a.default_value;
    }
    if (type == "std::int64_t" || type == "bool") return a.default_value;
    return type + "::" + enumerator(a.default_value);
  }

  void attribute(const Class_Info& c, const Attribute& a, std::ostringstream& out) {
    if ((a.name == "ID" && (!c.id_prefix.empty() || !c.reference.empty())) ||
        is_unit(*c.element, a)) {
      return;
    }
    const std::string name = snake(a.name);
    const std::string key = literal(a.name);
    if (find_attribute(*c.element, a.name + "Unit") != nullptr) {
      out << "  std::optional<Tarn::units::RuntimeValue> " << escaped(name)
          << "() const { return quantity(*this, kElement, " << key << "); }\n"
          << "  void set_" << name
          << "(const Tarn::units::RuntimeValue& value) { set_quantity(*this, kElement, " << key
          << ", value); }\n"
          << "  void reset_" << name << "() { this->erase_member(" << key
          << "); this->erase_member(" << literal(a.name + "Unit") << "); }\n";
      return;
    }
    const std::string enum_type = a.value.type == "keyword" ? enum_name(c.name, a) : std::string();
    const std::string type = cpp_type(a.value, enum_type);
    const std::string args = "(*this, " + key + ", kElement)";
    if (a.required) {
      out << "  " << type << " " << escaped(name) << "() const { return typed::get<" << type << ">"
          << args << "; }\n";
    } else if (!a.default_value.empty()) {
      out << "  " << type << " " << escaped(name) << "() const { return typed::find<" << type << ">"
          << args << ".value_or(" << default_of(type, a) << "); }\n";
    } else {
      out << "  std::optional<" << type << "> " << escaped(name) << "() const { return typed::find<"
          << type << ">" << args << "; }\n";
    }
    out << "  void set_" << name << "(" << type << " value) { typed::set(*this, " << key
        << ", value); }\n";
    if (!a.required)
      out << "  void reset_" << name << "() { this->erase_member(" << key << "); }\n";
  }

  // The accessor of one child entry; the list member goes to `members`.
  void child(const Child& ch, std::ostringstream& out, std::ostringstream& members,
             std::vector<std::string>& resolved) {
    const Element& first = at(ch.elements.front());
    const Role role = schema_.groups.contains(ch.key)
                          ? Role::element
                          : roles_[static_cast<std::size_t>(ch.elements.front())];
    const std::string key = literal(ch.key);
    if (role == Role::text) {
      const std::string type = cpp_type(first.text, "");
      const std::string name = snake(ch.key);
      if (ch.many) return;  // no schema element has a list of bare texts
      out << "  std::optional<" << type << "> " << escaped(name)
          << "() const { return typed::find_text<" << type << ">(*this, " << key
          << ", kElement); }\n"
          << "  void set_" << name << "(" << type << " value) { typed::set_text(*this, " << key
          << ", value); }\n"
          << "  void reset_" << name << "() { this->erase_member(" << key << "); }\n";
      return;
    }
    if (role == Role::annotation_references) {
      out << "  Abstract_References& annotation_references() noexcept { return "
             "annotation_references_; }\n";
      members << "  Abstract_References annotation_references_{*this};\n";
      return;
    }
    std::string item;
    std::string name;
    if (role == Role::element) {
      item = "::OME::" + (schema_.groups.contains(ch.key) ? class_name(ch.key)
                                                          : class_of_.at(ch.elements.front()));
      name = snake(ch.key);
    } else {
      const std::string target = target_of(first);
      item = root_listed(target) ? reference_type(target) : "Abstract_Reference";
      name = ch.key.ends_with("Ref") ? snake(strip_suffix(ch.key, "Ref")) + "_reference"
                                     : snake(ch.key);
    }
    if (ch.many) name = plural(name);
    const std::string member = (kReserved.contains(name) ? name + "_element" : name) + "_";
    const std::string list =
        std::string(ch.many ? "JSON::Array_of<" : "JSON::One_of<") + item + ">";
    out << "  " << list << "& " << escaped(name) << "() noexcept { return " << member << "; }\n"
        << "  const " << list << "& " << escaped(name) << "() const noexcept { return " << member
        << "; }\n";
    members << "  " << list << " " << member << "{*this, " << key << "};\n";
    if (child_resolves(ch)) resolved.push_back(member);
  }

  void mixin(const Class_Info& c, std::ostringstream& out) {
    std::ostringstream accessors;
    std::ostringstream members;
    std::vector<std::string> resolved;
    for (const Attribute& a : c.element->attributes) attribute(c, a, accessors);
    for (const Child& ch : c.element->children) child(ch, accessors, members, resolved);
    if (c.element->any_content) {
      accessors
          << "  std::optional<std::string_view> xml() const { return "
             "typed::find<std::string_view>(*this, \"#xml\", kElement); }\n"
          << "  void set_xml(std::string_view value) { this->set_member(\"#xml\", value); }\n";
    }
    if (c.element->text.type != "none" && !text_only(*c.element)) {
      const std::string type = cpp_type(c.element->text, "");
      accessors << "  std::optional<" << type << "> text() const { return typed::find<" << type
                << ">(*this, \"#text\", kElement); }\n"
                << "  void set_text(" << type
                << " value) { typed::set(*this, \"#text\", value); }\n";
    }
    if (c.index < 0) {
      accessors
          << "  // The kind of element this item is (\"" << c.schema_name << "\" when not named).\n"
          << "  std::string_view kind() const { return typed::find<std::string_view>(*this, "
             "\"#kind\", kElement).value_or("
          << literal(c.schema_name) << "); }\n"
          << "  void set_kind(std::string_view kind) { this->set_member(\"#kind\", kind); }\n";
    }
    out << "// The members of " << (c.index < 0 ? "every " + c.element->name : c.schema_name)
        << ".\ntemplate <class Base>\nclass " << c.name << "_Members : public Base {\n public:\n"
        << "  using Base::Base;\n"
        << "  static constexpr std::string_view kElement = " << literal(c.schema_name) << ";\n";
    if (!c.id_prefix.empty()) {
      out << "  static constexpr std::string_view kIDPrefix = " << literal(c.id_prefix) << ";\n";
    }
    out << "\n" << accessors.str();
    if (!resolved.empty()) {
      out << "\n  void resolve_references() override {\n    Base::resolve_references();\n";
      for (const std::string& member : resolved)
        out << "    resolve_all(this->" << member << ");\n";
      out << "  }\n";
    }
    if (!members.str().empty()) out << "\n private:\n" << members.str();
    out << "};\n\n";
  }

  std::string members_header(const std::string& mixins) const {
    std::ostringstream out;
    out << "#pragma once\n\n"
        << "// Generated from ome.xsd by tools/ome_schema; do not edit.\n"
        << "//\n// The enumerations of OME-XML with their keyword tables, and the member mixins "
           "of\n"
        << "// every element type (see tools/ome_schema/emit_classes.cc).\n\n"
        << "#include <cstdint>\n#include <optional>\n#include <string_view>\n\n"
        << "#include \"tarnio/export.h\"\n#include \"tarnio/json/enum_table.h\"\n"
        << "#include \"tarnio/json/proxy.h\"\n#include \"tarnio/ome/abstract_reference.h\"\n"
        << "#include \"tarnio/ome/extensions/enumerations.h\"\n"
        << "#include \"tarnio/ome/quantity.h\"\n#include \"tarnio/ome/reference.h\"\n"
        << "#include \"tarnio/ome/typed_member.h\"\n#include \"tarnio/units/runtime_value.h\"\n\n"
        << "namespace OME {\n\n";
    for (const Class_Info& c : classes_) out << "class " << c.name << ";\n";
    out << "\n";
    for (const std::string& name : enum_order_) {
      if (kHandWrittenEnums.contains(name)) continue;
      const Simple& value = enums_.at(name);
      out << "enum class " << name << " {";
      for (const std::string& k : value.keywords) out << " " << enumerator(k) << ",";
      out << " };\n"
          << "TARNIO_EXPORT const JSON::Enum_Table<" << name << ">& enum_table(" << name << ");\n"
          << "constexpr std::string_view keyword_type_name(" << name << ") { return "
          << literal(value.name) << "; }\n\n";
    }
    out << mixins << "}  // namespace OME\n";
    return out.str();
  }

  // The mixin instance that the class derives from (the hand-written classes alike).
  std::string mixin_of(const Class_Info& c) const {
    std::string base = "Element<>";
    if (!c.group.empty()) {
      base = "Kind_of<" + c.group + ">";
    } else if (!c.reference.empty()) {
      base = reference_type(c.reference);
    } else if (!c.id_prefix.empty()) {
      base = "Element_with_ID<" + c.name + ">";
    }
    return c.name + "_Members<" + base + ">";
  }

  std::string classes_header() const {
    std::ostringstream out;
    out << "#pragma once\n\n"
        << "// Generated from ome.xsd by tools/ome_schema; do not edit.\n"
        << "//\n// The element classes of OME-XML that need no hand-written behaviour.\n\n"
        << "#include \"tarnio/export.h\"\n#include \"tarnio/ome/annotation.h\"\n"
        << "#include \"tarnio/ome/element_members.h\"\n#include \"tarnio/ome/image.h\"\n"
        << "#include \"tarnio/ome/instrument.h\"\n#include \"tarnio/ome/kind_of.h\"\n"
        << "#include \"tarnio/ome/light_path.h\"\n#include \"tarnio/ome/project.h\"\n"
        << "#include \"tarnio/ome/roi.h\"\n\nnamespace OME {\n\n";
    for (const Class_Info& c : classes_) {
      if (kHandWritten.contains(c.name)) continue;
      const std::string mixin = mixin_of(c);
      out << "class TARNIO_EXPORT " << c.name << " : public " << mixin << " {\n public:\n"
          << "  using " << mixin << "::" << c.name << "_Members;\n";
      if (!c.list_owner.empty()) {
        out << "  static JSON::Array_of<" << c.name << ">* root_list(Root& root, bool provide);\n";
      }
      out << "};\n\n";
    }
    out << "}  // namespace OME\n";
    return out.str();
  }

  std::string source() const {
    std::ostringstream out;
    out << "// Generated from ome.xsd by tools/ome_schema; do not edit.\n\n"
        << "#include \"tarnio/ome/element_members.h\"\n#include \"tarnio/ome/element_classes.h\"\n"
        << "#include \"tarnio/ome/root.h\"\n\nnamespace OME {\n\n";
    for (const std::string& name : enum_order_) {
      if (kHandWrittenEnums.contains(name)) continue;
      out << "const JSON::Enum_Table<" << name << ">& enum_table(" << name << ") {\n"
          << "  static const JSON::Enum_Table<" << name << "> table{";
      for (const std::string& k : enums_.at(name).keywords) {
        out << "{" << name << "::" << enumerator(k) << ", " << literal(k) << "}, ";
      }
      out << "};\n  return table;\n}\n\n";
    }
    for (const Class_Info& c : classes_) {
      if (c.list_owner.empty() || kHandWritten.contains(c.name)) continue;
      const std::string owner = c.list_owner == "OME" ? "ome" : "instrument";
      const std::string provide =
          c.list_owner == "OME" ? "provide_ome" : "provide_first_instrument";
      const std::string get = c.list_owner == "OME" ? "ome" : "first_instrument";
      out << "JSON::Array_of<" << c.name << ">* " << c.name
          << "::root_list(Root& root, bool provide) {\n  " << c.list_owner << "* " << owner
          << " = provide ? &root." << provide << "() : root." << get << "();\n  return " << owner
          << " == nullptr ? nullptr : &" << owner << "->" << plural(snake(c.schema_name))
          << "();\n}\n\n";
    }
    out << "// Every accessor compiled once, also those that no code of the library calls.\n";
    for (const Class_Info& c : classes_) out << "template class " << mixin_of(c) << ";\n";
    out << "\n}  // namespace OME\n";
    return out.str();
  }

  const Schema& schema_;
  std::vector<Role> roles_;              // by element index
  std::map<int, std::string> class_of_;  // element index → class
  std::vector<Class_Info> classes_;      // group bases first, then in element order
  std::map<std::string, std::size_t> by_name_;
  std::map<std::string, bool> resolves_;
  std::map<std::vector<std::string>, std::string> inline_enums_;
  std::map<std::string, Simple> enums_;
  std::vector<std::string> enum_order_;
};

}  // namespace

Class_Sources emit_classes(const Schema& schema) { return Emitter(schema).emit(); }

}  // namespace ome_schema
