#include "tarnio/props/json.h"

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tarnio/json/read_write.h"
#include "tarnio/props/internal/json_form.h"
#include "tarnio/props/internal/xml_support.h"
#include "tarnio/props/path.h"

namespace Tarn::props::internal {
namespace {

// Member names that start with this prefix carry an object key that is no valid name.
constexpr std::string_view kEscapePrefix = "_-";
constexpr std::string_view kHexDigits = "0123456789ABCDEF";

bool is_name_letter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string nesting_message() {
  return fmt::format("Property JSON nested deeper than {} levels.", kMaxJsonDepth);
}

std::string name_of_key(std::string_view key) {
  if (!key.starts_with(kEscapePrefix) && tarn_prop_is_valid_name(key)) return std::string(key);
  std::string name(kEscapePrefix);
  name.reserve(kEscapePrefix.size() + 3 * key.size());
  for (const char c : key) {
    if (is_name_letter(c)) {
      name.push_back(c);
    } else {
      const auto byte = static_cast<unsigned char>(c);
      name.push_back('-');
      name.push_back(kHexDigits[byte >> 4]);
      name.push_back(kHexDigits[byte & 0xF]);
    }
  }
  return name;
}

bool key_of_name(std::string_view name, std::string& scratch, std::string_view& key) {
  if (!name.starts_with(kEscapePrefix)) {
    key = name;
    return true;
  }
  scratch.clear();
  for (std::size_t at = kEscapePrefix.size(); at < name.size(); ++at) {
    if (name[at] != '-') {
      scratch.push_back(name[at]);
      continue;
    }
    if (name.size() - at < 3) return false;
    const int high = hex_value(name[at + 1]);
    const int low = hex_value(name[at + 2]);
    if (high < 0 || low < 0) return false;
    scratch.push_back(static_cast<char>(high * 16 + low));
    at += 2;
  }
  if (name_of_key(scratch) != name || !is_valid_utf8(scratch)) return false;
  key = scratch;
  return true;
}
bool is_exact_double(std::int64_t value) {
  const auto d = static_cast<double>(value);
  return d < 9223372036854775808.0 && static_cast<std::int64_t>(d) == value;
}
bool is_exact_double(std::uint64_t value) {
  const auto d = static_cast<double>(value);
  return d < 18446744073709551616.0 && static_cast<std::uint64_t>(d) == value;
}

}  // namespace Tarn::props::internal

std::string tarn_export_json(const TProp& value, int indent) {
  return Tarn::props::internal::write_json_text(value, indent);
}

TProp tarn_import_json(const std::string& text) {
  TProp value;
  JSON::get_value(JSON::read(text), value);
  return value;
}

namespace JSON {

void get_value(const Value& json, TProp& value) {
  value = Tarn::props::internal::read_json_tree(json);
}

void set_value(Value& json, const TProp& value) {
  json = Tarn::props::internal::write_json_value(value);
}

}  // namespace JSON
