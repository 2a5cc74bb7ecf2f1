#include "tarnio/json/xml.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <pugixml.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tarnio/json/internal/arena.h"
#include "tarnio/json/read_write.h"
#include "tarnio/strings/internal/xml_escape.h"

namespace JSON {
namespace {

// Comments, processing instructions and the declaration are skipped; white space between
// elements is dropped, but an element whose only content is white space keeps it. Fragment
// mode keeps text outside the root element, so that it can be rejected.
constexpr unsigned kParseOptions =
    pugi::parse_default | pugi::parse_ws_pcdata_single | pugi::parse_fragment;

[[noreturn]] void throw_parse_error(std::ptrdiff_t offset, std::string_view reason) {
  throw std::runtime_error(fmt::format("XML parse error at offset {}: {}.", offset, reason));
}

[[noreturn]] void throw_shape_error(std::string_view reason) {
  throw std::runtime_error(fmt::format("JSON value cannot be written as XML: {}.", reason));
}

// The offset of the '<' that starts an element.
std::ptrdiff_t start_offset(pugi::xml_node element) { return element.offset_debug() - 1; }

bool is_text(pugi::xml_node node) {
  return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata;
}

bool is_blank(std::string_view text) {
  return text.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

// The one element at the top of the document.
pugi::xml_node root_element(const pugi::xml_document& document) {
  pugi::xml_node root;
  for (pugi::xml_node node = document.first_child(); node; node = node.next_sibling()) {
    if (is_text(node) && !is_blank(node.value())) {
      throw_parse_error(node.offset_debug(), "text outside the root element");
    }
    if (node.type() != pugi::node_element) continue;
    if (root) throw_parse_error(start_offset(node), "more than one root element");
    root = node;
  }
  if (!root) throw_parse_error(0, "no root element");
  return root;
}

// An element whose value is still to be read into the null item `index` of `list`; the list
// is complete, so the item keeps its address.
struct UnreadElement {
  pugi::xml_node node;
  Value* list;
  std::size_t index;
  int depth;
};

// The text and CDATA pieces of one element, joined only when there are several.
class Text {
 public:
  void add(std::string_view piece) {
    if (++pieces_ == 1) {
      first_ = piece;
      return;
    }
    if (pieces_ == 2) joined_ = first_;
    joined_ += piece;
  }
  std::string_view view() const { return pieces_ > 1 ? joined_ : first_; }

 private:
  std::size_t pieces_ = 0;
  std::string_view first_;
  std::string joined_;
};

struct ChildElement {
  pugi::xml_node node;
  std::string_view name;
};

// Reads one element at a time, depth-first from the root, with a stack of its own.
class TreeReader {
 public:
  explicit TreeReader(Value& root_list, pugi::xml_node root) {
    unread_.push_back({root, &root_list, 0, 1});
  }

  void read_all() {
    while (!unread_.empty()) {
      const UnreadElement next = unread_.back();
      unread_.pop_back();
      if (next.depth > kMaxDepth) {
        throw_parse_error(start_offset(next.node),
                          fmt::format("nesting deeper than {} levels", kMaxDepth));
      }
      read(next);
    }
  }

 private:
  // Reads the element's attributes and text into its item and adds its children, each with a
  // null item in its list, to the stack so that they are read in document order.
  void read(const UnreadElement& element) {
    const pugi::xml_node node = element.node;
    Value& target = element.list->items()[element.index];
    children_.clear();
    Text text;
    for (pugi::xml_node child = node.first_child(); child; child = child.next_sibling()) {
      const pugi::xml_node_type type = child.type();
      if (type == pugi::node_element) {
        children_.push_back({child, child.name()});
      } else if (type == pugi::node_pcdata || type == pugi::node_cdata) {
        text.add(child.value());
      }
    }
    if (children_.empty() && !node.first_attribute()) {
      target = Value(text.view());
      return;
    }
    target = Value::object();
    target.reserve(member_count(node) + (is_blank(text.view()) ? 0 : 1));
    for (pugi::xml_attribute attribute : node.attributes()) {
      const std::size_t before = target.size();
      target.set(attribute.name(), Value(attribute.value()));
      if (target.size() == before) {
        throw_parse_error(start_offset(node),
                          fmt::format("duplicate attribute '{}'", attribute.name()));
      }
    }
    // Children come in runs of one name; a name met again in a later run means interleaving.
    bool interleaved = false;
    std::string_view run;
    for (auto child = children_.begin(); child != children_.end(); ++child) {
      if (child->name == run) continue;
      run = child->name;
      const Value* existing = target.find(run);
      if (existing == nullptr) {
        const auto run_end = std::find_if(child, children_.end(),
                                          [run](const ChildElement& c) { return c.name != run; });
        target.set(run, Value::list()).reserve(static_cast<std::size_t>(run_end - child));
      } else if (existing->is_list()) {
        interleaved = true;
      } else {
        throw_parse_error(start_offset(child->node),
                          fmt::format("element '{}' has the name of an attribute", run));
      }
    }
    if (!is_blank(text.view())) target.set("#text", Value(text.view()));
    if (interleaved) {
      Value& order = target.set("#order", Value::list());
      for (const ChildElement& child : children_) order.push_back(Value(child.name));
    }
    // The members are complete: the lists keep their addresses from here on.
    const std::size_t first = unread_.size();
    Value* list = nullptr;
    run = {};
    for (const ChildElement& child : children_) {
      if (child.name != run) {
        run = child.name;
        list = target.find(run);
      }
      list->push_back(Value());
      unread_.push_back({child.node, list, list->size() - 1, element.depth + 1});
    }
    std::reverse(unread_.begin() + static_cast<std::ptrdiff_t>(first), unread_.end());
  }

  // The attributes and the runs of child names of the element.
  std::size_t member_count(pugi::xml_node node) const {
    std::size_t count = 0;
    for (pugi::xml_attribute attribute = node.first_attribute(); attribute;
         attribute = attribute.next_attribute()) {
      ++count;
    }
    std::string_view run;
    for (const ChildElement& child : children_) {
      if (child.name != run) ++count;
      run = child.name;
    }
    return count;
  }

  std::vector<UnreadElement> unread_;
  std::vector<ChildElement> children_;
};

bool is_scalar(const Value& value) {
  return value.is_string() || value.is_number() || value.is_bool();
}

bool is_name_start(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c == ':' || c >= 0x80;
}

// An XML name, prefix included; non-ASCII letters are taken as they come.
bool is_xml_name(std::string_view key) {
  if (key.empty() || !is_name_start(static_cast<unsigned char>(key.front()))) return false;
  return std::all_of(key.begin() + 1, key.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return is_name_start(byte) || (c >= '0' && c <= '9') || c == '-' || c == '.';
  });
}

// `key` as a name for pugixml, which wants it NUL-terminated.
std::string xml_name(std::string_view key) {
  if (!is_xml_name(key)) throw_shape_error(fmt::format("'{}' is not an XML name", key));
  return std::string(key);
}

// The text of a string, number or boolean: the string itself, or its text in `buffer`. XML can
// hold no control character but tab, line feed and carriage return; `where` names the element
// or attribute for the error.
std::string_view scalar_text(const Value& value, std::string& buffer, std::string_view where) {
  if (value.is_string()) {
    const std::string_view text = value.get_string();
    for (const char c : text) {
      const auto byte = static_cast<unsigned char>(c);
      if (byte < 0x20 && c != '\t' && c != '\n' && c != '\r') {
        throw_shape_error(fmt::format("'{}' holds the control character U+{:04X}", where, byte));
      }
    }
    return text;
  }
  if (value.is_bool()) return value.get_bool() ? "true" : "false";
  if (value.is_int64()) {
    buffer = fmt::format("{}", value.get_int64());
  } else if (value.is_uint64()) {
    buffer = fmt::format("{}", value.get_uint64());
  } else {
    // The spellings of XML Schema for what JSON cannot express.
    const double d = value.get_double();
    buffer = std::isnan(d)   ? "NaN"
             : std::isinf(d) ? (d > 0 ? "INF" : "-INF")
                             : fmt::format("{}", d);
  }
  return buffer;
}

// The document is saved without pugixml's escaping, which writes a carriage return in text
// as it is, where a reader takes it for a line break: text and attribute values go in escaped
// here. White space in attribute values is escaped too, else a reader would fold it to blanks.
constexpr std::string_view kTextSpecials = "&<>\r";
constexpr std::string_view kAttributeSpecials = "&<\"\r\n\t";

std::string_view escaped(std::string_view text, std::string_view specials, std::string& buffer) {
  if (text.find_first_of(specials) == std::string_view::npos) return text;
  std::string out;
  out.reserve(text.size() + 16);
  Tarn::strings::internal::append_xml_escaped(out, text, specials);
  buffer = std::move(out);
  return buffer;
}

void append_text(pugi::xml_node node, const Value& value, std::string& buffer) {
  std::string_view text = scalar_text(value, buffer, node.name());
  text = escaped(text, kTextSpecials, buffer);
  if (!text.empty()) node.append_child(pugi::node_pcdata).set_value(text.data(), text.size());
}

// An element in the document whose attributes and content are still to be written.
struct UnwrittenElement {
  pugi::xml_node node;
  const Value* value;
};

void append_element(pugi::xml_node parent, const std::string& name, const Value& item,
                    std::vector<UnwrittenElement>& unwritten) {
  if (!item.is_object() && !is_scalar(item)) {
    throw_shape_error(fmt::format("an item of '{}' is a {}", name, kind_name(item.kind())));
  }
  unwritten.push_back({parent.append_child(name.c_str()), &item});
}

// The children of `node` from the lists of `element`, in the order that `order` names them.
void append_in_order(pugi::xml_node node, const Value& element, const Value& order,
                     std::vector<UnwrittenElement>& unwritten) {
  if (!order.is_list()) {
    throw_shape_error(
        fmt::format("'#order' of '{}' is a {}", node.name(), kind_name(order.kind())));
  }
  std::unordered_map<const Value*, std::size_t> written;
  for (const Value& entry : order.items()) {
    if (!entry.is_string()) {
      throw_shape_error(
          fmt::format("'#order' of '{}' holds a {}", node.name(), kind_name(entry.kind())));
    }
    const std::string_view name = entry.get_string();
    const Value* list = element.find(name);
    if (list == nullptr || !list->is_list() || name == "#order") {
      throw_shape_error(fmt::format("'#order' of '{}' names '{}', which is not a list member",
                                    node.name(), name));
    }
    std::size_t& count = written[list];
    if (count == list->size()) {
      throw_shape_error(fmt::format("'#order' of '{}' names '{}' more often than it has items",
                                    node.name(), name));
    }
    append_element(node, xml_name(name), list->items()[count++], unwritten);
  }
  for (const Member& member : element.members()) {
    const Value& list = member.value();
    if (list.is_list() && member.key() != "#order" && written[&list] != list.size()) {
      throw_shape_error(
          fmt::format("'#order' of '{}' leaves out items of '{}'", node.name(), member.key()));
    }
  }
}

// Writes the attributes and text of `element` and appends its children, each to be written
// later, to `unwritten` (the first child last).
void write_element(const UnwrittenElement& element, std::vector<UnwrittenElement>& unwritten) {
  pugi::xml_node node = element.node;
  const Value& value = *element.value;
  std::string buffer;
  if (!value.is_object()) {
    append_text(node, value, buffer);
    return;
  }
  for (const Member& member : value.members()) {
    const std::string_view key = member.key();
    const Value& attribute = member.value();
    if (key == "#text" || key == "#order" || attribute.is_null() || attribute.is_list()) continue;
    if (attribute.is_object()) {
      throw_shape_error(fmt::format("member '{}' of '{}' is an object, not a list of elements", key,
                                    node.name()));
    }
    const std::string name = xml_name(key);
    std::string_view text = scalar_text(attribute, buffer, name);
    text = escaped(text, kAttributeSpecials, buffer);
    node.append_attribute(name.c_str()).set_value(text.data(), text.size());
  }
  if (const Value* text = value.find("#text"); text != nullptr && !text->is_null()) {
    if (!is_scalar(*text)) {
      throw_shape_error(
          fmt::format("'#text' of '{}' is a {}", node.name(), kind_name(text->kind())));
    }
    append_text(node, *text, buffer);
  }
  const std::size_t first = unwritten.size();
  if (const Value* order = value.find("#order"); order != nullptr && !order->is_null()) {
    append_in_order(node, value, *order, unwritten);
  } else {
    for (const Member& member : value.members()) {
      if (!member.value().is_list() || member.key() == "#text") continue;
      const std::string name = xml_name(member.key());
      for (const Value& item : member.value().items()) append_element(node, name, item, unwritten);
    }
  }
  std::reverse(unwritten.begin() + static_cast<std::ptrdiff_t>(first), unwritten.end());
}

struct StringWriter final : pugi::xml_writer {
  std::string text;
  void write(const void* data, std::size_t size) override {
    text.append(static_cast<const char*>(data), size);
  }
};

}  // namespace

Value from_xml(std::string_view xml) {
  pugi::xml_document document;
  const pugi::xml_parse_result parsed =
      document.load_buffer(xml.data(), xml.size(), kParseOptions, pugi::encoding_auto);
  if (!parsed) throw_parse_error(parsed.offset, parsed.description());
  const pugi::xml_node root = root_element(document);
  const internal::ArenaScope arena;
  Value result = Value::object();
  Value& roots = result.set(root.name(), Value::list());
  roots.push_back(Value());
  TreeReader(roots, root).read_all();
  return result;
}

std::string to_xml(const Value& document, int indent) {
  if (!document.is_object() || document.size() != 1) {
    throw_shape_error("the document is not an object with one member");
  }
  const Member& root = document.members()[0];
  if (!root.value().is_list() || root.value().size() != 1) {
    throw_shape_error(fmt::format("the root '{}' is not a list with one item", root.key()));
  }
  pugi::xml_document xml;
  pugi::xml_node declaration = xml.append_child(pugi::node_declaration);
  declaration.append_attribute("version").set_value("1.0");
  declaration.append_attribute("encoding").set_value("UTF-8");
  std::vector<UnwrittenElement> unwritten;
  append_element(xml, xml_name(root.key()), root.value().items()[0], unwritten);
  while (!unwritten.empty()) {
    const UnwrittenElement next = unwritten.back();
    unwritten.pop_back();
    write_element(next, unwritten);
  }
  StringWriter writer;
  const std::string indentation(indent > 0 ? static_cast<std::size_t>(indent) : 0, ' ');
  xml.save(writer, indentation.c_str(),
           pugi::format_no_escapes | (indent < 0 ? pugi::format_raw : pugi::format_indent),
           pugi::encoding_utf8);
  return std::move(writer.text);
}

}  // namespace JSON
