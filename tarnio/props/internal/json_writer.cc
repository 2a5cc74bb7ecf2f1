// The writer of the JSON form of property values: a tree as JSON text, written directly as
// JSON::write would write the equivalent JSON value, or as a JSON::Value.

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "tarnio/json/internal/text_writer.h"
#include "tarnio/json/read_write.h"
#include "tarnio/props/internal/dispatch.h"
#include "tarnio/props/internal/json_form.h"
#include "tarnio/props/internal/xml_support.h"
#include "tarnio/props/path.h"

namespace Tarn::props::internal {
namespace {

// The shortest text of a float as a double that rounds back to it (0.1f is 0.1), else the
// float's exact value.
double shortest_float(float value) {
  char text[32];
  const auto written = std::to_chars(text, text + sizeof(text), value);
  double shortest = 0;
  std::from_chars(text, written.ptr, shortest);
  if (std::bit_cast<std::uint32_t>(static_cast<float>(shortest)) ==
      std::bit_cast<std::uint32_t>(value)) {
    return shortest;
  }
  return static_cast<double>(value);
}

std::string_view special_float(double value) {
  if (std::isnan(value)) return "NaN";
  return value < 0 ? "-Inf" : "Inf";
}

// JSON text from the events, written as JSON::write writes the equivalent JSON value; the
// counts of the events are hints for ValueOut only.
class TextOut : public JSON::internal::TextWriter {
 public:
  using TextWriter::TextWriter;
  void begin_object(std::size_t) { TextWriter::begin_object(); }
  void begin_list(std::size_t) { TextWriter::begin_list(); }
};

// A JSON::Value built from the same events.
class ValueOut {
 public:
  void begin_object(std::size_t count) {
    JSON::Value& object = place(JSON::Value::object());
    object.reserve(count);
    open_.push_back(&object);
  }
  void end_object() { open_.pop_back(); }
  void begin_list(std::size_t count) {
    JSON::Value& list = place(JSON::Value::list());
    list.reserve(count);
    open_.push_back(&list);
  }
  void end_list() { open_.pop_back(); }
  void key(std::string_view key) { slot_ = &open_.back()->set(key, JSON::Value()); }
  void null() { place(JSON::Value()); }
  void boolean(bool value) { place(JSON::Value(value)); }
  void number(std::int64_t value) { place(JSON::Value(value)); }
  void number(std::uint64_t value) { place(JSON::Value(value)); }
  void number(double value) { place(JSON::Value(value)); }
  void string(std::string_view value) { place(JSON::Value(value)); }

  JSON::Value take() { return std::move(root_); }

 private:
  // Where the next value goes: the root, a new item, or the member of the key just given. The
  // open containers are each the last value placed in their parent, so their addresses hold.
  JSON::Value& place(JSON::Value value) {
    if (open_.empty()) return root_ = std::move(value);
    JSON::Value& container = *open_.back();
    if (container.is_list()) return container.push_back(std::move(value));
    return *slot_ = std::move(value);
  }

  JSON::Value root_;
  std::vector<JSON::Value*> open_;
  JSON::Value* slot_ = nullptr;
};

// What the JSON form of a value is, as far as the reading of a plain list is concerned.
enum class ItemKind { number, boolean, string, object, other };

// The JSON form of a tree, as events to Out (TextOut or ValueOut). Failures are
// std::runtime_error located by a property path.
template <class Out>
class Writer {
 public:
  explicit Writer(Out& out) : out_(out) {}

  void write(const TProp& value, int depth) {
    if (depth > kMaxJsonDepth) throw std::runtime_error(nesting_message());
    const DataType code = value.type_code();
    const std::int64_t id = value.get_id();
    switch (code) {
      case dt::none:
        begin_tagged(dt::none, nullptr, id);
        out_.end_object();
        return;
      case dt::empty:
        if (id == 0) {
          out_.null();
        } else {
          begin_tagged(dt::empty, nullptr, id);
          out_.end_object();
        }
        return;
      case dt::char_: {
        const std::string& text = value.get<TPropstring>().to_utf8();
        check_text(text);
        if (id == 0) {
          out_.string(text);
          return;
        }
        begin_tagged(dt::char_, nullptr, id);
        out_.key(kDataKey);
        out_.string(text);
        out_.end_object();
        return;
      }
      case dt::struct_: {
        const auto& members = value.get<TPropstruct>();
        if (id == 0 && has_plain_keys(members)) {
          write_struct(members, true, depth);
          return;
        }
        begin_tagged(dt::struct_, nullptr, id);
        out_.key(kDataKey);
        write_struct(members, false, depth);
        out_.end_object();
        return;
      }
      default:
        break;
    }
    const DataType element = code & dt::name_mask;
    const bool known = visit_element(element, [&](auto tag) {
      using T = typename decltype(tag)::type;
      write_array(value.get<TProparray<T>>(), element, id, depth);
    });
    if (!known) throw std::runtime_error("Type unknown or incompatible with property arrays.");
  }

