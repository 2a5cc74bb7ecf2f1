#include "tarnio/bf/internal/stack_header.h"

#include "tarnio/bf/internal/byte_order.h"
#include "tarnio/errors/internal/raise.h"

namespace Tarn::bf::internal {

StackHeaderBytes encode_stack_header(const StackHeader& header) {
  StackHeaderBytes bytes{};
  const std::span<std::byte> out(bytes);
  put_bytes(out, 0, kStackMagic);
  put_u32(out, kStackVersionOffset, header.version);
  put_u32(out, kRankOffset, header.rank);
  for (std::size_t i = 0; i < kMaxRank; ++i) {
    put_u32(out, kSizesOffset + 4 * i, header.sizes[i]);
    put_f64(out, kLengthsOffset + 8 * i, header.lengths[i]);
    put_f64(out, kOffsetsOffset + 8 * i, header.offsets[i]);
  }
  put_le<std::int32_t>(out, kTypeOffset, header.type);
  put_u32(out, kCompressionTypeOffset, header.compression);
  put_u32(out, kCompressionLevelOffset, header.compression_level);
  put_u32(out, kNameLengthOffset, header.name_length);
  put_u32(out, kDescriptionLengthOffset, header.description_length);
  put_u64(out, kDataFlagOffset, header.data_flag);
  put_u64(out, kDataLengthOffset, header.data_length);
  put_u64(out, kNextStackOffset, header.next_stack);
  return bytes;
}

StackHeader decode_stack_header(std::span<const std::byte, kStackHeaderSize> bytes) {
  const std::span<const std::byte> in(bytes);
  if (!has_bytes(in, 0, kStackMagic)) {
    errors::internal::throw_tarn("Stack header not in TBF format.");
  }
  StackHeader header;
  header.version = get_u32(in, kStackVersionOffset);
  header.rank = get_u32(in, kRankOffset);
  if (header.rank > kMaxRank) errors::internal::throw_tarn("Cannot set data layout.");
  for (std::size_t i = 0; i < kMaxRank; ++i) {
    header.sizes[i] = get_u32(in, kSizesOffset + 4 * i);
    header.lengths[i] = get_f64(in, kLengthsOffset + 8 * i);
    header.offsets[i] = get_f64(in, kOffsetsOffset + 8 * i);
    // Entries beyond the rank are written as zero bytes; anything else is not a layout this
    // reader can trust.
    const bool unused_entry_set =
        i >= header.rank && (header.sizes[i] != 0 || get_u64(in, kLengthsOffset + 8 * i) != 0 ||
                             get_u64(in, kOffsetsOffset + 8 * i) != 0);
    if (unused_entry_set) errors::internal::throw_tarn("Cannot set data layout.");
  }
  header.type = get_le<std::int32_t>(in, kTypeOffset);
  header.compression = get_u32(in, kCompressionTypeOffset);
  header.compression_level = get_u32(in, kCompressionLevelOffset);
  header.name_length = get_u32(in, kNameLengthOffset);
  header.description_length = get_u32(in, kDescriptionLengthOffset);
  header.data_flag = get_u64(in, kDataFlagOffset);
  header.data_length = get_u64(in, kDataLengthOffset);
  header.next_stack = get_u64(in, kNextStackOffset);
  return header;
}

}  // namespace Tarn::bf::internal
