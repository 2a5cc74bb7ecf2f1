// Dialect 1, the legacy toolbox form, as the MATLAB XML toolbox writes and reads it.
//
// Every value is one element with the attributes "type", "size" (the shape, at least two sizes)
// and "idx" (the one-based place in its container). Struct members are elements named by the
// member; cell items and the parts of a complex value are named "item". Numbers and logicals are
// the elements in column-major order as text separated by spaces; "char" is the text itself.
// A struct array is one element whose members interleave: for element 1, 2, ... all members of
// that element, each with idx = the element number.
//
// Import:
// - types: double (aliases "numeric", "integer", "float"), single, int8 ... uint64, boolean
//   ("logical"), char ("string"), struct, cell, complex (two items: real and imaginary parts),
//   sparse (a 2-d size and three items: one-based rows, columns and values; made dense). An
//   element without "type" is a struct when it has child
//   elements, and otherwise char, or double for the parts of complex and sparse values.
// - a size whose entries are all 1 gives the single value: a scalar, a struct, a single cell;
//   a missing size gives a row of the elements read (one element: the single value; none:
//   0x0).
// - a missing idx, or idx 0, is the element after the previous one; for a struct member it is
//   the element after the one where the member last appeared.
// - struct arrays must give every member for every element.
// - a dense sparse matrix and a struct array without members, whose element counts nothing in
//   the document backs, may have at most element_budget() elements: a fixed allowance plus a
//   number per byte of the element's text, so that what a document allocates grows with it.
// - char: an R x C matrix with R > 1 is a char array of its R rows (R x 1), split in UTF-16
//   units as the size counts them; other char values are one string, whatever the size says.
// - text that is not UTF-8 is read as Windows-1252 (legacy_text.h).
//
// Export (root element "root" with xml_tb_version="2.0" and idx="1"):
// - sizes have at least two entries (a rank-1 array of N is N x 1, a scalar 1 x 1);
// - logical is "boolean"; RGB is "uint8" with the three colour bytes as the first dimension
//   (3 x the shape); RGB32 is "uint32"; "none" and "empty" are "double" 0x0;
// - a string is "char" of size 1 x N (N in UTF-16 units; "" is 0 x 0); text that is not UTF-8
//   or holds a control character other than tab, line feed and carriage return has no form
//   ("Could not convert value to text"); a char array that is a
//   column of two or more strings of one non-zero length is a char matrix, any other char array
//   a cell of char;
// - struct arrays list, for every element, the members of all elements (in the order met); a
//   member an element lacks is written as "double" 0x0;
// - floating-point numbers are the shortest text that reads back to the same value.
// - dropped: ids, info, user bits, and which of a scalar and a 1x1 array, or of rank 1 and an
//   N x 1 array, a value was.

#include <fmt/format.h>

#include <algorithm>
#include <boost/locale/encoding_utf.hpp>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "tarnio/props/internal/dialect_shared.h"
#include "tarnio/props/internal/dispatch.h"
#include "tarnio/props/internal/legacy_text.h"
#include "tarnio/props/internal/number_text.h"
#include "tarnio/props/internal/xml_dialects.h"
#include "tarnio/props/internal/xml_support.h"
#include "tarnio/props/path.h"
#include "tarnio/props/xml.h"
#include "tarnio/strings/internal/xml_escape.h"

