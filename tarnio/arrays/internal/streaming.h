#pragma once

// Memory access for runs too large for the caches: stores that bypass them, as memcpy does for
// large copies, and prefetches of what a loop reads next. Non-temporal stores where the target
// has them (x86 with SSE2), ordinary copies elsewhere. Thread-safe (no state).

#include <cstddef>

namespace Tarn::arrays::internal {

inline constexpr std::size_t kCacheLine = 64;

// Streaming stores need a destination aligned to this many bytes.
inline constexpr std::size_t kStreamAlignment = 16;

// Copies `bytes` from `src` to `dst` (aligned to kStreamAlignment) past the caches. The stores
// are weakly ordered until stream_fence().
void stream_copy(void* dst, const void* src, std::size_t bytes) noexcept;
void stream_fence() noexcept;

// Asks for the cache lines of the `bytes` that follow the `bytes` at `at` (the next block of a
// loop that reads `bytes` at a time), as far as they lie before `end`.
void prefetch_next(const void* at, std::size_t bytes, const void* end) noexcept;

}  // namespace Tarn::arrays::internal
