// The property form (dialect 2), our own XML form of a TProp tree, which carries every kind,
// shape, id, user bit and info record exactly. Layout:
//
//   <?xml version="1.0" encoding="UTF-8"?>
//   <root tprop_version="1">
//       <item type="struct">
//           <gain type="double" unit="dB">1.5</gain>
//           <roi type="uint16" isarr="1" size="2 2" userbits="0">0 0 512 512</roi>
//           <z type="cplx_double" isarr="1" size="2" userbits="0">
//               <complex re="1 2" im="-0.5 Inf"/>
//           </z>
//           <names type="char" isarr="1" size="2" userbits="0">
//               <item type="char" idx="1">first</item>
//               <item type="char" idx="2"> second </item>
//           </names>
//       </item>
//   </root>
//
// The root element holds exactly one value element, named "item". Every value is one element:
// a struct member's element is named by the member name, every other one "item". Attributes:
// - "type": the name of the element code (tarn_dt_get_name); the colour kinds, which have no
//   name there, are "rgb" and "rgb32". Required.
// - "isarr" "1": an array (rank 1 and more); "size" then holds its shape, the sizes separated
//   by single blanks (commas are read as well), and "userbits" its user bits (also written on
//   a scalar whose user bits are not 0).
// - "isnoarr" "1": a single cell (a cell value of rank 0). A cell without "isarr" is one too.
// - "isempty" "1": an "empty" value, and an array without elements. On a value without
//   "isarr" it makes a number or cell an array of its kind without elements (size 0); a string
//   or struct so marked must be empty.
// - "idx": the one-based position of an element of a cell, char or struct array.
// - "id", "unit", "description": the id (when not 0) and the info record (when not empty).
// Content:
// - numbers, logical (0 and 1) and RGB32 as text, the elements in column-major order
//   separated by single blanks; RGB as three numbers per element (red, green, blue); floating
//   point in the shortest text that reads back exactly, with "Inf", "-Inf" and "NaN".
// - complex values as one child <complex re="..." im="..."/>, the real and the imaginary parts
//   each written as a real array.
// - char as its text; '&', '<', '>' and carriage returns are written as references, so that
//   blanks, tabs and line breaks read back exactly. XML cannot carry the other control
//   characters (U+0001 to U+001F but tab, line feed and carriage return): a string holding one
//   is refused on export and on import, as is text that is not valid UTF-8 (on export with
//   "Could not convert value to text").
// - struct: one child per member in member order; char, cell and struct arrays: one "item"
//   child per element in column-major order.
// Text is indented by four spaces per level, with a line feed after each element.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <pugixml.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include "tarnio/props/internal/dialect_shared.h"
#include "tarnio/props/internal/dispatch.h"
#include "tarnio/props/internal/kind_names.h"
#include "tarnio/props/internal/number_text.h"
#include "tarnio/props/internal/xml_dialects.h"
#include "tarnio/props/internal/xml_support.h"
#include "tarnio/props/path.h"
#include "tarnio/props/xml.h"