namespace Tarn::props::internal {
namespace {

// The elements an element may make beyond what its text lists (see element_budget).
constexpr std::uint64_t kFreeElements = 65536;
constexpr std::uint64_t kElementsPerTextByte = 256;

constexpr const char* kMalformedComplex = "Malformed 'complex' element.";
constexpr const char* kMalformedSparse = "Malformed 'sparse' element.";

enum class Kind { number, text, structure, cell, complex, sparse };

struct ValueType {
  Kind kind;
  DataType element = dt::none;  // for numbers
};

// The parts of complex and sparse values are numbers when they do not say otherwise.
constexpr ValueType kUntypedPart{Kind::number, dt::double_};

std::optional<ValueType> type_from_name(std::string_view name) {
  static const std::unordered_map<std::string_view, ValueType> types = {
      {"double", {Kind::number, dt::double_}},
      {"numeric", {Kind::number, dt::double_}},
      {"integer", {Kind::number, dt::double_}},
      {"float", {Kind::number, dt::double_}},
      {"single", {Kind::number, dt::single}},
      {"int8", {Kind::number, dt::int8}},
      {"uint8", {Kind::number, dt::uint8}},
      {"int16", {Kind::number, dt::int16}},
      {"uint16", {Kind::number, dt::uint16}},
      {"int32", {Kind::number, dt::int32}},
      {"uint32", {Kind::number, dt::uint32}},
      {"int64", {Kind::number, dt::int64}},
      {"uint64", {Kind::number, dt::uint64}},
      {"boolean", {Kind::number, dt::logical}},
      {"logical", {Kind::number, dt::logical}},
      {"char", {Kind::text}},
      {"string", {Kind::text}},
      {"struct", {Kind::structure}},
      {"cell", {Kind::cell}},
      {"complex", {Kind::complex}},
      {"sparse", {Kind::sparse}}};
  const auto found = types.find(name);
  if (found == types.end()) return std::nullopt;
  return found->second;
}

std::vector<std::string_view> split_blanks(std::string_view text) {
  std::vector<std::string_view> tokens;
  std::size_t position = 0;
  while (true) {
    position = text.find_first_not_of(" \t\r\n", position);
    if (position == std::string_view::npos) return tokens;
    const std::size_t end = std::min(text.find_first_of(" \t\r\n", position), text.size());
    tokens.push_back(text.substr(position, end - position));
    position = end;
  }
}

// The shape of a value of `count` elements with the given size attribute; see the top.
TPropSize value_shape(const std::optional<TPropSize>& size, std::uint64_t count) {
  TPropSize shape;
  if (size) {
    shape = *size;
  } else if (count == 0) {
    shape = {0, 0};
  } else {
    shape = {1, count};
  }
  if (std::all_of(shape.begin(), shape.end(), [](std::uint64_t s) { return s == 1; })) return {};
  return shape;
}

template <typename T>
void parse_element(std::string_view token, T& value) {
  if (!parse_number(token, value)) {
    throw std::runtime_error(fmt::format("Could not convert \"{}\" to target type", token));
  }
}

std::uint64_t parse_index(const pugi::xml_node& element) {
  const pugi::xml_attribute attribute = element.attribute("idx");
  if (!attribute) return 0;
  std::uint64_t index = 0;
  if (!parse_number(trim_blanks(attribute.value()), index)) {
    throw LocatedXmlError(fmt::format("Invalid idx '{}'.", attribute.value()), element);
  }
  return index;
}

// The bytes of names, attributes and text in and below `element`: about the size of its text.
std::uint64_t text_size(const pugi::xml_node& element) {
  struct Counter final : pugi::xml_tree_walker {
    bool for_each(pugi::xml_node& node) override {
      add(node);
      return true;
    }
    void add(const pugi::xml_node& node) {
      bytes += std::strlen(node.name()) + std::strlen(node.value()) + 2;
      for (const pugi::xml_attribute attribute : node.attributes()) {
        bytes += std::strlen(attribute.name()) + std::strlen(attribute.value()) + 4;
      }
    }
    std::uint64_t bytes = 0;
  } counter;
  counter.add(element);
  pugi::xml_node below = element;
  below.traverse(counter);
  return counter.bytes;
}

// The most elements `element` may make where nothing in it lists them one by one; past it,
// std::runtime_error "{what} ({count} elements) exceeds the limit of {budget} elements for its
// {size} bytes of text."
void check_element_budget(const pugi::xml_node& element, std::string_view what,
                          std::uint64_t count) {
  const std::uint64_t size = text_size(element);
  const std::uint64_t budget = kFreeElements + kElementsPerTextByte * size;
  if (count > budget) {
    throw std::runtime_error(
        fmt::format("{} ({} elements) exceeds the limit of {} elements for its {} bytes of text.",
                    what, count, budget, size));
  }
}

std::vector<pugi::xml_node> child_elements(const pugi::xml_node& element) {
  std::vector<pugi::xml_node> children;
  for (const pugi::xml_node child : element.children()) {
    if (child.type() == pugi::node_element) children.push_back(child);
  }
  return children;
}

class Reader {
 public:
  explicit Reader(const pugi::xml_document& document) : text_(document) {}

