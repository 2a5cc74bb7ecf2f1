#pragma once

// Equality of property values. TProp::operator== is is_equal with default CompareTraits:
// - kinds and shapes must match exactly (a scalar is not a 1x1 array, int32 5 is not double 5);
// - floating-point elements compare by value, with every NaN equal to every NaN (so that values
//   survive their text forms equal) and 0.0 equal to -0.0;
// - struct members compare by name and value in order;
// - info, ids and user bits are not compared.
// Each relaxation or extra check below is off by default.

#include "tarnio/export.h"
#include "tarnio/props/prop.h"

namespace Tarn::props {

struct CompareTraits {
  // Numbers of different kinds are equal when their values are (int32 5 == double 5.0 ==
  // uint8 5; complex equals real when the imaginary part is 0; logical counts as 0 and 1).
  bool numeric_by_value = false;
  // NaN equals NaN.
  bool nan_equal = true;
  // A scalar equals an array of one element, and shapes that differ only in trailing sizes of
  // 1 are equal (3 equals 3x1).
  bool scalar_equals_single_element = false;
  // Struct members match by name in any order.
  bool ignore_member_order = false;
  // Also compare ids (get_id) and the user bits of arrays.
  bool compare_ids = false;
  // "none" equals "empty" and every array without elements.
  bool empty_kinds_equal = false;
};

TARNIO_EXPORT bool is_equal(const TProp& a, const TProp& b, const CompareTraits& traits = {});

}  // namespace Tarn::props
