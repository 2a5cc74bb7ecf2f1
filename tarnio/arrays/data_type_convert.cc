#include "tarnio/arrays/data_type.h"
#include "tarnio/arrays/internal/converters.h"

namespace internal = Tarn::arrays::internal;

int tarn_dt_convert(DataType src_dt, DataType dst_dt, const void* src, void* dst, std::size_t count,
                    const void* src_imag, void* dst_imag) noexcept {
  return tarn_dt_convert_with_strides(src_dt, dst_dt, src, 1, dst, 1, count, src_imag, dst_imag);
}

int tarn_dt_convert_with_strides(DataType src_dt, DataType dst_dt, const void* src,
                                 std::size_t src_stride, void* dst, std::size_t dst_stride,
                                 std::size_t count, const void* src_imag, void* dst_imag) noexcept {
  if (src_imag != nullptr && dst_imag != nullptr) return -1;
  if (count > 0 && (src == nullptr || dst == nullptr)) return -1;
  if (src_imag != nullptr) {
    const internal::MergeConverter merge = internal::find_merge_converter(src_dt, dst_dt);
    if (merge == nullptr) return -1;
    if (count > 0) merge(src, src_imag, src_stride, dst, dst_stride, count);
  } else if (dst_imag != nullptr) {
    const internal::SplitConverter split = internal::find_split_converter(src_dt, dst_dt);
    if (split == nullptr) return -1;
    if (count > 0) split(src, src_stride, dst, dst_imag, dst_stride, count);
  } else {
    const internal::PlainConverter plain = internal::find_plain_converter(src_dt, dst_dt);
    if (plain == nullptr) return -1;
    if (count > 0) plain(src, src_stride, dst, dst_stride, count);
  }
  return 0;
}
