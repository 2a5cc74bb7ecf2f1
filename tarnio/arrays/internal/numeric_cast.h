#pragma once

// numeric_cast: the plain cast between two of the ten real element types, defined for every
// input so that the converters may vectorise it. Integers narrow to their low bits; a floating
// value going to an integer truncates toward zero, through an int32 for destinations of up to
// 32 bits and through an int64 otherwise, NaN and values outside the intermediate giving its
// minimum (as the x86 truncating conversion does). A uint64 destination also takes values up to
// 2^64 and keeps the low bits of negative values. Between floating types, IEEE rounding applies
// (values beyond float's range become infinities). Pure functions.

#include <cmath>
#include <concepts>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace Tarn::arrays::internal {

// x truncated toward zero; NaN and values outside I give I's minimum.
template <std::signed_integral I, std::floating_point F>
I truncate_to(F x) {
  constexpr F limit = -static_cast<F>(std::numeric_limits<I>::min());  // a power of two
  // -limit itself, and what truncates to it, fail the test but end up at the minimum anyway.
  // One comparison and a select, which the loops around this vectorise.
  return static_cast<I>(std::fabs(x) < limit ? x : -limit);
}

template <std::floating_point F>
std::uint64_t truncate_to_uint64(F x) {
  constexpr F two_to_63 = 0x1p63;
  // [2^63, 2^64) is shifted into the int64 range and the top bit added back afterwards.
  const bool high = (x >= two_to_63) & (x < 2 * two_to_63);
  const std::uint64_t top_bit = high ? std::uint64_t{1} << 63 : 0;
  return static_cast<std::uint64_t>(truncate_to<std::int64_t>(high ? x - two_to_63 : x)) + top_bit;
}

template <class D, class S>
requires std::is_arithmetic_v<D> && std::is_arithmetic_v<S> D numeric_cast(S x) {
  if constexpr (std::floating_point<S> && std::integral<D>) {
    if constexpr (sizeof(D) <= sizeof(std::int32_t)) {
      return static_cast<D>(truncate_to<std::int32_t>(x));
    } else if constexpr (std::is_signed_v<D>) {
      return truncate_to<std::int64_t>(x);
    } else {
      return truncate_to_uint64(x);
    }
  } else {
    return static_cast<D>(x);
  }
}

}  // namespace Tarn::arrays::internal