  // Reads a value; `untyped` is the type of an element without "type" and without children.
  TProp read(const pugi::xml_node& element, ValueType untyped = {Kind::text}) {
    return at_element(element, [&] { return read_value(element, untyped); });
  }

 private:
  TProp read_value(const pugi::xml_node& element, ValueType untyped) {
    const pugi::xml_attribute type_attribute = element.attribute("type");
    ValueType type = untyped;
    if (!type_attribute) {
      if (element.find_child(
              [](const pugi::xml_node& n) { return n.type() == pugi::node_element; })) {
        type.kind = Kind::structure;
      }
    } else if (const auto named = type_from_name(trim_blanks(type_attribute.value()))) {
      type = *named;
    } else {
      throw std::runtime_error(fmt::format("Unknown type '{}'.", type_attribute.value()));
    }
    std::optional<TPropSize> size;
    if (const pugi::xml_attribute size_attribute = element.attribute("size")) {
      size = parse_size(size_attribute.value());
    }
    switch (type.kind) {
      case Kind::number:
        return read_numbers(element, type.element, size);
      case Kind::text:
        return read_text(element, size);
      case Kind::structure:
        return read_struct(element, size);
      case Kind::cell:
        return read_cell(element, size);
      case Kind::complex:
        return read_complex(element, size);
      case Kind::sparse:
        return read_sparse(element, size);
    }
    throw std::runtime_error("Internal error.");
  }

  static TPropSize parse_size(std::string_view text) {
    TPropSize size;
    for (const std::string_view token : split_blanks(text)) {
      std::uint64_t extent = 0;
      if (!parse_number(token, extent)) break;
      size.push_back(extent);
    }
    if (size.size() < 2 || size.size() != split_blanks(text).size() || !element_count(size)) {
      throw std::runtime_error(fmt::format("Invalid size '{}'.", text));
    }
    return size;
  }

  static void expect_no_children(const pugi::xml_node& element) {
    for (const pugi::xml_node child : element.children()) {
      if (child.type() == pugi::node_element) {
        throw std::runtime_error(
            fmt::format("Unexpected element '{}' in a value of this type.", child.name()));
      }
    }
  }

  // The element count the size gives, which must match the `found` elements of the text.
  static void check_count(const std::optional<TPropSize>& size, std::uint64_t found,
                          const char* what) {
    if (!size) return;
    const std::uint64_t expected = *element_count(*size);
    if (expected != found) {
      throw std::runtime_error(
          fmt::format("Size gives {} {} but the element holds {}.", expected, what, found));
    }
  }

  TProp read_numbers(const pugi::xml_node& element, DataType code,
                     const std::optional<TPropSize>& size) {
    expect_no_children(element);
    const std::string text = text_.text_of(element);
    const std::vector<std::string_view> tokens = split_blanks(text);
    check_count(size, tokens.size(), "elements");
    TProp result;
    visit_element(code, [&](auto tag) {
      using T = typename decltype(tag)::type;
      if constexpr (std::is_arithmetic_v<T>) {
        TProparray<T> array(value_shape(size, tokens.size()));
        for (std::size_t i = 0; i < tokens.size(); ++i) parse_element(tokens[i], array[i]);
        result = TProp(std::move(array));
      }
    });
    return result;
  }

