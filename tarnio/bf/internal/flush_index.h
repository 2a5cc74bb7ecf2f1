#pragma once

// The flush index of a zlib stream as the stack record stores it (layout in tbf_format.h):
// encoding, and a decoder that accepts only an index that fits the stream it describes, so that
// nothing read through it can point outside the data. Stateless.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tarnio/bf/flush_point.h"

namespace Tarn::bf::internal {

std::string encode_flush_index(std::span<const FlushPoint> points);

// Decodes the flush points of a stream of `stored_length` bytes that inflates to
// `plain_length` bytes. Throws TarnError "Damaged flush index: {}" (what is wrong) unless the
// entry has whole points, the first is (0, 2), both offsets strictly increase, the last plain
// offset is `plain_length` and the last stored offset leaves room for the stream's trailer.
std::vector<FlushPoint> decode_flush_index(std::string_view bytes, std::uint64_t plain_length,
                                           std::uint64_t stored_length);

// The adler32 of each flush block's plain bytes (record key block_checksums), in block order.
std::string encode_block_checksums(std::span<const std::uint32_t> checksums);
// Decodes the checksums of `blocks` flush blocks. Throws TarnError "Damaged flush index: {}"
// unless the entry holds exactly one checksum per block.
std::vector<std::uint32_t> decode_block_checksums(std::string_view bytes, std::size_t blocks);

}  // namespace Tarn::bf::internal
