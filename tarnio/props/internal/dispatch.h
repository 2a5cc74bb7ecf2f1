#pragma once

// visit_element: calls a generic function with the element class of a type code, so that code
// over property arrays is written once for every kind.

#include <complex>
#include <cstdint>

#include "tarnio/arrays/data_type.h"
#include "tarnio/props/prop.h"

namespace Tarn::props::internal {

template <typename T>
struct type_tag {
  using type = T;
};

// Calls f(type_tag<T>{}) with the element class of `element` (a code without the array flag;
// RGB32 gives std::uint32_t) and returns true; returns false for codes without one.
template <typename F>
bool visit_element(DataType element, F&& f) {
  switch (element) {
    case dt::uint8:
      f(type_tag<std::uint8_t>{});
      return true;
    case dt::int8:
      f(type_tag<std::int8_t>{});
      return true;
    case dt::uint16:
      f(type_tag<std::uint16_t>{});
      return true;
    case dt::int16:
      f(type_tag<std::int16_t>{});
      return true;
    case dt::uint32:
      f(type_tag<std::uint32_t>{});
      return true;
    case dt::int32:
      f(type_tag<std::int32_t>{});
      return true;
    case dt::uint64:
      f(type_tag<std::uint64_t>{});
      return true;
    case dt::int64:
      f(type_tag<std::int64_t>{});
      return true;
    case dt::single:
      f(type_tag<float>{});
      return true;
    case dt::double_:
      f(type_tag<double>{});
      return true;
    case dt::cplx_single:
      f(type_tag<std::complex<float>>{});
      return true;
    case dt::cplx_double:
      f(type_tag<std::complex<double>>{});
      return true;
    case dt::logical:
      f(type_tag<bool>{});
      return true;
    case dt::rgb:
      f(type_tag<_s_tarn_RGB>{});
      return true;
    case dt::rgb32:
      f(type_tag<std::uint32_t>{});
      return true;
    case dt::cell:
      f(type_tag<TProp>{});
      return true;
    case dt::struct_:
      f(type_tag<TPropstruct>{});
      return true;
    case dt::char_:
      f(type_tag<TPropstring>{});
      return true;
    default:
      return false;
  }
}

// The complex element classes.
template <typename T>
inline constexpr bool is_complex_element =
    std::is_same_v<T, std::complex<float>> || std::is_same_v<T, std::complex<double>>;

// The element classes that are numbers (integers, floating point, complex, logical).
template <typename T>
inline constexpr bool is_number_element = std::is_arithmetic_v<T> || is_complex_element<T>;

// Whether a code (without the array flag) is a number kind: the ten real kinds, the two complex
// ones and logical. RGB32, though held as std::uint32_t, is a colour.
inline bool is_number_code(DataType code) {
  bool number = false;
  visit_element(code, [&](auto tag) { number = is_number_element<typename decltype(tag)::type>; });
  return number && code != dt::rgb32;
}

}  // namespace Tarn::props::internal