 private:
  // One step of the path to the value being written.
  struct Step {
    std::string_view name;  // a member name, or empty for an array element
    const TProparrayBase* array = nullptr;
    std::size_t index = 0;
    bool cell = false;
  };

  // Opens the tagged object and writes everything but "#data".
  void begin_tagged(DataType element, const TProparrayBase* array, std::int64_t id) {
    out_.begin_object(5);
    out_.key(kTypeKey);
    out_.string(kind_name(element));
    if (array != nullptr && array->get_rank() > 0) {
      out_.key(kSizeKey);
      out_.begin_list(array->get_rank());
      for (const std::uint64_t extent : array->shape()) out_.number(extent);
      out_.end_list();
    }
    if (id != 0) {
      out_.key(kIdKey);
      out_.number(id);
    }
    if (array != nullptr && array->get_user_bits() != 0) {
      out_.key(kBitsKey);
      out_.number(std::uint64_t{array->get_user_bits()});
    }
  }

  template <typename T>
  void write_array(const TProparray<T>& array, DataType element, std::int64_t id, int depth) {
    const bool untagged = id == 0 && array.get_user_bits() == 0;
    const std::size_t count = array.element_count();
    if (array.get_rank() == 0) {
      if constexpr (std::is_same_v<T, TProp>) {
        begin_tagged(element, &array, id);
        out_.key(kDataKey);
        path_.push_back({{}, &array, 0, true});
        write(array[0], depth + 1);
        path_.pop_back();
        out_.end_object();
      } else if constexpr (std::is_same_v<T, TPropstruct> || std::is_same_v<T, TPropstring>) {
        throw std::runtime_error("Internal error.");
      } else if (untagged && plain_scalar(array[0])) {
        write_element(array[0]);
      } else {
        begin_tagged(element, &array, id);
        out_.key(kDataKey);
        write_element(array[0]);
        out_.end_object();
      }
      return;
    }

    // Plain lists of rank 1 where the list reads back as this kind.
    bool plain = untagged && array.get_rank() == 1;
    if constexpr (std::is_same_v<T, double>) {
      for (std::size_t i = 0; plain && i < count; ++i) plain = std::isfinite(array[i]);
    } else if constexpr (std::is_same_v<T, TProp>) {
      plain = plain && count > 0 && reads_as_cell(array);
    } else if constexpr (std::is_same_v<T, TPropstruct>) {
      plain = plain && count > 0;
      for (std::size_t i = 0; plain && i < count; ++i) plain = has_plain_keys(array[i]);
    } else {
      plain = plain && count > 0 && (std::is_same_v<T, bool> || std::is_same_v<T, TPropstring>);
    }
    if (!plain) {
      begin_tagged(element, &array, id);
      out_.key(kDataKey);
    }
    out_.begin_list(count);
    for (std::size_t i = 0; i < count; ++i) {
      if constexpr (std::is_same_v<T, TProp> || std::is_same_v<T, TPropstruct> ||
                    std::is_same_v<T, TPropstring>) {
        path_.push_back({{}, &array, i, std::is_same_v<T, TProp>});
        if constexpr (std::is_same_v<T, TProp>) {
          write(array[i], depth + 1);
        } else if constexpr (std::is_same_v<T, TPropstruct>) {
          write_struct(array[i], plain, depth);
        } else {
          check_text(array[i].to_utf8());
          out_.string(array[i].to_utf8());
        }
        path_.pop_back();
      } else {
        write_element(array[i]);
      }
    }
    out_.end_list();
    if (!plain) out_.end_object();
  }

  template <typename T>
  void write_element(const T& value) {
    if constexpr (std::is_same_v<T, bool>) {
      out_.boolean(value);
    } else if constexpr (std::is_floating_point_v<T>) {
      if (!std::isfinite(value)) {
        out_.string(special_float(value));
      } else if constexpr (std::is_same_v<T, float>) {
        out_.number(shortest_float(value));
      } else {
        out_.number(value);
      }
    } else if constexpr (is_complex_element<T>) {
      out_.begin_list(2);
      write_element(value.real());
      write_element(value.imag());
      out_.end_list();
    } else if constexpr (std::is_same_v<T, _s_tarn_RGB>) {
      out_.begin_list(3);
      for (const std::uint8_t part : {value.red, value.green, value.blue}) {
        out_.number(std::uint64_t{part});
      }
      out_.end_list();
    } else if constexpr (std::is_signed_v<T>) {
      out_.number(static_cast<std::int64_t>(value));
    } else {
      out_.number(static_cast<std::uint64_t>(value));
    }
  }

