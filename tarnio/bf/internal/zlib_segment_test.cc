#include "tarnio/bf/internal/zlib_segment.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/internal/deflate_engine.h"
#include "tarnio/bf/internal/flush_index.h"
#include "tarnio/bf/internal/tbf_format.h"
#include "tarnio/errors/tarn_error.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/memory_file.h"
#include "tarnio/testing/temp_dir.h"

namespace Tarn::bf::internal {
namespace {

using Bytes = std::vector<std::byte>;

// The stream starts a few bytes into the file, as behind a stack's description.
constexpr std::uint64_t kDataPosition = 7;
constexpr std::uint64_t kSmallBlock = 65537;

using Tarn::testing::MemoryFile;

// Runs every task on a thread of its own; the destructor waits for them.
class ThreadLauncher {
 public:
  ThreadingSupport threading(std::uint64_t threads) {
    return {threads, [this](std::function<void()> task) {
              const std::lock_guard lock(mutex_);
              running_.push_back(std::async(std::launch::async, std::move(task)));
            }};
  }
  std::size_t launched() {
    const std::lock_guard lock(mutex_);
    return running_.size();
  }

 private:
  std::mutex mutex_;
  std::vector<std::future<void>> running_;
};

// 16-bit samples like a camera's: an offset, a slow pattern and noise.
Bytes camera_bytes(std::size_t n, unsigned seed = 1) {
  std::mt19937 random(seed);
  std::normal_distribution<float> noise(0, 4);
  Bytes bytes(n);
  for (std::size_t i = 0; i < n; i += 2) {
    const auto sample = static_cast<std::uint16_t>(100 + (i / 2 % 2048 < 300 ? 900 : 0) +
                                                   static_cast<int>(std::abs(noise(random))));
    bytes[i] = static_cast<std::byte>(sample & 0xFF);
    if (i + 1 < n) bytes[i + 1] = static_cast<std::byte>(sample >> 8);
  }
  return bytes;
}

struct Written {
  std::uint64_t stored_length = 0;
  std::vector<FlushPoint> points;
  std::vector<std::uint32_t> checksums;
};

Written write_stream(MemoryFile& file, const Bytes& plain, ZlibSettings settings,
                     std::size_t piece = 10007) {
  file.bytes.assign(kDataPosition, std::byte{0x55});
  file.seek(kDataPosition);
  ZlibSegment segment(file, kDataPosition, settings);
  for (std::size_t at = 0; at < plain.size(); at += piece) {
    segment.append(std::span(plain).subspan(at, std::min(piece, plain.size() - at)));
    EXPECT_EQ(file.tell(), segment.end_position());
  }
  const std::uint64_t stored = segment.finish();
  EXPECT_EQ(file.tell(), kDataPosition + stored);
  EXPECT_EQ(segment.end_position(), kDataPosition + stored);
  const auto entries = segment.record_entries();
  EXPECT_EQ(entries.size(), 2u);
  auto points = decode_flush_index(entries.at(0).second, plain.size(), stored);
  auto checksums = decode_block_checksums(entries.at(1).second, points.size() - 1);
  return {stored, std::move(points), std::move(checksums)};
}

Bytes stored_bytes(const MemoryFile& file, std::uint64_t stored_length) {
  return {file.bytes.begin() + kDataPosition,
          file.bytes.begin() + static_cast<std::ptrdiff_t>(kDataPosition + stored_length)};
}

// What plain zlib makes of a stream.
Bytes zlib_uncompress(const Bytes& stored, std::size_t plain_size) {
  Bytes plain(plain_size + 1);
  uLongf size = plain.size();
  const int result = uncompress(reinterpret_cast<Bytef*>(plain.data()), &size,
                                reinterpret_cast<const Bytef*>(stored.data()), stored.size());
  if (result != Z_OK) throw std::runtime_error("uncompress failed: " + std::to_string(result));
  plain.resize(size);
  return plain;
}

std::unique_ptr<ZlibSegment> reader(MemoryFile& file, const Written& written,
                                    std::uint64_t plain_size, ThreadingSupport threading = {}) {
  return std::make_unique<ZlibSegment>(file, kDataPosition, written.stored_length, plain_size,
                                       written.points, std::move(threading));
}

Bytes read_all(ZlibSegment& segment, std::uint64_t size) {
  Bytes out(size);
  segment.read(0, out);
  return out;
}

TEST(ZlibSegment, EveryLevelAndThreadingWritesOneStandardStream) {
  const Bytes data = camera_bytes(5 * kSmallBlock + kSmallBlock / 2);
  const std::vector<std::size_t> lengths{0, 1, 1001, kSmallBlock, kSmallBlock + 1, data.size()};
  // One level of each engine: stored, ISA-L, libdeflate, zlib, libdeflate's near-optimal.
  for (const std::uint32_t level : {0u, 1u, 3u, 6u, 9u}) {
    for (const std::uint64_t threads : {1u, 4u}) {
      for (const bool launcher : {false, true}) {
        ThreadLauncher launched;
        const ThreadingSupport threading =
            launcher ? launched.threading(threads) : ThreadingSupport{threads, {}};
        for (const std::size_t length : lengths) {
          SCOPED_TRACE(::testing::Message()
                       << "level " << level << ", " << threads << " threads"
                       << (launcher ? " launched" : "") << ", " << length << " bytes");
          const Bytes plain(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(length));
          MemoryFile file;
          const Written written = write_stream(file, plain, {level, kSmallBlock, threading});
          const Bytes stored = stored_bytes(file, written.stored_length);
          EXPECT_EQ(zlib_uncompress(stored, length), plain);
          EXPECT_EQ(stored[0], zlib_header(level)[0]);
          EXPECT_EQ(stored[1], zlib_header(level)[1]);
          EXPECT_EQ(written.points.size(), (length + kSmallBlock - 1) / kSmallBlock + 1);

          auto segment = reader(file, written, length, threading);
          EXPECT_EQ(read_all(*segment, length), plain);
          EXPECT_EQ(segment->blocks_inflated(), written.points.size() - 1);
          segment->verify();
        }
        if (launcher) {
          EXPECT_GT(launched.launched(), 0u);
        }
      }
    }
  }
}

std::size_t thread_count() {
  return static_cast<std::size_t>(
      std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                    std::filesystem::directory_iterator{}));
}

TEST(ZlibSegment, WrittenSegmentReadsBackOnceFinished) {
  const Bytes plain = camera_bytes(3 * kSmallBlock + 5);
  const std::size_t threads_before = thread_count();
  MemoryFile file;
  file.seek(kDataPosition);
  ZlibSegment segment(file, kDataPosition, {1, kSmallBlock, {2, {}}});
  segment.append(plain);
  Bytes out(10);
  EXPECT_THROW_MESSAGE(segment.read(0, out), std::runtime_error,
                       "Zipped segment unexpectedly initialized in write mode.");
  EXPECT_THROW_MESSAGE(segment.verify(), std::runtime_error,
                       "Zipped segment unexpectedly initialized in write mode.");
  // The blocks written so far can be had while writing; the file stays where writing goes on.
  const std::uint64_t end = segment.end_position();
  const Bytes runs = segment.read_flush_blocks(0, kSmallBlock);
  EXPECT_EQ(file.tell(), end);
  EXPECT_THROW_MESSAGE(segment.read_flush_blocks(0, 3 * kSmallBlock), std::runtime_error,
                       "Requested range is not flush point aligned, empty or has not yet been "
                       "written");
  segment.finish();
  EXPECT_EQ(read_all(segment, plain.size()), plain);
  // Between calls a segment holds no threads, however many stacks a file keeps open.
  EXPECT_EQ(thread_count(), threads_before);
  EXPECT_THROW(segment.read(plain.size() - 1, std::span(out).first(2)), std::invalid_argument);

  // A run is raw deflate that needs nothing before it.
  Bytes back(kSmallBlock);
  z_stream z{};
  ASSERT_EQ(inflateInit2(&z, -15), Z_OK);
  z.next_in = reinterpret_cast<Bytef*>(const_cast<std::byte*>(runs.data()));
  z.avail_in = static_cast<uInt>(runs.size());
  z.next_out = reinterpret_cast<Bytef*>(back.data());
  z.avail_out = static_cast<uInt>(back.size());
  EXPECT_EQ(inflate(&z, Z_SYNC_FLUSH), Z_OK);
  EXPECT_EQ(z.avail_in, 0u);
  EXPECT_EQ(z.avail_out, 0u);
  inflateEnd(&z);
  EXPECT_TRUE(std::equal(back.begin(), back.end(), plain.begin()));
}

TEST(ZlibSegment, FlushBlockRequests) {
  const Bytes plain = camera_bytes(4 * kSmallBlock);
  MemoryFile file;
  const Written written = write_stream(file, plain, {6, kSmallBlock, {}});
  auto segment = reader(file, written, plain.size());
  const std::string unaligned =
      "Requested range is not flush point aligned, empty or has not yet been written";
  EXPECT_THROW_MESSAGE(segment->read_flush_blocks(1, kSmallBlock), std::runtime_error, unaligned);
  EXPECT_THROW_MESSAGE(segment->read_flush_blocks(kSmallBlock, kSmallBlock), std::runtime_error,
                       unaligned);
  EXPECT_THROW_MESSAGE(segment->read_flush_blocks(kSmallBlock, 0), std::runtime_error, unaligned);
  EXPECT_THROW_MESSAGE(segment->read_flush_blocks(0, 5 * kSmallBlock), std::runtime_error,
                       unaligned);
  // The runs of blocks 1 and 2 between a header and a trailer of their own: a stream again.
  const Bytes runs = segment->read_flush_blocks(kSmallBlock, 3 * kSmallBlock);
  EXPECT_EQ(runs.size(), written.points[3].stored_offset - written.points[1].stored_offset);
  const std::span<const std::byte> middle = std::span(plain).subspan(kSmallBlock, 2 * kSmallBlock);
  const auto header = zlib_header(6);
  Bytes stream(header.begin(), header.end());
  stream.insert(stream.end(), runs.begin(), runs.end());
  const auto trailer = zlib_trailer(adler32_of(middle));
  stream.insert(stream.end(), trailer.begin(), trailer.end());
  EXPECT_TRUE(std::ranges::equal(zlib_uncompress(stream, middle.size()), middle));

  const Written no_index{written.stored_length, {}, {}};
  EXPECT_THROW_MESSAGE(reader(file, no_index, plain.size())->read_flush_blocks(0, kSmallBlock),
                       std::runtime_error, "No flush blocks available");
}

TEST(ZlibSegment, PartialReadsInflateOnlyTheBlocksTheyTouch) {
  const Bytes plain = camera_bytes(20 * kSmallBlock + 999);
  MemoryFile file;
  const Written written = write_stream(file, plain, {1, kSmallBlock, {}});
  std::mt19937_64 random(7);
  for (int trial = 0; trial < 60; ++trial) {
    const std::uint64_t begin = random() % plain.size();
    const std::uint64_t size =
        1 + random() % std::min<std::uint64_t>(plain.size() - begin, trial % 2 ? 50 : 300000);
    SCOPED_TRACE(::testing::Message() << "bytes " << begin << " + " << size);
    auto segment = reader(file, written, plain.size(), {2, {}});
    Bytes out(size);
    segment->read(begin, out);
    EXPECT_TRUE(std::equal(out.begin(), out.end(), plain.begin() + static_cast<long>(begin)));
    EXPECT_EQ(segment->blocks_inflated(),
              (begin + size - 1) / kSmallBlock - begin / kSmallBlock + 1);
  }

  // Reading front to back in pieces that end inside blocks inflates each block once.
  for (const std::uint64_t threads : {1u, 3u}) {
    auto segment = reader(file, written, plain.size(), {threads, {}});
    Bytes out(plain.size());
    for (std::size_t at = 0; at < out.size(); at += 100003) {
      segment->read(at, std::span(out).subspan(at, std::min<std::size_t>(100003, out.size() - at)));
    }
    EXPECT_EQ(out, plain);
    EXPECT_EQ(segment->blocks_inflated(), written.points.size() - 1);
  }
}

TEST(ZlibSegment, ReadsAStreamWithoutIndexFrontToBack) {
  const Bytes plain = camera_bytes(300001);
  uLongf size = compressBound(plain.size());
  Bytes stored(size);
  ASSERT_EQ(compress2(reinterpret_cast<Bytef*>(stored.data()), &size,
                      reinterpret_cast<const Bytef*>(plain.data()), plain.size(), 6),
            Z_OK);
  stored.resize(size);
  MemoryFile file;
  file.bytes.assign(kDataPosition, std::byte{0});
  file.bytes.insert(file.bytes.end(), stored.begin(), stored.end());
  const Written written{stored.size(), {}, {}};

  auto segment = reader(file, written, plain.size(), {2, {}});
  EXPECT_TRUE(segment->flush_points().empty());
  EXPECT_TRUE(segment->record_entries().empty());
  Bytes out(plain.size());
  for (std::size_t at = 0; at < out.size(); at += 65536) {
    segment->read(at, std::span(out).subspan(at, std::min<std::size_t>(65536, out.size() - at)));
  }
  EXPECT_EQ(out, plain);
  EXPECT_EQ(segment->blocks_inflated(), 1u);
  // Going back starts over.
  Bytes piece(1000);
  segment->read(12345, piece);
  EXPECT_TRUE(std::equal(piece.begin(), piece.end(), plain.begin() + 12345));
  EXPECT_EQ(segment->blocks_inflated(), 2u);
  segment->verify();

  // The stack claims more bytes than the stream holds, or fewer; the stream is cut short.
  EXPECT_THROW_MESSAGE(read_all(*reader(file, written, plain.size() + 1), plain.size() + 1),
                       TarnError,
                       "Damaged compressed data: the stream inflates to fewer bytes than the "
                       "stack holds.");
  EXPECT_THROW_MESSAGE(reader(file, written, plain.size() - 1)->verify(), TarnError,
                       "Damaged compressed data: the stream inflates to more bytes than the "
                       "stack holds.");
  const Written cut{stored.size() - 100, {}, {}};
  EXPECT_THROW_MESSAGE(read_all(*reader(file, cut, plain.size()), plain.size()), TarnError,
                       "Damaged compressed data: the stream ends early.");
  file.bytes.push_back(std::byte{0});
  EXPECT_THROW_MESSAGE(reader(file, {stored.size() + 1, {}, {}}, plain.size())->verify(), TarnError,
                       "Damaged compressed data: bytes follow the end of the stream.");
}

TEST(ZlibSegment, DamagedFlushIndexIsRefused) {
  const auto encode = [](std::vector<FlushPoint> points) { return encode_flush_index(points); };
  struct Case {
    std::string name;
    std::string bytes;
  };
  // A stream of 1000 stored bytes holding 5000 plain bytes.
  const std::vector<Case> cases{
      {"empty", ""},
      {"partial point", encode({{0, 2}, {5000, 994}}).substr(0, 31)},
      {"first point", encode({{0, 3}, {5000, 994}})},
      {"first plain offset", encode({{1, 2}, {5000, 994}})},
      {"not increasing", encode({{0, 2}, {3000, 500}, {3000, 700}, {5000, 994}})},
      {"stored going back", encode({{0, 2}, {3000, 500}, {4000, 400}, {5000, 994}})},
      {"plain beyond the data", encode({{0, 2}, {6000, 994}})},
      {"stored beyond the data", encode({{0, 2}, {5000, 1994}})},
      {"no room for the trailer", encode({{0, 2}, {5000, 995}})},
      {"last point short of the end", encode({{0, 2}, {4000, 994}})},
      {"block cannot hold its bytes", encode({{0, 2}, {4000, 3}, {5000, 994}})},
      {"huge offsets", encode({{0, 2}, {~std::uint64_t{0}, ~std::uint64_t{0}}})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    try {
      decode_flush_index(c.bytes, 5000, 1000);
      ADD_FAILURE() << "accepted";
    } catch (const TarnError& error) {
      EXPECT_EQ(error.message().rfind("Damaged flush index: ", 0), 0u) << error.message();
    }
  }
  EXPECT_EQ(decode_flush_index(encode({{0, 2}}), 0, 8), (std::vector<FlushPoint>{{0, 2}}));
}

// Every flipped byte of the stored stream that changes what it holds is caught by verify();
// reading the damaged stream gives a clear error or bytes (whose fault verify() reports).
TEST(ZlibSegment, FlippedBytesAreCaught) {
  const Bytes plain = camera_bytes(6 * 4099 + 17);
  for (const std::uint32_t level : {0u, 1u, 6u, 9u}) {
    MemoryFile file;
    const Written written = write_stream(file, plain, {level, 4099, {}});
    const Bytes original = file.bytes;
    std::mt19937_64 random(level);
    const int trials = level == 0 ? 40 : 150;
    for (int trial = 0; trial < trials; ++trial) {
      const std::uint64_t at = kDataPosition + random() % written.stored_length;
      const auto flip = static_cast<std::byte>(1 + random() % 255);
      SCOPED_TRACE(::testing::Message() << "level " << level << ", byte " << at - kDataPosition);
      file.bytes = original;
      file.bytes[at] ^= flip;
      for (const bool index : {true, false}) {
        const Written how{
            written.stored_length, index ? written.points : std::vector<FlushPoint>{}, {}};
        auto segment = reader(file, how, plain.size(), {3, {}});
        Bytes out(plain.size());
        bool read = false;
        try {
          segment->read(0, out);
          read = true;
        } catch (const TarnError& error) {
          EXPECT_EQ(error.message().rfind("Damaged compressed data: ", 0), 0u) << error.message();
        }
        try {
          segment->verify();
          // Only the padding bits of a stored block header mean nothing to an inflater.
          EXPECT_TRUE(read && out == plain) << "verify() passed" << (index ? "" : " without index");
        } catch (const TarnError& error) {
          EXPECT_EQ(error.message().rfind("Damaged compressed data: ", 0), 0u) << error.message();
        }
      }
    }
  }
}

// With the blocks' checksums every read checks each block it inflates, also one it needs only
// a byte of, and names the damaged block's plain bytes; without them the same reads return the
// changed bytes unchecked, as they always did.
TEST(ZlibSegment, ReadsCheckEveryBlockTheyInflate) {
  const Bytes plain = camera_bytes(6 * 4099 + 17);
  MemoryFile file;
  const Written written = write_stream(file, plain, {0, 4099, {}});
  // Level 0 stores block 2 as it is behind a 5-byte stored-block header: the flip changes one
  // plain byte and leaves a stream that inflates.
  file.bytes[kDataPosition + written.points[2].stored_offset + 5 + 10] ^= std::byte{0x40};
  const std::uint64_t block = written.points[2].plain_offset;
  const std::string damaged =
      fmt::format("Damaged compressed data: plain bytes {} to {} do not match their checksum.",
                  block, written.points[3].plain_offset);
  ZlibSegment checked(file, kDataPosition, written.stored_length, plain.size(), written.points,
                      {2, {}}, written.checksums);
  const auto unchecked = reader(file, written, plain.size(), {2, {}});
  const std::vector<std::pair<std::uint64_t, std::size_t>> ranges{
      {block + 100, 1}, {block - 50, 100}, {block - 50, 4099 + 100}, {0, plain.size()}};
  for (const auto& [begin, size] : ranges) {
    Bytes out(size);
    EXPECT_THROW_MESSAGE(checked.read(begin, out), TarnError, damaged);
    unchecked->read(begin, out);
  }
  EXPECT_THROW_MESSAGE(checked.verify(), TarnError, damaged);
}

TEST(ZlibSegment, IndexThatLiesAboutTheStream) {
  const Bytes plain = camera_bytes(4 * 4099);
  MemoryFile file;
  const Written written = write_stream(file, plain, {2, 4099, {}});
  // Block 1 claims a byte of block 2: both inflate to the wrong length.
  Written lying = written;
  lying.points[2].plain_offset += 1;
  EXPECT_THROW_MESSAGE(read_all(*reader(file, lying, plain.size(), {2, {}}), plain.size()),
                       TarnError,
                       "Damaged compressed data: a flush block inflates to 4099 bytes instead of "
                       "4100.");
  // A partial read of block 1 runs out of its bytes.
  Bytes out(1);
  EXPECT_THROW_MESSAGE(reader(file, lying, plain.size())->read(2 * 4099, out), TarnError,
                       "Damaged compressed data: a flush block inflates to fewer bytes than the "
                       "index says.");
  // A flush point in the middle of a run: the run before it does not end on a full flush.
  lying = written;
  lying.points[1].stored_offset -= 1;
  EXPECT_THROW(read_all(*reader(file, lying, plain.size()), plain.size()), TarnError);
  // The data reaches beyond the end of the file.
  file.bytes.resize(file.bytes.size() - 7);
  EXPECT_THROW_MESSAGE(read_all(*reader(file, written, plain.size()), plain.size()), TarnError,
                       "Damaged compressed data: the stream runs past the end of the file.");
}

// A launcher that never runs what it is given: every task runs in the caller's thread as it
// waits for it. One that throws: the task is done (or never started) when the error arrives.
TEST(ZlibSegment, LaunchersThatFailOrNeverRunAnything) {
  const Bytes plain = camera_bytes(10 * 4099 + 3);
  std::vector<std::function<void()>> dropped;
  const ThreadingSupport idle{
      4, [&dropped](std::function<void()> task) { dropped.push_back(std::move(task)); }};
  MemoryFile file;
  const Written written = write_stream(file, plain, {3, 4099, idle});
  EXPECT_EQ(read_all(*reader(file, written, plain.size(), idle), plain.size()), plain);
  EXPECT_FALSE(dropped.empty());
  dropped.clear();  // Tasks that already ran do nothing when run late.

  int launches = 0;
  std::vector<std::future<void>> running;
  const ThreadingSupport failing{
      2, [&](std::function<void()> task) {
        if (++launches == 3) throw std::runtime_error("pool closed");
        running.push_back(std::async(std::launch::async, std::move(task)));
      }};
  MemoryFile other;
  other.seek(kDataPosition);
  {
    ZlibSegment segment(other, kDataPosition, {3, 4099, failing});
    EXPECT_THROW_MESSAGE(segment.append(plain), std::runtime_error, "pool closed");
    EXPECT_THROW(segment.append(plain), std::runtime_error);
  }
  launches = 0;
  Bytes out(plain.size());
  EXPECT_THROW_MESSAGE(reader(file, written, plain.size(), failing)->read(0, out),
                       std::runtime_error, "pool closed");
}

// A block that fails while others are in flight, and a segment dropped in the middle of
// writing: no task may go on with the buffers once the call or the segment is gone (the
// sanitizer build watches).
TEST(ZlibSegment, FailuresLeaveNoTaskRunning) {
  const Bytes plain = camera_bytes(40 * 4099);
  MemoryFile file;
  const Written written = write_stream(file, plain, {1, 4099, {4, {}}});
  file.bytes[kDataPosition + written.points[3].stored_offset + 10] ^= std::byte{0xFF};
  for (const std::uint64_t threads : {2u, 4u}) {
    ThreadLauncher launched;
    for (const bool launcher : {false, true}) {
      auto segment = reader(file, written, plain.size(),
                            launcher ? launched.threading(threads) : ThreadingSupport{threads, {}});
      auto out = std::make_unique<Bytes>(plain.size());
      EXPECT_THROW(segment->read(0, *out), TarnError);
      out.reset();
    }
  }

  for (const std::uint64_t threads : {1u, 4u}) {
    MemoryFile scratch;
    scratch.seek(kDataPosition);
    auto segment =
        std::make_unique<ZlibSegment>(scratch, kDataPosition, ZlibSettings{6, 4099, {threads, {}}});
    segment->append(plain);
    segment.reset();
  }
}

TEST(ZlibSegment, RoundTripThroughADiskFile) {
  std::error_code error;
  const std::filesystem::path base =
      std::filesystem::is_directory("/dev/shm", error) && ::access("/dev/shm", W_OK) == 0
          ? std::filesystem::path("/dev/shm")
          : std::filesystem::temp_directory_path();
  const Tarn::testing::TempDir dir(base);
  const Bytes plain = camera_bytes(3 * (std::size_t{1} << 20) + 3);
  std::uint64_t stored = 0;
  std::string index;
  {
    DiskFile file(dir / "stream.tbf", DiskFile::Mode::write);
    ZlibSegment segment(file, 0, {6, std::uint64_t{1} << 20, {2, {}}});
    segment.append(plain);
    stored = segment.finish();
    index = segment.record_entries().at(0).second;
  }
  DiskFile file(dir / "stream.tbf", DiskFile::Mode::read);
  ZlibSegment segment(file, 0, stored, plain.size(),
                      decode_flush_index(index, plain.size(), stored), {2, {}});
  EXPECT_EQ(read_all(segment, plain.size()), plain);
  segment.verify();
}

TEST(DeflateEngine, HeadersAndRunsOfEveryLevel) {
  // The level classes of the header, as zlib writes them.
  const std::vector<std::pair<std::uint32_t, unsigned>> headers{
      {0, 0x01}, {1, 0x01}, {2, 0x5E}, {5, 0x5E}, {6, 0x9C}, {7, 0xDA}, {9, 0xDA}};
  for (const auto& [level, flags] : headers) {
    const auto header = zlib_header(level);
    EXPECT_EQ(header[0], std::byte{0x78});
    EXPECT_EQ(static_cast<unsigned>(header[1]), flags) << "level " << level;
    EXPECT_TRUE(is_zlib_header(header));
  }
  EXPECT_FALSE(is_zlib_header(std::array{std::byte{0x78}, std::byte{0x9D}}));
  EXPECT_FALSE(is_zlib_header(std::array{std::byte{0x78}, std::byte{0xBB}}));  // dictionary
  EXPECT_THROW(Deflater(10), std::invalid_argument);

  // Noise does not compress: every engine falls back to stored blocks within the bound.
  std::mt19937 random(3);
  Bytes noise(100000);
  for (std::byte& b : noise) b = static_cast<std::byte>(random());
  const Bytes camera = camera_bytes(70001);
  Inflater inflater;
  for (std::uint32_t level = 0; level <= 9; ++level) {
    Deflater deflater(level);
    ByteBuffer run;
    for (const Bytes* plain : {&std::as_const(noise), &camera, &std::as_const(noise)}) {
      for (const std::size_t size :
           {std::size_t{0}, std::size_t{1}, std::size_t{2}, plain->size()}) {
        SCOPED_TRACE(::testing::Message() << "level " << level << ", " << size << " bytes");
        const std::span<const std::byte> bytes = std::span(*plain).first(size);
        EXPECT_EQ(deflater.deflate_run(bytes, run), adler32_of(bytes));
        EXPECT_LE(run.size(), max_run_size(size));
        Bytes back(size);
        inflater.inflate_run(run, back);
        EXPECT_TRUE(std::ranges::equal(back, bytes));
        std::array<std::byte, 100> window{};
        EXPECT_EQ(inflater.check_run(run, size, window), adler32_of(bytes));
      }
    }
  }
}

}  // namespace
}  // namespace Tarn::bf::internal
