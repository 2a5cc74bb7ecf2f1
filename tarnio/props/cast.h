#pragma once

// Casts and the one-line text form of property values.
//
// Text form of one scalar, shared with the XML forms: integers in decimal; floating-point values
// in the shortest text that reads back to the same value ("0.1", "1e+300"), with "Inf", "-Inf"
// and "NaN"; logical as "1" and "0" (reading also "true" and "false"); complex as the real and
// imaginary parts separated by one space; RGB as three decimal bytes separated by spaces; char
// as its text.

#include <string>

#include "tarnio/arrays/data_type.h"
#include "tarnio/export.h"
#include "tarnio/props/prop.h"

// Writes `source` converted to `target_type` at `target`, which points to an element of that
// type (a TPropstring for "char"). Numeric kinds, logical and the complex kinds convert to each
// other as the element converter casts (complex to real drops the imaginary part; to logical,
// non-zero is true); a numeric scalar converts to "char" as its text and a "char" to a numeric
// kind by reading its text. Throws std::runtime_error "Cannot cast from array to scalar." for an
// array source (whatever its element count) and "Invalid cast." for any other combination.
TARNIO_EXPORT void tarn_prop_cast(const TProp& source, void* target, DataType target_type);

// The text form of a scalar (a string as its text); "Conversion of unknown type to string." for
// "none", "empty", arrays, structs and cells.
TARNIO_EXPORT std::string tarn_val2string(const TProp& value);
// The scalar of `type` whose text form is `text` (leading and trailing blanks allowed for
// numbers); "Conversion of string to invalid type." for types without a scalar text form, and
// "Could not convert \"text\" to target type" for text that is not one.
TARNIO_EXPORT TProp tarn_string2val(const std::string& text, int type);

template <typename T>
T TProp::as() const {
  T result{};
  if constexpr (std::is_same_v<T, std::string>) {
    TPropstring text;
    tarn_prop_cast(*this, &text, Tarn::dt::char_);
    result = text.to_utf8();
  } else {
    tarn_prop_cast(*this, &result, Tarn::props::element_code_of<T>());
  }
  return result;
}
