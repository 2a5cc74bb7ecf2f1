#pragma once

// The element converters behind tarn_dt_convert: one typed loop per supported pair of codes
// and mode, looked up once per call in tables fixed at compile time. Strides count elements of
// the respective type; an imaginary buffer steps as the buffer it accompanies. The buffers must
// not overlap. Thread-safe (no state).

#include <cstddef>

#include "tarnio/arrays/data_type.h"

namespace Tarn::arrays::internal {

using PlainConverter = void (*)(const void* src, std::size_t src_stride, void* dst,
                                std::size_t dst_stride, std::size_t count) noexcept;
// Real parts at `src_real` and imaginary parts at `src_imag` into complex elements.
using MergeConverter = void (*)(const void* src_real, const void* src_imag, std::size_t src_stride,
                                void* dst, std::size_t dst_stride, std::size_t count) noexcept;
// Complex elements into real parts at `dst_real` and imaginary parts at `dst_imag`.
using SplitConverter = void (*)(const void* src, std::size_t src_stride, void* dst_real,
                                void* dst_imag, std::size_t dst_stride, std::size_t count) noexcept;

// Each returns null when the pair is not supported in its mode.
PlainConverter find_plain_converter(DataType src_dt, DataType dst_dt) noexcept;
MergeConverter find_merge_converter(DataType src_dt, DataType dst_dt) noexcept;
SplitConverter find_split_converter(DataType src_dt, DataType dst_dt) noexcept;

}  // namespace Tarn::arrays::internal