namespace Tarn::props::internal {
namespace {

constexpr const char* kTypeUnknown = "Type unknown or incompatible with xml export.";
constexpr const char* kInternalError = "Internal error.";
constexpr const char* kSizeMismatch =
    "Invalid array shape: Size does not match number of elements.";
constexpr const char* kMalformedComplex = "Malformed 'complex' element.";
constexpr std::string_view kBlanks = " \t\r\n";

bool is_blank(std::string_view text) {
  return text.find_first_not_of(kBlanks) == std::string_view::npos;
}

// The reference written for `c`, or null when it is written as it is. A carriage return would
// read back as a line feed; in attribute values tabs and line breaks would read back as blanks.
const char* reference_for(char c, bool in_attribute) {
  switch (c) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '\r':
      return "&#13;";
    case '"':
      return in_attribute ? "&quot;" : nullptr;
    case '\t':
      return in_attribute ? "&#9;" : nullptr;
    case '\n':
      return in_attribute ? "&#10;" : nullptr;
    default:
      return nullptr;
  }
}

// Where a value goes in the document, for messages: its element name, its place among the
// siblings of that name, and the element that holds it.
struct Place {
  const Place* parent = nullptr;
  std::string_view name;
  std::size_t index = 1;  // one-based
  std::size_t count = 1;  // siblings of that name
};

std::string place_path(const Place& place) {
  std::vector<const Place*> chain;
  for (const Place* step = &place; step != nullptr; step = step->parent) chain.push_back(step);
  std::string path;
  for (auto step = chain.rbegin(); step != chain.rend(); ++step) {
    path += '/';
    path += (*step)->name;
    if ((*step)->count > 1) path += fmt::format("[{}]", (*step)->index);
  }
  return path;
}

[[noreturn]] void throw_at(const Place& place, const std::string& message) {
  throw std::runtime_error(fmt::format("{}\nLocation:\n{}", message, place_path(place)));
}

// Arrays of this many elements and more have room made for their text at once.
constexpr std::size_t kReserveFrom = 4096;

// The length of an element's text and its separator, as in measured values.
template <typename T>
constexpr std::size_t typical_text_length() {
  if constexpr (std::is_same_v<T, _s_tarn_RGB>) {
    return 12;
  } else if constexpr (std::is_same_v<T, bool>) {
    return 2;
  } else if constexpr (std::is_floating_point_v<T>) {
    return std::numeric_limits<T>::max_digits10 + 3;
  } else {
    return std::numeric_limits<T>::digits10 + 3;
  }
}

class PropertyWriter {
 public:
  std::string write(const TProp& value, bool with_version) {
    out_ = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    out_ += with_version ? "<root tprop_version=\"1\">\n" : "<root>\n";
    const Place root{nullptr, "root", 1, 1};
    write_value(value, "item", 0, Place{&root, "item", 1, 1}, 2);
    out_ += "</root>\n";
    return std::move(out_);
  }

 private:
  // `depth` is the element's nesting level, the root element being 1.
  void write_value(const TProp& value, std::string_view name, std::size_t idx, const Place& place,
                   int depth) {
    check_depth(depth);
    const placeholder* content = value.content();
    if (content == nullptr) {
      open(name, "none", idx, depth);
      common_attributes(value, place);
      out_ += "/>\n";
      return;
    }
    if (value.get_if<TPropempty>() != nullptr) {
      open(name, "empty", idx, depth);
      out_ += " isempty=\"1\"";
      common_attributes(value, place);
      out_ += "/>\n";
      return;
    }
    if (const auto* text = value.get_if<TPropstring>()) {
      open(name, "char", idx, depth);
      common_attributes(value, place);
      string_content(text->to_utf8(), name, place);
      return;
    }
    if (const auto* members = value.get_if<TPropstruct>()) {
      open(name, "struct", idx, depth);
      common_attributes(value, place);
      struct_content(*members, name, place, depth);
      return;
    }
    const TProparrayBase* array = content->array();
    if (array == nullptr) throw std::runtime_error(kTypeUnknown);
    const bool known = visit_element(array->element_type(), [&](auto tag) {
      using T = typename decltype(tag)::type;
      const auto* held = value.get_if<TProparray<T>>();
      if (held == nullptr) throw std::runtime_error(kInternalError);
      write_array(value, *held, name, idx, place, depth);
    });
    if (!known) throw std::runtime_error(kTypeUnknown);
  }

