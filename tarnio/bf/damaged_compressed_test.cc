// Compressed and chunk-wise written stacks in damaged files: lying indices, corrupt zlib data,
// impossible compression types and truncation give clear errors, never a crash, a hang or a
// wrong sample read without complaint.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/bf/internal/byte_order.h"
#include "tarnio/bf/internal/stack_record.h"
#include "tarnio/bf/internal/tbf_format.h"
#include "tarnio/errors/tarn_error.h"
#include "tarnio/testing/file_bytes.h"
#include "tarnio/testing/stack_samples.h"
#include "tarnio/testing/temp_dir.h"

namespace Tarn::bf {
namespace {

namespace fs = std::filesystem;
using Tarn::testing::numbered_samples;
using Tarn::testing::TempDir;
using Mode = DiskFile::Mode;
using Compression = StackImp::Compression;
using Bytes = std::string;

// A file of three stacks: one zlib stream with many flush blocks, compressed chunks, and a
// growing plain stack.
void write_good_file(const fs::path& path) {
  auto file = Tarn::create_file();
  file->open(path, Mode::write);
  auto zipped = file->add_stack(Tarn::dt::uint16, {64, 64, 8});
  zipped->set_compression(Compression::zlib, 1);
  zipped->set_flush_block_size(4096);
  zipped->write(std::span<const std::uint16_t>(numbered_samples(1, 64 * 64 * 8)));
  zipped->commit();
  auto chunked = file->add_stack(Tarn::dt::uint16, {32, 32, 6});
  chunked->set_compression(Compression::zlib, 6);
  chunked->set_chunk_wise(true, 2 * 32 * 32);
  chunked->write(std::span<const std::uint16_t>(numbered_samples(2, 32 * 32 * 6)));
  chunked->commit();
  auto growing = file->add_stack(Tarn::dt::uint16, {16, 16, 0});
  growing->set_variable_last_dimension(true);
  growing->write(std::span<const std::uint16_t>(numbered_samples(3, 16 * 16 * 5)));
  growing->commit();
  file->close();
}

struct StackPlace {
  std::uint64_t position;
  std::uint64_t data_position;
  std::uint64_t data_length;
};

std::vector<StackPlace> places(const fs::path& path) {
  auto file = Tarn::open_file(path, Mode::read);
  std::vector<StackPlace> out;
  for (std::size_t i = 0; i < file->number_of_stacks(); ++i) {
    const auto stack = file->stack(i);
    out.push_back({stack->position(), stack->data_position(), stack->data_length()});
  }
  return out;
}

// Where the value of `key` lies in the record behind `place`'s data, and its length.
std::pair<std::uint64_t, std::uint64_t> record_value(const Bytes& bytes, const StackPlace& place,
                                                     internal::RecordKey key) {
  const auto span = std::span(reinterpret_cast<const std::byte*>(bytes.data()), bytes.size());
  const std::uint64_t record = place.data_position + place.data_length;
  const std::uint64_t end =
      record + internal::get_u64(span, record + internal::kRecordLengthOffset);
  for (std::uint64_t at = record + internal::kRecordEntriesOffset; at < end;) {
    const std::uint32_t entry_key = internal::get_u32(span, at);
    const std::uint64_t length = internal::get_u64(span, at + 4);
    if (entry_key == static_cast<std::uint32_t>(key)) {
      return {at + internal::kRecordEntryHeaderSize, length};
    }
    at += internal::kRecordEntryHeaderSize + length;
  }
  ADD_FAILURE() << "no record entry " << static_cast<std::uint32_t>(key);
  return {0, 0};
}

void put_u64(Bytes& bytes, std::uint64_t at, std::uint64_t value) {
  internal::put_u64(std::span(reinterpret_cast<std::byte*>(bytes.data()), bytes.size()), at, value);
}
std::uint64_t get_u64(const Bytes& bytes, std::uint64_t at) {
  return internal::get_u64(
      std::span(reinterpret_cast<const std::byte*>(bytes.data()), bytes.size()), at);
}

// Opens the file and reads every stack in full; the error's message, or "" when all of it read.
std::string open_and_read(const fs::path& path, bool unfinished = false) {
  try {
    auto file = unfinished ? Tarn::open_unfinished_file(path) : Tarn::open_file(path, Mode::read);
    for (std::size_t i = 0; i < file->number_of_stacks(); ++i) {
      const auto stack = file->stack(i);
      std::vector<std::uint16_t> samples(stack->samples_available());
      if (!samples.empty()) stack->read(0, std::span<std::uint16_t>(samples));
      stack->verify();
    }
    return "";
  } catch (const TarnError& error) {
    return error.message();
  } catch (const std::invalid_argument& error) {
    return error.what();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

struct Damage {
  const char* name;
  std::function<void(Bytes&, const std::vector<StackPlace>&)> apply;
  // The start of the message the damaged file must give.
  const char* message;
};

TEST(DamagedCompressedFile, EveryLieGivesItsMessage) {
  TempDir dir;
  const fs::path good = dir / "good.tbf";
  write_good_file(good);
  ASSERT_EQ(open_and_read(good), "");
  const Bytes bytes = Tarn::testing::read_file_bytes(good);
  const std::vector<StackPlace> stacks = places(good);
  ASSERT_EQ(stacks.size(), 3u);
  using internal::RecordKey;

  const Damage damages[] = {
      {"compression type 7",
       [](Bytes& b, const auto& s) { b[s[0].position + internal::kCompressionTypeOffset] = 7; },
       "Invalid compression type specified."},
      {"compressed byte flipped",
       [](Bytes& b, const auto& s) { b[s[0].data_position + s[0].data_length / 2] ^= 0x21; },
       "Damaged compressed data: "},
      {"adler32 flipped",
       [](Bytes& b, const auto& s) { b[s[0].data_position + s[0].data_length - 1] ^= 1; },
       "Damaged compressed data: "},
      {"flush points swapped",
       [](Bytes& b, const auto& s) {
         const auto [at, length] = record_value(b, s[0], RecordKey::flush_index);
         ASSERT_GE(length, 4 * internal::kFlushPointSize);
         const std::uint64_t second = at + internal::kFlushPointSize;
         const std::uint64_t third = at + 2 * internal::kFlushPointSize;
         const std::uint64_t plain = get_u64(b, second);
         put_u64(b, second, get_u64(b, third));
         put_u64(b, third, plain);
       },
       "Damaged flush index: "},
      {"flush point outside the data",
       [](Bytes& b, const auto& s) {
         const auto [at, length] = record_value(b, s[0], RecordKey::flush_index);
         put_u64(b, at + internal::kFlushPointSize + 8, s[0].data_length * 3);
       },
       "Damaged flush index: "},
      {"flush point moved inside a block",
       [](Bytes& b, const auto& s) {
         const auto [at, length] = record_value(b, s[0], RecordKey::flush_index);
         const std::uint64_t field = at + 2 * internal::kFlushPointSize + 8;
         put_u64(b, field, get_u64(b, field) - 3);
       },
       "Damaged compressed data: "},
      {"chunk frame offset lies",
       [](Bytes& b, const auto& s) {
         const auto [at, length] = record_value(b, s[1], RecordKey::chunk_index);
         const std::uint64_t field = at + internal::kChunkIndexEntrySize + 16;
         put_u64(b, field, get_u64(b, field) + 8);
       },
       "Damaged chunk"},
      {"chunk samples lie",
       [](Bytes& b, const auto& s) {
         const auto [at, length] = record_value(b, s[2], RecordKey::chunk_index);
         put_u64(b, at + 8, get_u64(b, at + 8) + 1);
       },
       "Damaged chunk"},
      {"chunk frame magic", [](Bytes& b, const auto& s) { b[s[2].data_position + 3] ^= 0x40; },
       "Damaged chunk"},
      {"data length beyond the file",
       [](Bytes& b, const auto& s) {
         put_u64(b, s[1].position + internal::kDataLengthOffset, b.size());
       },
       "Stack data lies beyond the end of the file."},
  };
  const fs::path damaged = dir / "damaged.tbf";
  for (const Damage& damage : damages) {
    Bytes copy = bytes;
    damage.apply(copy, stacks);
    Tarn::testing::write_file_bytes(damaged, copy);
    const std::string message = open_and_read(damaged);
    EXPECT_EQ(message.rfind(damage.message, 0), 0u) << damage.name << ": " << message;
    // Read as an unfinished file, the same bytes fail or read, but never crash.
    open_and_read(damaged, true);
  }
}

TEST(DamagedCompressedFile, TruncatedAnywhereFailsOrShowsWhatIsWhole) {
  TempDir dir;
  const fs::path good = dir / "good.tbf";
  write_good_file(good);
  const Bytes bytes = Tarn::testing::read_file_bytes(good);
  const fs::path damaged = dir / "cut.tbf";
  for (std::uint64_t size = 0; size < bytes.size(); size += 1 + size / 16) {
    Tarn::testing::write_file_bytes(damaged, bytes.substr(0, size));
    EXPECT_NE(open_and_read(damaged), "") << "cut at " << size;
    // What an unfinished file shows reads back intact.
    const std::string unfinished = open_and_read(damaged, true);
    EXPECT_EQ(unfinished.find("Damaged"), std::string::npos)
        << "cut at " << size << ": " << unfinished;
  }
}

// Not a test: adds compressed and chunked files to the corpus of the TBF file fuzz target in
// $TARNIO_TBF_CORPUS_DIR. Run with --gtest_also_run_disabled_tests.
TEST(DamagedCompressedFile, DISABLED_WriteFuzzCorpus) {
  const char* directory = std::getenv("TARNIO_TBF_CORPUS_DIR");
  if (directory == nullptr) GTEST_SKIP() << "TARNIO_TBF_CORPUS_DIR not set";
  const fs::path out(directory);
  write_good_file(out / "good_compressed_and_chunked.tbf");
  const Bytes bytes = Tarn::testing::read_file_bytes(out / "good_compressed_and_chunked.tbf");
  const std::vector<StackPlace> stacks = places(out / "good_compressed_and_chunked.tbf");
  // The file as a writer leaves it mid-way: no metadata block, the last stack growing.
  Bytes unfinished = bytes.substr(0, stacks[2].data_position + stacks[2].data_length);
  put_u64(unfinished, stacks[2].position + internal::kDataLengthOffset, 0);
  put_u64(unfinished, 26, 0);
  Tarn::testing::write_file_bytes(out / "unfinished_growing.tbf", unfinished);
  Bytes seven = bytes;
  seven[stacks[0].position + internal::kCompressionTypeOffset] = 7;
  Tarn::testing::write_file_bytes(out / "compression_7.tbf", seven);
  Bytes flipped = bytes;
  flipped[stacks[0].data_position + stacks[0].data_length / 2] ^= 0x21;
  Tarn::testing::write_file_bytes(out / "compressed_byte_flipped.tbf", flipped);
}

}  // namespace
}  // namespace Tarn::bf
