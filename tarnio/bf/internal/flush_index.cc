#include "tarnio/bf/internal/flush_index.h"

#include <cstddef>
#include <utility>

#include "tarnio/bf/internal/byte_order.h"
#include "tarnio/bf/internal/deflate_engine.h"
#include "tarnio/bf/internal/tbf_format.h"
#include "tarnio/errors/internal/raise.h"

namespace Tarn::bf::internal {

namespace {

// The most plain bytes one stored byte can stand for: a deflate block whose only codes are a
// 1-bit length 258 and a 1-bit distance packs 258 bytes into 2 bits.
constexpr std::uint64_t kMaxInflateRatio = 1032;

template <typename... Args>
[[noreturn]] void damaged(fmt::format_string<Args...> format, Args&&... args) {
  errors::internal::throw_tarn("Damaged flush index: {}",
                               fmt::format(format, std::forward<Args>(args)...));
}

}  // namespace

std::string encode_flush_index(std::span<const FlushPoint> points) {
  std::string bytes(points.size() * kFlushPointSize, '\0');
  const std::span<std::byte> out(reinterpret_cast<std::byte*>(bytes.data()), bytes.size());
  for (std::size_t i = 0; i < points.size(); ++i) {
    put_u64(out, i * kFlushPointSize, points[i].plain_offset);
    put_u64(out, i * kFlushPointSize + 8, points[i].stored_offset);
  }
  return bytes;
}

std::vector<FlushPoint> decode_flush_index(std::string_view bytes, std::uint64_t plain_length,
                                           std::uint64_t stored_length) {
  if (bytes.empty() || bytes.size() % kFlushPointSize != 0) {
    damaged("{} bytes are no whole number of flush points.", bytes.size());
  }
  const std::span<const std::byte> in(reinterpret_cast<const std::byte*>(bytes.data()),
                                      bytes.size());
  const std::size_t count = bytes.size() / kFlushPointSize;
  std::vector<FlushPoint> points;
  points.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    const FlushPoint point{get_u64(in, i * kFlushPointSize), get_u64(in, i * kFlushPointSize + 8)};
    if (point.plain_offset > plain_length) {
      damaged("flush point {} lies at plain byte {}, behind the end of the data at {}.", i,
              point.plain_offset, plain_length);
    }
    if (point.stored_offset > stored_length ||
        stored_length - point.stored_offset < kZlibTrailerSize) {
      damaged("flush point {} lies at stored byte {}, too close to the end of the stream at {}.", i,
              point.stored_offset, stored_length);
    }
    if (i == 0) {
      if (point.plain_offset != 0 || point.stored_offset != kZlibHeaderSize) {
        damaged("the first flush point is ({}, {}) instead of (0, {}).", point.plain_offset,
                point.stored_offset, kZlibHeaderSize);
      }
    } else {
      const FlushPoint& previous = points.back();
      if (point.plain_offset <= previous.plain_offset ||
          point.stored_offset <= previous.stored_offset) {
        damaged("flush point {} ({}, {}) does not lie behind the one before it.", i,
                point.plain_offset, point.stored_offset);
      }
      const std::uint64_t plain = point.plain_offset - previous.plain_offset;
      const std::uint64_t stored = point.stored_offset - previous.stored_offset;
      if (plain / kMaxInflateRatio > stored || stored > max_run_size(plain)) {
        damaged("flush block {} cannot hold {} plain bytes in {} stored bytes.", i - 1, plain,
                stored);
      }
    }
    points.push_back(point);
  }
  if (points.back().plain_offset != plain_length) {
    damaged("the last flush point lies at plain byte {} instead of the end of the data at {}.",
            points.back().plain_offset, plain_length);
  }
  return points;
}

std::string encode_block_checksums(std::span<const std::uint32_t> checksums) {
  std::string bytes(checksums.size() * kBlockChecksumSize, '\0');
  const std::span<std::byte> out(reinterpret_cast<std::byte*>(bytes.data()), bytes.size());
  for (std::size_t i = 0; i < checksums.size(); ++i)
    put_u32(out, i * kBlockChecksumSize, checksums[i]);
  return bytes;
}

std::vector<std::uint32_t> decode_block_checksums(std::string_view bytes, std::size_t blocks) {
  if (bytes.size() / kBlockChecksumSize != blocks || bytes.size() % kBlockChecksumSize != 0) {
    damaged("{} bytes of block checksums for {} flush blocks.", bytes.size(), blocks);
  }
  const std::span<const std::byte> in(reinterpret_cast<const std::byte*>(bytes.data()),
                                      bytes.size());
  std::vector<std::uint32_t> checksums(blocks);
  for (std::size_t i = 0; i < blocks; ++i) checksums[i] = get_u32(in, i * kBlockChecksumSize);
  return checksums;
}

}  // namespace Tarn::bf::internal