  template <typename T>
  void write_array(const TProp& value, const TProparray<T>& array, std::string_view name,
                   std::size_t idx, const Place& place, int depth) {
    open(name, kind_name(array.element_type()), idx, depth);
    const std::size_t count = array.element_count();
    if (array.get_rank() > 0) {
      out_ += " isarr=\"1\" size=\"";
      bool first = true;
      for (const std::uint64_t extent : array.shape()) {
        if (!first) out_ += ' ';
        first = false;
        append_number(out_, extent);
      }
      out_ += '"';
      if (count == 0) out_ += " isempty=\"1\"";
    } else if constexpr (std::is_same_v<T, TProp>) {
      out_ += " isnoarr=\"1\"";
    }
    if (array.get_rank() > 0 || array.get_user_bits() != 0) {
      out_ += " userbits=\"";
      append_number(out_, array.get_user_bits());
      out_ += '"';
    }
    common_attributes(value, place);
    if constexpr (is_complex_element<T>) {
      check_depth(depth + 1);
      out_ += ">\n";
      indent(depth + 1);
      out_ += "<complex re=\"";
      for (std::size_t i = 0; i < count; ++i) {
        if (i > 0) out_ += ' ';
        append_number(out_, array[i].real());
      }
      out_ += "\" im=\"";
      for (std::size_t i = 0; i < count; ++i) {
        if (i > 0) out_ += ' ';
        append_number(out_, array[i].imag());
      }
      out_ += "\"/>\n";
      close(name, depth);
    } else if constexpr (std::is_same_v<T, TProp> || std::is_same_v<T, TPropstring> ||
                         std::is_same_v<T, TPropstruct>) {
      if (count == 0) {
        out_ += "/>\n";
        return;
      }
      out_ += ">\n";
      for (std::size_t i = 0; i < count; ++i) {
        const Place item{&place, "item", i + 1, count};
        if constexpr (std::is_same_v<T, TProp>) {
          write_value(array[i], "item", i + 1, item, depth + 1);
        } else if constexpr (std::is_same_v<T, TPropstring>) {
          check_depth(depth + 1);
          open("item", "char", i + 1, depth + 1);
          string_content(array[i].to_utf8(), "item", item);
        } else {
          check_depth(depth + 1);
          open("item", "struct", i + 1, depth + 1);
          struct_content(array[i], "item", item, depth + 1);
        }
      }
      close(name, depth);
    } else {
      if (count == 0) {
        out_ += "/>\n";
        return;
      }
      out_ += '>';
      if (count >= kReserveFrom) out_.reserve(out_.size() + count * typical_text_length<T>());
      for (std::size_t i = 0; i < count; ++i) {
        if (i > 0) out_ += ' ';
        if constexpr (std::is_same_v<T, _s_tarn_RGB>) {
          append_number(out_, array[i].red);
          out_ += ' ';
          append_number(out_, array[i].green);
          out_ += ' ';
          append_number(out_, array[i].blue);
        } else {
          append_number(out_, array[i]);
        }
      }
      out_ += "</";
      out_ += name;
      out_ += ">\n";
    }
  }

  void struct_content(const TPropstruct& members, std::string_view name, const Place& place,
                      int depth) {
    if (members.empty()) {
      out_ += "/>\n";
      return;
    }
    out_ += ">\n";
    for (const auto& [member_name, member] : members) {
      if (!tarn_prop_is_valid_name(member_name)) {
        throw_at(place,
                 fmt::format("Struct member name '{}' cannot be written as xml.", member_name));
      }
      write_value(member, member_name, 0, Place{&place, member_name, 1, 1}, depth + 1);
    }
    close(name, depth);
  }

  // The text of a string and the end of its element.
  void string_content(const std::string& text, std::string_view name, const Place& place) {
    if (text.empty()) {
      out_ += "/>\n";
      return;
    }
    out_ += '>';
    append_text(text, false, "string", place);
    out_ += "</";
    out_ += name;
    out_ += ">\n";
  }

  // Appends `text` with the references it needs; `what` names it in messages.
  void append_text(std::string_view text, bool in_attribute, std::string_view what,
                   const Place& place) {
    if (!is_valid_utf8(text)) throw_at(place, kBadDialectText);
    for (const char c : text) {
      if (const char* reference = reference_for(c, in_attribute)) {
        out_ += reference;
      } else if (is_forbidden_control(static_cast<unsigned char>(c))) {
        throw_at(place, fmt::format("The {} holds the control character U+{:04X}, which xml "
                                    "cannot carry.",
                                    what, static_cast<int>(c)));
      } else {
        out_ += c;
      }
    }
  }

  // The element's indentation, '<', its name, its type and its position.
  void open(std::string_view name, std::string_view type, std::size_t idx, int depth) {
    indent(depth);
    out_ += '<';
    out_ += name;
    out_ += " type=\"";
    out_ += type;
    out_ += '"';
    if (idx > 0) {
      out_ += " idx=\"";
      append_number(out_, idx);
      out_ += '"';
    }
  }

  void close(std::string_view name, int depth) {
    indent(depth);
    out_ += "</";
    out_ += name;
    out_ += ">\n";
  }

  void common_attributes(const TProp& value, const Place& place) {
    if (value.get_id() != 0) {
      out_ += " id=\"";
      append_number(out_, value.get_id());
      out_ += '"';
    }
    const std::shared_ptr<const TPropInfo> info = value.get_info();
    if (info == nullptr) return;
    text_attribute("unit", info->unit, place);
    text_attribute("description", info->description, place);
  }

