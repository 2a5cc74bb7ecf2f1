#pragma once

// Tarn::create_stack: a new, zero-filled in-memory stack of any element type with a size and
// any rank up to 15, owned by the caller.

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>

#include "tarnio/arrays/data_type.h"
#include "tarnio/arrays/stack_interface.h"
#include "tarnio/export.h"

namespace Tarn {

// The largest rank of a stack, as in TBF files.
inline constexpr std::size_t kMaxStackRank = 15;

// Throws std::invalid_argument "Unknown type of elements." for a code outside the type table,
// and for a type whose elements have no size (cell, struct, char, ...) unless the stack is
// empty; "Invalid number of dimensions." for a rank above kMaxStackRank, and
// std::runtime_error "The product exceeds the maximum size." when the sizes' product or the
// byte count overflows 64 bits.
TARNIO_EXPORT std::unique_ptr<arrays::StackInterface> create_stack(
    DataType type, std::span<const std::uint64_t> sizes);
inline std::unique_ptr<arrays::StackInterface> create_stack(
    DataType type, std::initializer_list<std::uint64_t> sizes) {
  return create_stack(type, std::span<const std::uint64_t>(sizes.begin(), sizes.size()));
}

}  // namespace Tarn