  TProp read_text(const pugi::xml_node& element, const std::optional<TPropSize>& size) {
    expect_no_children(element);
    std::string text = text_.text_of(element);
    if (!size || (*size)[0] <= 1 || *element_count(*size) == 0) {
      return TProp(TPropstring(std::move(text)));
    }
    // A char matrix: its characters column by column.
    const std::u16string units = boost::locale::conv::utf_to_utf<char16_t>(text);
    check_count(size, units.size(), "characters");
    const std::uint64_t rows = (*size)[0];
    const std::size_t columns = units.size() / rows;
    TProparray<TPropstring> lines(TPropSize{rows, 1});
    for (std::size_t row = 0; row < rows; ++row) {
      std::u16string line(columns, u'\0');
      for (std::size_t column = 0; column < columns; ++column) {
        line[column] = units[row + column * rows];
      }
      lines[row] = TPropstring(boost::locale::conv::utf_to_utf<char>(line));
    }
    return TProp(std::move(lines));
  }

  struct MemberEntries {
    std::string name;
    std::uint64_t last = 0;  // the element of the previous entry
    std::vector<std::pair<std::uint64_t, pugi::xml_node>> entries;
  };

  TProp read_struct(const pugi::xml_node& element, const std::optional<TPropSize>& size) {
    const std::vector<pugi::xml_node> children = child_elements(element);
    std::vector<MemberEntries> members;
    std::unordered_map<std::string_view, std::size_t> place;
    std::uint64_t last_element = 0;
    for (const pugi::xml_node& child : children) {
      const std::string_view name = child.name();
      if (!tarn_prop_is_valid_name(name)) {
        throw LocatedXmlError(fmt::format("Invalid struct member name '{}'.", name), child);
      }
      auto [found, added] = place.try_emplace(name, members.size());
      if (added) members.push_back({std::string(name), 0, {}});
      MemberEntries& member = members[found->second];
      std::uint64_t index = parse_index(child);
      if (index == 0) index = member.last + 1;
      member.last = index;
      member.entries.emplace_back(index, child);
      last_element = std::max(last_element, index);
    }
    std::uint64_t count = size ? *element_count(*size) : std::max<std::uint64_t>(last_element, 1);
    if (members.empty()) check_element_budget(element, "Struct array without members", count);
    // Every member once in every element, which bounds the count by the children.
    for (MemberEntries& member : members) {
      std::stable_sort(member.entries.begin(), member.entries.end(),
                       [](const auto& a, const auto& b) { return a.first < b.first; });
      for (std::uint64_t i = 0; i < member.entries.size(); ++i) {
        const auto& [index, child] = member.entries[i];
        if (index > count) {
          throw LocatedXmlError(
              fmt::format("Index {} out of range of the {} struct elements.", index, count), child);
        }
        if (index < i + 1) {
          throw std::runtime_error(
              fmt::format("Member '{}' appears twice in struct element {}.", member.name, index));
        }
        if (index > i + 1) {
          throw std::runtime_error(
              fmt::format("Member '{}' is missing in struct element {}.", member.name, i + 1));
        }
      }
      if (member.entries.size() != count) {
        throw std::runtime_error(fmt::format("Member '{}' is missing in struct element {}.",
                                             member.name, member.entries.size() + 1));
      }
    }
    TProparray<TPropstruct> array(value_shape(size, count));
    for (TPropstruct& one : array) one.reserve(members.size());
    for (const MemberEntries& member : members) {
      for (const auto& [index, child] : member.entries) {
        array[static_cast<std::size_t>(index - 1)].set(member.name, read(child));
      }
    }
    return TProp(std::move(array));
  }

