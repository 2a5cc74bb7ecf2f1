#pragma once

// The 4-byte little-endian length in front of every length-prefixed string of the file
// formats, and the one check that a string fits behind it.

#include <cstdint>
#include <limits>

#include "tarnio/errors/internal/raise.h"

namespace Tarn::bf::internal {

// The prefix of a string of `size` bytes. Throws TarnError "String too long for a 4-byte
// length." when the string cannot be stored.
inline std::uint32_t length_prefix(std::uint64_t size) {
  if (size > std::numeric_limits<std::uint32_t>::max()) {
    errors::internal::throw_tarn("String too long for a 4-byte length.");
  }
  return static_cast<std::uint32_t>(size);
}

}  // namespace Tarn::bf::internal
