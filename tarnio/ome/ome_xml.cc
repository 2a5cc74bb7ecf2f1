#include "tarnio/ome/ome_xml.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <pugixml.hpp>
#include <sstream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tarnio/json/internal/arena.h"
#include "tarnio/json/internal/shortest_double.h"
#include "tarnio/ome/errors.h"
#include "tarnio/ome/internal/schema.h"
#include "tarnio/ome/internal/typed_annotations.h"
#include "tarnio/strings/internal/same_name.h"
#include "tarnio/strings/internal/xml_escape.h"

namespace OME {
namespace {

using internal::Child_Type;
using internal::Element_Type;
using internal::Simple_Type;
using internal::Value_Type;

constexpr std::string_view kSchemaPrefix = "http://www.openmicroscopy.org/Schemas/OME/";
constexpr std::string_view kKind = "#kind";
constexpr std::string_view kText = "#text";
constexpr std::string_view kXML = "#xml";
constexpr std::string_view kAny = "#any";
// Its Value may hold one of the typed annotations (internal/typed_annotations.h).
constexpr std::string_view kXMLAnnotation = "XMLAnnotation";

const Element_Type& type_at(int index) {
  return internal::element_types()[static_cast<std::size_t>(index)];
}

// Per element type: its children's element names, with the child entry and element type.
struct Child_Slot {
  const Child_Type* child;
  int element;
};
using Child_Index = std::unordered_map<std::string_view, Child_Slot>;

const Child_Index& children_of(const Element_Type& type) {
  static const std::vector<Child_Index> indexes = [] {
    std::vector<Child_Index> all;
    for (const Element_Type& element : internal::element_types()) {
      Child_Index& index = all.emplace_back();
      for (const Child_Type& child : element.children) {
        for (int e : child.elements) index.emplace(type_at(e).name, Child_Slot{&child, e});
      }
    }
    return all;
  }();
  return indexes[static_cast<std::size_t>(&type - internal::element_types().data())];
}

bool text_only(const Element_Type& type) {
  return type.attributes.empty() && type.children.empty() && !type.any_content &&
         type.text.type != Value_Type::none;
}

using Tarn::strings::internal::same_name;

std::string_view local_name(std::string_view name) {
  const auto colon = name.find(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

std::string_view trim(std::string_view text) {
  const auto space = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  if (text.empty() || (!space(text.front()) && !space(text.back()))) return text;
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// The element path of a node for messages ("OME.Image.Pixels").
std::string path_of(pugi::xml_node node) {
  std::vector<std::string_view> names;
  for (; node && node.type() == pugi::node_element; node = node.parent()) {
    names.push_back(local_name(node.name()));
  }
  std::reverse(names.begin(), names.end());
  return fmt::format("{}", fmt::join(names, "."));
}

[[noreturn]] void throw_invalid(const Simple_Type& type, std::string_view text, std::string where) {
  throw Invalid_Data(fmt::format("Invalid {} '{}' in {}.", type.name, text, where));
}

[[noreturn]] void throw_repeated(pugi::xml_node node, std::string_view attribute) {
  throw Invalid_Data(fmt::format("Repeated attribute '{}' in {}.", attribute, path_of(node)));
}

template <typename Number>
bool parse_number(std::string_view text, Number& number) {
  if (text.starts_with('+')) text.remove_prefix(1);
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return !text.empty() && error == std::errc() && end == text.data() + text.size();
}

bool in_range(const Simple_Type& type, double number) {
  const bool above = type.above_minimum ? number > type.minimum : number >= type.minimum;
  return std::isnan(number) || (above && number <= type.maximum);
}

// A value of simple type `type`; `where` names it in the error message.
template <typename Where>
JSON::Value convert(const Simple_Type& type, std::string_view raw, Where where) {
  const std::string_view text = type.type == Value_Type::string ? raw : trim(raw);
  switch (type.type) {
    case Value_Type::integer: {
      std::int64_t number = 0;
      if (parse_number(text, number) && in_range(type, static_cast<double>(number))) return number;
      std::uint64_t big = 0;
      if (parse_number(text, big) && in_range(type, static_cast<double>(big))) return big;
      break;
    }
    case Value_Type::number: {
      double number = 0;
      if (text == "NaN") {
        number = std::numeric_limits<double>::quiet_NaN();
      } else if (text == "INF" || text == "-INF") {
        number = text == "INF" ? internal::kUnbounded : -internal::kUnbounded;
      } else if (text.starts_with('.') ? !parse_number(fmt::format("0{}", text), number)
                                       : !parse_number(text, number)) {
        break;
      }
      if (in_range(type, number)) return number;
      break;
    }
    case Value_Type::boolean:
      if (text == "true" || text == "1") return true;
      if (text == "false" || text == "0") return false;
      break;
    case Value_Type::keyword:
      if (std::find(type.keywords.begin(), type.keywords.end(), text) != type.keywords.end()) {
        return text;
      }
      break;
    case Value_Type::string:
    case Value_Type::none:
      return raw;
  }
  throw_invalid(type, raw, where());
}

std::string raw_xml(pugi::xml_node node) {
  std::ostringstream out;
  node.print(out, "", pugi::format_raw | pugi::format_no_declaration);
  return out.str();
}

// Thrown by a reader of a document parsed without its whitespace-only text, where that text
// could have counted: the document is read again with it.
struct Whitespace_Needed {};

class Reader {
 public:
  // `whitespace_kept`: whether the parse kept every text node of whitespace alone, or only
  // those that are the only child of their element. Most documents are read faster with the
  // latter; the others matter only in foreign XML, in unknown elements and in string text
  // that stands beside child elements.
  explicit Reader(bool whitespace_kept) : whitespace_kept_(whitespace_kept) {}

  JSON::Value element(pugi::xml_node node, const Element_Type& type) {
    if (text_only(type)) {
      return convert(type.text, node.child_value(), [&] { return path_of(node); });
    }
    JSON::Value value = JSON::Value::object();
    std::size_t attributes = 0;
    for (pugi::xml_attribute a = node.first_attribute(); a; a = a.next_attribute()) ++attributes;
    value.reserve(attributes + (node.first_child() ? 1 : 0));
    const std::size_t attribute_count = attributes;
    // Attributes mostly come in schema order: each search starts after the last one found.
    // The parser lets an attribute repeat; the schema's are ticked off as they come, so that
    // they are appended without a search of the members, and others are looked for.
    auto next = type.attributes.begin();
    std::uint64_t seen = 0;
    for (pugi::xml_attribute attribute : node.attributes()) {
      const std::string_view name = attribute.name();
      const auto is_name = [&](const auto& a) { return a.name == name; };
      auto known = std::find_if(next, type.attributes.end(), is_name);
      if (known == type.attributes.end()) {
        known = std::find_if(type.attributes.begin(), next, is_name);
        if (known == next) known = type.attributes.end();
      }
      const auto index = known - type.attributes.begin();
      const std::uint64_t bit = index < 64 ? std::uint64_t{1} << index : 0;
      if (known == type.attributes.end() || bit == 0) {
        if (value.contains(name)) throw_repeated(node, name);
        value.append_member(name, attribute.value());
        continue;
      }
      if ((seen & bit) != 0) throw_repeated(node, name);
      seen |= bit;
      value.append_member(name, convert(known->value, attribute.value(),
                                        [&] { return fmt::format("{}.{}", path_of(node), name); }));
      next = known + 1;
    }
    if (type.any_content) {
      if (!whitespace_kept_) throw Whitespace_Needed{};
      std::string xml;
      for (pugi::xml_node child : node.children()) xml += raw_xml(child);
      value.set(kXML, std::move(xml));
      return value;
    }
    const Child_Index& children = children_of(type);
    std::string text;
    // Children of one name mostly stand together (a pixels element's planes): the last name's
    // slot and list are kept while the element gains no new member, which could move the list.
    std::string_view last_name;
    const Child_Slot* last_slot = nullptr;
    JSON::Value* last_list = nullptr;
    std::size_t last_size = 0;
    for (pugi::xml_node child : node.children()) {
      const pugi::xml_node_type node_type = child.type();
      if (node_type == pugi::node_pcdata || node_type == pugi::node_cdata) {
        text += child.value();
        continue;
      }
      if (node_type != pugi::node_element) continue;
      const std::string_view name = local_name(child.name());
      if (last_slot == nullptr || name != last_name || value.size() != last_size) {
        const auto slot = children.find(name);
        if (slot == children.end()) {
          if (!whitespace_kept_) throw Whitespace_Needed{};
          value[kAny].push_back(raw_xml(child));
          last_slot = nullptr;
          continue;
        }
        last_name = name;
        last_slot = &slot->second;
        last_list = &value[last_slot->child->key];
        last_size = value.size();
      }
      const Element_Type& child_type = type_at(last_slot->element);
      JSON::Value& item = last_list->push_back(element(child, child_type));
      if (last_slot->child->elements.size() > 1) item.set(kKind, child_type.name);
      if (child_type.name == kXMLAnnotation) internal::read_typed_annotation(item);
    }
    if (type.text.type != Value_Type::none) {
      if (!whitespace_kept_ && type.text.type == Value_Type::string &&
          value.size() > attribute_count) {
        throw Whitespace_Needed{};
      }
      value.set(kText, convert(type.text, text, [&] { return path_of(node); }));
    } else if (!trim(text).empty()) {
      value.set(kText, text);
    }
    return value;
  }

 private:
  bool whitespace_kept_;
};

void check_namespace(pugi::xml_node root) {
  const std::string_view name = root.name();
  const auto colon = name.find(':');
  const std::string declaration =
      colon == std::string_view::npos ? "xmlns" : fmt::format("xmlns:{}", name.substr(0, colon));
  const std::string_view ns = root.attribute(declaration.c_str()).value();
  const bool newer = ns.starts_with(kSchemaPrefix) && ns.substr(kSchemaPrefix.size()) > "2016-06";
  if (local_name(name) != "OME" || (ns != kNamespace && !newer)) {
    throw Invalid_Data(fmt::format("Unsupported OME-XML namespace '{}'.", ns));
  }
}

[[noreturn]] void throw_shape(std::string_view reason) {
  throw Invalid_Data(fmt::format("JSON value cannot be written as OME-XML: {}.", reason));
}

// The text of a scalar; a number is formatted into `buffer`.
std::string_view value_text(const JSON::Value& value,
                            char (&buffer)[JSON::internal::kMaxDoubleText]) {
  if (value.is_string()) return value.get_string();
  if (value.is_bool()) return value.get_bool() ? "true" : "false";
  if (!value.is_number()) {
    throw_shape(fmt::format("a {} as a value", JSON::kind_name(value.kind())));
  }
  char* end = buffer;
  if (value.is_int64()) {
    end = std::to_chars(buffer, buffer + sizeof buffer, value.get_int64()).ptr;
  } else if (value.is_uint64()) {
    end = std::to_chars(buffer, buffer + sizeof buffer, value.get_uint64()).ptr;
  } else {
    const double number = value.get_double();
    if (std::isnan(number)) return "NaN";
    if (std::isinf(number)) return number > 0 ? "INF" : "-INF";
    end = JSON::internal::write_shortest_double(buffer, number);
  }
  return std::string_view(buffer, static_cast<std::size_t>(end - buffer));
}

std::string format_value(const JSON::Value& value) {
  char buffer[JSON::internal::kMaxDoubleText];
  return std::string(value_text(value, buffer));
}

// Writes the document text directly, indented by two spaces per level; foreign XML is copied
// as it stands, without indentation around it.
class Writer {
 public:
  void element(std::string_view name, const JSON::Value& value, const Element_Type& type, int depth,
               std::string_view extra_attributes = {}) {
    out_.append(static_cast<std::size_t>(2 * depth), ' ').append("<").append(name);
    out_.append(extra_attributes);
    if (!value.is_object()) {
      if (!text_only(type)) throw_shape(fmt::format("{} is not an object", type.name));
      close_with_text(name, format_value(value));
      return;
    }
    // One pass sorts out the members the element writes itself; the attributes and children
    // are then looked for among the rest only while some remain, the next in schema order
    // first, as members mostly stand in that order.
    const auto members = value.members();
    const JSON::Value* text = nullptr;
    const JSON::Value* xml = nullptr;
    const JSON::Value* any = nullptr;
    std::size_t remaining = members.size();
    for (const JSON::Member& member : members) {
      if (!member.key().starts_with('#')) continue;
      --remaining;
      if (member.key() == kText) text = &member.value();
      if (member.key() == kXML) xml = &member.value();
      if (member.key() == kAny) any = &member.value();
    }
    std::size_t next = 0;
    const auto take = [&](std::string_view key) -> const JSON::Value* {
      if (remaining == 0) return nullptr;
      if (next < members.size() && same_name(members[next].key(), key)) {
        --remaining;
        return &members[next++].value();
      }
      for (std::size_t i = 0; i < members.size(); ++i) {
        if (same_name(members[i].key(), key)) {
          --remaining;
          next = i + 1;
          return &members[i].value();
        }
      }
      return nullptr;
    };
    for (const auto& attribute : type.attributes) {
      if (const JSON::Value* member = take(attribute.name))
        write_attribute(attribute.name, *member);
    }
    std::vector<std::pair<const Child_Type*, const JSON::Value*>> children;
    for (const Child_Type& child : type.children) {
      if (const JSON::Value* items = take(child.key)) children.emplace_back(&child, items);
    }
    if (remaining > 0) {
      for (const JSON::Member& member : members) {
        if (!member.key().starts_with('#') && !known_member(type, member.key())) {
          check_name(member.key());
          write_attribute(member.key(), member.value());
        }
      }
    }
    if (any != nullptr && !any->is_list()) throw_shape("#any is not a list");
    if (xml != nullptr) {
      out_.append(">");
      append_foreign(format_value(*xml));
      out_.append("</").append(name).append(">\n");
      return;
    }
    if (children.empty() && any == nullptr) {
      close_with_text(name, text == nullptr ? std::string() : format_value(*text));
      return;
    }
    out_.append(">");
    if (text != nullptr) append_escaped(format_value(*text), "&<>\r");
    out_.append("\n");
    for (const auto& [child, items] : children) {
      if (!items->is_list()) throw_shape(fmt::format("{} is not a list", child->key));
      for (const JSON::Value& item : items->items()) {
        const Element_Type& child_type = kind_of(*child, item);
        JSON::Value scratch;
        element(
            child_type.name,
            child_type.name == kXMLAnnotation ? internal::untyped_annotation(item, scratch) : item,
            child_type, depth + 1);
      }
    }
    if (any != nullptr) {
      for (const JSON::Value& item : any->items()) {
        out_.append(static_cast<std::size_t>(2 * depth + 2), ' ');
        append_foreign(format_value(item));
        out_.append("\n");
      }
    }
    out_.append(static_cast<std::size_t>(2 * depth), ' ').append("</").append(name).append(">\n");
  }

  std::string& text() noexcept { return out_; }

 private:
  void close_with_text(std::string_view name, const std::string& text) {
    if (text.empty()) {
      out_.append(" />\n");
      return;
    }
    out_.append(">");
    append_escaped(text, "&<>\r");
    out_.append("</").append(name).append(">\n");
  }

  void write_attribute(std::string_view name, const JSON::Value& value) {
    if (value.is_null()) return;
    char buffer[JSON::internal::kMaxDoubleText];
    out_ += ' ';
    out_.append(name);
    out_.append("=\"", 2);
    append_escaped(value_text(value, buffer), "&<\"\t\n\r");
    out_ += '"';
  }

  void append_escaped(std::string_view text, std::string_view specials) {
    // Most values hold nothing to escape; a table finds that faster than find_first_of.
    static constexpr auto kMayEscape = [] {
      std::array<bool, 256> table{};
      for (const char c : std::string_view("&<>\"\t\n\r"))
        table[static_cast<unsigned char>(c)] = true;
      return table;
    }();
    const bool plain = std::none_of(
        text.begin(), text.end(), [](char c) { return kMayEscape[static_cast<unsigned char>(c)]; });
    if (plain) {
      out_.append(text);
    } else {
      Tarn::strings::internal::append_xml_escaped(out_, text, specials);
    }
  }

  void append_foreign(const std::string& xml) {
    pugi::xml_document fragment;
    const auto parsed =
        fragment.load_buffer(xml.data(), xml.size(), pugi::parse_default | pugi::parse_fragment);
    if (!parsed) throw_shape(fmt::format("foreign XML does not parse ({})", parsed.description()));
    out_.append(xml);
  }

  // Names the tables do not know come from the tree and must be XML names.
  static void check_name(std::string_view name) {
    const auto bad = [](char c, bool first) {
      const auto u = static_cast<unsigned char>(c);
      const bool letter = std::isalpha(u) || c == '_' || c == ':' || u >= 0x80;
      return !(letter || (!first && (std::isdigit(u) || c == '-' || c == '.')));
    };
    if (name.empty() || bad(name.front(), true) ||
        std::any_of(name.begin() + 1, name.end(), [&](char c) { return bad(c, false); })) {
      throw_shape(fmt::format("'{}' is not an XML name", name));
    }
  }

  static bool known_member(const Element_Type& type, std::string_view key) {
    return std::any_of(type.attributes.begin(), type.attributes.end(),
                       [&](const auto& a) { return a.name == key; }) ||
           std::any_of(type.children.begin(), type.children.end(),
                       [&](const auto& c) { return c.key == key; });
  }

  static const Element_Type& kind_of(const Child_Type& child, const JSON::Value& item) {
    const JSON::Value* kind = item.is_object() ? item.find(kKind) : nullptr;
    if (kind == nullptr) return type_at(child.elements.front());
    for (int e : child.elements) {
      if (kind->is_string() && type_at(e).name == kind->get_string()) return type_at(e);
    }
    throw_shape(fmt::format("unknown {} kind {}", child.key, format_value(*kind)));
  }

  std::string out_;
};

}  // namespace

const Element_Type* internal::find_element_type(std::string_view element,
                                                std::string_view attribute) noexcept {
  for (const Element_Type& type : internal::element_types()) {
    if (type.name == element && std::any_of(type.attributes.begin(), type.attributes.end(),
                                            [&](const auto& a) { return a.name == attribute; })) {
      return &type;
    }
  }
  return nullptr;
}

namespace {

JSON::Value read_parsed(std::string_view xml, bool keep_whitespace) {
  pugi::xml_document document;
  const unsigned options = pugi::parse_default |
                           (keep_whitespace ? pugi::parse_ws_pcdata : pugi::parse_ws_pcdata_single);
  const pugi::xml_parse_result parsed = document.load_buffer(xml.data(), xml.size(), options);
  if (!parsed) {
    throw Invalid_Data(
        fmt::format("OME-XML parse error at offset {}: {}.", parsed.offset, parsed.description()));
  }
  const pugi::xml_node root = document.document_element();
  if (!root) throw Invalid_Data("OME-XML parse error at offset 0: no root element.");
  check_namespace(root);
  const JSON::internal::ArenaScope arena;
  JSON::Value tree = JSON::Value::object();
  tree["OME"].push_back(Reader(keep_whitespace).element(root, type_at(0)));
  return tree;
}

}  // namespace

JSON::Value read_OME_XML(std::string_view xml) {
  try {
    return read_parsed(xml, false);
  } catch (const Whitespace_Needed&) {
  } catch (const Invalid_Data&) {
    // Refusals are reported from the exact reading, with the text as it stands.
  }
  return read_parsed(xml, true);
}

std::string write_OME_XML(const JSON::Value& document) {
  const JSON::Value* ome = document.is_object() ? document.find("OME") : nullptr;
  if (ome == nullptr || !ome->is_list() || ome->size() != 1) {
    throw_shape("the document is not {\"OME\": [{...}]}");
  }
  const JSON::Value& element = ome->items()[0];
  const std::string declarations =
      element.is_object() && element.contains("xmlns")
          ? std::string()
          : fmt::format(
                " xmlns=\"{0}\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
                "xsi:schemaLocation=\"{0} {0}/ome.xsd\"",
                kNamespace);
  Writer writer;
  writer.text() = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  writer.element("OME", element, type_at(0), 0, declarations);
  return std::move(writer.text());
}

}  // namespace OME