  TProp read_cell(const pugi::xml_node& element, const std::optional<TPropSize>& size) {
    const std::vector<pugi::xml_node> items = child_elements(element);
    check_count(size, items.size(), "cell items");
    TProparray<TProp> array(value_shape(size, items.size()));
    std::vector<bool> seen(items.size(), false);
    std::uint64_t index = 0;
    for (const pugi::xml_node& item : items) {
      const std::uint64_t given = parse_index(item);
      index = given != 0 ? given : index + 1;
      if (index > items.size()) {
        throw LocatedXmlError(
            fmt::format("Index {} out of range of the {} cell items.", index, items.size()), item);
      }
      if (seen[index - 1]) {
        throw LocatedXmlError(fmt::format("Cell item {} appears twice.", index), item);
      }
      seen[index - 1] = true;
      array[static_cast<std::size_t>(index - 1)] = read(item);
    }
    return TProp(std::move(array));
  }

  // The items of a complex or sparse value in idx order, `count` of them.
  static std::vector<pugi::xml_node> numbered_items(const pugi::xml_node& element,
                                                    std::size_t count, const char* malformed) {
    const std::vector<pugi::xml_node> items = child_elements(element);
    if (items.size() != count) throw std::runtime_error(malformed);
    std::vector<pugi::xml_node> ordered(count);
    std::uint64_t index = 0;
    for (const pugi::xml_node& item : items) {
      const std::uint64_t given = parse_index(item);
      index = given != 0 ? given : index + 1;
      if (index > count || ordered[index - 1]) throw std::runtime_error(malformed);
      ordered[index - 1] = item;
    }
    return ordered;
  }

  // A real numeric value's elements as doubles; false for other values.
  static bool to_doubles(const TProp& value, std::vector<double>& out) {
    const TProparrayBase* base = value.content() != nullptr ? value.content()->array() : nullptr;
    if (base == nullptr || base->element_type() == dt::rgb32) return false;
    bool done = false;
    visit_element(base->element_type(), [&](auto tag) {
      using T = typename decltype(tag)::type;
      if constexpr (std::is_arithmetic_v<T> && !std::is_same_v<T, bool>) {
        const auto& array = value.get<TProparray<T>>();
        out.assign(array.begin(), array.end());
        done = true;
      }
    });
    return done;
  }

  TProp read_complex(const pugi::xml_node& element, const std::optional<TPropSize>& size) {
    const std::vector<pugi::xml_node> items = numbered_items(element, 2, kMalformedComplex);
    const TProp real = read(items[0], kUntypedPart);
    const TProp imaginary = read(items[1], kUntypedPart);
    std::vector<double> re;
    std::vector<double> im;
    if (!to_doubles(real, re) || !to_doubles(imaginary, im) || re.size() != im.size()) {
      throw std::runtime_error(kMalformedComplex);
    }
    if (size && *element_count(*size) != re.size()) throw std::runtime_error(kMalformedComplex);
    const TPropSize shape = size ? value_shape(size, re.size())
                                 : (real.is_array() ? real.get_arr()->shape() : TPropSize{});
    const auto build = [&](auto part) {
      using Part = decltype(part);
      TProparray<std::complex<Part>> array(shape);
      for (std::size_t i = 0; i < re.size(); ++i) {
        array[i] = {static_cast<Part>(re[i]), static_cast<Part>(im[i])};
      }
      return TProp(std::move(array));
    };
    const bool single = (real.type_code() & dt::name_mask) == dt::single &&
                        (imaginary.type_code() & dt::name_mask) == dt::single;
    return single ? build(float{}) : build(double{});
  }

