#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "tarnio/arrays/stack_info_imp.h"
#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/internal/byte_order.h"
#include "tarnio/bf/internal/stack_header.h"
#include "tarnio/bf/internal/stack_info_json.h"
#include "tarnio/bf/internal/stack_record.h"
#include "tarnio/bf/internal/tbf_format.h"
#include "tarnio/errors/tarn_error.h"
#include "tarnio/json/read_write.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/temp_dir.h"

namespace Tarn::bf::internal {
namespace {

using Tarn::testing::TempDir;

StackHeader rank3_header() {
  StackHeader h;
  h.rank = 3;
  h.sizes = {512, 256, 7};
  h.lengths = {133.1, 66.5, 14.0};
  h.offsets = {-0.5, 2.25, -7.0};
  h.type = Tarn::dt::cplx_single;
  h.compression = 1;
  h.compression_level = 6;
  h.name_length = 5;
  h.description_length = 300;
  h.data_flag = 0;
  h.data_length = 0x123456789ULL;
  h.next_stack = 0xABCDEF0123ULL;
  return h;
}

TEST(StackHeaderFormat, Rank3FieldsLieAtTheirOffsets) {
  const StackHeaderBytes b = encode_stack_header(rank3_header());
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(b.data()), 16),
            std::string("TARN_BF_STACK\n\xFF\xFF", 16));
  EXPECT_EQ(get_u32(b, 16), 7u);
  EXPECT_EQ(get_u32(b, 20), 3u);
  EXPECT_EQ(get_u32(b, 24), 512u);
  EXPECT_EQ(get_u32(b, 28), 256u);
  EXPECT_EQ(get_u32(b, 32), 7u);
  EXPECT_EQ(get_f64(b, 84), 133.1);
  EXPECT_EQ(get_f64(b, 92), 66.5);
  EXPECT_EQ(get_f64(b, 100), 14.0);
  EXPECT_EQ(get_f64(b, 204), -0.5);
  EXPECT_EQ(get_f64(b, 212), 2.25);
  EXPECT_EQ(get_f64(b, 220), -7.0);
  // Every unused size, length and offset entry is zero bytes.
  for (std::size_t i = 3; i < 15; ++i) {
    EXPECT_EQ(get_u32(b, 24 + 4 * i), 0u) << i;
    EXPECT_EQ(get_u64(b, 84 + 8 * i), 0u) << i;
    EXPECT_EQ(get_u64(b, 204 + 8 * i), 0u) << i;
  }
  EXPECT_EQ(get_u32(b, 324), static_cast<std::uint32_t>(Tarn::dt::cplx_single));
  EXPECT_EQ(get_u32(b, 328), 1u);
  EXPECT_EQ(get_u32(b, 332), 6u);
  EXPECT_EQ(get_u32(b, 336), 5u);
  EXPECT_EQ(get_u32(b, 340), 300u);
  EXPECT_EQ(get_u64(b, 344), 0u);
  EXPECT_EQ(get_u64(b, 352), 0x123456789ULL);
  EXPECT_EQ(get_u64(b, 360), 0xABCDEF0123ULL);
  EXPECT_EQ(decode_stack_header(b), rank3_header());
}

TEST(StackHeaderFormat, Rank0HasOnlyZeroEntries) {
  StackHeader h;
  h.type = Tarn::dt::uint8;
  const StackHeaderBytes b = encode_stack_header(h);
  EXPECT_EQ(get_u32(b, 20), 0u);
  for (std::size_t at = 24; at < 324; ++at) EXPECT_EQ(b[at], std::byte{0}) << at;
  EXPECT_EQ(get_u64(b, 344), 1u);
  EXPECT_EQ(decode_stack_header(b), h);
}

