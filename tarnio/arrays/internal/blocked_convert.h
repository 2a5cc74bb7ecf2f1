#pragma once

// convert_blocked: runs a contiguous conversion kernel over strided or large buffers, block by
// block through buffers that stay in the first-level cache. A strided source is gathered into
// a buffer before the kernel sees it, a strided destination scattered from one afterwards, and
// a large contiguous destination written with streaming stores while the source is prefetched,
// so that one vectorised kernel per type pair serves every stride. Thread-safe (no state).

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "tarnio/arrays/internal/streaming.h"

namespace Tarn::arrays::internal {

// Destinations from this size on are streamed past the caches: beyond the last-level caches
// of most machines, and written before being read again.
inline constexpr std::size_t kStreamingThreshold = std::size_t{32} << 20;

// Bytes a block of any one buffer spans at most; all buffers of a call together fit the
// first-level cache.
inline constexpr std::size_t kBlockBytes = 2048;

// Elements per block: a multiple of 64, so that every block of a destination starts as
// aligned as the destination itself.
template <class S, class D>
inline constexpr std::size_t kBlockElements = [] {
  const std::size_t fitting = kBlockBytes / std::max(sizeof(S), sizeof(D));
  return fitting - fitting % 64;
}();

// Calls f(stride) with small strides as compile-time constants, so that the loop f runs can be
// vectorised for them.
template <class F>
void with_stride(std::size_t stride, F f) noexcept {
  switch (stride) {
    case 2:
      return f(std::integral_constant<std::size_t, 2>{});
    case 3:
      return f(std::integral_constant<std::size_t, 3>{});
    case 4:
      return f(std::integral_constant<std::size_t, 4>{});
    default:
      return f(stride);
  }
}

template <class T>
void gather(const T* __restrict src, std::size_t stride, T* __restrict out,
            std::size_t count) noexcept {
  with_stride(stride, [&](auto step) {
    for (std::size_t i = 0; i < count; ++i) out[i] = src[i * step];
  });
}

template <class T>
void scatter(const T* __restrict in, T* __restrict dst, std::size_t stride,
             std::size_t count) noexcept {
  with_stride(stride, [&](auto step) {
    for (std::size_t i = 0; i < count; ++i) dst[i * step] = in[i];
  });
}

// Converts `count` elements from the Ins sources (S, stepping `src_stride`) into the Outs
// destinations (D, stepping `dst_stride`). `kernel(in, out, n)` converts n contiguous elements
// from std::array<const S*, Ins> into std::array<D*, Outs>.
template <class S, class D, std::size_t Ins, std::size_t Outs, class Kernel>
void convert_blocked(const std::array<const S*, Ins>& src, std::size_t src_stride,
                     const std::array<D*, Outs>& dst, std::size_t dst_stride, std::size_t count,
                     Kernel kernel) noexcept {
  const bool stream = dst_stride == 1 && count * sizeof(D) * Outs >= kStreamingThreshold &&
                      std::ranges::all_of(dst, [](D* each) {
                        return reinterpret_cast<std::uintptr_t>(each) % kStreamAlignment == 0;
                      });
  if (src_stride == 1 && dst_stride == 1 && !stream) {
    kernel(src, dst, count);
    return;
  }
  // A source is prefetched a block ahead where it is read densely, unless a small contiguous
  // call may find it in the caches.
  const bool prefetch = (stream || src_stride != 1) && src_stride * sizeof(S) <= kCacheLine;
  std::array<const S*, Ins> src_end;
  for (std::size_t k = 0; k < Ins; ++k) src_end[k] = src[k] + (count - 1) * src_stride + 1;
  const bool write_direct = dst_stride == 1 && !stream;
  constexpr std::size_t block = kBlockElements<S, D>;
  // Raw storage: the buffers are written before they are read, so nothing is constructed.
  alignas(64) std::byte in_storage[Ins][block * sizeof(S)];
  alignas(64) std::byte out_storage[Outs][block * sizeof(D)];
  for (std::size_t done = 0; done < count; done += block) {
    const std::size_t n = std::min(block, count - done);
    std::array<const S*, Ins> in;
    for (std::size_t k = 0; k < Ins; ++k) {
      const S* from = src[k] + done * src_stride;
      if (prefetch) prefetch_next(from, n * src_stride * sizeof(S), src_end[k]);
      if (src_stride == 1) {
        in[k] = from;
      } else {
        auto* buffer = reinterpret_cast<S*>(in_storage[k]);
        gather(from, src_stride, buffer, n);
        in[k] = buffer;
      }
    }
    std::array<D*, Outs> out;
    for (std::size_t k = 0; k < Outs; ++k) {
      out[k] = write_direct ? dst[k] + done : reinterpret_cast<D*>(out_storage[k]);
    }
    kernel(in, out, n);
    for (std::size_t k = 0; k < Outs; ++k) {
      if (stream) {
        stream_copy(dst[k] + done, out[k], n * sizeof(D));
      } else if (dst_stride != 1) {
        scatter(out[k], dst[k] + done * dst_stride, dst_stride, n);
      }
    }
  }
  if (stream) stream_fence();
}

}  // namespace Tarn::arrays::internal
