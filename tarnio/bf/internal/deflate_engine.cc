#include "tarnio/bf/internal/deflate_engine.h"

#include <isa-l/igzip_lib.h>
#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string_view>

#include "tarnio/errors/internal/raise.h"

namespace Tarn::bf::internal {

namespace {

enum class Engine { stored, isal, zlib, libdeflate };

struct LevelSetting {
  Engine engine;
  int engine_level;
};

// The table of deflate_engine.h.
constexpr std::array<LevelSetting, 10> kLevels{{
    {Engine::stored, 0},
    {Engine::isal, 2},
    {Engine::isal, 2},
    {Engine::libdeflate, 2},
    {Engine::libdeflate, 4},
    {Engine::zlib, 3},
    {Engine::zlib, 3},
    {Engine::libdeflate, 7},
    {Engine::libdeflate, 10},
    {Engine::libdeflate, 12},
}};

constexpr int kZlibMemLevel = 9;
constexpr int kRawWindowBits = -15;
// The engines count bytes in 32 bits: larger blocks go through them in pieces of this size.
constexpr std::uint64_t kEnginePiece = std::uint64_t{1} << 30;
// An empty stored block, byte-aligned: what ends every run.
constexpr std::array<std::byte, 4> kFullFlushMarker{std::byte{0x00}, std::byte{0x00},
                                                    std::byte{0xFF}, std::byte{0xFF}};

[[noreturn]] void damaged(std::string_view what) {
  errors::internal::throw_tarn("Damaged compressed data: {}", what);
}

std::uint32_t piece(std::uint64_t left) {
  return static_cast<std::uint32_t>(std::min(left, kEnginePiece));
}

unsigned char* bytes_of(std::byte* p) { return reinterpret_cast<unsigned char*>(p); }
const unsigned char* bytes_of(const std::byte* p) {
  return reinterpret_cast<const unsigned char*>(p);
}

bool ends_with_full_flush(std::span<const std::byte> run) {
  return run.size() > kFullFlushMarker.size() &&
         std::equal(kFullFlushMarker.begin(), kFullFlushMarker.end(),
                    run.end() - static_cast<std::ptrdiff_t>(kFullFlushMarker.size()));
}

// zlib's raw deflate, its state kept from one run to the next.
class ZlibDeflate {
 public:
  explicit ZlibDeflate(int level) {
    if (deflateInit2(&stream_, level, Z_DEFLATED, kRawWindowBits, kZlibMemLevel,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
      throw std::bad_alloc();
    }
  }
  ~ZlibDeflate() { deflateEnd(&stream_); }
  ZlibDeflate(const ZlibDeflate&) = delete;
  ZlibDeflate& operator=(const ZlibDeflate&) = delete;

  // False when the run would not fit in max_run_size().
  bool deflate_run(std::span<const std::byte> plain, ByteBuffer& run) {
    deflateReset(&stream_);
    run.resize(max_run_size(plain.size()));
    std::uint64_t in = 0;
    std::uint64_t out = 0;
    for (;;) {
      const bool last = plain.size() - in <= kEnginePiece;
      stream_.next_in = const_cast<unsigned char*>(bytes_of(plain.data() + in));
      stream_.avail_in = piece(plain.size() - in);
      const std::uint32_t given_in = stream_.avail_in;
      stream_.next_out = bytes_of(run.data() + out);
      stream_.avail_out = piece(run.size() - out);
      const std::uint32_t given_out = stream_.avail_out;
      const int result = deflate(&stream_, last ? Z_FULL_FLUSH : Z_NO_FLUSH);
      in += given_in - stream_.avail_in;
      out += given_out - stream_.avail_out;
      if (result != Z_OK && result != Z_BUF_ERROR) return false;
      // A full flush is complete once deflate returns with room to spare.
      if (last && in == plain.size() && stream_.avail_out > 0) break;
      if (out == run.size()) return false;
      if (stream_.avail_in == given_in && stream_.avail_out == given_out) return false;
    }
    run.resize(out);
    return true;
  }

 private:
  z_stream stream_{};
};

class IsalDeflate {
 public:
  explicit IsalDeflate(int level) : level_(level), level_buffer_(buffer_size(level)) {}