  void text_attribute(std::string_view name, const std::string& text, const Place& place) {
    if (text.empty()) return;
    out_ += ' ';
    out_ += name;
    out_ += "=\"";
    append_text(text, true, name, place);
    out_ += '"';
  }

  void indent(int depth) { out_.append(4 * static_cast<std::size_t>(depth - 1), ' '); }

  static void check_depth(int depth) {
    if (depth > kMaxXmlDepth) {
      throw std::runtime_error(fmt::format("Xml nesting deeper than {} levels.", kMaxXmlDepth));
    }
  }

  std::string out_;
};

// The attributes of a value element, found in one pass.
struct Attributes {
  pugi::xml_attribute type, isarr, isnoarr, isempty, size, idx, userbits, id, unit, description;

  explicit Attributes(const pugi::xml_node& element) {
    for (pugi::xml_attribute attribute = element.first_attribute(); attribute;
         attribute = attribute.next_attribute()) {
      const char* const name = attribute.name();
      const auto is = [name](const char* known) { return std::strcmp(name, known) == 0; };
      // Told apart by the first letter before a full comparison.
      pugi::xml_attribute* slot = nullptr;
      switch (name[0]) {
        case 't':
          slot = is("type") ? &type : nullptr;
          break;
        case 'i':
          slot = is("isarr")     ? &isarr
                 : is("idx")     ? &idx
                 : is("id")      ? &id
                 : is("isnoarr") ? &isnoarr
                 : is("isempty") ? &isempty
                                 : nullptr;
          break;
        case 's':
          slot = is("size") ? &size : nullptr;
          break;
        case 'u':
          slot = is("userbits") ? &userbits : is("unit") ? &unit : nullptr;
          break;
        case 'd':
          slot = is("description") ? &description : nullptr;
          break;
        default:
          break;
      }
      if (slot != nullptr) *slot = attribute;
    }
    if (!type) required_attribute(element, "type");
  }

