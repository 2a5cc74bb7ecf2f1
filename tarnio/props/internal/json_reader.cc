// The reader of the JSON form of property values: the tree a JSON value describes, plain JSON
// or tagged values.

#include <fmt/format.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "tarnio/json/read_write.h"
#include "tarnio/props/internal/dispatch.h"
#include "tarnio/props/internal/json_form.h"
#include "tarnio/props/path.h"

namespace Tarn::props::internal {
namespace {

// The double a plain number imports as; false for an integer that no double holds exactly.
bool plain_double(const JSON::Value& number, double& d) {
  if (number.is_double()) {
    d = number.get_double();
    return true;
  }
  if (number.is_int64()) {
    const std::int64_t value = number.get_int64();
    d = static_cast<double>(value);
    return is_exact_double(value);
  }
  const std::uint64_t value = number.get_uint64();
  d = static_cast<double>(value);
  return is_exact_double(value);
}

bool is_plain_double(const JSON::Value& json) {
  double ignored = 0;
  return json.is_number() && plain_double(json, ignored);
}

bool is_tagged(const JSON::Value& json) { return json.is_object() && json.contains(kTypeKey); }
bool is_plain_object(const JSON::Value& json) { return json.is_object() && !is_tagged(json); }

// What a plain list imports as.
enum class ListKind { doubles, logicals, strings, structs, cells };

ListKind list_kind(std::span<const JSON::Value> items) {
  const auto all = [&](bool (*test)(const JSON::Value&)) {
    for (const JSON::Value& item : items) {
      if (!test(item)) return false;
    }
    return true;
  };
  if (items.empty()) return ListKind::doubles;
  if (all(is_plain_double)) return ListKind::doubles;
  if (all([](const JSON::Value& item) { return item.is_bool(); })) return ListKind::logicals;
  if (all([](const JSON::Value& item) { return item.is_string(); })) return ListKind::strings;
  if (all(is_plain_object)) return ListKind::structs;
  return ListKind::cells;
}

// The reason why one element of a tagged value is malformed; located by the caller.
struct BadElement {
  std::string reason;
};

template <typename... Args>
[[noreturn]] void bad_element(fmt::format_string<Args...> format, Args&&... args) {
  throw BadElement{fmt::format(format, std::forward<Args>(args)...)};
}

const char* kind_of(const JSON::Value& json) { return JSON::kind_name(json.kind()); }

double read_float(const JSON::Value& json, std::string_view kind) {
  if (json.is_number()) return json.get_double();
  if (json.is_string()) {
    const std::string_view text = json.get_string();
    if (text == "NaN") return std::numeric_limits<double>::quiet_NaN();
    if (text == "Inf") return std::numeric_limits<double>::infinity();
    if (text == "-Inf") return -std::numeric_limits<double>::infinity();
  }
  bad_element(R"(Expected a number, "NaN", "Inf" or "-Inf" for '{}', found {}.)", kind,
              json.is_string() ? JSON::write(json) : kind_of(json));
}

float read_float32(const JSON::Value& json, std::string_view kind) {
  const double value = read_float(json, kind);
  // Doubles up to half a float step above the largest float round to it.
  constexpr double kLimit = 3.4028235677973366e38;
  if (std::isfinite(value) && std::fabs(value) >= kLimit) {
    bad_element("Number {} does not fit '{}'.", JSON::write(json), kind);
  }
  if (std::fabs(value) > std::numeric_limits<float>::max() && std::isfinite(value)) {
    return std::copysign(std::numeric_limits<float>::max(), static_cast<float>(value));
  }
  return static_cast<float>(value);
}

template <typename I>
I read_integer(const JSON::Value& json, std::string_view kind) {
  if (!json.is_number())
    bad_element("Expected an integer for '{}', found {}.", kind, kind_of(json));
  if (json.is_int64()) {
    const std::int64_t value = json.get_int64();
    if (std::in_range<I>(value)) return static_cast<I>(value);
  } else if (json.is_uint64()) {
    const std::uint64_t value = json.get_uint64();
    if (std::in_range<I>(value)) return static_cast<I>(value);
  } else {
    const double value = json.get_double();
    if (std::trunc(value) == value && value >= -9223372036854775808.0 &&
        value < 18446744073709551616.0) {
      if (value < 0) {
        const auto integer = static_cast<std::int64_t>(value);
        if (std::in_range<I>(integer)) return static_cast<I>(integer);
      } else {
        const auto integer = static_cast<std::uint64_t>(value);
        if (std::in_range<I>(integer)) return static_cast<I>(integer);
      }
    }
  }
  bad_element("Number {} does not fit '{}'.", JSON::write(json), kind);
}

template <typename T>
T read_element(const JSON::Value& json, std::string_view kind) {
  if constexpr (std::is_same_v<T, bool>) {
    if (!json.is_bool())
      bad_element("Expected true or false for '{}', found {}.", kind, kind_of(json));
    return json.get_bool();
  } else if constexpr (std::is_same_v<T, double>) {
    return read_float(json, kind);
  } else if constexpr (std::is_same_v<T, float>) {
    return read_float32(json, kind);
  } else if constexpr (is_complex_element<T>) {
    if (!json.is_list() || json.size() != 2) {
      bad_element("Expected a list of two numbers (real, imaginary) for '{}', found {}.", kind,
                  json.is_list() ? "a list of " + std::to_string(json.size()) : kind_of(json));
    }
    using Part = typename T::value_type;
    return T(read_element<Part>(json.at(0), kind), read_element<Part>(json.at(1), kind));
  } else if constexpr (std::is_same_v<T, _s_tarn_RGB>) {
    if (!json.is_list() || json.size() != 3) {
      bad_element("Expected a list of three integers (red, green, blue) for '{}', found {}.", kind,
                  json.is_list() ? "a list of " + std::to_string(json.size()) : kind_of(json));
    }
    return {read_integer<std::uint8_t>(json.at(0), kind),
            read_integer<std::uint8_t>(json.at(1), kind),
            read_integer<std::uint8_t>(json.at(2), kind)};
  } else if constexpr (std::is_same_v<T, TPropstring>) {
    if (!json.is_string())
      bad_element("Expected a string for '{}', found {}.", kind, kind_of(json));
    return TPropstring(std::string(json.get_string()));
  } else {
    return read_integer<T>(json, kind);
  }
}

// Adds a member to a struct that does not hold its name yet.
void append_member(TPropstruct& members, std::string name, TProp value) {
  members.set(name, std::move(value));
}

// The tree a JSON value describes. Failures are std::runtime_error located by a JSON Pointer.
class Reader {
 public:
  TProp read(const JSON::Value& json, int depth) {
    if (depth > kMaxJsonDepth) throw std::runtime_error(nesting_message());
    switch (json.kind()) {
      case JSON::Kind::null:
        return TProp(TPropempty{});
      case JSON::Kind::boolean:
        return TProp(json.get_bool());
      case JSON::Kind::number:
        return read_number(json);
      case JSON::Kind::string:
        return TProp(TPropstring(std::string(json.get_string())));
      case JSON::Kind::list:
        return read_list(json, depth);
      case JSON::Kind::object:
        break;
    }
    if (is_tagged(json)) return read_tagged(json, depth);
    TPropstruct members;
    read_struct(json, members, true, depth);
    return TProp(std::move(members));
  }

