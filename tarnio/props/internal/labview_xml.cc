// Dialect 3, the LabVIEW data form, as LabVIEW's "Flatten To XML" and "Write to XML File"
// write it and "Unflatten From XML" reads it.
//
// The root "LVData" holds a "Version" element and then the values. Each value is an element
// named by its LabVIEW type with a "Name" child (the label) first: numbers, Boolean and text
// carry a "Val"; Cluster a "NumElts" and its fields; Array one "Dimsize" per dimension
// (outermost first) and its elements in row-major order (the last index varies fastest),
// exactly one type template when it has no elements; LvVariant the value it holds, if any.
//
// Import:
// - I8 ... U64, SGL, DBL, Boolean, String: scalars of the same kind; EXT: double; CSG, CDB, CXT:
//   cplx_single, cplx_double, cplx_double; Path, DAQChannel, Refnum: char; enums (EB, EW, EL):
//   char holding the label of the selected item; Timestamp: double seconds since 1970-01-01
//   00:00 UTC; Cluster: struct; LvVariant: the value it holds ("none" when empty).
// - Array of numbers or Booleans: an array of the Dimsize shape, its elements in column-major
//   order; of String, Path, enums and LvVariant: a cell array of that shape; of Cluster: a struct
//   array; of Timestamp: a double array. An Array with no elements takes its kind from the
//   template. The Dimsize product must equal the number of elements.
// - labels become valid member names: every character other than a letter, digit, '_' or '-'
//   becomes '_', a name not starting with a letter or '_' gets a leading '_', an empty label is
//   "field", and a name met again in one cluster gets "_2", "_3", ... appended.
// - one value is the result; several are a struct of them; none is "none".
// - text that is not UTF-8 is read as Windows-1252 (legacy_text.h).
//
// Export:
// - one value under "Version": the root value, labelled with an empty Name; a root struct is one
//   Cluster (so that it comes back as a struct whatever its member count).
// - scalars: int8 ... uint64 as I8 ... U64, single as SGL, double as DBL, logical as Boolean,
//   complex as CSG and CDB ("1.5 +2 i"), char as String, RGB and RGB32 as U32 holding the RGB32
//   code (red in the low byte); numbers as the shortest text that reads back to the same value.
// - struct: Cluster with the member names as labels.
// - numeric, logical, complex and colour arrays: Array with the sizes as Dimsize (a rank-1 array
//   has one) and the elements in row-major order; char arrays and cells of char: Array of String;
//   struct arrays whose elements have the same members of the same LabVIEW types: Array of
//   Cluster; other struct arrays and other cell arrays: Array of LvVariant, each holding one
//   element; a single cell: LvVariant; "none" and "empty": an empty LvVariant. Empty arrays carry
//   one template element (0, "", an empty Cluster or an empty LvVariant).
// - the text is UTF-8; only '&', '<' and '>' are escaped, and CR as a character reference so
//   that it survives the line-end normalisation of readers. The declaration is LabVIEW's own
//   with the encoding named, so that no reader takes the text for another code page:
//   "<?xml version='1.0' encoding='UTF-8' standalone='yes' ?>".
// - elements are indented by four spaces per level, one element per line.
// - dropped: ids, info, user bits, the difference between char arrays and cells of char, and
//   between "none", "empty" and a single cell around "none".

#include <fmt/format.h>

#include <algorithm>
#include <boost/locale/utf.hpp>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "tarnio/arrays/data_type.h"
#include "tarnio/props/internal/dialect_shared.h"
#include "tarnio/props/internal/dispatch.h"
#include "tarnio/props/internal/legacy_text.h"
#include "tarnio/props/internal/number_text.h"
#include "tarnio/props/internal/xml_dialects.h"
#include "tarnio/props/internal/xml_support.h"
#include "tarnio/props/xml.h"
#include "tarnio/strings/internal/xml_escape.h"