TEST(StackHeaderFormat, DecodeRefusesForeignAndDamagedHeaders) {
  struct Case {
    const char* what;
    std::size_t offset;
    std::vector<std::byte> bytes;
    const char* message;
  };
  const auto u32 = [](std::uint32_t v) {
    std::vector<std::byte> out(4);
    put_u32(out, 0, v);
    return out;
  };
  const auto f64 = [](double v) {
    std::vector<std::byte> out(8);
    put_f64(out, 0, v);
    return out;
  };
  const Case cases[] = {
      {"magic", 0, {std::byte{'t'}}, "Stack header not in TBF format."},
      {"line feed", 13, {std::byte{'\r'}}, "Stack header not in TBF format."},
      {"first 0xFF", 14, {std::byte{0}}, "Stack header not in TBF format."},
      {"second 0xFF", 15, {std::byte{0xFE}}, "Stack header not in TBF format."},
      {"rank 16", kRankOffset, u32(16), "Cannot set data layout."},
      {"rank huge", kRankOffset, u32(0xFFFFFFFF), "Cannot set data layout."},
      {"size beyond rank", kSizesOffset + 4 * 3, u32(1), "Cannot set data layout."},
      {"last size", kSizesOffset + 4 * 14, u32(9), "Cannot set data layout."},
      {"length beyond rank", kLengthsOffset + 8 * 5, f64(1.0), "Cannot set data layout."},
      {"negative zero offset", kOffsetsOffset + 8 * 3, f64(-0.0), "Cannot set data layout."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    StackHeaderBytes b = encode_stack_header(rank3_header());
    std::memcpy(b.data() + c.offset, c.bytes.data(), c.bytes.size());
    EXPECT_THROW_MESSAGE(decode_stack_header(b), TarnError, c.message);
  }
}

class StackRecordTest : public ::testing::Test {
 protected:
  // A file of `before` filler bytes, then `bytes`, then `after` filler bytes.
  void make_file(const std::string& bytes, std::size_t before = 40, std::size_t after = 0) {
    DiskFile file(path_, DiskFile::Mode::write);
    const std::string text = std::string(before, 'x') + bytes + std::string(after, 'y');
    file.write(text.data(), text.size());
    size_ = text.size();
  }
  std::optional<StackRecord> read_at(std::uint64_t position) {
    DiskFile file(path_, DiskFile::Mode::read);
    return read_stack_record(file, position, size_);
  }

  TempDir dir_;
  std::filesystem::path path_ = dir_ / "record.bin";
  std::uint64_t size_ = 0;
};

TEST_F(StackRecordTest, RoundTripKeepsEveryEntryInOrder) {
  StackRecord record;
  record.add(RecordKey::minimum_reader_version, std::string("\x07\0\0\0", 4));
  record.add(RecordKey::stack_info, R"({"timestamp":5})");
  record.entries.emplace_back(99, std::string("\0\xFF unknown", 10));
  record.add(RecordKey::chunk_index, "");
  const std::string encoded = encode_stack_record(record);
  ASSERT_EQ(encoded.size(), 24u + 4 * 12 + 4 + 15 + 10);
  EXPECT_EQ(encoded.substr(0, 16), std::string(kRecordMagic));
  std::uint64_t length = 0;
  std::memcpy(&length, encoded.data() + 16, 8);
  EXPECT_EQ(length, encoded.size());

  make_file(encoded, 40, 17);
  const auto read = read_at(40);
  ASSERT_TRUE(read.has_value());
  EXPECT_EQ(read->entries, record.entries);
  ASSERT_NE(read->find(RecordKey::stack_info), nullptr);
  EXPECT_EQ(*read->find(RecordKey::stack_info), R"({"timestamp":5})");
  EXPECT_EQ(read->find(RecordKey::flush_index), nullptr);
}

TEST_F(StackRecordTest, AbsentRecordIsNoRecord) {
  const std::string encoded = encode_stack_record(StackRecord{});
  make_file(encoded + "TARN_BF_STACK\n\xFF\xFF", 10);
  EXPECT_FALSE(read_at(0).has_value()) << "filler bytes";
  EXPECT_FALSE(read_at(10 + encoded.size()).has_value()) << "a stack header";
  EXPECT_FALSE(read_at(size_).has_value()) << "the end of the file";
  EXPECT_FALSE(read_at(size_ - 15).has_value()) << "fewer bytes left than the magic";
  EXPECT_FALSE(read_at(size_ + 100).has_value()) << "beyond the end";
  const auto empty = read_at(10);
  ASSERT_TRUE(empty.has_value());
  EXPECT_TRUE(empty->entries.empty());
}

TEST_F(StackRecordTest, DamagedRecordsAreRefused) {
  StackRecord record;
  record.add(RecordKey::stack_info, "0123456789");
  const std::string good = encode_stack_record(record);  // 24 + 12 + 10 = 46 bytes
  const auto with_length = [&](std::uint64_t length) {
    std::string bytes = good;
    std::memcpy(bytes.data() + 16, &length, 8);
    return bytes;
  };
  const auto with_entry_size = [&](std::uint64_t size) {
    std::string bytes = good;
    std::memcpy(bytes.data() + 28, &size, 8);
    return bytes;
  };
  struct Case {
    const char* what;
    std::string bytes;
    std::size_t cut;  // bytes of the file dropped at its end
    const char* message;
  };
  const Case cases[] = {
      {"length below its own head", with_length(23), 0,
       "Damaged stack record: record length 23 is too small."},
      {"length beyond the file", with_length(47), 0,
       "Damaged stack record: record length 47 reaches beyond the end of the file."},
      {"length of 2^64 - 1", with_length(std::numeric_limits<std::uint64_t>::max()), 0,
       "Damaged stack record: record length 18446744073709551615 reaches beyond the end of the "
       "file."},
      {"record cut inside its length", good, 30,
       "Damaged stack record: its length lies beyond the end of the file."},
      {"entry beyond the record", with_entry_size(11), 0,
       "Damaged stack record: entry 2 of 11 bytes reaches beyond the end of the record."},
      {"huge entry", with_entry_size(std::uint64_t{1} << 62), 0,
       "Damaged stack record: entry 2 of 4611686018427387904 bytes reaches beyond the end of the "
       "record."},
      {"entry header cut short", with_length(24 + 5), 0,
       "Damaged stack record: an entry header is cut short."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    make_file(c.bytes.substr(0, c.bytes.size() - c.cut), 8);
    EXPECT_THROW_MESSAGE(read_at(8), TarnError, c.message);
  }
}

TEST(StackInfoJson, DamagedInfoIsRefusedWithItsReason) {
  struct Case {
    const char* json;
    const char* message;
  };
  const Case cases[] = {
      {"[]", "Damaged stack info: the stack info is list, not object."},
      {R"({"axes": [{}, {}]})", "Damaged stack info: axes has 2 entries instead of 3."},
      {R"({"axes": [{"label": 1}, {}, {}]})", "Damaged stack info: axis 0 label is not a string."},
      {R"({"axes": [{"col_labels": ["a"]}, {}, {}]})",
       "Damaged stack info: axis 0 col_labels has 1 entries instead of 2."},
      {R"({"axes": [{}, {"col_positions": [1, "x", 3]}, {}]})",
       "Damaged stack info: axis 1 column position is not a number."},
      {R"({"axes": [{"xy_col_positions": [[1, 2], [3]]}, {}, {}]})",
       "Damaged stack info: axis 0 xy column position has 1 entries instead of 2."},
      {R"({"axes": [{"unit": "1 furlongs"}, {}, {}]})", nullptr},
      {R"({"data_unit": 3})", "Damaged stack info: data_unit is not a string."},
      {R"({"timestamp": 1.5})", nullptr},
      {R"({"stack_position": {"stage_um": [1, 2]}})",
       "Damaged stack info: stage_um has 2 entries instead of 3."},
      {R"({"tags": {"a": {"json": 1, "prop": 2}}})",
       "Damaged stack info: tag 'a' must hold exactly one value."},
      {R"({"tags": {"a": {"value": 1}}})",
       "Damaged stack info: tag 'a' is neither \"json\" nor \"prop\"."},
      {R"({"tags": {"a": {"prop": {"#type": "nonsense"}}}})", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    arrays::StackInfoImp info(Tarn::dt::uint8, {2, 3, 4});
    const JSON::Value json = JSON::read(c.json);
    if (c.message != nullptr) {
      EXPECT_THROW_MESSAGE(apply_stack_info_json(json, info), TarnError, c.message);
    } else {
      try {
        apply_stack_info_json(json, info);
        ADD_FAILURE() << "accepted";
      } catch (const TarnError& error) {
        EXPECT_EQ(error.message().rfind("Damaged stack info: ", 0), 0u) << error.message();
      }
    }
  }
}

TEST(StackInfoJson, DefaultInfoIsAnEmptyObjectAndUnknownMembersAreSkipped) {
  arrays::StackInfoImp info(Tarn::dt::uint8, {2, 3});
  EXPECT_EQ(JSON::write(stack_info_to_json(info)), "{}");
  apply_stack_info_json(JSON::read(R"({"future": [1, 2], "timestamp": 12})"), info);
  EXPECT_EQ(info.timestamp().time_since_epoch().count(), 12);
}

}  // namespace
}  // namespace Tarn::bf::internal