 private:
  // One step of the path to the value being read: an object key or a list index.
  struct Step {
    std::string_view key;
    std::size_t index = 0;
    bool is_index = false;
  };

  // A number is a double, unless it is an integer that no double holds: then it is an int64,
  // or a uint64 beyond the int64 range.
  static TProp read_number(const JSON::Value& json) {
    double value = 0;
    if (plain_double(json, value)) return TProp(value);
    if (json.is_int64()) return TProp(json.get_int64());
    const std::uint64_t integer = json.get_uint64();
    if (std::in_range<std::int64_t>(integer)) return TProp(static_cast<std::int64_t>(integer));
    return TProp(integer);
  }

  TProp read_list(const JSON::Value& json, int depth) {
    const std::span<const JSON::Value> items = json.items();
    const TPropSize shape{items.size()};
    switch (list_kind(items)) {
      case ListKind::doubles: {
        TProparray<double> array(shape);
        double* out = array.data();
        for (const JSON::Value& item : items) plain_double(item, *out++);
        return TProp(std::move(array));
      }
      case ListKind::logicals: {
        TProparray<bool> array(shape);
        for (std::size_t i = 0; i < items.size(); ++i) array[i] = items[i].get_bool();
        return TProp(std::move(array));
      }
      case ListKind::strings: {
        TProparray<TPropstring> array(shape);
        for (std::size_t i = 0; i < items.size(); ++i) {
          array[i] = TPropstring(std::string(items[i].get_string()));
        }
        return TProp(std::move(array));
      }
      case ListKind::structs: {
        TProparray<TPropstruct> array(shape);
        for (std::size_t i = 0; i < items.size(); ++i) {
          path_.push_back({{}, i, true});
          read_struct(items[i], array[i], true, depth);
          path_.pop_back();
        }
        return TProp(std::move(array));
      }
      case ListKind::cells:
        break;
    }
    TProparray<TProp> array(shape);
    for (std::size_t i = 0; i < items.size(); ++i) {
      path_.push_back({{}, i, true});
      array[i] = read(items[i], depth + 1);
      path_.pop_back();
    }
    return TProp(std::move(array));
  }