  TProp read_sparse(const pugi::xml_node& element, const std::optional<TPropSize>& size) {
    const std::vector<pugi::xml_node> items = numbered_items(element, 3, kMalformedSparse);
    std::vector<double> rows;
    std::vector<double> columns;
    if (!to_doubles(read(items[0], kUntypedPart), rows) ||
        !to_doubles(read(items[1], kUntypedPart), columns) || rows.size() != columns.size()) {
      throw std::runtime_error(kMalformedSparse);
    }
    const TProp values = read(items[2], kUntypedPart);
    const TProparrayBase* value_array =
        values.content() != nullptr ? values.content()->array() : nullptr;
    if (value_array == nullptr || value_array->element_count() != rows.size()) {
      throw std::runtime_error(kMalformedSparse);
    }
    if (!size || size->size() != 2) throw std::runtime_error(kMalformedSparse);
    const TPropSize& shape = *size;
    const std::optional<std::uint64_t> dense = element_count(shape);
    check_element_budget(element, fmt::format("Sparse matrix of {} x {}", shape[0], shape[1]),
                         *dense);
    // Positions as zero-based indices into the dense matrix.
    const auto position = [](double one_based, std::uint64_t extent) {
      if (!(one_based >= 1 && one_based <= static_cast<double>(extent) && one_based < 1e18) ||
          one_based != static_cast<double>(static_cast<std::uint64_t>(one_based))) {
        throw std::runtime_error(
            fmt::format("Sparse index {} out of range 1 to {}.", one_based, extent));
      }
      return static_cast<std::uint64_t>(one_based) - 1;
    };
    TProp result;
    const DataType code = value_array->element_type();
    visit_element(code, [&](auto tag) {
      using T = typename decltype(tag)::type;
      if constexpr (is_number_element<T>) {
        if (code == dt::rgb32) return;
        const auto& source = values.get<TProparray<T>>();
        TProparray<T> array(value_shape(shape, *dense));
        for (std::size_t i = 0; i < rows.size(); ++i) {
          array[position(rows[i], shape[0]) + position(columns[i], shape[1]) * shape[0]] =
              source[i];
        }
        result = TProp(std::move(array));
      }
    });
    if (result.content() == nullptr) throw std::runtime_error(kMalformedSparse);
    return result;
  }

  DocumentText text_;
};

// Characters escaped in the text of a string: the markup characters, and CR so that it
// survives the line-end normalisation of readers.
constexpr std::string_view kTextSpecials = "&<>'\"\r";

std::size_t utf16_length(std::string_view utf8) {
  return boost::locale::conv::utf_to_utf<char16_t>(utf8.data(), utf8.data() + utf8.size()).size();
}

class Writer {
 public:
  std::string document(const TProp& value) {
    out_ = "<?xml version=\"1.0\"?>\n";
    write(value, "root", 1, 0);
    return std::move(out_);
  }

 private:
  void open(std::string_view name, std::uint64_t index, int depth, std::string_view type,
            const TPropSize& shape) {
    if (depth >= kMaxXmlDepth) {
      throw std::runtime_error(fmt::format("Xml nesting deeper than {} levels.", kMaxXmlDepth));
    }
    out_.append(static_cast<std::size_t>(4 * depth), ' ');
    out_ += '<';
    out_ += name;
    if (depth == 0) out_ += " xml_tb_version=\"2.0\"";
    fmt::format_to(std::back_inserter(out_), " idx=\"{}\" type=\"{}\" size=\"", index, type);
    for (std::size_t i = 0; i < shape.size(); ++i) {
      if (i > 0) out_ += ' ';
      append_number(out_, shape[i]);
    }
    out_ += '"';
  }
  // Ends the start tag of an element without content.
  void close_empty() { out_ += "/>\n"; }
  void close(std::string_view name, int depth, bool on_own_line) {
    if (on_own_line) out_.append(static_cast<std::size_t>(4 * depth), ' ');
    out_ += "</";
    out_ += name;
    out_ += ">\n";
  }

  static TPropSize matrix_shape(const TProparrayBase& array) { return array.get_size(true); }

  // Text that is not UTF-8, or that holds a character XML 1.0 cannot carry, has no form.
  static void check_text(std::string_view text) {
    if (!is_valid_utf8(text) || std::any_of(text.begin(), text.end(), [](char c) {
          return is_forbidden_control(static_cast<unsigned char>(c));
        })) {
      throw std::runtime_error(kBadDialectText);
    }
  }

