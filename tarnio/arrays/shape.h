#pragma once

// The shape arithmetic shared by stack infos, regions and stacks: the number of elements of a
// shape, checked against 64-bit overflow, and the column-major strides (index 0 varies fastest).

#include <cstdint>
#include <span>
#include <vector>

#include "tarnio/export.h"

namespace Tarn::arrays {

// The product of the sizes: 0 for an empty shape and for any shape containing 0. Throws
// std::runtime_error "The product exceeds the maximum size." when it overflows 64 bits.
TARNIO_EXPORT std::uint64_t number_of_elements(std::span<const std::uint64_t> shape);

// The distance in elements between neighbours along each axis of a contiguous column-major
// stack of `shape`: 1, shape[0], shape[0] * shape[1], ... Throws as number_of_elements does.
TARNIO_EXPORT std::vector<std::uint64_t> column_major_strides(std::span<const std::uint64_t> shape);

}  // namespace Tarn::arrays
