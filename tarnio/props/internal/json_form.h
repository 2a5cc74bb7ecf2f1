#pragma once

// What the reader and the writer of the JSON form of property values share: the keys of a
// tagged value, the names of the kinds in "#type", the nesting limit, and the escaping of object
// keys that are no valid member names. The reader (json_reader.cc) makes a tree of a JSON value,
// the writer (json_writer.cc) writes a tree as JSON text or as a JSON value.

#include <complex>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "tarnio/arrays/data_type.h"
#include "tarnio/json/value.h"
#include "tarnio/props/internal/kind_names.h"
#include "tarnio/props/prop.h"
#include "tarnio/props/xml.h"

namespace Tarn::props::internal {

inline constexpr std::string_view kTypeKey = "#type";
inline constexpr std::string_view kSizeKey = "#size";
inline constexpr std::string_view kDataKey = "#data";
inline constexpr std::string_view kIdKey = "#id";
inline constexpr std::string_view kBitsKey = "#bits";

inline constexpr int kMaxJsonDepth = kMaxXmlDepth;

// The message of a value nested deeper than kMaxJsonDepth levels.
std::string nesting_message();

// The member name of an object key: the key itself when it is a valid name that does not start
// with the escape prefix "_-"; otherwise the prefix followed by the key with every byte other
// than a letter, digit or '_' written as '-' and two upper-case hex digits ("my key" is
// "_-my-20key", "" is "_-").
std::string name_of_key(std::string_view key);

// The object key of a member name, the inverse of name_of_key, in `key` (which may point into
// `scratch`). False for an escaped name that name_of_key does not make.
bool key_of_name(std::string_view name, std::string& scratch, std::string_view& key);

// Whether a double holds the integer exactly.
bool is_exact_double(std::int64_t value);
bool is_exact_double(std::uint64_t value);

// The tree a JSON value describes; std::runtime_error located by a JSON Pointer when it is no
// valid form.
TProp read_json_tree(const JSON::Value& json);

// The JSON form of a tree as text (indent as JSON::write takes it) and as a JSON value;
// std::runtime_error located by a property path for a value without one.
std::string write_json_text(const TProp& value, int indent);
JSON::Value write_json_value(const TProp& value);

}  // namespace Tarn::props::internal
