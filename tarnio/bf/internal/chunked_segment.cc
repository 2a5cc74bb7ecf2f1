#include "tarnio/bf/internal/chunked_segment.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>
#include <stdexcept>

#include "tarnio/bf/internal/byte_order.h"
#include "tarnio/bf/internal/flush_index.h"
#include "tarnio/bf/internal/positioning.h"
#include "tarnio/bf/internal/tbf_format.h"
#include "tarnio/errors/internal/raise.h"

namespace Tarn::bf::internal {

namespace {

using errors::internal::throw_tarn;

constexpr std::uint64_t kMaxU64 = std::numeric_limits<std::uint64_t>::max();

using FrameHeader = std::array<std::byte, kChunkHeaderSize>;

[[noreturn]] void damaged_index(const std::string& what) {
  throw_tarn("Damaged chunk index: {}", what);
}

[[noreturn]] void damaged_chunk(const std::string& what) { throw_tarn("Damaged chunk: {}", what); }

FrameHeader read_frame_header(DiskFileAccess& file, std::uint64_t position) {
  FrameHeader header{};
  seek_exactly(file, position);
  file.read(header.data(), header.size());
  return header;
}

// The plain bytes of `samples` samples, or nothing when they do not fit in 64 bits.
std::optional<std::uint64_t> plain_bytes(std::uint64_t samples, std::size_t element_size) {
  if (samples > kMaxU64 / element_size) return std::nullopt;
  return samples * element_size;
}

}  // namespace

struct ChunkedSegment::State {
  enum class Phase {
    writing,
    finished,
    reading,
    // A write failed part way: the open chunk is in an unknown state and nothing more is written.
    broken,
  };

  State(DiskFileAccess& f, std::uint64_t position, ChunkLayout l)
      : file(f), data_position(position), layout(std::move(l)) {}

  bool compressed() const { return layout.zlib.has_value(); }
  std::uint64_t chunk_bytes() const { return layout.chunk_samples * layout.element_size; }
  std::uint64_t frame_position() const { return data_position + frames_end; }

  void open_chunk();
  void commit_chunk(std::uint64_t samples);
  // Runs `work`, which moves the file position, and then puts the position back where the next
  // append goes when the segment is being written, also when `work` throws.
  template <typename Work>
  void keep_write_position(Work&& work) {
    try {
      work();
    } catch (...) {
      try {
        restore_write_position();
      } catch (...) {
        // The first failure is the one to report.
      }
      throw;
    }
    restore_write_position();
  }
  void restore_write_position();
  // Where the next append goes while writing.
  std::uint64_t write_position() const;
  // The chunk holding plain byte `offset` (below the committed length).
  std::size_t chunk_of(std::uint64_t offset) const;
  // Reads plain bytes from `offset` on into `out`, starting with chunk `i`, which holds the offset.
  void read_chunks(std::size_t i, std::uint64_t offset, std::span<std::byte> out);
  // The stream of compressed chunk `i`, kept until another chunk is read.
  ZlibSegment& reader_for(std::size_t i);

  DiskFileAccess& file;
  std::uint64_t data_position;
  ChunkLayout layout;
  Phase phase = Phase::writing;

  std::vector<Chunk> chunks;
  std::uint64_t committed_samples = 0;
  // From the data position to just behind the last committed frame.
  std::uint64_t frames_end = 0;

  // The chunk being written: its frame header is in the file from its first byte on.
  bool chunk_open = false;
  std::uint64_t open_plain_bytes = 0;
  // The stream of the open chunk when chunks are compressed.
  std::unique_ptr<ZlibSegment> writer;