namespace Tarn::props::internal {
namespace {

// Seconds from 1904-01-01 to 1970-01-01, both 00:00 UTC.
constexpr double kEpochOffset = 2082844800.0;

enum class Kind { number, text, enumeration, cluster, array, timestamp, variant };

struct ElementType {
  Kind kind;
  DataType code = dt::none;  // for numbers, Boolean and complex
};

std::optional<ElementType> element_type(std::string_view name) {
  static const std::unordered_map<std::string_view, ElementType> types = {
      {"I8", {Kind::number, dt::int8}},
      {"I16", {Kind::number, dt::int16}},
      {"I32", {Kind::number, dt::int32}},
      {"I64", {Kind::number, dt::int64}},
      {"U8", {Kind::number, dt::uint8}},
      {"U16", {Kind::number, dt::uint16}},
      {"U32", {Kind::number, dt::uint32}},
      {"U64", {Kind::number, dt::uint64}},
      {"SGL", {Kind::number, dt::single}},
      {"DBL", {Kind::number, dt::double_}},
      {"EXT", {Kind::number, dt::double_}},
      {"CSG", {Kind::number, dt::cplx_single}},
      {"CDB", {Kind::number, dt::cplx_double}},
      {"CXT", {Kind::number, dt::cplx_double}},
      {"Boolean", {Kind::number, dt::logical}},
      {"String", {Kind::text}},
      {"Path", {Kind::text}},
      {"DAQChannel", {Kind::text}},
      {"Refnum", {Kind::text}},
      {"EB", {Kind::enumeration}},
      {"EW", {Kind::enumeration}},
      {"EL", {Kind::enumeration}},
      {"Cluster", {Kind::cluster}},
      {"Array", {Kind::array}},
      {"Timestamp", {Kind::timestamp}},
      {"LvVariant", {Kind::variant}}};
  const auto found = types.find(name);
  if (found == types.end()) return std::nullopt;
  return found->second;
}

// The element name of a number kind; null for codes without one.
const char* element_name(DataType code) {
  switch (code) {
    case dt::int8:
      return "I8";
    case dt::int16:
      return "I16";
    case dt::int32:
      return "I32";
    case dt::int64:
      return "I64";
    case dt::uint8:
      return "U8";
    case dt::uint16:
      return "U16";
    case dt::uint32:
      return "U32";
    case dt::uint64:
      return "U64";
    case dt::single:
      return "SGL";
    case dt::double_:
      return "DBL";
    case dt::cplx_single:
      return "CSG";
    case dt::cplx_double:
      return "CDB";
    case dt::logical:
      return "Boolean";
    case dt::rgb:
      return "U32";
    case dt::rgb32:
      return "U32";
    default:
      return nullptr;
  }
}

// Calls visit(column_major_index) for every element of `shape` in row-major order.
template <typename Visit>
void for_each_row_major(const TPropSize& shape, Visit&& visit) {
  const std::size_t rank = shape.size();
  if (std::find(shape.begin(), shape.end(), 0) != shape.end()) return;
  std::vector<std::uint64_t> stride(rank, 1);
  for (std::size_t i = 1; i < rank; ++i) stride[i] = stride[i - 1] * shape[i - 1];
  std::vector<std::uint64_t> position(rank, 0);
  std::uint64_t index = 0;
  while (true) {
    visit(static_cast<std::size_t>(index));
    std::size_t axis = rank;
    while (axis > 0) {
      --axis;
      if (++position[axis] < shape[axis]) {
        index += stride[axis];
        break;
      }
      index -= (shape[axis] - 1) * stride[axis];
      position[axis] = 0;
      if (axis == 0) return;
    }
    if (rank == 0) return;
  }
}

[[noreturn]] void throw_conversion(std::string_view text) {
  throw std::runtime_error(fmt::format("Could not convert \"{}\" to target type", text));
}

template <typename T>
T parse_scalar(std::string_view text) {
  const std::string_view trimmed = trim_blanks(text);
  T value{};
  if constexpr (std::is_arithmetic_v<T>) {
    if (!parse_number(trimmed, value)) throw_conversion(text);
  } else {
    // "real imaginary i", the imaginary part signed: "1.5 +2 i"; also "1.5+2i".
    using Part = typename T::value_type;
    std::string_view rest = trimmed;
    if (!rest.empty() && rest.back() == 'i') rest = trim_blanks(rest.substr(0, rest.size() - 1));
    std::size_t split = rest.find_first_of(" \t\r\n");
    std::string_view real_text = rest;
    std::string_view imaginary_text = "0";
    if (split != std::string_view::npos) {
      real_text = rest.substr(0, split);
      imaginary_text = trim_blanks(rest.substr(split));
    } else {
      for (split = rest.size(); split > 1; --split) {
        const char c = rest[split - 1];
        const char before = rest[split - 2];
        if ((c == '+' || c == '-') && before != 'e' && before != 'E') break;
      }
      if (split > 1) {
        real_text = rest.substr(0, split - 1);
        imaginary_text = rest.substr(split - 1);
      }
    }
    Part real{};
    Part imaginary{};
    if (!parse_number(real_text, real) || !parse_number(imaginary_text, imaginary)) {
      throw_conversion(text);
    }
    value = T(real, imaginary);
  }
  return value;
}

// A label as a valid member name (see the top), before making it unique.
std::string member_name(std::string_view label) {
  if (label.empty()) return "field";
  std::string name;
  using utf = boost::locale::utf::utf_traits<char>;
  const char* position = label.data();
  const char* const end = position + label.size();
  while (position != end) {
    const char* const start = position;
    const boost::locale::utf::code_point c = utf::decode(position, end);
    const bool ascii = c != boost::locale::utf::illegal && c != boost::locale::utf::incomplete &&
                       position == start + 1;
    const char ch = *start;
    const bool letter = ascii && ((ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z'));
    const bool digit = ascii && ch >= '0' && ch <= '9';
    name += letter || digit || (ascii && (ch == '_' || ch == '-')) ? ch : '_';
    if (c == boost::locale::utf::illegal || c == boost::locale::utf::incomplete) {
      position = start + 1;
    }
  }
  const char first = name.front();
  if (!((first >= 'a' && first <= 'z') || (first >= 'A' && first <= 'Z') || first == '_')) {
    name.insert(name.begin(), '_');
  }
  return name;
}

// Gives the member names of one cluster, each unique.
class UniqueNames {
 public:
  std::string operator()(std::string_view label) {
    std::string name = member_name(label);
    if (used_.insert(name).second) return name;
    std::uint64_t& suffix = next_suffix_.try_emplace(name, 2).first->second;
    while (true) {
      std::string candidate = fmt::format("{}_{}", name, suffix++);
      if (used_.insert(candidate).second) return candidate;
    }
  }

 private:
  std::unordered_set<std::string> used_;
  std::unordered_map<std::string, std::uint64_t> next_suffix_;
};

// A value element split into its label and the element children after "Name".
struct Parts {
  std::string label;
  std::vector<pugi::xml_node> rest;
};

struct Labelled {
  std::string label;
  TProp value;
};

class Reader {
 public:
  explicit Reader(const pugi::xml_document& document) : text_(document) {}

  Labelled read(const pugi::xml_node& element) {
    return at_element(element, [&] { return read_value(element); });
  }

  // The values of the root and of a cluster as struct members.
  TPropstruct read_members(const std::vector<pugi::xml_node>& elements) {
    TPropstruct members;
    members.reserve(elements.size());
    UniqueNames unique;
    for (const pugi::xml_node& element : elements) {
      Labelled field = read(element);
      members.set(unique(field.label), std::move(field.value));
    }
    return members;
  }

 private:
  Parts parts(const pugi::xml_node& element) const {
    Parts result;
    bool first = true;
    for (const pugi::xml_node child : element.children()) {
      if (child.type() != pugi::node_element) continue;
      if (first && std::string_view(child.name()) == "Name") {
        result.label = text_.text_of(child);
      } else {
        result.rest.push_back(child);
      }
      first = false;
    }
    return result;
  }

  // The text of the element's "Val" child.
  std::string val_text(const pugi::xml_node& element) const {
    const pugi::xml_node val = element.child("Val");
    if (!val) throw std::runtime_error("Missing 'Val' element.");
    return text_.text_of(val);
  }

  static ElementType type_of(const pugi::xml_node& element) {
    const auto type = element_type(element.name());
    if (!type) throw std::runtime_error(fmt::format("Unknown element '{}'.", element.name()));
    return *type;
  }

  Labelled read_value(const pugi::xml_node& element) {
    const ElementType type = type_of(element);
    Parts part = parts(element);
    Labelled result{std::move(part.label), {}};
    switch (type.kind) {
      case Kind::number: {
        const std::string text = val_text(element);
        visit_element(type.code, [&](auto tag) {
          using T = typename decltype(tag)::type;
          if constexpr (is_number_element<T>) result.value = TProp(parse_scalar<T>(text));
        });
        break;
      }
      case Kind::text:
        result.value = TProp(TPropstring(val_text(element)));
        break;
      case Kind::enumeration:
        result.value = read_enum(element, part.rest);
        break;
      case Kind::cluster:
        result.value = read_cluster(part.rest);
        break;
      case Kind::array:
        result.value = read_array(part.rest);
        break;
      case Kind::timestamp:
        result.value = TProp(read_timestamp(part.rest));
        break;
      case Kind::variant:
        if (part.rest.size() > 1) throw std::runtime_error("LvVariant holds more than one value.");
        if (!part.rest.empty()) result.value = read(part.rest.front()).value;
        break;
    }
    return result;
  }

  TProp read_enum(const pugi::xml_node& element, const std::vector<pugi::xml_node>& rest) const {
    std::vector<pugi::xml_node> choices;
    for (const pugi::xml_node& child : rest) {
      if (std::string_view(child.name()) == "Choice") choices.push_back(child);
    }
    const std::string text = val_text(element);
    std::uint64_t selected = 0;
    if (!parse_number(trim_blanks(text), selected)) throw_conversion(text);
    if (selected >= choices.size()) {
      throw std::runtime_error(
          fmt::format("Enum value {} out of range of its {} items.", selected, choices.size()));
    }
    return TProp(TPropstring(text_.text_of(choices[selected])));
  }

  TProp read_cluster(std::vector<pugi::xml_node> rest) {
    const auto count_element = std::find_if(rest.begin(), rest.end(), [](const auto& child) {
      return std::string_view(child.name()) == "NumElts";
    });
    if (count_element != rest.end()) {
      const std::string text = text_.text_of(*count_element);
      std::uint64_t count = 0;
      if (!parse_number(trim_blanks(text), count)) throw_conversion(text);
      rest.erase(count_element);
      if (count != rest.size()) {
        throw std::runtime_error(
            fmt::format("Cluster has {} elements but NumElts gives {}.", rest.size(), count));
      }
    }
    return TProp(read_members(rest));
  }

  double read_timestamp(const std::vector<pugi::xml_node>& rest) {
    // Four words, least significant first, in an unnamed cluster.
    std::vector<pugi::xml_node> words = rest;
    if (words.size() == 1 && std::string_view(words.front().name()) == "Cluster") {
      words = parts(words.front()).rest;
      std::erase_if(words, [](const auto& w) { return std::string_view(w.name()) == "NumElts"; });
    }
    if (words.size() != 4) {
      throw std::runtime_error("Malformed 'Timestamp' element: four words expected.");
    }
    std::uint64_t value[4] = {};
    for (std::size_t i = 0; i < 4; ++i) {
      at_element(words[i], [&] {
        const ElementType type = type_of(words[i]);
        if (type.kind != Kind::number || type.code == dt::logical || type.code == dt::single ||
            type.code == dt::double_ || (type.code & dt::complex_flag) != 0) {
          throw std::runtime_error("Malformed 'Timestamp' element: integer words expected.");
        }
        const std::string text = val_text(words[i]);
        std::int64_t word = 0;
        if (!parse_number(trim_blanks(text), word) || word < -(std::int64_t{1} << 31) ||
            word >= (std::int64_t{1} << 32)) {
          throw_conversion(text);
        }
        value[i] = static_cast<std::uint32_t>(word);
      });
    }
    const std::uint64_t fraction = value[0] | (value[1] << 32);
    const auto seconds = static_cast<std::int64_t>(value[2] | (value[3] << 32));
    return static_cast<double>(seconds) - kEpochOffset + static_cast<double>(fraction) * 0x1p-64;
  }

  TProp read_array(const std::vector<pugi::xml_node>& rest) {
    TPropSize shape;
    std::vector<pugi::xml_node> elements;
    for (const pugi::xml_node& child : rest) {
      if (std::string_view(child.name()) != "Dimsize") {
        elements.push_back(child);
        continue;
      }
      const std::string text = text_.text_of(child);
      std::uint64_t extent = 0;
      if (!parse_number(trim_blanks(text), extent)) {
        throw LocatedXmlError(fmt::format("Could not convert \"{}\" to target type", text), child);
      }
      shape.push_back(extent);
    }
    if (shape.empty()) throw std::runtime_error("Array without 'Dimsize'.");
    const std::optional<std::uint64_t> count = element_count(shape);
    if (!count) throw std::runtime_error("Array Dimsize product exceeds 64 bits.");
    // An array without elements still has one template element, which tells the kind.
    if (*count == 0 ? elements.size() > 1 : elements.size() != *count) {
      throw std::runtime_error(
          fmt::format("Array has {} elements but Dimsize gives {}.", elements.size(), *count));
    }
    for (const pugi::xml_node& element : elements) {
      if (std::string_view(element.name()) != elements.front().name()) {
        throw LocatedXmlError("Array elements of different types.", element);
      }
    }
    if (elements.empty()) return TProp::array(dt::double_, shape);
    const ElementType type = at_element(elements.front(), [&] { return type_of(elements[0]); });
    if (*count == 0) {
      switch (type.kind) {
        case Kind::number:
          return TProp::array(type.code, shape);
        case Kind::timestamp:
          return TProp::array(dt::double_, shape);
        case Kind::cluster:
          return TProp::array(dt::struct_, shape);
        case Kind::array:
          break;
        default:
          return TProp::cell(shape);
      }
    }
    std::size_t next = 0;
    switch (type.kind) {
      case Kind::number: {
        TProp result;
        visit_element(type.code, [&](auto tag) {
          using T = typename decltype(tag)::type;
          if constexpr (is_number_element<T>) {
            TProparray<T> array(shape);
            for_each_row_major(shape, [&](std::size_t index) {
              const pugi::xml_node& element = elements[next++];
              array[index] =
                  at_element(element, [&] { return parse_scalar<T>(val_text(element)); });
            });
            result = TProp(std::move(array));
          }
        });
        return result;
      }
      case Kind::timestamp: {
        TProparray<double> array(shape);
        for_each_row_major(shape, [&](std::size_t index) {
          array[index] = read(elements[next++]).value.get<TProparray<double>>()[0];
        });
        return TProp(std::move(array));
      }
      case Kind::cluster: {
        TProparray<TPropstruct> array(shape);
        for_each_row_major(shape, [&](std::size_t index) {
          array[index] = std::move(read(elements[next++]).value.get<TPropstruct>());
        });
        return TProp(std::move(array));
      }
      case Kind::array:
        throw LocatedXmlError("Arrays of arrays are not supported.", elements.front());
      default: {
        TProparray<TProp> array(shape);
        for_each_row_major(shape,
                           [&](std::size_t index) { array[index] = read(elements[next++]).value; });
        return TProp(std::move(array));
      }
    }
  }

  DocumentText text_;
};

// Characters escaped in the text of Name and Val: the markup characters, and CR so that it
// survives the line-end normalisation of readers.
constexpr std::string_view kTextSpecials = "&<>\r";

template <typename T>
void append_value(std::string& out, const T& value) {
  if constexpr (std::is_arithmetic_v<T>) {
    append_number(out, value);
  } else {
    append_number(out, value.real());
    out += ' ';
    const std::size_t sign = out.size();
    append_number(out, value.imag());
    if (out[sign] != '-') out.insert(sign, 1, '+');
    out += " i";
  }
}

class Writer {
 public:
  std::string document(const TProp& value) {
    out_ = "<LVData xmlns=\"http://www.ni.com/LVData\">\n    <Version>8.2.1</Version>\n";
    write(value, "", 1);
    out_ += "</LVData>\n";
    return "<?xml version='1.0' encoding='UTF-8' standalone='yes' ?>\n" + out_;
  }

 private:
  // The LabVIEW type written for a value, to tell whether the elements of a struct array
  // agree; `depth` guards the recursion.
  static std::string signature(const TProp& value, int depth) {
    check_depth(depth);
    const DataType code = value.type_code();
    if (code == dt::none || code == dt::empty) return "V";
    if (value.get_if<TPropstring>() != nullptr) return "S";
    if (const auto* members = value.get_if<TPropstruct>()) {
      return cluster_signature(*members, depth);
    }
    const TProparrayBase* array = value.get_arr(false);
    if (array == nullptr) {
      // A single cell, or a scalar.
      if (value.get_if<TProparray<TProp>>() != nullptr) return "V";
      const char* name = element_name(code);
      return name != nullptr ? name : "?";
    }
    std::string result = fmt::format("A{}", array->get_rank());
    if (const auto* cells = value.get_if<TProparray<TProp>>()) {
      result += all_strings(*cells) ? "S" : "V";
    } else if (value.get_if<TProparray<TPropstring>>() != nullptr) {
      result += "S";
    } else if (const auto* structs = value.get_if<TProparray<TPropstruct>>()) {
      const std::optional<std::string> common = common_signature(*structs, depth);
      result += common ? *common : "V";
    } else {
      const char* name = element_name(array->element_type());
      result += name != nullptr ? name : "?";
    }
    return result;
  }

  static void check_depth(int depth) {
    // The value element's children are one level deeper.
    if (depth + 2 > kMaxXmlDepth) {
      throw std::runtime_error(fmt::format("Xml nesting deeper than {} levels.", kMaxXmlDepth));
    }
  }

  static std::string cluster_signature(const TPropstruct& members, int depth) {
    std::string result = "C{";
    for (const auto& [name, member] : members) {
      result += name;
      result += ':';
      result += signature(member, depth + 1);
      result += ';';
    }
    return result + "}";
  }

  // The signature all elements share, or nothing when they differ.
  static std::optional<std::string> common_signature(const TProparray<TPropstruct>& structs,
                                                     int depth) {
    if (structs.element_count() == 0) return "C{}";
    std::string first = cluster_signature(structs[0], depth + 1);
    for (const TPropstruct& element : structs) {
      if (cluster_signature(element, depth + 1) != first) return std::nullopt;
    }
    return first;
  }

  static bool all_strings(const TProparray<TProp>& cells) {
    return cells.element_count() > 0 &&
           std::all_of(cells.begin(), cells.end(),
                       [](const TProp& cell) { return cell.get_if<TPropstring>() != nullptr; });
  }

  void indent(int depth) { out_.append(static_cast<std::size_t>(4 * depth), ' '); }
  void open(std::string_view tag, std::string_view label, int depth) {
    check_depth(depth);
    indent(depth);
    fmt::format_to(std::back_inserter(out_), "<{}>\n", tag);
    leaf("Name", label, depth + 1);
  }
  void close(std::string_view tag, int depth) {
    indent(depth);
    fmt::format_to(std::back_inserter(out_), "</{}>\n", tag);
  }
  void leaf(std::string_view tag, std::string_view text, int depth) {
    if (!is_valid_utf8(text)) throw std::runtime_error(kBadDialectText);
    indent(depth);
    fmt::format_to(std::back_inserter(out_), "<{}>", tag);
    Tarn::strings::internal::append_xml_escaped(out_, text, kTextSpecials);
    fmt::format_to(std::back_inserter(out_), "</{}>\n", tag);
  }

  void write(const TProp& value, std::string_view label, int depth) {
    const DataType code = value.type_code();
    if (code == dt::none || code == dt::empty) {
      open("LvVariant", label, depth);
      close("LvVariant", depth);
    } else if (const auto* text = value.get_if<TPropstring>()) {
      write_string(text->to_utf8(), label, depth);
    } else if (const auto* members = value.get_if<TPropstruct>()) {
      write_cluster(*members, label, depth);
    } else if (const auto* cells = value.get_if<TProparray<TProp>>()) {
      write_cells(*cells, label, depth);
    } else if (const auto* texts = value.get_if<TProparray<TPropstring>>()) {
      write_array(texts->shape(), texts->element_count(), label, depth,
                  [&](std::size_t index, int at) {
                    write_string(index == npos ? std::string() : (*texts)[index].to_utf8(), "", at);
                  });
    } else if (const auto* structs = value.get_if<TProparray<TPropstruct>>()) {
      write_structs(*structs, label, depth);
    } else if (!visit_element(code & dt::name_mask, [&](auto tag) {
                 using T = typename decltype(tag)::type;
                 if constexpr (std::is_same_v<T, _s_tarn_RGB>) {
                   write_numbers(as_rgb32(value.get<TProparray<T>>()), label, depth);
                 } else if constexpr (is_number_element<T>) {
                   write_numbers(value.get<TProparray<T>>(), label, depth);
                 } else {
                   throw std::runtime_error(kNoDialectForm);
                 }
               })) {
      throw std::runtime_error(kNoDialectForm);
    }
  }

  static constexpr std::size_t npos = ~std::size_t{0};

  static TProparray<std::uint32_t> as_rgb32(const TProparray<_s_tarn_RGB>& colours) {
    TProparray<std::uint32_t> packed(colours.shape(), dt::rgb32);
    if (tarn_dt_convert(dt::rgb, dt::rgb32, colours.data(), packed.data(), colours.element_count(),
                        nullptr, nullptr) != 0) {
      throw std::runtime_error("Internal error.");
    }
    return packed;
  }

  void write_string(const std::string& text, std::string_view label, int depth) {
    open("String", label, depth);
    leaf("Val", text, depth + 1);
    close("String", depth);
  }

  template <typename T>
  void write_scalar(const char* tag, const T& value, std::string_view label, int depth) {
    open(tag, label, depth);
    indent(depth + 1);
    out_ += "<Val>";
    append_value(out_, value);
    out_ += "</Val>\n";
    close(tag, depth);
  }

  // An Array element: `write_element(index, depth)` writes the element at a column-major
  // index, or the template for index npos.
  template <typename WriteElement>
  void write_array(const TPropSize& shape, std::size_t count, std::string_view label, int depth,
                   WriteElement&& write_element) {
    open("Array", label, depth);
    for (const std::uint64_t extent : shape) {
      indent(depth + 1);
      out_ += "<Dimsize>";
      append_number(out_, extent);
      out_ += "</Dimsize>\n";
    }
    if (count == 0) {
      write_element(npos, depth + 1);
    } else {
      for_each_row_major(shape, [&](std::size_t index) { write_element(index, depth + 1); });
    }
    close("Array", depth);
  }

  template <typename T>
  void write_numbers(const TProparray<T>& array, std::string_view label, int depth) {
    const char* tag = element_name(array.element_type());
    if (tag == nullptr) throw std::runtime_error(kNoDialectForm);
    if (array.get_rank() == 0) return write_scalar(tag, array[0], label, depth);
    write_array(array.shape(), array.element_count(), label, depth, [&](std::size_t index, int at) {
      write_scalar(tag, index == npos ? T{} : array[index], "", at);
    });
  }

  void write_cluster(const TPropstruct& members, std::string_view label, int depth) {
    open("Cluster", label, depth);
    indent(depth + 1);
    out_ += "<NumElts>";
    append_number(out_, members.size());
    out_ += "</NumElts>\n";
    for (const auto& [name, member] : members) write(member, name, depth + 1);
    close("Cluster", depth);
  }

  // A value wrapped in an LvVariant; "none" and "empty" leave it empty.
  void write_variant(const TProp& value, std::string_view label, int depth) {
    open("LvVariant", label, depth);
    if (value.type_code() != dt::none && value.type_code() != dt::empty) {
      write(value, "", depth + 1);
    }
    close("LvVariant", depth);
  }

  void write_cells(const TProparray<TProp>& cells, std::string_view label, int depth) {
    if (cells.get_rank() == 0) return write_variant(cells[0], label, depth);
    const bool strings = all_strings(cells);
    write_array(cells.shape(), cells.element_count(), label, depth, [&](std::size_t index, int at) {
      if (strings) return write_string(cells[index].get<TPropstring>().to_utf8(), "", at);
      write_variant(index == npos ? TProp() : cells[index], "", at);
    });
  }

  void write_structs(const TProparray<TPropstruct>& structs, std::string_view label, int depth) {
    const bool uniform = common_signature(structs, depth).has_value();
    write_array(structs.shape(), structs.element_count(), label, depth,
                [&](std::size_t index, int at) {
                  if (index == npos) return write_cluster(TPropstruct(), "", at);
                  if (uniform) return write_cluster(structs[index], "", at);
                  open("LvVariant", "", at);
                  write_cluster(structs[index], "", at + 1);
                  close("LvVariant", at);
                });
  }

  std::string out_;
};

}  // namespace

TProp read_labview_xml(const pugi::xml_document& document) {
  const pugi::xml_node root = document.document_element();
  std::vector<pugi::xml_node> values;
  for (const pugi::xml_node child : root.children()) {
    if (child.type() == pugi::node_element) values.push_back(child);
  }
  if (values.empty() || std::string_view(values.front().name()) != "Version") {
    throw LocatedXmlError("Missing 'Version' element.", root);
  }
  values.erase(values.begin());
  Reader reader(document);
  if (values.empty()) return TProp();
  if (values.size() == 1) return reader.read(values.front()).value;
  return TProp(reader.read_members(values));
}

std::string write_labview_xml(const TProp& value) { return Writer().document(value); }

}  // namespace Tarn::props::internal
