#pragma once

// Shortest text of a double that reads back as the same double, exactly as std::to_chars
// writes it (fixed or exponent form, whichever is shorter). Measurement metadata is mostly short
// decimals (0.065, 12.5, 1.25); those take an exact fast path of a few multiplications instead
// of the general algorithm, which matters when a document holds hundreds of thousands of them.
// Thread-safe.

#include <cstddef>

namespace JSON::internal {

// Enough room for any double.
inline constexpr std::size_t kMaxDoubleText = 32;

// Writes the text to `out` (at least kMaxDoubleText bytes) and returns its end.
char* write_shortest_double(char* out, double value) noexcept;

}  // namespace JSON::internal