  // One compressed chunk's stream for reading: one at a time bounds the memory, and the plane by
  // plane reads of a chunk find it ready.
  std::unique_ptr<ZlibSegment> reader;
  std::size_t reader_chunk = 0;
};

void ChunkedSegment::State::open_chunk() {
  FrameHeader header{};
  put_bytes(header, 0, kChunkMagic);
  put_u64(header, kChunkSamplesOffset, layout.chunk_samples);
  put_u64(header, kChunkIndexLengthOffset, 0);
  put_u64(header, kChunkStoredLengthOffset, 0);
  file.write(header.data(), header.size());
  chunk_open = true;
  open_plain_bytes = 0;
  if (compressed()) {
    writer = std::make_unique<ZlibSegment>(file, frame_position() + kChunkHeaderSize, *layout.zlib);
  }
}

void ChunkedSegment::State::commit_chunk(std::uint64_t samples) {
  const std::uint64_t frame = frame_position();
  std::uint64_t stored = open_plain_bytes;
  std::uint64_t index_length = 0;
  if (writer) {
    stored = writer->finish();
    const std::string index = encode_flush_index(writer->flush_points());
    writer.reset();
    file.write(index.data(), index.size());
    index_length = index.size();
    if (index_length != 0) patch_u64(file, frame + kChunkIndexLengthOffset, index_length);
  }
  if (samples != layout.chunk_samples) patch_u64(file, frame + kChunkSamplesOffset, samples);
  // The commit: a reader takes the frame as complete from here on. Readers on this machine see
  // the writes in the order they were made (one page cache), also when this process is killed;
  // nothing is forced to the device, which would cost the write speed, so after a power failure
  // the latest chunks may be lost or hold stale bytes.
  patch_u64(file, frame + kChunkStoredLengthOffset, stored);
  chunks.push_back(Chunk{committed_samples, samples, frames_end, stored, index_length});
  committed_samples += samples;
  frames_end += kChunkHeaderSize + stored + index_length;
  chunk_open = false;
  open_plain_bytes = 0;
}

std::uint64_t ChunkedSegment::State::write_position() const {
  if (!chunk_open) return frame_position();
  if (writer) return writer->end_position();
  return frame_position() + kChunkHeaderSize + open_plain_bytes;
}

void ChunkedSegment::State::restore_write_position() {
  if (phase != Phase::writing) return;
  const std::uint64_t position = write_position();
  if (file.tell() != position) seek_exactly(file, position);
}

ZlibSegment& ChunkedSegment::State::reader_for(std::size_t i) {
  if (reader && reader_chunk == i) return *reader;
  reader.reset();
  const Chunk& chunk = chunks[i];
  const std::uint64_t stored_position = data_position + chunk.frame_offset + kChunkHeaderSize;
  const std::uint64_t plain = chunk.samples * layout.element_size;
  std::vector<FlushPoint> points;
  if (chunk.index_length != 0) {
    std::string index;
    seek_exactly(file, stored_position + chunk.stored_length);
    file.read_str(index, chunk.index_length);
    points = decode_flush_index(index, plain, chunk.stored_length);
  }
  reader = std::make_unique<ZlibSegment>(file, stored_position, chunk.stored_length, plain,
                                         std::move(points), layout.zlib->threading);
  reader_chunk = i;
  return *reader;
}

ChunkedSegment::ChunkedSegment(DiskFileAccess& file, std::uint64_t data_position,
                               ChunkLayout layout) {
  if (layout.element_size == 0 || layout.chunk_samples == 0 ||
      !plain_bytes(layout.chunk_samples, layout.element_size)) {
    throw std::invalid_argument("Invalid chunk layout.");
  }
  state_ = std::make_unique<State>(file, data_position, std::move(layout));
}

ChunkedSegment::~ChunkedSegment() = default;

std::unique_ptr<ChunkedSegment> ChunkedSegment::from_index(
    DiskFileAccess& file, std::uint64_t data_position, std::uint64_t data_length,
    std::uint64_t samples, std::string_view chunk_index, ChunkLayout layout) {
  auto segment = std::make_unique<ChunkedSegment>(file, data_position, std::move(layout));
  State& s = *segment->state_;
  s.phase = State::Phase::reading;
  const std::size_t element_size = s.layout.element_size;

  if (chunk_index.size() % kChunkIndexEntrySize != 0) {
    damaged_index(
        fmt::format("its {} bytes are not a whole number of entries.", chunk_index.size()));
  }
  if (!plain_bytes(samples, element_size)) {
    damaged_index(
        fmt::format("{} samples of {} bytes exceed any data length.", samples, element_size));
  }
  const std::uint64_t size = file_size(file);
  if (data_position > size || data_length > size - data_position) {
    damaged_index(
        fmt::format("the data of {} bytes reaches beyond the end of the file.", data_length));
  }

  const auto entries =
      std::span(reinterpret_cast<const std::byte*>(chunk_index.data()), chunk_index.size());
  const std::size_t count = chunk_index.size() / kChunkIndexEntrySize;
  s.chunks.reserve(count);
  std::uint64_t total = 0;
  std::uint64_t end = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t at = i * kChunkIndexEntrySize;
    Chunk chunk;
    chunk.first_sample = get_u64(entries, at);
    chunk.samples = get_u64(entries, at + 8);
    chunk.frame_offset = get_u64(entries, at + 16);
    if (chunk.first_sample != total) {
      damaged_index(
          fmt::format("chunk {} starts at sample {} instead of {}.", i, chunk.first_sample, total));
    }
    if (chunk.samples == 0) damaged_index(fmt::format("chunk {} holds no samples.", i));
    if (chunk.samples > samples - total) {
      damaged_index(fmt::format("chunk {} reaches beyond the stack's {} samples.", i, samples));
    }
    if (chunk.frame_offset != end) {
      damaged_index(
          fmt::format("chunk {} starts at byte {} instead of {}.", i, chunk.frame_offset, end));
    }
    if (data_length - end < kChunkHeaderSize) {
      damaged_index(fmt::format("chunk {} starts behind the end of the data.", i));
    }

    const FrameHeader header = read_frame_header(file, data_position + end);
    if (!has_bytes(header, 0, kChunkMagic)) {
      damaged_chunk(fmt::format("chunk {} has no frame header at byte {}.", i, end));
    }
    const std::uint64_t frame_samples = get_u64(header, kChunkSamplesOffset);
    chunk.index_length = get_u64(header, kChunkIndexLengthOffset);
    chunk.stored_length = get_u64(header, kChunkStoredLengthOffset);
    if (frame_samples != chunk.samples) {
      damaged_chunk(fmt::format("chunk {} holds {} samples, the index says {}.", i, frame_samples,
                                chunk.samples));
    }
    if (chunk.stored_length == 0) {
      damaged_chunk(fmt::format("chunk {} was never completed.", i));
    }
    // Cannot overflow: the chunk's samples are within the stack's, whose bytes fit.
    const std::uint64_t plain = chunk.samples * element_size;
    if (!s.compressed() && (chunk.stored_length != plain || chunk.index_length != 0)) {
      damaged_chunk(fmt::format("chunk {} stores {} bytes and {} index bytes for {} plain bytes.",
                                i, chunk.stored_length, chunk.index_length, plain));
    }
    const std::uint64_t room = data_length - end - kChunkHeaderSize;
    if (chunk.stored_length > room || chunk.index_length > room - chunk.stored_length) {
      damaged_chunk(fmt::format("chunk {} reaches beyond the end of the data.", i));
    }
    end += kChunkHeaderSize + chunk.stored_length + chunk.index_length;
    total += chunk.samples;
    s.chunks.push_back(chunk);
  }
  if (total != samples) {
    damaged_index(fmt::format("the chunks hold {} samples instead of {}.", total, samples));
  }
  if (end != data_length) {
    damaged_index(fmt::format("the chunks end at byte {} instead of {}.", end, data_length));
  }
  s.committed_samples = total;
  s.frames_end = end;
  return segment;
}