  std::string_view type_name() const { return type.value(); }
};

DataType kind_of(const Attributes& attributes) {
  const std::string_view type = attributes.type_name();
  if (const auto kind = kind_of_name(type)) return *kind;
  throw std::runtime_error(fmt::format("Unknown value type '{}'.", type));
}

[[noreturn]] void throw_invalid_attribute(const pugi::xml_attribute& attribute) {
  throw std::runtime_error(
      fmt::format("Invalid value '{}' of attribute '{}'.", attribute.value(), attribute.name()));
}

// An optional number attribute; `fallback` when it is missing.
template <typename T>
T number_attribute(const pugi::xml_attribute& attribute, T fallback) {
  if (!attribute) return fallback;
  T value{};
  if (!parse_number(trim_blanks(attribute.value()), value)) throw_invalid_attribute(attribute);
  return value;
}

bool flag_attribute(const pugi::xml_attribute& attribute) {
  return number_attribute(attribute, false);
}

// The shape in "size": sizes separated by blanks or commas.
TPropSize shape_attribute(const pugi::xml_node& element, const pugi::xml_attribute& attribute) {
  if (!attribute) required_attribute(element, "size");
  const std::string_view text = attribute.value();
  TPropSize shape;
  std::size_t position = 0;
  while (true) {
    position = text.find_first_not_of(" \t\r\n,", position);
    if (position == std::string_view::npos) break;
    const std::size_t end = std::min(text.find_first_of(" \t\r\n,", position), text.size());
    std::uint64_t extent = 0;
    if (!parse_number(text.substr(position, end - position), extent)) {
      throw_invalid_attribute(attribute);
    }
    shape.push_back(extent);
    position = end;
  }
  if (shape.empty()) throw_invalid_attribute(attribute);
  return shape;
}

// Text and CDATA of an element that holds no child elements; `buffer` keeps the text when it
// comes in several pieces.
std::string_view text_of(const pugi::xml_node& element, std::string_view value_type,
                         std::string& buffer) {
  std::string_view first;
  std::size_t pieces = 0;
  for (pugi::xml_node child = element.first_child(); child; child = child.next_sibling()) {
    const pugi::xml_node_type type = child.type();
    if (type == pugi::node_element) {
      throw std::runtime_error(fmt::format("Unexpected element '{}' in a value of type '{}'.",
                                           child.name(), value_type));
    }
    if (type != pugi::node_pcdata && type != pugi::node_cdata) continue;
    if (++pieces == 1) {
      first = child.value();
      continue;
    }
    if (pieces == 2) buffer = first;
    buffer += child.value();
  }
  return pieces > 1 ? std::string_view(buffer) : first;
}

// The child elements of an element that holds no text but blanks.
std::vector<pugi::xml_node> child_elements(const pugi::xml_node& element) {
  std::vector<pugi::xml_node> children;
  for (pugi::xml_node child = element.first_child(); child; child = child.next_sibling()) {
    const pugi::xml_node_type type = child.type();
    if (type == pugi::node_element) {
      children.push_back(child);
    } else if ((type == pugi::node_pcdata || type == pugi::node_cdata) &&
               !is_blank(child.value())) {
      throw std::runtime_error(fmt::format("Unexpected text in element '{}'.", element.name()));
    }
  }
  return children;
}

std::size_t count_child_elements(const pugi::xml_node& element) {
  std::size_t count = 0;
  for (pugi::xml_node child = element.first_child(); child; child = child.next_sibling()) {
    if (child.type() == pugi::node_element) ++count;
  }
  return count;
}

void check_utf8_text(std::string_view text) {
  if (!is_valid_utf8(text)) throw std::runtime_error("The text is not valid UTF-8.");
  for (const char c : text) {
    if (is_forbidden_control(static_cast<unsigned char>(c))) {
      throw std::runtime_error(
          fmt::format("The text holds the control character U+{:04X}, which xml cannot carry.",
                      static_cast<int>(c)));
    }
  }
}

bool is_blank_char(char c) { return c == ' ' || c == '\n' || c == '\t' || c == '\r'; }

// At most this many blank-separated words fit in a text of `length` characters.
std::uint64_t max_words(std::size_t length) { return (std::uint64_t{length} + 1) / 2; }

// Reads the blank-separated numbers of a text one at a time.
class NumberReader {
 public:
  explicit NumberReader(std::string_view text)
      : next_(text.data()), end_(text.data() + text.size()) {}

  template <typename T>
  void read(T& value) {
    while (next_ != end_ && is_blank_char(*next_)) ++next_;
    if (next_ == end_) throw std::runtime_error(kSizeMismatch);
    if constexpr (!std::is_same_v<T, bool>) {
      // The common case, a number that from_chars reads as a whole, without looking for the
      // end of the word first.
      const auto [end, error] = std::from_chars(next_, end_, value);
      if (error == std::errc() && (end == end_ || is_blank_char(*end))) {
        next_ = end;
        return;
      }
    }
    const char* start = next_;
    while (next_ != end_ && !is_blank_char(*next_)) ++next_;
    const std::string_view word(start, static_cast<std::size_t>(next_ - start));
    if (!parse_number(word, value)) {
      throw std::runtime_error("Could not convert \"" + std::string(word) + "\" to target type");
    }
  }

  void expect_end() {
    while (next_ != end_ && is_blank_char(*next_)) ++next_;
    if (next_ != end_) throw std::runtime_error(kSizeMismatch);
  }

 private:
  const char* next_;
  const char* end_;
};

// Reads `count` elements of a real kind from `text`.
template <typename T>
void read_numbers(std::string_view text, T* elements, std::uint64_t count) {
  NumberReader numbers(text);
  for (std::uint64_t i = 0; i < count; ++i) {
    if constexpr (std::is_same_v<T, _s_tarn_RGB>) {
      numbers.read(elements[i].red);
      numbers.read(elements[i].green);
      numbers.read(elements[i].blue);
    } else {
      numbers.read(elements[i]);
    }
  }
  numbers.expect_end();
}

class PropertyReader {
 public:
  TProp read_document(const pugi::xml_document& document) {
    const pugi::xml_node root = document.document_element();
    return at_element(root, [&] {
      const std::vector<pugi::xml_node> values = child_elements(root);
      if (values.size() != 1) {
        throw std::runtime_error(
            fmt::format("The root element holds {} values instead of one.", values.size()));
      }
      return read_value(values.front());
    });
  }

