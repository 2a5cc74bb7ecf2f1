#pragma once

// The text of one numeric element, shared by tarn_val2string, tarn_string2val and the XML forms:
// integers in decimal, floating-point values in the shortest text that reads back to the same
// value, infinities and NaN as "Inf", "-Inf" and "NaN", logical as "1" and "0".

#include <charconv>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>

namespace Tarn::props::internal {

// Appends the text of `value` (an integer, float, double or bool) to `out`.
template <typename T>
void append_number(std::string& out, T value) {
  static_assert(std::is_arithmetic_v<T>);
  if constexpr (std::is_same_v<T, bool>) {
    out.push_back(value ? '1' : '0');
  } else {
    if constexpr (std::is_floating_point_v<T>) {
      if (std::isnan(value)) {
        out.append("NaN");
        return;
      }
      if (std::isinf(value)) {
        out.append(value > 0 ? "Inf" : "-Inf");
        return;
      }
    }
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
    out.append(buffer, result.ptr);
  }
}

// Reads all of `text` (no blanks) as a T; false when it is not one, or out of range for an
// integer. Accepts a leading '+', "Inf", "-Inf" and "NaN" in any letter case, and for bool
// "0", "1", "true" and "false".
template <typename T>
bool parse_number(std::string_view text, T& value) {
  static_assert(std::is_arithmetic_v<T>);
  if constexpr (std::is_same_v<T, bool>) {
    if (text == "1" || text == "true" || text == "TRUE" || text == "True") {
      value = true;
    } else if (text == "0" || text == "false" || text == "FALSE" || text == "False") {
      value = false;
    } else {
      return false;
    }
    return true;
  } else {
    if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
    if (text.empty()) return false;
    const char* end = text.data() + text.size();
    std::from_chars_result result;
    if constexpr (std::is_floating_point_v<T>) {
      // from_chars also reads "inf", "infinity" and "nan" in any case.
      result = std::from_chars(text.data(), end, value, std::chars_format::general);
      // Underflow to 0 or a denormal is a value, not an error.
      if (result.ec == std::errc::result_out_of_range && result.ptr == end) {
        const auto nearest = static_cast<T>(std::strtod(std::string(text).c_str(), nullptr));
        if (std::isinf(nearest)) return false;
        value = nearest;
        return true;
      }
    } else {
      result = std::from_chars(text.data(), end, value);
    }
    return result.ec == std::errc() && result.ptr == end;
  }
}

// Trims blanks (space, tab, CR, LF) from both ends.
inline std::string_view trim_blanks(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

}  // namespace Tarn::props::internal
