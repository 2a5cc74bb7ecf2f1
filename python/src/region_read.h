#pragma once

// read_region: the elements of a strided region of a committed file stack, converted into a
// buffer of any element type. Slicing in the Python package reads through this one function.
//
// The region is given in the stack's own axis order (axis 0 fastest); the buffer receives its
// elements in column-major order of the region, so that it is a C-ordered numpy array of the
// region's sizes reversed. Not thread-safe: the caller holds the stack's file for the call.

#include <cstdint>
#include <span>

#include "tarnio/arrays/data_type.h"
#include "tarnio/arrays/region.h"
#include "tarnio/bf/stack_imp.h"

namespace tarnio_python {

// Reads `region` of `stack` into `buffer`, whose size must be the region's elements times
// the size of `buffer_type`. Throws std::invalid_argument "Region does not fit the stack." and
// what StackImp::read throws.
void read_region(Tarn::bf::StackImp& stack, const Tarn::arrays::Region& region,
                 std::span<std::byte> buffer, DataType buffer_type);

}  // namespace tarnio_python
