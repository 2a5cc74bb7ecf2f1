#pragma once

// Tarn::bf::FlushPoint: a point of a compressed stack's zlib stream where a new flush block
// starts: the bytes before it inflate to the plain bytes before `plain_offset`, and inflating
// can start at `stored_offset` (from the start of the stack's data) without anything earlier.
// The flush points of a stack let a reader inflate only the blocks that a range of samples
// touches, and on several threads at once.

#include <compare>
#include <cstdint>

namespace Tarn::bf {

struct FlushPoint {
  std::uint64_t plain_offset = 0;
  std::uint64_t stored_offset = 0;

  friend auto operator<=>(const FlushPoint&, const FlushPoint&) = default;
};

}  // namespace Tarn::bf