  // The members of an object, at depth + 1: named by name_of_key when `plain`, else by the keys
  // themselves, which must be valid names.
  void read_struct(const JSON::Value& json, TPropstruct& members, bool plain, int depth) {
    if (!json.is_object()) fail("Expected an object for 'struct', found {}.", kind_of(json));
    members.reserve(json.size());
    for (const JSON::Member& member : json.members()) {
      path_.push_back({member.key()});
      std::string name;
      if (plain) {
        name = name_of_key(member.key());
      } else if (tarn_prop_is_valid_name(member.key())) {
        name = member.key();
      } else {
        fail("Invalid struct member name '{}'.", member.key());
      }
      append_member(members, std::move(name), read(member.value(), depth + 1));
      path_.pop_back();
    }
  }

  TProp read_tagged(const JSON::Value& json, int depth) {
    const JSON::Value* type = nullptr;
    const JSON::Value* size = nullptr;
    const JSON::Value* data = nullptr;
    const JSON::Value* id = nullptr;
    const JSON::Value* bits = nullptr;
    for (const JSON::Member& member : json.members()) {
      const std::string_view key = member.key();
      const JSON::Value* const value = &member.value();
      if (key == kTypeKey) {
        type = value;
      } else if (key == kSizeKey) {
        size = value;
      } else if (key == kDataKey) {
        data = value;
      } else if (key == kIdKey) {
        id = value;
      } else if (key == kBitsKey) {
        bits = value;
      } else {
        fail("Unknown key '{}' in a tagged value.", key);
      }
    }
    if (!type->is_string()) fail("'#type' must be a string, found {}.", kind_of(*type));
    const std::string_view name = type->get_string();
    const std::optional<DataType> kind = kind_of_name(name);
    if (!kind) fail("Unknown type '{}'.", name);

    TProp result;
    if (*kind == dt::none || *kind == dt::empty) {
      for (const auto& [key, value] :
           {std::pair{kSizeKey, size}, std::pair{kDataKey, data}, std::pair{kBitsKey, bits}}) {
        if (value != nullptr) fail("'{}' does not belong to type '{}'.", key, name);
      }
      if (*kind == dt::empty) result = TProp(TPropempty{});
    } else {
      if (data == nullptr) fail("Missing '#data' for type '{}'.", name);
      TPropSize shape;
      if (size != nullptr) shape = read_shape(*size, *data);
      visit_element(*kind, [&](auto tag) {
        using T = typename decltype(tag)::type;
        path_.push_back({kDataKey});
        result = size != nullptr ? read_array<T>(*data, shape, *kind, name, depth)
                                 : read_single<T>(*data, *kind, name, depth);
        path_.pop_back();
      });
    }
    if (bits != nullptr) {
      TProparrayBase* array = result.content() != nullptr ? result.content()->array() : nullptr;
      if (array == nullptr) fail("'#bits' does not belong to a single '{}'.", name);
      array->set_user_bits(read_field<std::uint32_t>(*bits, kBitsKey, "an unsigned 32-bit"));
    }
    if (id != nullptr) result.set_id(read_field<std::int64_t>(*id, kIdKey, "a signed 64-bit"));
    return result;
  }

  template <typename I>
  I read_field(const JSON::Value& json, std::string_view key, std::string_view what) {
    try {
      return read_integer<I>(json, key);
    } catch (const BadElement&) {
      fail("'{}' must be {} integer, found {}.", key, what, JSON::write(json));
    }
  }

