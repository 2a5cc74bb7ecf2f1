#include "tarnio/props/cast.h"

#include <fmt/format.h>

#include <algorithm>
#include <complex>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tarnio/props/internal/dispatch.h"
#include "tarnio/props/internal/number_text.h"

namespace {

using Tarn::props::internal::append_number;
using Tarn::props::internal::is_complex_element;
using Tarn::props::internal::is_number_code;
using Tarn::props::internal::is_number_element;
using Tarn::props::internal::parse_number;
using Tarn::props::internal::trim_blanks;
using Tarn::props::internal::visit_element;
namespace dt = Tarn::dt;

[[noreturn]] void invalid_cast() { throw std::runtime_error("Invalid cast."); }

[[noreturn]] void not_convertible(std::string_view text) {
  throw std::runtime_error(fmt::format("Could not convert \"{}\" to target type", text));
}

bool is_real_code(DataType code) {
  switch (code) {
    case dt::uint8:
    case dt::int8:
    case dt::uint16:
    case dt::int16:
    case dt::uint32:
    case dt::int32:
    case dt::uint64:
    case dt::int64:
    case dt::single:
    case dt::double_:
      return true;
    default:
      return false;
  }
}

bool is_complex_code(DataType code) { return code == dt::cplx_single || code == dt::cplx_double; }

// Converts one number element between the numeric, complex and logical kinds.
void convert_number(DataType from, const void* source, DataType to, void* target) {
  if (from == dt::logical) {
    const std::uint8_t bit = *static_cast<const bool*>(source) ? 1 : 0;
    convert_number(dt::uint8, &bit, to, target);
  } else if (to == dt::logical) {
    std::complex<double> value;
    convert_number(from, source, dt::cplx_double, &value);
    *static_cast<bool*>(target) = value != std::complex<double>(0, 0);
  } else if (is_complex_code(from) && is_real_code(to)) {
    // The real part; the imaginary part is dropped.
    alignas(16) unsigned char imaginary[16];
    if (tarn_dt_convert(from, to, source, target, 1, nullptr, imaginary) != 0) invalid_cast();
  } else if (tarn_dt_convert(from, to, source, target, 1, nullptr, nullptr) != 0) {
    invalid_cast();
  }
}

template <typename T>
void append_element(std::string& out, const T& value) {
  if constexpr (is_complex_element<T>) {
    append_number(out, value.real());
    out.push_back(' ');
    append_number(out, value.imag());
  } else if constexpr (std::is_same_v<T, _s_tarn_RGB>) {
    out.append(fmt::format("{} {} {}", value.red, value.green, value.blue));
  } else {
    append_number(out, value);
  }
}

// Splits blank-separated words: at most `count` of them, all of them non-empty.
std::vector<std::string_view> words(std::string_view text) {
  std::vector<std::string_view> result;
  while (!(text = trim_blanks(text)).empty()) {
    const auto end = std::min(text.find_first_of(" \t\r\n"), text.size());
    result.push_back(text.substr(0, end));
    text.remove_prefix(end);
  }
  return result;
}

template <typename T>
TProp read_element(const std::string& text) {
  T value{};
  if constexpr (is_complex_element<T>) {
    typename T::value_type parts[2] = {0, 0};
    const auto split = words(text);
    if (split.empty() || split.size() > 2) not_convertible(text);
    for (std::size_t i = 0; i < split.size(); ++i) {
      if (!parse_number(split[i], parts[i])) not_convertible(text);
    }
    value = T(parts[0], parts[1]);
  } else if constexpr (std::is_same_v<T, _s_tarn_RGB>) {
    const auto split = words(text);
    std::uint8_t bytes[3];
    if (split.size() != 3) not_convertible(text);
    for (std::size_t i = 0; i < 3; ++i) {
      if (!parse_number(split[i], bytes[i])) not_convertible(text);
    }
    value = {bytes[0], bytes[1], bytes[2]};
  } else {
    if (!parse_number(trim_blanks(text), value)) not_convertible(text);
  }
  return TProp(value);
}

}  // namespace

void tarn_prop_cast(const TProp& source, void* target, DataType target_type) {
  if (source.is_array()) throw std::runtime_error("Cannot cast from array to scalar.");
  const DataType from = source.type_code();
  if (from == dt::char_) {
    const std::string& text = source.get<TPropstring>().to_utf8();
    if (target_type == dt::char_) {
      static_cast<TPropstring*>(target)->from_utf8(text);
    } else if (is_number_code(target_type) || target_type == dt::rgb || target_type == dt::rgb32) {
      const TProp value = tarn_string2val(text, target_type);
      tarn_prop_cast(value, target, target_type);
    } else {
      invalid_cast();
    }
    return;
  }
  const void* element = source.value_ptr();
  if (is_number_code(from) && is_number_code(target_type)) {
    convert_number(from, element, target_type, target);
  } else if ((from == dt::rgb || from == dt::rgb32) &&
             (target_type == dt::rgb || target_type == dt::rgb32)) {
    if (tarn_dt_convert(from, target_type, element, target, 1, nullptr, nullptr) != 0) {
      invalid_cast();
    }
  } else if (target_type == dt::char_ &&
             (is_number_code(from) || from == dt::rgb || from == dt::rgb32)) {
    static_cast<TPropstring*>(target)->from_utf8(tarn_val2string(source));
  } else {
    invalid_cast();
  }
}

std::string tarn_val2string(const TProp& value) {
  const DataType code = value.type_code();
  if (code == dt::char_) return value.get<TPropstring>().to_utf8();
  std::string text;
  const bool known =
      !value.is_array() && value.value_ptr() != nullptr && visit_element(code, [&](auto tag) {
        using T = typename decltype(tag)::type;
        if constexpr (is_number_element<T> || std::is_same_v<T, _s_tarn_RGB>) {
          append_element(text, *static_cast<const T*>(value.value_ptr()));
        }
      });
  if (!known || text.empty()) throw std::runtime_error("Conversion of unknown type to string.");
  return text;
}

TProp tarn_string2val(const std::string& text, int type) {
  if (type == dt::char_) return TProp(text);
  if (type == dt::rgb32) {
    TProparray<std::uint32_t> colour(TPropSize{}, dt::rgb32);
    if (!parse_number(trim_blanks(text), colour[0])) not_convertible(text);
    return TProp(std::move(colour));
  }
  TProp value;
  const bool known = visit_element(type, [&](auto tag) {
    using T = typename decltype(tag)::type;
    if constexpr (is_number_element<T> || std::is_same_v<T, _s_tarn_RGB>) {
      value = read_element<T>(text);
    }
  });
  if (!known || value.type_code() == dt::none) {
    throw std::runtime_error("Conversion of string to invalid type.");
  }
  return value;
}
