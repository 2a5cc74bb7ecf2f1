#include "tarnio/bf/internal/chunked_segment.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/internal/byte_order.h"
#include "tarnio/bf/internal/tbf_format.h"
#include "tarnio/errors/tarn_error.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/memory_file.h"
#include "tarnio/testing/temp_dir.h"

namespace Tarn::bf::internal {
namespace {

using Tarn::testing::TempDir;
using Bytes = std::vector<std::byte>;

// Bytes in front of the data, so that no frame offset equals its file position.
constexpr std::uint64_t kDataPosition = 13;

Bytes pattern(std::size_t n, std::uint32_t seed = 1) {
  Bytes bytes(n);
  for (std::size_t i = 0; i < n; ++i) {
    bytes[i] = static_cast<std::byte>((i * 131 + seed * 17 + i / 253) & 0xFF);
  }
  return bytes;
}

ChunkLayout plain(std::size_t element_size, std::uint64_t chunk_samples) {
  return ChunkLayout{element_size, chunk_samples, std::nullopt};
}

auto fields(const Chunk& c) {
  return std::make_tuple(c.first_sample, c.samples, c.frame_offset, c.stored_length,
                         c.index_length);
}

void expect_same_chunks(const std::vector<Chunk>& got, const std::vector<Chunk>& want,
                        std::size_t count) {
  ASSERT_EQ(got.size(), count);
  for (std::size_t i = 0; i < count; ++i) EXPECT_EQ(fields(got[i]), fields(want[i])) << i;
}

Bytes read_range(ChunkedSegment& segment, std::uint64_t offset, std::size_t n) {
  Bytes out(n);
  segment.read(offset, out);
  return out;
}

std::string chunk_index(const ChunkedSegment& segment) {
  const auto entries = segment.record_entries();
  EXPECT_GE(entries.size(), 1u);
  EXPECT_EQ(entries.at(0).first, RecordKey::chunk_index);
  return entries.at(0).second;
}

using MemoryAccess = Tarn::testing::MemoryFile;

struct WriteCase {
  const char* name;
  std::size_t element_size;
  std::uint64_t chunk_samples;
  std::uint64_t samples;
  // Byte counts of the appends, used in turn until the data is written.
  std::vector<std::size_t> pieces;
  std::optional<ZlibSettings> zlib;
};

const std::vector<WriteCase> kWriteCases = {
    {"ChunksDivideTheData", 2, 8, 32, {16}, {}},
    {"OddPiecesCrossChunkBoundaries", 2, 7, 30, {5, 3, 11}, {}},
    {"OneAppendSpansManyChunks", 4, 3, 25, {1000}, {}},
    {"OneSamplePerChunk", 1, 1, 9, {2}, {}},
    {"ChunkLargerThanTheData", 8, 100, 10, {7}, {}},
    {"WideElementsInSmallPieces", 16, 5, 13, {1, 17, 64}, {}},
    {"SeveralFlushBlocksPerChunk", 2, 100, 350, {300}, ZlibSettings{1, 64, {1, {}}}},
    {"FlushBlockNotWholeElements", 4, 37, 100, {13, 333}, ZlibSettings{6, 50, {2, {}}}},
    {"StoredLevelOneBlock", 2, 64, 200, {7}, ZlibSettings{0, std::uint64_t{4} << 20, {1, {}}}},
    {"BestLevelFourThreads", 8, 16, 40, {1000}, ZlibSettings{9, 48, {4, {}}}},
};

// Camera-like samples: a dark level with noise, so that the chunks compress but not to nothing.
Bytes noisy(std::size_t n, std::uint32_t seed) {
  std::mt19937 rng(seed);
  Bytes bytes(n);
  for (std::size_t i = 0; i < n; ++i) {
    bytes[i] = static_cast<std::byte>(i % 2 == 0 ? 100 + (rng() % 7) : 0);
  }
  return bytes;
}

// What zlib alone makes of the stored bytes of a compressed chunk.
Bytes inflated_chunk(DiskFile& file, std::uint64_t data_position, const Chunk& chunk,
                     std::size_t plain_length) {
  Bytes stored(chunk.stored_length);
  file.seek(data_position + chunk.frame_offset + kChunkHeaderSize);
  file.read(stored.data(), stored.size());
  Bytes inflated(plain_length + 1);
  uLongf inflated_length = static_cast<uLongf>(inflated.size());
  EXPECT_EQ(
      uncompress(reinterpret_cast<Bytef*>(inflated.data()), &inflated_length,
                 reinterpret_cast<const Bytef*>(stored.data()), static_cast<uLong>(stored.size())),
      Z_OK);
  inflated.resize(inflated_length);
  return inflated;
}

// Writes in the case's pieces, checking the file position after every call; each chunk full but
// the last, frames back to back, a compressed one a zlib stream of exactly its samples with its
// flush index. The writer, the index and a walk of the frames then read the same chunks and
// every range that starts and ends inside and across chunks.
TEST(ChunkedSegment, RoundTripsThroughWriterIndexAndFrames) {
  for (const WriteCase& c : kWriteCases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    DiskFile file(dir / "chunks.tbf", DiskFile::Mode::write);
    file.write(pattern(kDataPosition, 99).data(), kDataPosition);
    const ChunkLayout layout{c.element_size, c.chunk_samples, c.zlib};
    const Bytes data = c.zlib ? noisy(c.samples * c.element_size, c.zlib->level)
                              : pattern(c.samples * c.element_size);
    ChunkedSegment writer(file, kDataPosition, layout);
    for (std::size_t at = 0, k = 0; at < data.size(); ++k) {
      const std::size_t n = std::min(c.pieces[k % c.pieces.size()], data.size() - at);
      writer.append(std::span(data).subspan(at, n));
      at += n;
      ASSERT_EQ(file.tell(), writer.end_position()) << "after " << at << " bytes";
    }
    const std::uint64_t length = writer.finish();
    EXPECT_EQ(file.tell(), kDataPosition + length);
    EXPECT_EQ(writer.end_position(), kDataPosition + length);
    EXPECT_EQ(writer.committed_samples(), c.samples);

    const std::uint64_t count = (c.samples + c.chunk_samples - 1) / c.chunk_samples;
    ASSERT_EQ(writer.chunks().size(), count);
    std::uint64_t frame = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
      const Chunk& chunk = writer.chunks()[i];
      EXPECT_EQ(chunk.first_sample, i * c.chunk_samples);
      EXPECT_EQ(chunk.samples, std::min(c.chunk_samples, c.samples - i * c.chunk_samples));
      EXPECT_EQ(chunk.frame_offset, frame);
      frame += kChunkHeaderSize + chunk.stored_length + chunk.index_length;
      const std::size_t plain_length = chunk.samples * c.element_size;
      if (!c.zlib) {
        EXPECT_EQ(chunk.stored_length, plain_length);
        EXPECT_EQ(chunk.index_length, 0u);
        continue;
      }
      EXPECT_GT(chunk.index_length, 0u);
      const auto begin =
          data.begin() + static_cast<std::ptrdiff_t>(chunk.first_sample * c.element_size);
      EXPECT_EQ(inflated_chunk(file, kDataPosition, chunk, plain_length),
                Bytes(begin, begin + static_cast<std::ptrdiff_t>(plain_length)));
    }
    EXPECT_EQ(frame, length);
    // What the stack puts behind the data must not be mistaken for a frame.
    file.seek(kDataPosition + length);
    file.write(pattern(50, 7).data(), 50);

    // Compressed chunks come with their blocks' checksums, which every read then checks.
    const auto entries = writer.record_entries();
    ASSERT_EQ(entries.size(), c.zlib ? 2u : 1u);
    EXPECT_EQ(entries.back().first, c.zlib ? RecordKey::chunk_checksums : RecordKey::chunk_index);
    auto indexed =
        ChunkedSegment::from_index(file, kDataPosition, length, c.samples, chunk_index(writer),
                                   layout, c.zlib ? entries.at(1).second : std::string());
    auto walked =
        ChunkedSegment::from_frames(file, kDataPosition, file.size(), c.samples + 1000, layout);
    expect_same_chunks(indexed->chunks(), writer.chunks(), count);
    expect_same_chunks(walked->chunks(), writer.chunks(), count);
    EXPECT_EQ(indexed->end_position(), kDataPosition + length);
    EXPECT_EQ(walked->end_position(), kDataPosition + length);

    const std::size_t chunk_bytes = c.chunk_samples * c.element_size;
    for (ChunkedSegment* segment : {&writer, indexed.get(), walked.get()}) {
      EXPECT_EQ(read_range(*segment, 0, data.size()), data);
      for (std::size_t offset = 0; offset < data.size(); offset += 3 + data.size() / 100) {
        for (std::size_t n : {std::size_t{1}, chunk_bytes + 1, data.size() - offset}) {
          n = std::min(n, data.size() - offset);
          const Bytes want(data.begin() + static_cast<std::ptrdiff_t>(offset),
                           data.begin() + static_cast<std::ptrdiff_t>(offset + n));
          ASSERT_EQ(read_range(*segment, offset, n), want) << offset << "+" << n;
        }
      }
      EXPECT_THROW(read_range(*segment, data.size() - 1, 2), std::invalid_argument);
      EXPECT_EQ(read_range(*segment, data.size(), 0), Bytes{});
    }
    if (c.zlib) {
      EXPECT_NO_THROW(indexed->verify());
    }
  }
}

TEST(ChunkedSegment, FramesAndIndexSitAtTheirOffsets) {
  MemoryAccess file(pattern(kDataPosition, 5));
  file.seek(kDataPosition);
  ChunkedSegment segment(file, kDataPosition, plain(2, 3));
  const Bytes data = pattern(8);
  segment.append(data);
  EXPECT_EQ(segment.finish(), 88u);

  const std::span<const std::byte> bytes(file.bytes);
  ASSERT_EQ(bytes.size(), kDataPosition + 88);
  // A full chunk of 3 samples, then the last one of 1 sample, whose count was patched.
  const std::uint64_t frames[] = {kDataPosition, kDataPosition + 46};
  const std::uint64_t samples[] = {3, 1};
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(has_bytes(bytes, frames[i], kChunkMagic));
    EXPECT_EQ(get_u64(bytes, frames[i] + 16), samples[i]);
    EXPECT_EQ(get_u64(bytes, frames[i] + 24), 0u);
    EXPECT_EQ(get_u64(bytes, frames[i] + 32), samples[i] * 2);
  }
  EXPECT_TRUE(std::equal(data.begin(), data.begin() + 6, bytes.begin() + kDataPosition + 40));
  EXPECT_TRUE(std::equal(data.begin() + 6, data.end(), bytes.begin() + kDataPosition + 86));