std::unique_ptr<ChunkedSegment> ChunkedSegment::from_frames(DiskFileAccess& file,
                                                            std::uint64_t data_position,
                                                            std::uint64_t limit,
                                                            std::uint64_t max_samples,
                                                            ChunkLayout layout) {
  auto segment = std::make_unique<ChunkedSegment>(file, data_position, std::move(layout));
  State& s = *segment->state_;
  s.phase = State::Phase::reading;
  const std::size_t element_size = s.layout.element_size;
  if (data_position > limit) return segment;
  const std::uint64_t available = limit - data_position;

  std::uint64_t total = 0;
  std::uint64_t total_bytes = 0;
  std::uint64_t end = 0;
  // Every check that fails ends the walk: that frame is the one being written, was torn by a writer
  // that died, or was never begun.
  while (available - end >= kChunkHeaderSize) {
    const FrameHeader header = read_frame_header(file, data_position + end);
    if (!has_bytes(header, 0, kChunkMagic)) break;
    Chunk chunk{total, get_u64(header, kChunkSamplesOffset), end,
                get_u64(header, kChunkStoredLengthOffset),
                get_u64(header, kChunkIndexLengthOffset)};
    if (chunk.stored_length == 0 || chunk.samples == 0) break;
    if (chunk.samples > max_samples - total) break;
    const auto plain = plain_bytes(chunk.samples, element_size);
    if (!plain || *plain > kMaxU64 - total_bytes) break;
    if (!s.compressed() && (chunk.stored_length != *plain || chunk.index_length != 0)) break;
    const std::uint64_t room = available - end - kChunkHeaderSize;
    if (chunk.stored_length > room || chunk.index_length > room - chunk.stored_length) break;
    end += kChunkHeaderSize + chunk.stored_length + chunk.index_length;
    total += chunk.samples;
    total_bytes += *plain;
    s.chunks.push_back(chunk);
  }
  s.committed_samples = total;
  s.frames_end = end;
  return segment;
}

void ChunkedSegment::append(std::span<const std::byte> bytes) {
  State& s = *state_;
  if (s.phase != State::Phase::writing) {
    throw std::runtime_error("Chunked segment is not open for writing.");
  }
  s.phase = State::Phase::broken;
  while (!bytes.empty()) {
    if (!s.chunk_open) s.open_chunk();
    const std::uint64_t n =
        std::min<std::uint64_t>(bytes.size(), s.chunk_bytes() - s.open_plain_bytes);
    const auto piece = bytes.first(static_cast<std::size_t>(n));
    if (s.writer) {
      s.writer->append(piece);
    } else {
      s.file.write(piece.data(), piece.size());
    }
    s.open_plain_bytes += n;
    bytes = bytes.subspan(piece.size());
    if (s.open_plain_bytes == s.chunk_bytes()) s.commit_chunk(s.layout.chunk_samples);
  }
  s.phase = State::Phase::writing;
}

