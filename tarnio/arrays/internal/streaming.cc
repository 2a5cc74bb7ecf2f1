#include "tarnio/arrays/internal/streaming.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Tarn::arrays::internal {

void stream_copy(void* dst, const void* src, std::size_t bytes) noexcept {
  auto* to = static_cast<std::byte*>(dst);
  const auto* from = static_cast<const std::byte*>(src);
#if defined(__SSE2__)
  static_assert(kStreamAlignment == sizeof(__m128i));
  for (; bytes >= sizeof(__m128i); bytes -= sizeof(__m128i)) {
    _mm_stream_si128(reinterpret_cast<__m128i*>(to),
                     _mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
    to += sizeof(__m128i);
    from += sizeof(__m128i);
  }
#endif
  std::memcpy(to, from, bytes);
}

void stream_fence() noexcept {
#if defined(__SSE2__)
  _mm_sfence();
#endif
}

void prefetch_next(const void* at, std::size_t bytes, const void* end) noexcept {
  // Addresses as integers: the first may lie past `end`, where no pointer may point.
  const auto first = reinterpret_cast<std::uintptr_t>(at) + bytes;
  const auto last = std::min(first + bytes, reinterpret_cast<std::uintptr_t>(end));
  for (std::uintptr_t line = first; line < last; line += kCacheLine) {
    __builtin_prefetch(reinterpret_cast<const void*>(line), 0, 2);
  }
}

}  // namespace Tarn::arrays::internal