  const std::string index = chunk_index(segment);
  const auto entries = std::span(reinterpret_cast<const std::byte*>(index.data()), index.size());
  ASSERT_EQ(entries.size(), 48u);
  const std::uint64_t want[] = {0, 3, 0, 3, 1, 46};
  for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(get_u64(entries, 8 * i), want[i]) << i;
}

TEST(ChunkedSegment, EdgesOfWriting) {
  MemoryAccess scratch;
  EXPECT_THROW_MESSAGE(ChunkedSegment(scratch, 0, plain(0, 1)), std::invalid_argument,
                       "Invalid chunk layout.");
  EXPECT_THROW(ChunkedSegment(scratch, 0, plain(16, std::uint64_t{1} << 62)),
               std::invalid_argument);

  // Nothing written: no frame at all, an empty index.
  ChunkedSegment empty(scratch, 0, plain(4, 10));
  empty.append({});
  EXPECT_EQ(empty.finish(), 0u);
  EXPECT_TRUE(scratch.bytes.empty());
  EXPECT_EQ(chunk_index(empty), "");
  EXPECT_EQ(ChunkedSegment::from_index(scratch, 0, 0, 0, "", plain(4, 10))->committed_samples(),
            0u);

  // Finishing inside an element is refused; finishing again changes nothing.
  MemoryAccess file;
  ChunkedSegment segment(file, 0, plain(4, 2));
  segment.append(pattern(10));
  EXPECT_THROW_MESSAGE(segment.finish(), std::runtime_error, "Not on sample boundary.");
  segment.append(pattern(2));
  const std::uint64_t length = segment.finish();
  EXPECT_EQ(segment.finish(), length);
  EXPECT_THROW_MESSAGE(segment.append(pattern(4)), std::runtime_error,
                       "Chunked segment is not open for writing.");
}