 private:
  TProp read_value(const pugi::xml_node& element) {
    return at_element(element, [&] { return read(element); });
  }

  TProp read(const pugi::xml_node& element) {
    const Attributes attributes(element);
    const DataType kind = kind_of(attributes);
    const bool is_array = flag_attribute(attributes.isarr);
    TProp value;
    switch (kind) {
      case dt::none:
      case dt::empty:
        if (is_array) {
          throw std::runtime_error(
              fmt::format("A value of type '{}' cannot be an array.", attributes.type_name()));
        }
        if (!child_elements(element).empty()) {
          throw std::runtime_error(
              fmt::format("Unexpected element in a value of type '{}'.", attributes.type_name()));
        }
        if (kind == dt::empty) value = TProp(TPropempty{});
        break;
      case dt::char_:
        value = is_array ? read_array<TPropstring>(element, attributes, kind)
                         : TProp(read_string(element));
        if (!is_array && flag_attribute(attributes.isempty) && !value.empty()) {
          throw std::runtime_error(kSizeMismatch);
        }
        break;
      case dt::struct_:
        value = is_array ? read_array<TPropstruct>(element, attributes, kind)
                         : TProp(read_struct(element));
        if (!is_array && flag_attribute(attributes.isempty) && !value.s().empty()) {
          throw std::runtime_error(kSizeMismatch);
        }
        break;
      case dt::cell:
        if (is_array && flag_attribute(attributes.isnoarr)) {
          throw std::runtime_error("A cell cannot be marked both 'isarr' and 'isnoarr'.");
        }
        value = read_array<TProp>(element, attributes, kind);
        break;
      default:
        visit_element(kind, [&](auto tag) {
          using T = typename decltype(tag)::type;
          if constexpr (is_number_element<T> || std::is_same_v<T, _s_tarn_RGB>) {
            value = read_array<T>(element, attributes, kind);
          }
        });
        break;
    }
    if (attributes.userbits) {
      if (TProparrayBase* array = value.content() != nullptr ? value.content()->array() : nullptr) {
        array->set_user_bits(number_attribute(attributes.userbits, std::uint32_t{0}));
      }
    }
    value.set_id(number_attribute(attributes.id, std::int64_t{0}));
    if (attributes.unit || attributes.description) {
      check_utf8_text(attributes.unit.value());
      check_utf8_text(attributes.description.value());
      value.set_info(std::make_shared<TPropInfo>(
          TPropInfo{attributes.unit.value(), attributes.description.value()}));
    }
    return value;
  }

  // An array of rank 1 and more, or without "isarr" a scalar or single cell.
  template <typename T>
  TProp read_array(const pugi::xml_node& element, const Attributes& attributes, DataType kind) {
    TPropSize shape;
    std::uint64_t count = 1;
    if (flag_attribute(attributes.isarr)) {
      shape = shape_attribute(element, attributes.size);
      count = TProparrayBase::size(shape);
      if (flag_attribute(attributes.isempty) && count != 0) {
        throw std::runtime_error(kSizeMismatch);
      }
    } else if (flag_attribute(attributes.isempty)) {
      // A single value marked empty is an array of its kind without elements.
      shape = {0};
      count = 0;
    }
    if constexpr (is_complex_element<T>) {
      const auto [real, imaginary] = complex_parts(element);
      if (count > max_words(real.size()) || count > max_words(imaginary.size())) {
        throw std::runtime_error(kSizeMismatch);
      }
      TProp value = TProp::array(kind, shape);
      using Part = typename T::value_type;
      std::vector<Part> parts(2 * static_cast<std::size_t>(count));
      read_numbers(real, parts.data(), count);
      read_numbers(imaginary, parts.data() + count, count);
      T* elements = value.get<TProparray<T>>().data();
      for (std::size_t i = 0; i < count; ++i) elements[i] = T(parts[i], parts[count + i]);
      return value;
    } else if constexpr (std::is_same_v<T, TProp> || std::is_same_v<T, TPropstring> ||
                         std::is_same_v<T, TPropstruct>) {
      // Counted before anything is allocated: the shape may claim more than the text holds.
      if (count != count_child_elements(element)) throw std::runtime_error(kSizeMismatch);
      const std::vector<pugi::xml_node> children = child_elements(element);
      TProp value = TProp::array(kind, shape);
      T* elements = value.get<TProparray<T>>().data();
      for (std::size_t i = 0; i < children.size(); ++i) {
        const pugi::xml_node& child = children[i];
        if constexpr (std::is_same_v<T, TProp>) {
          check_idx(child, child.attribute("idx"), i);
          elements[i] = read_value(child);
        } else {
          at_element(child, [&] {
            const Attributes item(child);
            check_idx(child, item.idx, i);
            if (kind_of(item) != kind || flag_attribute(item.isarr)) {
              throw std::runtime_error(
                  fmt::format("An element of a {0} array must be a single {0}.", kind_name(kind)));
            }
            if constexpr (std::is_same_v<T, TPropstring>) {
              elements[i] = read_string(child);
            } else {
              elements[i] = read_struct(child);
            }
          });
        }
      }
      return value;
    } else {
      std::string buffer;
      const std::string_view text = text_of(element, attributes.type_name(), buffer);
      const std::uint64_t words_per_element = std::is_same_v<T, _s_tarn_RGB> ? 3 : 1;
      if (count > max_words(text.size()) / words_per_element) {
        throw std::runtime_error(kSizeMismatch);
      }
      TProparray<T> array(shape, kind);
      read_numbers(text, array.data(), count);
      return TProp(std::move(array));
    }
  }

