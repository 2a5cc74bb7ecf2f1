#pragma once

// DataType, the 32-bit element-type code shared by stacks, stack infos and property values,
// with its named constants, and the plain functions over it: size, name, value type and the
// element converter. Every function is thread-safe and never throws; the name tables behind
// them are built once, on first use, and are read-only afterwards. Returned strings are static.

#include <complex>
#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>
#include <typeinfo>

#include "tarnio/export.h"

// A bit set: one bit per scalar kind, complex_flag for the complex variant of a kind and
// array_flag for an array of it (property values only). 0 is no type at all.
using DataType = std::int32_t;

// The codes by name; a trailing underscore where the name is a keyword.
namespace Tarn::dt {

inline constexpr DataType none = 0x0;
inline constexpr DataType uint8 = 0x1;
inline constexpr DataType int8 = 0x2;
inline constexpr DataType uint16 = 0x4;
inline constexpr DataType int16 = 0x8;
inline constexpr DataType uint32 = 0x10;
inline constexpr DataType int32 = 0x20;
inline constexpr DataType single = 0x40;
inline constexpr DataType double_ = 0x80;
inline constexpr DataType rgb = 0x400;    // _s_tarn_RGB; has no name
inline constexpr DataType rgb32 = 0x800;  // red in bits 0-7, green 8-15, blue 16-23; no name
inline constexpr DataType uint64 = 0x1000;
inline constexpr DataType int64 = 0x2000;
inline constexpr DataType cell = 0x4000;     // a nested property value
inline constexpr DataType struct_ = 0x8000;  // a property structure
inline constexpr DataType logical = 0x10000;
inline constexpr DataType char_ = 0x20000;  // a property string
inline constexpr DataType empty = 0x40000;

inline constexpr DataType complex_flag = 0x40000000;
inline constexpr DataType array_flag = static_cast<DataType>(0x80000000u);
inline constexpr DataType name_mask = 0x7FFFFFFF;  // the code without array_flag

// Of the complex codes only cplx_single and cplx_double have a size; the others are names.
inline constexpr DataType cplx_uint8 = complex_flag | uint8;
inline constexpr DataType cplx_int8 = complex_flag | int8;
inline constexpr DataType cplx_uint16 = complex_flag | uint16;
inline constexpr DataType cplx_int16 = complex_flag | int16;
inline constexpr DataType cplx_uint32 = complex_flag | uint32;
inline constexpr DataType cplx_int32 = complex_flag | int32;
inline constexpr DataType cplx_single = complex_flag | single;
inline constexpr DataType cplx_double = complex_flag | double_;
inline constexpr DataType cplx_uint64 = complex_flag | uint64;
inline constexpr DataType cplx_int64 = complex_flag | int64;
inline constexpr DataType cplx_logical = complex_flag | logical;

}  // namespace Tarn::dt

// One element of type Tarn::dt::rgb.
struct _s_tarn_RGB {
  std::uint8_t red;
  std::uint8_t green;
  std::uint8_t blue;
};
static_assert(sizeof(_s_tarn_RGB) == 3);

extern "C" {

// The size of one element in bytes; 0 for codes without storage, array codes and unknown codes.
TARNIO_EXPORT std::size_t tarn_dt_get_size(DataType dt) noexcept;
// The name of the code without its array flag; "none" for codes without a name.
TARNIO_EXPORT const char* tarn_dt_get_name(DataType dt) noexcept;
// The code whose name equals `name` byte for byte; 0 for none (and for null).
TARNIO_EXPORT DataType tarn_dt_from_name(const char* name) noexcept;

// Converts `count` elements of src_dt at `src` into dst_dt at `dst`, each as a plain cast:
// integers narrow to their low bits, floating values truncate toward zero (into an int32
// first for integer destinations of up to 32 bits; out of range and NaN give the intermediate's
// minimum), real values become complex values with imaginary part 0.
// Modes: with both imaginary pointers null, a real source converts to a real or complex
// destination, a complex source to a complex destination, RGB and RGB32 to each other. With
// `src_imag`, the real parts at `src` and the imaginary parts at `src_imag` (both src_dt, a real
// code) merge into a complex dst_dt. With `dst_imag`, a complex source splits into real parts
// at `dst` and imaginary parts at `dst_imag` (both dst_dt, a real code).
// Returns 0, or -1 with nothing written for an unsupported combination or when both imaginary
// pointers are given. Buffers must not overlap; null buffers give -1 unless `count` is 0.
// Destinations of 32 MiB and more are written past the caches.
TARNIO_EXPORT int tarn_dt_convert(DataType src_dt, DataType dst_dt, const void* src, void* dst,
                                  std::size_t count, const void* src_imag, void* dst_imag) noexcept;
// As tarn_dt_convert, stepping `src_stride` elements of src_dt through the source and
// `dst_stride` elements of dst_dt through the destination; an imaginary buffer steps as the
// buffer it accompanies.
TARNIO_EXPORT int tarn_dt_convert_with_strides(DataType src_dt, DataType dst_dt, const void* src,
                                               std::size_t src_stride, void* dst,
                                               std::size_t dst_stride, std::size_t count,
                                               const void* src_imag, void* dst_imag) noexcept;
}

// The value type of one element (std::complex<float> for cplx_single, _s_tarn_RGB for rgb,
// std::uint32_t for rgb32); void for codes without one and for unknown codes.
TARNIO_EXPORT const std::type_info& tarn_dt_get_type(DataType dt) noexcept;

namespace Tarn::arrays {

// The type code of an element value type: std::uint16_t -> uint16, std::complex<float> ->
// cplx_single, bool -> logical, _s_tarn_RGB -> rgb. std::uint32_t stands for uint32; RGB32
// elements, stored as std::uint32_t too, take Tarn::dt::rgb32 explicitly.
template <typename T>
constexpr DataType data_type_of() {
  if constexpr (std::is_same_v<T, std::uint8_t>)
    return dt::uint8;
  else if constexpr (std::is_same_v<T, std::int8_t>)
    return dt::int8;
  else if constexpr (std::is_same_v<T, std::uint16_t>)
    return dt::uint16;
  else if constexpr (std::is_same_v<T, std::int16_t>)
    return dt::int16;
  else if constexpr (std::is_same_v<T, std::uint32_t>)
    return dt::uint32;
  else if constexpr (std::is_same_v<T, std::int32_t>)
    return dt::int32;
  else if constexpr (std::is_same_v<T, std::uint64_t>)
    return dt::uint64;
  else if constexpr (std::is_same_v<T, std::int64_t>)
    return dt::int64;
  else if constexpr (std::is_same_v<T, float>)
    return dt::single;
  else if constexpr (std::is_same_v<T, double>)
    return dt::double_;
  else if constexpr (std::is_same_v<T, std::complex<float>>)
    return dt::cplx_single;
  else if constexpr (std::is_same_v<T, std::complex<double>>)
    return dt::cplx_double;
  else if constexpr (std::is_same_v<T, bool>)
    return dt::logical;
  else if constexpr (std::is_same_v<T, _s_tarn_RGB>)
    return dt::rgb;
  else
    static_assert(sizeof(T) == 0, "not an element value type");
}

// Every code of the type table, ascending.
TARNIO_EXPORT std::span<const DataType> all_data_types() noexcept;
// The value type of a code of the table in a few words ("unsigned 8-bit integer");
// "unknown" for other codes.
TARNIO_EXPORT const char* data_type_description(DataType dt) noexcept;

}  // namespace Tarn::arrays