// Chunks of 3 samples of 2 bytes, plain or compressed.
const std::vector<std::pair<const char*, ChunkLayout>> kSmallLayouts = {
    {"Plain", plain(2, 3)},
    {"Compressed", ChunkLayout{2, 3, ZlibSettings{1, 4, {}}}},
};

TEST(ChunkedSegment, ReadsCommittedChunksWhileWriting) {
  for (const auto& [name, layout] : kSmallLayouts) {
    SCOPED_TRACE(name);
    TempDir dir;
    DiskFile file(dir / "growing.tbf", DiskFile::Mode::write);
    ChunkedSegment segment(file, 0, layout);
    const Bytes data = pattern(40);
    segment.append(std::span(data).first(19));
    EXPECT_EQ(segment.committed_samples(), 9u);
    EXPECT_EQ(read_range(segment, 3, 15), Bytes(data.begin() + 3, data.begin() + 18));
    EXPECT_THROW(read_range(segment, 0, 19), std::invalid_argument);
    EXPECT_EQ(file.tell(), segment.end_position());
    segment.append(std::span(data).subspan(19));
    segment.finish();
    EXPECT_EQ(read_range(segment, 0, data.size()), data);
  }
}

// A writer killed after any of its writes, and the file then cut at any byte: the walk finds
// exactly the chunks whose commit came before the kill and whose frames lie before the cut.
TEST(ChunkedSegment, WalkOfAKilledWriterSeesOnlyCommittedChunks) {
  for (const auto& [name, layout] : kSmallLayouts) {
    SCOPED_TRACE(name);
    MemoryAccess file(pattern(kDataPosition, 3), true);
    file.seek(kDataPosition);
    ChunkedSegment writer(file, kDataPosition, layout);
    const Bytes data = pattern(20);
    for (std::size_t at = 0; at < data.size(); at += 3) {
      writer.append(std::span(data).subspan(at, std::min<std::size_t>(3, data.size() - at)));
    }
    writer.finish();
    const std::vector<Chunk>& chunks = writer.chunks();
    ASSERT_EQ(chunks.size(), 4u);
    const auto frame_end = [&](std::size_t i) {
      return kDataPosition + chunks[i].frame_offset + kChunkHeaderSize + chunks[i].stored_length +
             chunks[i].index_length;
    };

    // The commit of a chunk is the write of its stored length, and nothing of its frame is
    // written after it.
    std::vector<std::size_t> commit(chunks.size(), file.writes.size());
    for (std::size_t w = 0; w < file.writes.size(); ++w) {
      const auto [position, size] = file.writes[w];
      for (std::size_t i = 0; i < chunks.size(); ++i) {
        const std::uint64_t frame = kDataPosition + chunks[i].frame_offset;
        if (position == frame + kChunkStoredLengthOffset && size == 8) commit[i] = w;
        if (position < frame_end(i) && position + size > frame) {
          EXPECT_LE(w, commit[i]) << i;
        }
      }
    }
    for (std::size_t i = 0; i < chunks.size(); ++i) ASSERT_LT(commit[i], file.writes.size());

    for (std::size_t w = 0; w < file.snapshots.size(); ++w) {
      const Bytes& state = file.snapshots[w];
      for (std::size_t cut = kDataPosition - 1; cut <= state.size(); ++cut) {
        std::size_t want = 0;
        while (want < chunks.size() && commit[want] <= w && frame_end(want) <= cut) ++want;
        MemoryAccess damaged(
            Bytes(state.begin(), state.begin() + static_cast<std::ptrdiff_t>(cut)));
        auto walked = ChunkedSegment::from_frames(damaged, kDataPosition, cut, 1000, layout);
        ASSERT_NO_FATAL_FAILURE(expect_same_chunks(walked->chunks(), chunks, want))
            << "write " << w << " cut " << cut;
        const std::size_t n = walked->committed_samples() * 2;
        ASSERT_EQ(read_range(*walked, 0, n),
                  Bytes(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(n)));
      }
    }
  }
}