  bool deflate_run(std::span<const std::byte> plain, ByteBuffer& run) {
    isal_zstream& s = *stream_;
    isal_deflate_init(&s);
    s.level = static_cast<std::uint32_t>(level_);
    s.level_buf = level_buffer_.empty() ? nullptr : level_buffer_.data();
    s.level_buf_size = static_cast<std::uint32_t>(level_buffer_.size());
    s.flush = FULL_FLUSH;
    s.end_of_stream = 0;
    run.resize(max_run_size(plain.size()));
    std::uint64_t in = 0;
    std::uint64_t out = 0;
    for (;;) {
      s.next_in = const_cast<std::uint8_t*>(bytes_of(plain.data() + in));
      s.avail_in = piece(plain.size() - in);
      const std::uint32_t given_in = s.avail_in;
      s.next_out = bytes_of(run.data() + out);
      s.avail_out = piece(run.size() - out);
      const std::uint32_t given_out = s.avail_out;
      const int result = isal_deflate(&s);
      in += given_in - s.avail_in;
      out += given_out - s.avail_out;
      if (result != COMP_OK) return false;
      // Each piece of input ends with a full flush, complete once there is room to spare.
      if (in == plain.size() && s.avail_out > 0) break;
      if (out == run.size()) return false;
      if (s.avail_in == given_in && s.avail_out == given_out) return false;
    }
    run.resize(out);
    return ends_with_full_flush(run);
  }

 private:
  static std::size_t buffer_size(int level) {
    switch (level) {
      case 1:
        return ISAL_DEF_LVL1_EXTRA_LARGE;
      case 2:
        return ISAL_DEF_LVL2_EXTRA_LARGE;
      case 3:
        return ISAL_DEF_LVL3_EXTRA_LARGE;
      default:
        return 0;
    }
  }

  int level_;
  std::vector<std::uint8_t> level_buffer_;
  std::unique_ptr<isal_zstream> stream_ = std::make_unique<isal_zstream>();
};

class LibdeflateDeflate {
 public:
  explicit LibdeflateDeflate(int level) : compressor_(libdeflate_alloc_compressor(level)) {
    if (compressor_ == nullptr) throw std::bad_alloc();
    if (inflateInit2(&walker_, kRawWindowBits) != Z_OK) {
      libdeflate_free_compressor(compressor_);
      throw std::bad_alloc();
    }
  }
  ~LibdeflateDeflate() {
    inflateEnd(&walker_);
    libdeflate_free_compressor(compressor_);
  }
  LibdeflateDeflate(const LibdeflateDeflate&) = delete;
  LibdeflateDeflate& operator=(const LibdeflateDeflate&) = delete;

  bool deflate_run(std::span<const std::byte> plain, ByteBuffer& run) {
    const std::size_t bound = libdeflate_deflate_compress_bound(compressor_, plain.size());
    // The empty stored block appended below takes at most 5 bytes more.
    run.resize(bound + 8);
    const std::size_t size =
        libdeflate_deflate_compress(compressor_, plain.data(), plain.size(), run.data(), bound);
    if (size == 0) return false;
    run.resize(size);
    if (!end_final_block(run)) return false;
    return run.size() <= max_run_size(plain.size());
  }

 private:
  // Turns a complete raw deflate stream into a run: walks its blocks to find the last one,
  // clears that block's final flag and appends an empty stored block behind it.
  bool end_final_block(ByteBuffer& run) {
    inflateReset(&walker_);
    walker_.next_in = bytes_of(run.data());
    std::uint64_t in = 0;
    // The bit that starts the current block: its first bit is the final flag.
    std::size_t header_byte = 0;
    unsigned header_mask = 1;
    for (;;) {
      walker_.avail_in = piece(run.size() - in);
      const std::uint32_t given_in = walker_.avail_in;
      walker_.next_out = scratch_.data();
      walker_.avail_out = static_cast<uInt>(scratch_.size());
      const int result = inflate(&walker_, Z_BLOCK);
      in += given_in - walker_.avail_in;
      if (result != Z_OK) return false;
      if ((walker_.data_type & 128) == 0) continue;
      // At a block boundary; data_type's low bits are the unused bits of the last byte read.
      const int unused_bits = walker_.data_type & 7;
      if ((walker_.data_type & 64) != 0) {
        // Behind the final block: that must be the end of libdeflate's output.
        if (in != run.size()) return false;
        run[header_byte] &= static_cast<std::byte>(~header_mask);
        const int used_bits = 8 - unused_bits;
        run.back() &= static_cast<std::byte>((1u << used_bits) - 1);
        // The stored block's three header bits (all 0) fit behind the last block's bits, or
        // start a new byte; either way the block then pads to the byte boundary.
        if (used_bits > 5) run.append(std::array{std::byte{0}});
        run.append(kFullFlushMarker);
        return true;
      }
      if (unused_bits != 0) {
        header_byte = static_cast<std::size_t>(in - 1);
        header_mask = 0x100u >> unused_bits;
      } else {
        header_byte = static_cast<std::size_t>(in);
        header_mask = 1;
        if (in == run.size()) return false;
      }
    }
  }

