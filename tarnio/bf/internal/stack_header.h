#pragma once

// The 368-byte stack header as values, encoded field by field at the offsets of tbf_format.h
// and decoded with every field checked that could mislead a reader. Stateless.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "tarnio/arrays/data_type.h"
#include "tarnio/bf/internal/tbf_format.h"

namespace Tarn::bf::internal {

struct StackHeader {
  std::uint32_t version = kStackFormatVersion;
  std::uint32_t rank = 0;
  std::array<std::uint32_t, kMaxRank> sizes{};
  std::array<double, kMaxRank> lengths{};
  std::array<double, kMaxRank> offsets{};
  DataType type = 0;
  std::uint32_t compression = 0;
  std::uint32_t compression_level = 0;
  std::uint32_t name_length = 0;
  std::uint32_t description_length = 0;
  std::uint64_t data_flag = 1;
  std::uint64_t data_length = 0;
  std::uint64_t next_stack = 0;

  friend bool operator==(const StackHeader&, const StackHeader&) = default;
};

using StackHeaderBytes = std::array<std::byte, kStackHeaderSize>;

StackHeaderBytes encode_stack_header(const StackHeader& header);
// Throws TarnError "Stack header not in TBF format." when the magic (with its two 0xFF bytes)
// differs, and "Cannot set data layout." for a rank above 15 or entries beyond the rank that
// are not 0.
StackHeader decode_stack_header(std::span<const std::byte, kStackHeaderSize> bytes);

}  // namespace Tarn::bf::internal