std::uint64_t ChunkedSegment::finish() {
  State& s = *state_;
  if (s.phase == State::Phase::finished) return s.frames_end;
  if (s.phase != State::Phase::writing) {
    throw std::runtime_error("Chunked segment is not open for writing.");
  }
  if (s.chunk_open) {
    if (s.open_plain_bytes % s.layout.element_size != 0) {
      throw std::runtime_error("Not on sample boundary.");
    }
    s.phase = State::Phase::broken;
    s.commit_chunk(s.open_plain_bytes / s.layout.element_size);
  }
  s.phase = State::Phase::finished;
  return s.frames_end;
}

void ChunkedSegment::read(std::uint64_t offset, std::span<std::byte> out) {
  State& s = *state_;
  const std::size_t element_size = s.layout.element_size;
  const std::uint64_t length = s.committed_samples * element_size;
  if (offset > length || out.size() > length - offset) {
    throw std::out_of_range("Bytes beyond the end of the stack data requested.");
  }
  if (out.empty()) return;
  s.keep_write_position([&] { s.read_chunks(s.chunk_of(offset), offset, out); });
}

std::pair<std::uint64_t, std::uint64_t> ChunkedSegment::decode_unit(std::uint64_t offset) {
  State& s = *state_;
  if (!s.compressed() || offset >= s.committed_samples * s.layout.element_size) {
    return {offset, offset};
  }
  const std::size_t i = s.chunk_of(offset);
  const std::uint64_t base = s.chunks[i].first_sample * s.layout.element_size;
  std::pair<std::uint64_t, std::uint64_t> unit;
  s.keep_write_position([&] { unit = s.reader_for(i).decode_unit(offset - base); });
  return {unit.first + base, unit.second + base};
}

std::size_t ChunkedSegment::State::chunk_of(std::uint64_t offset) const {
  // The last chunk whose plain bytes start at or before the offset.
  const std::size_t element_size = layout.element_size;
  auto it = std::upper_bound(chunks.begin(), chunks.end(), offset,
                             [element_size](std::uint64_t value, const Chunk& chunk) {
                               return value < chunk.first_sample * element_size;
                             });
  return static_cast<std::size_t>(std::distance(chunks.begin(), it)) - 1;
}

void ChunkedSegment::State::read_chunks(std::size_t i, std::uint64_t offset,
                                        std::span<std::byte> out) {
  const std::size_t element_size = layout.element_size;
  while (!out.empty()) {
    const Chunk& chunk = chunks[i];
    const std::uint64_t within = offset - chunk.first_sample * element_size;
    const std::uint64_t n =
        std::min<std::uint64_t>(out.size(), chunk.samples * element_size - within);
    const auto piece = out.first(static_cast<std::size_t>(n));
    if (compressed()) {
      reader_for(i).read(within, piece);
    } else {
      const std::uint64_t target = data_position + chunk.frame_offset + kChunkHeaderSize + within;
      if (file.tell() != target) seek_exactly(file, target);
      file.read(piece.data(), piece.size());
    }
    out = out.subspan(piece.size());
    offset += n;
    ++i;
  }
}

std::vector<std::pair<RecordKey, std::string>> ChunkedSegment::record_entries() const {
  const State& s = *state_;
  std::string index(s.chunks.size() * kChunkIndexEntrySize, '\0');
  const auto bytes = std::span(reinterpret_cast<std::byte*>(index.data()), index.size());
  for (std::size_t i = 0; i < s.chunks.size(); ++i) {
    const std::size_t at = i * kChunkIndexEntrySize;
    put_u64(bytes, at, s.chunks[i].first_sample);
    put_u64(bytes, at + 8, s.chunks[i].samples);
    put_u64(bytes, at + 16, s.chunks[i].frame_offset);
  }
  return {{RecordKey::chunk_index, std::move(index)}};
}

std::uint64_t ChunkedSegment::end_position() const { return state_->write_position(); }

const std::vector<Chunk>& ChunkedSegment::chunks() const { return state_->chunks; }

std::uint64_t ChunkedSegment::committed_samples() const { return state_->committed_samples; }

void ChunkedSegment::verify() {
  State& s = *state_;
  if (!s.compressed()) return;
  s.keep_write_position([&] {
    for (std::size_t i = 0; i < s.chunks.size(); ++i) s.reader_for(i).verify();
  });
}

}  // namespace Tarn::bf::internal
