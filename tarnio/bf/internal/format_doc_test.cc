// The format document (doc/tbf-format.md) against the constants the library reads and writes
// with: the offsets of every table, the magics, versions and record keys it lists.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tarnio/bf/internal/tbf_format.h"

namespace Tarn::bf::internal {
namespace {

// The first cell of each table row under each heading that starts with a digit (offsets and
// keys, not column titles); the whole text.
std::map<std::string, std::vector<std::string>> first_cells(std::string& text) {
  std::ifstream in("doc/tbf-format.md");
  std::map<std::string, std::vector<std::string>> cells;
  std::string heading;
  for (std::string line; std::getline(in, line); text += line + "\n") {
    if (line.starts_with("#")) heading = line.substr(line.find(' ') + 1);
    if (line.starts_with("| ") && line.size() > 2 && std::isdigit(line[2]) != 0)
      cells[heading].push_back(line.substr(2, line.find(" |", 2) - 2));
  }
  return cells;
}

std::string hex(std::string_view bytes) {
  std::string out;
  for (const char c : bytes) out += fmt::format("{}{:02X}", out.empty() ? "" : " ", c & 0xFF);
  return out;
}

TEST(FormatDocument, AgreesWithTheFormatConstants) {
  std::string text;
  const auto cells = first_cells(text);
  ASSERT_FALSE(cells.empty()) << "doc/tbf-format.md not found";
  const auto offsets = [](std::vector<std::size_t> values) {
    std::vector<std::string> out;
    for (const std::size_t v : values) out.push_back(std::to_string(v));
    return out;
  };
  const auto n = [](std::size_t at) { return std::to_string(at) + "+n"; };
  std::vector<std::string> file_header =
      offsets({0, kFileVersionOffset, kFirstStackOffset, kFileDescriptionLengthOffset,
               kFileDescriptionOffset});
  file_header.push_back(n(kFileDescriptionOffset));
  EXPECT_EQ(cells.at("File header"), file_header);
  EXPECT_EQ(
      cells.at("Stack header"),
      offsets({0, kStackVersionOffset, kRankOffset, kSizesOffset, kLengthsOffset, kOffsetsOffset,
               kTypeOffset, kCompressionTypeOffset, kCompressionLevelOffset, kNameLengthOffset,
               kDescriptionLengthOffset, kDataFlagOffset, kDataLengthOffset, kNextStackOffset}));
  EXPECT_EQ(kNextStackOffset + 8, kStackHeaderSize);
  // The record, then one entry.
  EXPECT_EQ(cells.at("Stack record"),
            offsets({0, kRecordLengthOffset, kRecordEntriesOffset, 0, 4, kRecordEntryHeaderSize}));
  std::vector<std::size_t> keys;
  for (const RecordKey key :
       {RecordKey::minimum_reader_version, RecordKey::stack_info, RecordKey::flush_index,
        RecordKey::chunk_index, RecordKey::block_checksums, RecordKey::chunk_checksums}) {
    keys.push_back(static_cast<std::size_t>(key));
  }
  EXPECT_EQ(cells.at("Record keys"), offsets(keys));
  // A flush point; a chunk frame, then a chunk index entry.
  EXPECT_EQ(cells.at("Compressed data"), offsets({0, kFlushPointSize / 2}));
  std::vector<std::string> chunks = offsets({0, kChunkSamplesOffset, kChunkIndexLengthOffset,
                                             kChunkStoredLengthOffset, kChunkHeaderSize});
  chunks.push_back(std::to_string(kChunkHeaderSize) + "+s");
  for (const char* at : {"0", "8", "16"}) chunks.emplace_back(at);
  EXPECT_EQ(cells.at("Chunk-wise written data"), chunks);
  EXPECT_EQ(kChunkIndexEntrySize, 24u);

  for (const std::string_view magic : {kFileMagic, kStackMagic, kRecordMagic, kChunkMagic}) {
    EXPECT_NE(text.find("| magic: " + hex(magic) + " ("), std::string::npos) << hex(magic);
  }
  EXPECT_NE(text.find(fmt::format("version: 1 or {}; {} is written", kFileFormatVersion,
                                  kFileFormatVersion)),
            std::string::npos);
  EXPECT_NE(text.find(fmt::format("version: {} is written", kStackFormatVersion)),
            std::string::npos);
  EXPECT_NE(text.find(fmt::format("read the stack; {} is written", kReaderVersion)),
            std::string::npos);
}

}  // namespace
}  // namespace Tarn::bf::internal
