#pragma once

// The region copies behind StackImp: the elements of a Region of a contiguous column-major
// stack copied to or from a contiguous buffer in column-major order of the region, converted
// between the two element types by the element converters (tarn_dt_convert_with_strides).
//
// The copy runs as few converter calls as the layout allows: axes of size 1 drop out (a line
// along the slowest axis of a stack is one strided call), axes that lie back to back in both
// the stack and the buffer merge into one run (a whole plane is one call), and when the fastest
// axis left is short the run goes along the longest axis instead. An element copied to its own
// type is copied bit for bit; logical elements, which the converters leave out, travel as uint8
// between logical buffers.
//
// Every check comes before the first byte is written, so a failed call changes nothing.
// Thread-safe (no state); the caller keeps the buffers from overlapping.

#include <cstddef>
#include <cstdint>
#include <span>

#include "tarnio/arrays/data_type.h"
#include "tarnio/arrays/region.h"

namespace Tarn::arrays::internal {

// A contiguous column-major stack as the copies see it: its shape, its element type and the
// first byte of its elements. The caller guarantees that `data` holds every element.
template <class Byte>
struct StackLayout {
  std::span<const std::uint64_t> shape;
  DataType type;
  Byte* data;
};

// Copies the elements of `region` of `stack` into `buffer` as `buffer_type`. With
// `buffer_imag`, a complex stack's real parts go to `buffer` and its imaginary parts to
// `buffer_imag`, both of the real `buffer_type`.
// Throws std::invalid_argument "Region does not fit the stack." when the region leaves the
// stack, "Unsupported conversion from 'FROM' to 'TO'." when the converters have no path (TO
// carries the complex flag when `buffer_imag` is given), and "Null buffer for a non-empty
// region." when a buffer needed is null.
void copy_region_out(const StackLayout<const std::byte>& stack, const Region& region,
                     DataType buffer_type, void* buffer, void* buffer_imag = nullptr);

// Copies `buffer` (laid out as copy_region_out writes it) into the elements of `region` of
// `stack`, converted to the stack's type; nothing outside the region is written. With
// `buffer_imag`, real parts from `buffer` and imaginary parts from `buffer_imag` fill a complex
// stack. Throws as copy_region_out does (FROM carries the complex flag when `buffer_imag` is
// given).
void copy_region_in(const StackLayout<std::byte>& stack, const Region& region, DataType buffer_type,
                    const void* buffer, const void* buffer_imag = nullptr);

}  // namespace Tarn::arrays::internal