TEST(ChunkedSegment, WalkStopsAtForeignBytesAndAtTheSampleLimit) {
  const ChunkLayout layout{2, 4, std::nullopt};
  MemoryAccess file;
  ChunkedSegment writer(file, 0, layout);
  writer.append(pattern(20));
  writer.finish();
  const Bytes written = file.bytes;

  // Chunks of 4, 4 and 2 samples: a limit of 9 samples takes the first two.
  auto limited = ChunkedSegment::from_frames(file, 0, written.size(), 9, layout);
  expect_same_chunks(limited->chunks(), writer.chunks(), 2);
  auto none = ChunkedSegment::from_frames(file, 0, written.size(), 3, layout);
  EXPECT_EQ(none->committed_samples(), 0u);

  // A different magic right at the data position: no committed chunk.
  Bytes foreign = written;
  foreign[0] = std::byte{'X'};
  MemoryAccess foreign_file(foreign);
  EXPECT_TRUE(
      ChunkedSegment::from_frames(foreign_file, 0, foreign.size(), 100, layout)->chunks().empty());

  // A second frame that lies about its plain length ends the walk there.
  Bytes lying = written;
  put_u64(lying, 48 + kChunkStoredLengthOffset, 6);
  MemoryAccess lying_file(lying);
  expect_same_chunks(
      ChunkedSegment::from_frames(lying_file, 0, lying.size(), 100, layout)->chunks(),
      writer.chunks(), 1);

  // A data position behind the limit holds nothing.
  EXPECT_TRUE(ChunkedSegment::from_frames(file, 100, 50, 100, layout)->chunks().empty());
}

