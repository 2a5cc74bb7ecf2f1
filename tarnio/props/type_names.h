#pragma once

// The process-wide name table of property type codes, filled once in this order: "logical",
// "cplx_logical", then for uint8, uint16, uint32, uint64, int8, int16, int32, int64, single and
// double the plain and the complex name, then "empty", "cell", "struct", "char", "none".
// Lookups ignore the array flag. Thread-safe.

#include <string>
#include <utility>
#include <vector>

#include "tarnio/arrays/data_type.h"
#include "tarnio/export.h"

namespace Tarn::props {

// The name of a code; std::runtime_error "Map entry not found and no default specified." for a
// code the table does not hold.
TARNIO_EXPORT const std::string& type_name(DataType code);
// The name of a code, or `fallback` for a code the table does not hold.
TARNIO_EXPORT const std::string& type_name(DataType code, const std::string& fallback);
// The table in its order.
TARNIO_EXPORT const std::vector<std::pair<DataType, std::string>>& type_names();

}  // namespace Tarn::props
