#pragma once

// The deflate engines behind compressed stack data: Deflater turns one flush block of plain
// bytes into a raw deflate run ended by a full flush (non-final blocks, then an empty stored
// block 00 00 FF FF on a byte boundary, nothing referring to earlier bytes), so that runs made
// on different threads join into one zlib stream between zlib_header() and zlib_trailer();
// Inflater turns such a run (or a whole zlib stream, piece by piece) back into plain bytes.
// Each object keeps its engine state from one block to the next and allocates only for the
// first; an object belongs to one thread at a time. Damaged input to an Inflater is a
// TarnError "Damaged compressed data: {}".
//
// The header's compression level picks the engine. Classic zlib is the slowest deflate here,
// so the levels map onto the fastest engine that reaches each ratio, measured on 16-bit
// microscopy planes (2048 x 2048, dark offset 100, read and shot noise, blurred blobs and
// filaments, values below 4096; 128 MiB) in 4 MiB flush blocks on one core, adler32 and block
// walk included (ratio = stored / plain; pigz on the same bytes: -1 0.4212, -6 0.3955):
//
//   level  engine                 deflate MB/s  ratio   inflate MB/s (ISA-L)
//   0      zlib level 0 (stored)          1250  1.0001  8000
//   1, 2   ISA-L level 2                   280  0.4187   430
//   3      libdeflate level 2               78  0.4079   510
//   4      libdeflate level 4               56  0.3984   500
//   5, 6   zlib level 3                     34  0.3940   550
//   7      libdeflate level 7             11.2  0.3920   590
//   8      libdeflate level 10             5.2  0.3669   690
//   9      libdeflate level 12             4.0  0.3665   680
//
// Each level is no faster than the one before and never larger on this data. Left out: ISA-L
// level 1 (290 MB/s, 0.4227), which came out 1.3 % above pigz -1 on the 12-bit planes of the
// benchmark and 2.2 % on other 12-bit data, where ISA-L level 2 stays within 0.2 % of it for
// 3 to 10 % less speed (on 8-bit sparse and 16-bit dense data both are within 0.5 % of pigz
// -1 or smaller); ISA-L level 3, the fastest (330 MB/s) but 0.4254, more above pigz -1 still;
// as beaten by a row above, libdeflate levels 1, 3, 5, 6, 8 and 9 and classic zlib's higher
// levels, slow for what they gain (zlib 6: 7 MB/s for 0.3954, zlib 9: 1.5 MB/s for 0.3878).
// zlib runs with a 32 KiB window and memLevel 9. libdeflate writes whole buffers that end in a
// final block: its output is walked block by block (zlib's inflate stops at each block
// boundary) to clear the final flag and append the empty stored block. A run that would grow
// beyond max_run_size() falls back to stored blocks. Inflating uses ISA-L for every level.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

#include "tarnio/bf/internal/tbf_format.h"

namespace Tarn::bf::internal {

// Bytes that resize() leaves uninitialized: a buffer sized for the largest run takes memory
// only for the pages an engine really writes. Its capacity only grows.
class ByteBuffer {
 public:
  ByteBuffer() = default;

  std::byte* data() { return bytes_.get(); }
  const std::byte* data() const { return bytes_.get(); }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  std::byte* begin() { return data(); }
  std::byte* end() { return data() + size_; }
  const std::byte* begin() const { return data(); }
  const std::byte* end() const { return data() + size_; }
  std::byte& operator[](std::size_t i) { return bytes_[i]; }
  std::byte& back() { return bytes_[size_ - 1]; }

  // Keeps the first bytes; bytes added are uninitialized.
  void resize(std::size_t size) {
    if (size > capacity_) {
      auto grown = std::make_unique_for_overwrite<std::byte[]>(size);
      if (size_ > 0) std::memcpy(grown.get(), bytes_.get(), size_);
      bytes_ = std::move(grown);
      capacity_ = size;
    }
    size_ = size;
  }
  void append(std::span<const std::byte> bytes) {
    const std::size_t at = size_;
    resize(size_ + bytes.size());
    if (!bytes.empty()) std::memcpy(bytes_.get() + at, bytes.data(), bytes.size());
  }

 private:
  std::unique_ptr<std::byte[]> bytes_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

// About how many bytes one Deflater of `level` holds once it has deflated a block.
std::uint64_t deflater_state_size(std::uint32_t level);

// The largest run a flush block of `plain_size` bytes becomes at any level.
std::uint64_t max_run_size(std::uint64_t plain_size);

// The zlib header (RFC 1950) of a stream at `level` (0 to 9): deflate, 32 KiB window, the
// level's class.
std::array<std::byte, kZlibHeaderSize> zlib_header(std::uint32_t level);
// True for a zlib header of a deflate stream without preset dictionary.
bool is_zlib_header(std::span<const std::byte, kZlibHeaderSize> header);
// The end of a stream: an empty final block (03 00) and the adler32, big-endian.
std::array<std::byte, kZlibTrailerSize> zlib_trailer(std::uint32_t adler);

// The adler32 of `bytes`, continued from `adler` (1 starts a new one).
std::uint32_t adler32_of(std::span<const std::byte> bytes, std::uint32_t adler = 1);
// The adler32 of two pieces joined, from the adler32 of each and the length of the second.
std::uint32_t adler32_join(std::uint32_t first, std::uint32_t second, std::uint64_t second_length);

class Deflater {
 public:
  // Throws std::invalid_argument for a level above 9.
  explicit Deflater(std::uint32_t level);
  ~Deflater();
  Deflater(const Deflater&) = delete;
  Deflater& operator=(const Deflater&) = delete;

  // Replaces the contents of `run` with the run of `plain` (at most max_run_size(plain.size())
  // bytes; the buffer's capacity is reused) and returns the adler32 of `plain`.
  std::uint32_t deflate_run(std::span<const std::byte> plain, ByteBuffer& run);

 private:
  struct Engines;
  std::uint32_t level_;
  std::unique_ptr<Engines> engines_;
};

class Inflater {
 public:
  Inflater();
  ~Inflater();
  Inflater(const Inflater&) = delete;
  Inflater& operator=(const Inflater&) = delete;

  // Inflates one run straight into `out`, which it must fill exactly: the run holds no final
  // block, inflates to out.size() bytes and ends with a full flush.
  void inflate_run(std::span<const std::byte> run, std::span<std::byte> out);
  // The same for a run of `plain_size` bytes passed through `window` piece by piece (for
  // checking a run without room for all of it); returns the adler32 of its plain bytes.
  std::uint32_t check_run(std::span<const std::byte> run, std::uint64_t plain_size,
                          std::span<std::byte> window);

  // Piecewise inflating: a raw run from its first byte, or a whole zlib stream from its
  // header (the adler32 is checked at the stream's end).
  enum class Wrapper { raw_run, zlib };
  void start(Wrapper wrapper);
  struct Step {
    std::size_t consumed = 0;
    std::size_t produced = 0;
  };
  // Inflates what it can of `in` into `out`. Bytes not consumed must be passed again.
  Step inflate_some(std::span<const std::byte> in, std::span<std::byte> out);
  // The zlib stream has ended and its adler32 matched.
  bool finished() const;
  // Bytes consumed but not part of the stream (read ahead behind its end), once finished().
  std::size_t unused_input() const;

 private:
  struct State;
  void finish_run(std::span<const std::byte> run, std::size_t consumed, std::uint64_t produced,
                  std::uint64_t expected);
  std::unique_ptr<State> state_;
};

}  // namespace Tarn::bf::internal