// A finished stack of chunks with 4, 4 and 2 samples of 2 bytes: frames at 0, 48 and 96, 140
// bytes in all, followed by bytes of the record.
struct IndexLie {
  const char* name;
  // Changes the index entries (u64 words: first sample, samples, frame offset per chunk).
  std::function<void(std::vector<std::uint64_t>&)> index;
  // Changes the file's bytes.
  std::function<void(Bytes&)> file;
  std::uint64_t data_length;
  std::uint64_t samples;
  const char* message;
};

TEST(ChunkedSegment, IndexThatLiesIsRefused) {
  const ChunkLayout layout{2, 4, std::nullopt};
  MemoryAccess written;
  ChunkedSegment writer(written, 0, layout);
  writer.append(pattern(20));
  ASSERT_EQ(writer.finish(), 140u);
  Bytes good = written.bytes;
  const Bytes trailer = pattern(40, 9);
  good.insert(good.end(), trailer.begin(), trailer.end());

  const auto keep = [](auto&) {};
  const std::vector<IndexLie> lies = {
      {"SecondChunkStartsLate", [](auto& w) { w[3] = 5; }, keep, 140, 10,
       "Damaged chunk index: chunk 1 starts at sample 5 instead of 4."},
      {"EmptyChunk", [](auto& w) { w[7] = 0; }, keep, 140, 10,
       "Damaged chunk index: chunk 2 holds no samples."},
      {"MoreSamplesThanTheStack", [](auto& w) { w[7] = 3; }, keep, 140, 10,
       "Damaged chunk index: chunk 2 reaches beyond the stack's 10 samples."},
      {"GapBetweenFrames", [](auto& w) { w[5] = 49; }, keep, 140, 10,
       "Damaged chunk index: chunk 1 starts at byte 49 instead of 48."},
      {"OverlappingFrames", [](auto& w) { w[8] = 90; }, keep, 140, 10,
       "Damaged chunk index: chunk 2 starts at byte 90 instead of 96."},
      {"LastChunkMissing", [](auto& w) { w.resize(6); }, keep, 140, 10,
       "Damaged chunk index: the chunks hold 8 samples instead of 10."},
      {"StackLongerThanTheChunks", nullptr, keep, 140, 12,
       "Damaged chunk index: the chunks hold 10 samples instead of 12."},
      {"DataLongerThanTheFrames", nullptr, keep, 148, 10,
       "Damaged chunk index: the chunks end at byte 140 instead of 148."},
      {"DataBeyondTheFile", nullptr, keep, 1000, 10,
       "Damaged chunk index: the data of 1000 bytes reaches beyond the end of the file."},
      {"SamplesOverflowALength", nullptr, keep, 140, std::uint64_t{1} << 63,
       "Damaged chunk index: 9223372036854775808 samples of 2 bytes exceed any data length."},
      {"DataEndsInsideTheLastFrame", nullptr, keep, 139, 10,
       "Damaged chunk: chunk 2 reaches beyond the end of the data."},
      {"DataEndsBeforeTheSecondFrame", [](auto& w) { w.resize(6); }, keep, 60, 8,
       "Damaged chunk index: chunk 1 starts behind the end of the data."},
      {"NoFrameWhereTheIndexPoints", nullptr, [](Bytes& b) { b[48] = std::byte{0}; }, 140, 10,
       "Damaged chunk: chunk 1 has no frame header at byte 48."},
      {"FrameHoldsOtherSamples",
       [](auto& w) {
         w[4] = 3;
         w[6] = 7;
         w[7] = 3;
       },
       keep, 140, 10, "Damaged chunk: chunk 1 holds 4 samples, the index says 3."},
      {"FrameNeverCommitted", nullptr, [](Bytes& b) { put_u64(b, 96 + 32, 0); }, 140, 10,
       "Damaged chunk: chunk 2 was never completed."},
      {"PlainFrameWithWrongLength", nullptr, [](Bytes& b) { put_u64(b, 48 + 32, 7); }, 140, 10,
       "Damaged chunk: chunk 1 stores 7 bytes and 0 index bytes for 8 plain bytes."},
      {"PlainFrameWithAnIndex", nullptr, [](Bytes& b) { put_u64(b, 24, 1); }, 140, 10,
       "Damaged chunk: chunk 0 stores 8 bytes and 1 index bytes for 8 plain bytes."},
  };
  for (const IndexLie& lie : lies) {
    SCOPED_TRACE(lie.name);
    std::string index = chunk_index(writer);
    if (lie.index) {
      std::vector<std::uint64_t> words(index.size() / 8);
      std::memcpy(words.data(), index.data(), index.size());
      lie.index(words);
      index.assign(reinterpret_cast<const char*>(words.data()), words.size() * 8);
    }
    Bytes bytes = good;
    lie.file(bytes);
    MemoryAccess file(bytes);
    EXPECT_THROW_MESSAGE(
        ChunkedSegment::from_index(file, 0, lie.data_length, lie.samples, index, layout), TarnError,
        lie.message);
  }
  MemoryAccess file(good);
  EXPECT_THROW_MESSAGE(
      ChunkedSegment::from_index(file, 0, 140, 10, chunk_index(writer).substr(1), layout),
      TarnError, "Damaged chunk index: its 71 bytes are not a whole number of entries.");
}