  // The shape of "#size", checked against the number of items in "#data" before anything is
  // allocated.
  TPropSize read_shape(const JSON::Value& size, const JSON::Value& data) {
    const bool listed = size.is_list() && !size.empty();
    TPropSize shape;
    if (listed) {
      shape.reserve(size.size());
      for (const JSON::Value& extent : size.items()) {
        if (extent.is_int64() && extent.get_int64() >= 0) {
          shape.push_back(static_cast<std::uint64_t>(extent.get_int64()));
        } else if (extent.is_uint64()) {
          shape.push_back(extent.get_uint64());
        } else {
          shape.clear();
          break;
        }
      }
    }
    if (shape.empty()) {
      fail("'#size' must be a non-empty list of non-negative integers, found {}.",
           JSON::write(size));
    }
    // The limits of TProparrayBase::size.
    std::uint64_t count = 1;
    bool addressable = true;
    for (const std::uint64_t extent : shape) {
      if (extent != 0 && count > std::numeric_limits<std::uint64_t>::max() / extent) {
        addressable = false;
        break;
      }
      count *= extent;
    }
    if (!addressable || count > std::numeric_limits<std::size_t>::max() / 64) {
      fail("'#size' {} holds more elements than can be addressed.", JSON::write(size));
    }
    if (!data.is_list()) fail("'#data' of an array must be a list, found {}.", kind_of(data));
    if (count != data.size()) {
      fail("'#size' {} holds {} elements but '#data' holds {}.", JSON::write(size), count,
           data.size());
    }
    return shape;
  }

  template <typename T>
  TProp read_single(const JSON::Value& data, DataType code, std::string_view name, int depth) {
    if constexpr (std::is_same_v<T, TPropstruct>) {
      TPropstruct members;
      read_struct(data, members, false, depth);
      return TProp(std::move(members));
    } else if constexpr (std::is_same_v<T, TPropstring>) {
      return TProp(read_located<TPropstring>(data, name));
    } else if constexpr (std::is_same_v<T, TProp>) {
      TProparray<TProp> array(TPropSize{});
      array[0] = read(data, depth + 1);
      return TProp(std::move(array));
    } else {
      TProparray<T> array(TPropSize{}, code);
      array[0] = read_located<T>(data, name);
      return TProp(std::move(array));
    }
  }

  template <typename T>
  TProp read_array(const JSON::Value& data, const TPropSize& shape, DataType code,
                   std::string_view name, int depth) {
    TProparray<T> array(shape, code);
    const std::span<const JSON::Value> items = data.items();
    for (std::size_t i = 0; i < items.size(); ++i) {
      if constexpr (std::is_same_v<T, TPropstruct>) {
        path_.push_back({{}, i, true});
        read_struct(items[i], array[i], false, depth);
        path_.pop_back();
      } else if constexpr (std::is_same_v<T, TProp>) {
        path_.push_back({{}, i, true});
        array[i] = read(items[i], depth + 1);
        path_.pop_back();
      } else {
        try {
          array[i] = read_element<T>(items[i], name);
        } catch (const BadElement& error) {
          path_.push_back({{}, i, true});
          fail_with(error.reason);
        }
      }
    }
    return TProp(std::move(array));
  }

  template <typename T>
  T read_located(const JSON::Value& json, std::string_view name) {
    try {
      return read_element<T>(json, name);
    } catch (const BadElement& error) {
      fail_with(error.reason);
    }
  }

  template <typename... Args>
  [[noreturn]] void fail(fmt::format_string<Args...> format, Args&&... args) const {
    fail_with(fmt::format(format, std::forward<Args>(args)...));
  }

  [[noreturn]] void fail_with(const std::string& reason) const {
    if (path_.empty()) throw std::runtime_error("Invalid property JSON: " + reason);
    std::string pointer;
    for (const Step& step : path_) {
      pointer.push_back('/');
      if (step.is_index) {
        pointer.append(std::to_string(step.index));
        continue;
      }
      for (const char c : step.key) {
        if (c == '~') {
          pointer.append("~0");
        } else if (c == '/') {
          pointer.append("~1");
        } else {
          pointer.push_back(c);
        }
      }
    }
    throw std::runtime_error(fmt::format("Invalid property JSON at '{}': {}", pointer, reason));
  }

  std::vector<Step> path_;
};

}  // namespace

TProp read_json_tree(const JSON::Value& json) { return Reader().read(json, 1); }

}  // namespace Tarn::props::internal