  void write(const TProp& value, std::string_view name, std::uint64_t index, int depth) {
    const DataType code = value.type_code();
    if (code == dt::none || code == dt::empty) {
      open(name, index, depth, "double", {0, 0});
      close_empty();
    } else if (const auto* text = value.get_if<TPropstring>()) {
      write_text(text->to_utf8(), name, index, depth);
    } else if (const auto* members = value.get_if<TPropstruct>()) {
      write_struct_array(std::span<const TPropstruct>(members, 1), {1, 1}, name, index, depth);
    } else if (const auto* structs = value.get_if<TProparray<TPropstruct>>()) {
      write_struct_array(structs->values(), matrix_shape(*structs), name, index, depth);
    } else if (const auto* cells = value.get_if<TProparray<TProp>>()) {
      write_cell(cells->values(), matrix_shape(*cells), name, index, depth);
    } else if (const auto* texts = value.get_if<TProparray<TPropstring>>()) {
      write_text_array(*texts, name, index, depth);
    } else if (!visit_element(code & dt::name_mask, [&](auto tag) {
                 using T = typename decltype(tag)::type;
                 if constexpr (is_number_element<T> || std::is_same_v<T, _s_tarn_RGB>) {
                   write_numbers(value.get<TProparray<T>>(), name, index, depth);
                 } else {
                   throw std::runtime_error(kNoDialectForm);
                 }
               })) {
      throw std::runtime_error(kNoDialectForm);
    }
  }

  void write_text(const std::string& text, std::string_view name, std::uint64_t index, int depth) {
    check_text(text);
    const std::size_t length = utf16_length(text);
    open(name, index, depth, "char", length == 0 ? TPropSize{0, 0} : TPropSize{1, length});
    if (length == 0) return close_empty();
    out_ += '>';
    Tarn::strings::internal::append_xml_escaped(out_, text, kTextSpecials);
    close(name, depth, false);
  }

  void write_text_array(const TProparray<TPropstring>& texts, std::string_view name,
                        std::uint64_t index, int depth) {
    const TPropSize& shape = texts.shape();
    bool matrix =
        texts.element_count() >= 2 && (shape.size() == 1 || (shape.size() == 2 && shape[1] == 1));
    std::vector<std::u16string> rows;
    for (std::size_t i = 0; matrix && i < texts.element_count(); ++i) {
      check_text(texts[i].to_utf8());
      rows.push_back(boost::locale::conv::utf_to_utf<char16_t>(texts[i].to_utf8()));
      matrix = !rows.back().empty() && rows.back().size() == rows.front().size();
    }
    if (!matrix) {
      std::vector<TProp> cells;
      cells.reserve(texts.element_count());
      for (const TPropstring& text : texts) cells.emplace_back(text);
      write_cell(cells, matrix_shape(texts), name, index, depth);
      return;
    }
    // A char matrix: column by column.
    const std::size_t columns = rows.front().size();
    std::u16string flat;
    flat.reserve(rows.size() * columns);
    for (std::size_t column = 0; column < columns; ++column) {
      for (const std::u16string& row : rows) flat += row[column];
    }
    open(name, index, depth, "char", {rows.size(), columns});
    out_ += '>';
    Tarn::strings::internal::append_xml_escaped(out_, boost::locale::conv::utf_to_utf<char>(flat),
                                                kTextSpecials);
    close(name, depth, false);
  }