// Each of `attempts` fails with a TarnError whose message begins with `prefix` and ends with
// `suffix`.
void expect_each_reports(const std::vector<std::function<void()>>& attempts,
                         const std::string& prefix, const std::string& suffix = "") {
  for (const auto& attempt : attempts) {
    try {
      attempt();
      ADD_FAILURE() << "no error for " << prefix;
    } catch (const TarnError& error) {
      EXPECT_TRUE(error.message().starts_with(prefix) && error.message().ends_with(suffix))
          << error.message();
    }
  }
}

TEST(ChunkedSegment, DamagedCompressedChunksAreReported) {
  const ChunkLayout layout{2, 50, ZlibSettings{6, 32, {}}};
  MemoryAccess written;
  ChunkedSegment writer(written, 0, layout);
  const Bytes data = noisy(300, 3);
  writer.append(data);
  const std::uint64_t length = writer.finish();
  ASSERT_EQ(writer.chunks().size(), 3u);
  const Chunk second = writer.chunks()[1];
  const std::string index = chunk_index(writer);
  const auto expect_damage = [&](Bytes bytes, const std::string& prefix) {
    MemoryAccess file(std::move(bytes));
    auto segment = ChunkedSegment::from_index(file, 0, length, 150, index, layout);
    // The first chunk is whole; the second fails however it is read.
    EXPECT_EQ(read_range(*segment, 0, 100), Bytes(data.begin(), data.begin() + 100));
    expect_each_reports({[&] { read_range(*segment, 100, 100); }, [&] { segment->verify(); }},
                        prefix);
  };

  // Deflate data that lies, a flush index that lies.
  Bytes flipped = written.bytes;
  // The first block header behind the zlib header: final, of the reserved type 3.
  flipped[second.frame_offset + kChunkHeaderSize + kZlibHeaderSize] = std::byte{0xFF};
  expect_damage(flipped, "Damaged compressed data: ");
  Bytes bad_index = written.bytes;
  const std::uint64_t index_at = second.frame_offset + kChunkHeaderSize + second.stored_length;
  put_u64(bad_index, index_at, 1);
  expect_damage(bad_index, "Damaged flush index: ");

  // An index length that reaches into the next frame is caught by the frames' layout.
  Bytes long_index = written.bytes;
  put_u64(long_index, second.frame_offset + kChunkIndexLengthOffset, second.index_length + 1);
  MemoryAccess file(long_index);
  EXPECT_THROW_MESSAGE(ChunkedSegment::from_index(file, 0, length, 150, index, layout), TarnError,
                       "Damaged chunk index: chunk 2 starts at byte " +
                           std::to_string(writer.chunks()[2].frame_offset) + " instead of " +
                           std::to_string(writer.chunks()[2].frame_offset + 1) + ".");
}