  // The texts of the real and imaginary parts in the one <complex re="..." im="..."/> child.
  static std::pair<std::string_view, std::string_view> complex_parts(
      const pugi::xml_node& element) {
    pugi::xml_node complex;
    for (pugi::xml_node child = element.first_child(); child; child = child.next_sibling()) {
      const pugi::xml_node_type type = child.type();
      if (type == pugi::node_element) {
        if (complex || std::string_view(child.name()) != "complex") {
          throw std::runtime_error(kMalformedComplex);
        }
        complex = child;
      } else if ((type == pugi::node_pcdata || type == pugi::node_cdata) &&
                 !is_blank(child.value())) {
        throw std::runtime_error(kMalformedComplex);
      }
    }
    const pugi::xml_attribute real = complex.attribute("re");
    const pugi::xml_attribute imaginary = complex.attribute("im");
    if (!complex || !real || !imaginary || complex.first_child()) {
      throw std::runtime_error(kMalformedComplex);
    }
    return {real.value(), imaginary.value()};
  }

  static void check_idx(const pugi::xml_node& child, const pugi::xml_attribute& idx,
                        std::size_t index) {
    if (!idx) return;
    std::uint64_t position = 0;
    if (!parse_number(trim_blanks(idx.value()), position)) throw_invalid_attribute(idx);
    if (position != index + 1) {
      throw LocatedXmlError(
          fmt::format("Element index {} found where {} belongs.", idx.value(), index + 1), child);
    }
  }

  static TPropstring read_string(const pugi::xml_node& element) {
    std::string buffer;
    const std::string_view text = text_of(element, "char", buffer);
    check_utf8_text(text);
    return TPropstring(std::string(text));
  }

  TPropstruct read_struct(const pugi::xml_node& element) {
    const std::vector<pugi::xml_node> children = child_elements(element);
    TPropstruct members;
    members.reserve(children.size());
    // The names first, in a loop of their own: the name index of a large struct then stays in
    // the cache instead of competing with the values' elements.
    for (const pugi::xml_node& child : children) {
      const std::string_view name = child.name();
      if (!tarn_prop_is_valid_name(name)) {
        throw LocatedXmlError(fmt::format("Invalid struct member name '{}'.", name), child);
      }
      const std::size_t before = members.size();
      members.set(name, TProp());
      if (members.size() == before) {
        throw LocatedXmlError(fmt::format("Struct member '{}' appears twice.", name), child);
      }
    }
    auto member = members.begin();
    for (const pugi::xml_node& child : children) (member++)->second = read_value(child);
    return members;
  }
};

}  // namespace

TProp read_property_xml(const pugi::xml_document& document) {
  return PropertyReader().read_document(document);
}

std::string write_property_xml(const TProp& value, bool with_version) {
  return PropertyWriter().write(value, with_version);
}

}  // namespace Tarn::props::internal