  libdeflate_compressor* compressor_;
  z_stream walker_{};
  std::array<unsigned char, 1 << 16> scratch_{};
};

}  // namespace

std::uint64_t deflater_state_size(std::uint32_t level) {
  // libdeflate's near-optimal levels keep a match cache for a whole block; the other engines
  // need well below 1 MiB each (window, hash chains, level buffer, block walker).
  const LevelSetting setting = kLevels.at(level);
  const bool near_optimal = setting.engine == Engine::libdeflate && setting.engine_level >= 10;
  return (near_optimal ? std::uint64_t{8} : std::uint64_t{1}) << 20;
}

std::uint64_t max_run_size(std::uint64_t plain_size) {
  // Stored blocks of up to 64 KiB cost 5 bytes each; the full flush 5 more.
  return plain_size + (plain_size >> 10) + 1024;
}

std::array<std::byte, kZlibHeaderSize> zlib_header(std::uint32_t level) {
  // Deflate with a 32 KiB window; the level class as zlib writes it.
  const unsigned cmf = 0x78;
  const unsigned level_class = level < 2 ? 0 : level < 6 ? 1 : level == 6 ? 2 : 3;
  unsigned flags = level_class << 6;
  flags += 31 - (cmf * 256 + flags) % 31;
  return {static_cast<std::byte>(cmf), static_cast<std::byte>(flags)};
}

bool is_zlib_header(std::span<const std::byte, kZlibHeaderSize> header) {
  const auto cmf = static_cast<unsigned>(header[0]);
  const auto flags = static_cast<unsigned>(header[1]);
  return (cmf & 0x0F) == 8 && (cmf >> 4) <= 7 && (cmf * 256 + flags) % 31 == 0 &&
         (flags & 0x20) == 0;
}

std::array<std::byte, kZlibTrailerSize> zlib_trailer(std::uint32_t adler) {
  return {std::byte{0x03},
          std::byte{0x00},
          static_cast<std::byte>(adler >> 24),
          static_cast<std::byte>(adler >> 16),
          static_cast<std::byte>(adler >> 8),
          static_cast<std::byte>(adler)};
}

std::uint32_t adler32_of(std::span<const std::byte> bytes, std::uint32_t adler) {
  return isal_adler32(adler, bytes_of(bytes.data()), bytes.size());
}

std::uint32_t adler32_join(std::uint32_t first, std::uint32_t second, std::uint64_t second_length) {
  return static_cast<std::uint32_t>(
      adler32_combine64(first, second, static_cast<z_off64_t>(second_length)));
}

struct Deflater::Engines {
  std::unique_ptr<ZlibDeflate> zlib;
  std::unique_ptr<IsalDeflate> isal;
  std::unique_ptr<LibdeflateDeflate> libdeflate;
  // Stored blocks: level 0, and the fallback of every other level.
  std::unique_ptr<ZlibDeflate> stored;
};

Deflater::Deflater(std::uint32_t level) : level_(level), engines_(std::make_unique<Engines>()) {
  if (level >= kLevels.size()) throw std::invalid_argument("Invalid compression level.");
}

Deflater::~Deflater() = default;

std::uint32_t Deflater::deflate_run(std::span<const std::byte> plain, ByteBuffer& run) {
  const LevelSetting setting = kLevels[level_];
  bool done = false;
  switch (setting.engine) {
    case Engine::stored:
      break;
    case Engine::isal:
      if (!engines_->isal) engines_->isal = std::make_unique<IsalDeflate>(setting.engine_level);
      done = engines_->isal->deflate_run(plain, run);
      break;
    case Engine::zlib:
      if (!engines_->zlib) engines_->zlib = std::make_unique<ZlibDeflate>(setting.engine_level);
      done = engines_->zlib->deflate_run(plain, run);
      break;
    case Engine::libdeflate:
      if (!engines_->libdeflate) {
        engines_->libdeflate = std::make_unique<LibdeflateDeflate>(setting.engine_level);
      }
      done = engines_->libdeflate->deflate_run(plain, run);
      break;
  }
  if (!done) {
    if (!engines_->stored) engines_->stored = std::make_unique<ZlibDeflate>(0);
    if (!engines_->stored->deflate_run(plain, run)) {
      throw std::logic_error("Stored deflate blocks exceed their bound.");
    }
  }
  return adler32_of(plain);
}

struct Inflater::State {
  inflate_state isal{};
  Wrapper wrapper = Wrapper::raw_run;
};

Inflater::Inflater() : state_(std::make_unique<State>()) {}

Inflater::~Inflater() = default;

void Inflater::start(Wrapper wrapper) {
  isal_inflate_init(&state_->isal);
  state_->isal.crc_flag = wrapper == Wrapper::zlib ? ISAL_ZLIB : ISAL_DEFLATE;
  state_->wrapper = wrapper;
}

Inflater::Step Inflater::inflate_some(std::span<const std::byte> in, std::span<std::byte> out) {
  inflate_state& s = state_->isal;
  s.next_in = const_cast<std::uint8_t*>(bytes_of(in.data()));
  s.avail_in = piece(in.size());
  const std::uint32_t given_in = s.avail_in;
  s.next_out = bytes_of(out.data());
  s.avail_out = piece(out.size());
  const std::uint32_t given_out = s.avail_out;
  const int result = isal_inflate(&s);
  const Step step{given_in - s.avail_in, given_out - s.avail_out};
  switch (result) {
    case ISAL_DECOMP_OK:
    case ISAL_END_INPUT:
    case ISAL_OUT_OVERFLOW:
      break;
    case ISAL_NEED_DICT:
      damaged("the stream needs a preset dictionary.");
    case ISAL_INVALID_BLOCK:
      damaged("invalid deflate block.");
    case ISAL_INVALID_SYMBOL:
      damaged("invalid deflate code.");
    case ISAL_INVALID_LOOKBACK:
      damaged("a match refers to bytes before the start of its flush block.");
    case ISAL_INVALID_WRAPPER:
    case ISAL_UNSUPPORTED_METHOD:
      damaged("invalid zlib header.");
    case ISAL_INCORRECT_CHECKSUM:
      damaged("the adler32 does not match the data.");
    default:
      damaged("the inflater failed.");
  }
  if (state_->wrapper == Wrapper::raw_run && s.bfinal != 0) {
    damaged("a flush block holds the final block of the stream.");
  }
  return step;
}

bool Inflater::finished() const { return state_->isal.block_state == ISAL_BLOCK_FINISH; }

std::size_t Inflater::unused_input() const {
  return static_cast<std::size_t>(state_->isal.read_in_length / 8);
}

void Inflater::inflate_run(std::span<const std::byte> run, std::span<std::byte> out) {
  start(Wrapper::raw_run);
  std::size_t consumed = 0;
  std::size_t produced = 0;
  while (produced < out.size()) {
    const Step step = inflate_some(run.subspan(consumed), out.subspan(produced));
    consumed += step.consumed;
    produced += step.produced;
    if (step.consumed == 0 && step.produced == 0) break;
  }
  finish_run(run, consumed, produced, out.size());
}

std::uint32_t Inflater::check_run(std::span<const std::byte> run, std::uint64_t plain_size,
                                  std::span<std::byte> window) {
  start(Wrapper::raw_run);
  std::uint32_t adler = 1;
  std::size_t consumed = 0;
  std::uint64_t produced = 0;
  while (produced < plain_size) {
    const auto room =
        static_cast<std::size_t>(std::min<std::uint64_t>(window.size(), plain_size - produced));
    const Step step = inflate_some(run.subspan(consumed), window.first(room));
    adler = adler32_of(window.first(step.produced), adler);
    consumed += step.consumed;
    produced += step.produced;
    if (step.consumed == 0 && step.produced == 0) break;
  }
  finish_run(run, consumed, produced, plain_size);
  return adler;
}

void Inflater::finish_run(std::span<const std::byte> run, std::size_t consumed,
                          std::uint64_t produced, std::uint64_t expected) {
  if (produced < expected) {
    errors::internal::throw_tarn(
        "Damaged compressed data: a flush block inflates to {} bytes instead of {}.", produced,
        expected);
  }
  // What is left of the run (the empty stored block at least) must inflate to nothing.
  std::array<std::byte, 64> scratch{};
  for (;;) {
    const Step step = inflate_some(run.subspan(consumed), scratch);
    if (step.produced != 0) {
      errors::internal::throw_tarn(
          "Damaged compressed data: a flush block inflates to more than {} bytes.", expected);
    }
    consumed += step.consumed;
    if (step.consumed == 0) break;
  }
  const inflate_state& s = state_->isal;
  // Between blocks (the inflater may have begun to look for the next header), nothing pending.
  const bool between_blocks =
      s.block_state == ISAL_BLOCK_NEW_HDR || s.block_state == ISAL_BLOCK_HDR;
  if (consumed != run.size() || !between_blocks || s.read_in_length != 0 || s.tmp_in_size != 0 ||
      !ends_with_full_flush(run)) {
    damaged("a flush block does not end on a full flush.");
  }
}

}  // namespace Tarn::bf::internal