  // Whether a scalar without id and user bits is written plain: a logical, a finite double, and
  // an integer that imports back as its kind because no double holds it.
  template <typename T>
  static bool plain_scalar(const T& value) {
    if constexpr (std::is_same_v<T, bool>) {
      return true;
    } else if constexpr (std::is_same_v<T, double>) {
      return std::isfinite(value);
    } else if constexpr (std::is_same_v<T, std::int64_t>) {
      return !is_exact_double(value);
    } else if constexpr (std::is_same_v<T, std::uint64_t>) {
      return value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) &&
             !is_exact_double(value);
    } else {
      return false;
    }
  }

  ItemKind item_kind(const TProp& value) {
    if (value.get_id() != 0) return ItemKind::other;
    switch (value.type_code()) {
      case dt::char_:
        return ItemKind::string;
      case dt::struct_:
        return has_plain_keys(value.get<TPropstruct>()) ? ItemKind::object : ItemKind::other;
      case dt::logical:
        return value.get<TProparray<bool>>().get_user_bits() == 0 ? ItemKind::boolean
                                                                  : ItemKind::other;
      case dt::double_: {
        const auto& scalar = value.get<TProparray<double>>();
        return scalar.get_user_bits() == 0 && std::isfinite(scalar[0]) ? ItemKind::number
                                                                       : ItemKind::other;
      }
      default:
        return ItemKind::other;
    }
  }

  // Whether the plain list of these elements reads back as a cell array: unless they are all
  // numbers, all logicals, all strings or all plain objects.
  bool reads_as_cell(const TProparray<TProp>& array) {
    const ItemKind first = item_kind(array[0]);
    if (first == ItemKind::other) return true;
    for (std::size_t i = 1; i < array.element_count(); ++i) {
      if (item_kind(array[i]) != first) return true;
    }
    return false;
  }

  bool has_plain_keys(const TPropstruct& members) {
    std::string_view key;
    for (const auto& member : members) {
      if (!key_of_name(member.first, scratch_, key)) return false;
    }
    return true;
  }

  // A struct as an object: keyed by the object keys of its names when `plain`, else by the
  // names themselves. Members are written at depth + 1.
  void write_struct(const TPropstruct& members, bool plain, int depth) {
    out_.begin_object(members.size());
    std::string_view key;
    for (const auto& [name, member] : members) {
      path_.push_back({name});
      if (!tarn_prop_is_valid_name(name)) fail("invalid struct member name");
      if (!plain || !key_of_name(name, scratch_, key)) key = name;
      out_.key(key);
      write(member, depth + 1);
      path_.pop_back();
    }
    out_.end_object();
  }

  void check_text(std::string_view text) {
    if (!is_valid_utf8(text)) fail("text is not valid UTF-8");
  }

  [[noreturn]] void fail(std::string_view reason) const {
    std::string where;
    for (const Step& step : path_) {
      if (step.array == nullptr) {
        if (!where.empty()) where.push_back('.');
        where.append(step.name);
        continue;
      }
      TPropSize position =
          step.array->get_rank() == 0 ? TPropSize{0} : step.array->get_pos(step.index);
      where.append(step.cell ? fmt::format("{{{}}}", fmt::join(position, ","))
                             : fmt::format("({})", fmt::join(position, ",")));
    }
    if (where.empty()) {
      throw std::runtime_error(fmt::format("Cannot write the property value as JSON: {}.", reason));
    }
    throw std::runtime_error(
        fmt::format("Cannot write the property value at '{}' as JSON: {}.", where, reason));
  }

  Out& out_;
  std::vector<Step> path_;
  std::string scratch_;  // the key of an escaped name
};

}  // namespace

std::string write_json_text(const TProp& value, int indent) {
  TextOut out(indent);
  Writer<TextOut>(out).write(value, 1);
  return out.take();
}

JSON::Value write_json_value(const TProp& value) {
  ValueOut out;
  Writer<ValueOut>(out).write(value, 1);
  return out.take();
}

}  // namespace Tarn::props::internal
