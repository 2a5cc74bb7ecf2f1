// The typed annotations in OME-XML: their JSON member read from and written into the XML of
// their Value (tarnio/ome/internal/typed_annotations.h).

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <pugixml.hpp>
#include <sstream>
#include <string>

#include "tarnio/ome/element_classes.h"
#include "tarnio/ome/errors.h"
#include "tarnio/ome/internal/typed_annotations.h"
#include "tarnio/units/base_unit.h"

namespace OME::internal {
namespace {

constexpr std::string_view kXML = "#xml";

std::string_view local_name(std::string_view name) {
  const auto colon = name.find(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

bool is_blank(std::string_view text) {
  return text.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

const Member_Type* find_member_type(const Record_Type& type, std::string_view name) {
  const auto found = std::find_if(type.members.begin(), type.members.end(),
                                  [&](const Member_Type& m) { return m.name == name; });
  return found == type.members.end() ? nullptr : &*found;
}

bool holds_elements(const Member_Type& member) {
  return member.kind == Member_Kind::records || member.kind == Member_Kind::texts;
}

std::string_view kind_name(Member_Kind kind) {
  switch (kind) {
    case Member_Kind::integer:
      return "integer";
    case Member_Kind::number:
      return "number";
    case Member_Kind::boolean:
      return "boolean";
    case Member_Kind::keyword:
      return "keyword";
    case Member_Kind::unit:
      return "unit";
    default:
      return "string";
  }
}

bool is_unit(std::string_view text) {
  try {
    Tarn::units::BaseUnit::parse(text);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool is_keyword(const Member_Type& member, std::string_view text) {
  return std::find(member.keywords.begin(), member.keywords.end(), text) != member.keywords.end();
}

// Reads the XML of a Value into the JSON of a record, checking every name and value.
class Reader {
 public:
  JSON::Value record(pugi::xml_node node, const Record_Type& type, const std::string& path,
                     bool skip_namespace_attribute) const {
    JSON::Value record = JSON::Value::object();
    for (pugi::xml_attribute attribute : node.attributes()) {
      const std::string_view name = attribute.name();
      if (name == "xmlns" || name.starts_with("xmlns:") ||
          (skip_namespace_attribute && name == "namespace")) {
        continue;
      }
      const Member_Type* member = find_member_type(type, name);
      if (member == nullptr || holds_elements(*member)) unknown(name, path);
      record.set(name, scalar(*member, attribute.value(), fmt::format("{}.{}", path, name)));
    }
    for (pugi::xml_node child : node.children()) {
      if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) {
        if (!is_blank(child.value())) unknown("#text", path);
        continue;
      }
      if (child.type() != pugi::node_element) continue;
      const std::string_view name = local_name(child.name());
      const Member_Type* member = find_member_type(type, name);
      if (member == nullptr || !holds_elements(*member)) unknown(name, path);
      const std::string child_path = fmt::format("{}.{}", path, name);
      if (member->kind == Member_Kind::texts) {
        record[name].push_back(child.child_value());
      } else {
        record[name].push_back(record_of(child, *member->record, child_path));
      }
    }
    return record;
  }

 private:
  JSON::Value record_of(pugi::xml_node node, const Record_Type& type,
                        const std::string& path) const {
    return record(node, type, path, false);
  }

  [[noreturn]] void unknown(std::string_view name, const std::string& path) const {
    throw Invalid_Data(fmt::format("Unknown member '{}' in {}.", name, path));
  }

  static JSON::Value scalar(const Member_Type& member, std::string_view text,
                            const std::string& path) {
    switch (member.kind) {
      case Member_Kind::integer: {
        std::int64_t number = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (!text.empty() && error == std::errc() && end == text.data() + text.size()) {
          return number;
        }
        break;
      }
      case Member_Kind::number: {
        if (text == "NaN" || text == "INF" || text == "-INF") {
          return text == "NaN" ? std::nan("") : text == "INF" ? HUGE_VAL : -HUGE_VAL;
        }
        double number = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (!text.empty() && error == std::errc() && end == text.data() + text.size()) {
          return number;
        }
        break;
      }
      case Member_Kind::boolean:
        if (text == "true" || text == "false") return text == "true";
        break;
      case Member_Kind::keyword:
        if (is_keyword(member, text)) return text;
        break;
      case Member_Kind::unit:
        if (is_unit(text)) return text;
        break;
      default:
        return text;
    }
    throw Invalid_Data(fmt::format("Invalid {} '{}' in {}.", kind_name(member.kind), text, path));
  }
};

[[noreturn]] void throw_shape(const std::string& reason) {
  throw Invalid_Data(fmt::format("JSON value cannot be written as OME-XML: {}.", reason));
}

std::string scalar_text(const Member_Type& member, const JSON::Value& value,
                        const std::string& path) {
  const auto wrong = [&] {
    throw_shape(fmt::format("{} is not a valid {}", path, kind_name(member.kind)));
  };
  switch (member.kind) {
    case Member_Kind::integer:
      if (!value.is_int64() && !value.is_uint64()) wrong();
      return value.is_int64() ? fmt::format("{}", value.get_int64())
                              : fmt::format("{}", value.get_uint64());
    case Member_Kind::number: {
      if (!value.is_number()) wrong();
      const double number = value.get_double();
      if (std::isnan(number)) return "NaN";
      if (std::isinf(number)) return number > 0 ? "INF" : "-INF";
      return fmt::format("{}", number);  // the shortest text that reads back the same
    }
    case Member_Kind::boolean:
      if (!value.is_bool()) wrong();
      return value.get_bool() ? "true" : "false";
    case Member_Kind::keyword:
      if (!value.is_string() || !is_keyword(member, value.get_string())) wrong();
      return std::string(value.get_string());
    case Member_Kind::unit:
      if (!value.is_string() || !is_unit(value.get_string())) wrong();
      return std::string(value.get_string());
    default:
      if (!value.is_string()) wrong();
      return std::string(value.get_string());
  }
}

// Writes the JSON of a record as the attributes and children of `node`, in member order.
void write_record(pugi::xml_node node, const JSON::Value& record, const Record_Type& type,
                  const std::string& path) {
  if (!record.is_object()) throw_shape(fmt::format("{} is not an object", path));
  for (const JSON::Member& member : record.members()) {
    if (find_member_type(type, member.key()) == nullptr) {
      throw_shape(fmt::format("unknown member '{}' in {}", member.key(), path));
    }
  }
  for (const Member_Type& member : type.members) {
    const JSON::Value* value = record.find(member.name);
    if (value == nullptr || holds_elements(member)) continue;
    const std::string text = scalar_text(member, *value, fmt::format("{}.{}", path, member.name));
    node.append_attribute(std::string(member.name).c_str()).set_value(text.c_str());
  }
  for (const Member_Type& member : type.members) {
    const JSON::Value* items = record.find(member.name);
    if (items == nullptr || !holds_elements(member)) continue;
    const std::string item_path = fmt::format("{}.{}", path, member.name);
    if (!items->is_list()) throw_shape(fmt::format("{} is not a list", item_path));
    for (const JSON::Value& item : items->items()) {
      pugi::xml_node child = node.append_child(std::string(member.name).c_str());
      if (member.kind == Member_Kind::records) {
        write_record(child, item, *member.record, item_path);
      } else if (item.is_string()) {
        child.text().set(std::string(item.get_string()).c_str());
      } else {
        throw_shape(fmt::format("{} is not a list of texts", item_path));
      }
    }
  }
}

const Typed_Annotation* typed_annotation_of(const JSON::Value& item) {
  if (!item.is_object()) return nullptr;
  const JSON::Value* ns = item.find("Namespace");
  return ns != nullptr && ns->is_string() ? find_typed_annotation(ns->get_string()) : nullptr;
}

// The XML text of the Value's one item, or null when it holds none.
const JSON::Value* value_xml(const JSON::Value& item) {
  const JSON::Value* value = item.find("Value");
  if (value == nullptr || !value->is_list() || value->size() != 1) return nullptr;
  const JSON::Value& first = value->items()[0];
  return first.is_object() ? first.find(kXML) : nullptr;
}

}  // namespace

void read_typed_annotation(JSON::Value& item) {
  const Typed_Annotation* typed = typed_annotation_of(item);
  const JSON::Value* xml = typed == nullptr ? nullptr : value_xml(item);
  if (xml == nullptr || !xml->is_string()) return;
  pugi::xml_document fragment;
  const std::string_view text = xml->get_string();
  fragment.load_buffer(text.data(), text.size(), pugi::parse_default | pugi::parse_fragment);
  pugi::xml_node element;
  for (pugi::xml_node child : fragment.children()) {
    if (child.type() == pugi::node_element && !element) {
      element = child;
    } else if (child.type() == pugi::node_element ||
               ((child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) &&
                !is_blank(child.value()))) {
      throw Invalid_Data(
          fmt::format("Unknown member '{}' in {}.", local_name(child.name()), typed->member));
    }
  }
  if (!element) {  // an empty Value: the annotation holds no values yet
    item.erase("Value");
    return;
  }
  const std::string path(typed->annotation_namespace);
  const bool in_namespace = element.attribute("xmlns").value() == typed->element_namespace ||
                            (typed->namespace_attribute &&
                             element.attribute("namespace").value() == typed->element_namespace);
  if (local_name(element.name()) != typed->element || !in_namespace) {
    throw Invalid_Data(fmt::format("Unknown member '{}' in {}.", element.name(), path));
  }
  JSON::Value record = Reader().record(element, *typed->record, path, typed->namespace_attribute);
  item.erase("Value");
  item[typed->member].push_back(std::move(record));
}

const JSON::Value& untyped_annotation(const JSON::Value& item, JSON::Value& scratch) {
  const Typed_Annotation* typed = typed_annotation_of(item);
  if (typed == nullptr || value_xml(item) != nullptr) return item;
  const JSON::Value* records = item.find(typed->member);
  std::string xml;
  if (records != nullptr) {
    if (!records->is_list() || records->size() != 1) {
      throw_shape(fmt::format("{} is not a list of one record", typed->member));
    }
    pugi::xml_document document;
    pugi::xml_node element = document.append_child(std::string(typed->element).c_str());
    element.append_attribute("xmlns").set_value(typed->element_namespace.c_str());
    if (typed->namespace_attribute) {
      element.append_attribute("namespace").set_value(typed->element_namespace.c_str());
    }
    write_record(element, records->items()[0], *typed->record, typed->annotation_namespace);
    std::ostringstream out;
    element.print(out, "", pugi::format_raw | pugi::format_no_declaration);
    xml = out.str();
  }
  scratch = item;
  scratch.erase(typed->member);
  scratch.set("Value", JSON::Value::list({JSON::Value::object({{kXML, xml}})}));
  return scratch;
}

}  // namespace OME::internal