  void write_struct_array(std::span<const TPropstruct> elements, const TPropSize& shape,
                          std::string_view name, std::uint64_t index, int depth) {
    // The members of all elements, in the order met.
    std::vector<std::string_view> names;
    std::unordered_set<std::string_view> known;
    for (const TPropstruct& element : elements) {
      for (const auto& member : element) {
        if (known.insert(member.first).second) names.push_back(member.first);
      }
    }
    for (const std::string_view member : names) {
      if (!tarn_prop_is_valid_name(member)) {
        throw std::runtime_error(
            fmt::format("Struct member name '{}' cannot be an xml element name.", member));
      }
    }
    open(name, index, depth, "struct", shape);
    if (names.empty()) return close_empty();
    out_ += ">\n";
    const TProp missing;
    for (std::size_t e = 0; e < elements.size(); ++e) {
      const TPropstruct& element = elements[e];
      const bool uniform =
          element.size() == names.size() &&
          std::equal(names.begin(), names.end(), element.begin(),
                     [](std::string_view a, const TPropstruct::Member& b) { return a == b.first; });
      for (std::size_t m = 0; m < names.size(); ++m) {
        const TProp* member = nullptr;
        if (uniform) {
          member = &(element.begin() + static_cast<std::ptrdiff_t>(m))->second;
        } else {
          const auto found = element.find(names[m]);
          member = found != element.end() ? &found->second : &missing;
        }
        write(*member, names[m], e + 1, depth + 1);
      }
    }
    close(name, depth, true);
  }

  void write_cell(std::span<const TProp> items, const TPropSize& shape, std::string_view name,
                  std::uint64_t index, int depth) {
    open(name, index, depth, "cell", shape);
    if (items.empty()) return close_empty();
    out_ += ">\n";
    for (std::size_t i = 0; i < items.size(); ++i) write(items[i], "item", i + 1, depth + 1);
    close(name, depth, true);
  }

  template <typename T>
  void append_elements(const T* values, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      if (i > 0) out_ += ' ';
      append_number(out_, values[i]);
    }
  }

  template <typename T>
  void write_numbers(const TProparray<T>& array, std::string_view name, std::uint64_t index,
                     int depth) {
    TPropSize shape = array.get_size(true);
    const std::size_t count = array.element_count();
    if constexpr (std::is_same_v<T, _s_tarn_RGB>) {
      // Three rows of colour bytes.
      shape = array.shape();
      shape.insert(shape.begin(), 3);
      if (shape.size() < 2) shape.push_back(1);
      open(name, index, depth, "uint8", shape);
      if (count == 0) return close_empty();
      out_ += '>';
      append_elements(reinterpret_cast<const std::uint8_t*>(array.data()), 3 * count);
    } else if constexpr (is_complex_element<T>) {
      using Part = typename T::value_type;
      const char* part_type = std::is_same_v<Part, float> ? "single" : "double";
      open(name, index, depth, "complex", shape);
      out_ += ">\n";
      for (int part = 0; part < 2; ++part) {
        open("item", static_cast<std::uint64_t>(part + 1), depth + 1, part_type, shape);
        if (count == 0) {
          close_empty();
          continue;
        }
        out_ += '>';
        for (std::size_t i = 0; i < count; ++i) {
          if (i > 0) out_ += ' ';
          append_number(out_, part == 0 ? array[i].real() : array[i].imag());
        }
        close("item", depth + 1, false);
      }
      return close(name, depth, true);
    } else {
      const DataType code = array.element_type();
      const char* type = code == dt::logical ? "boolean"
                         : code == dt::rgb32 ? "uint32"
                                             : tarn_dt_get_name(code);
      open(name, index, depth, type, shape);
      if (count == 0) return close_empty();
      out_ += '>';
      append_elements(array.data(), count);
    }
    close(name, depth, false);
  }

  std::string out_;
};

}  // namespace

TProp read_toolbox_xml(const pugi::xml_document& document) {
  const pugi::xml_node root = document.document_element();
  if (!root) throw std::runtime_error("Could not determine xml format.");
  return Reader(document).read(root);
}

std::string write_toolbox_xml(const TProp& value) { return Writer().document(value); }

}  // namespace Tarn::props::internal