// A changed byte that still inflates (a stored block's payload) is caught by the chunks' block
// checksums on every read that inflates its block; a walk of the frames, which has none, reads it.
TEST(ChunkedSegment, ChunkChecksumsCatchDamageThatInflates) {
  const ChunkLayout layout{2, 50, ZlibSettings{0, 32, {}}};
  MemoryAccess written;
  ChunkedSegment writer(written, 0, layout);
  const Bytes data = noisy(300, 5);
  writer.append(data);
  const std::uint64_t length = writer.finish();
  const auto entries = writer.record_entries();
  ASSERT_EQ(entries.size(), 2u);
  Bytes bytes = written.bytes;
  const auto plain_at = data.begin() + 140;
  const auto stored_at = std::search(bytes.begin(), bytes.end(), plain_at, plain_at + 8);
  ASSERT_NE(stored_at, bytes.end());
  *stored_at ^= std::byte{0x10};
  MemoryAccess file(std::move(bytes));
  auto checked = ChunkedSegment::from_index(file, 0, length, 150, entries.at(0).second, layout,
                                            entries.at(1).second);
  auto unchecked = ChunkedSegment::from_frames(file, 0, length, 150, layout);
  EXPECT_EQ(read_range(*checked, 0, 100), Bytes(data.begin(), data.begin() + 100));
  expect_each_reports({[&] { read_range(*checked, 139, 2); }, [&] { read_range(*checked, 0, 300); },
                       [&] { checked->verify(); }},
                      "Damaged compressed data: plain bytes ", " do not match their checksum.");
  EXPECT_EQ(read_range(*unchecked, 140, 1).front(), data[140] ^ std::byte{0x10});
}

}  // namespace
}  // namespace Tarn::bf::internal
