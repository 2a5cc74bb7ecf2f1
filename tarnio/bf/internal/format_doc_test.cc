// The format document (doc/tbf-format.md) against the constants the library reads and writes
// with: every offset, width, magic and version it lists must be the library's.

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tarnio/bf/internal/tbf_format.h"

namespace Tarn::bf::internal {
namespace {

using Row = std::vector<std::string>;

// The table rows of the document by the heading they stand under, cells trimmed.
std::map<std::string, std::vector<Row>> document_tables() {
  std::ifstream in("doc/tbf-format.md");
  std::map<std::string, std::vector<Row>> tables;
  std::string heading;
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with("#")) heading = line.substr(line.find(' ') + 1);
    if (!line.starts_with("| ")) continue;
    Row row;
    std::istringstream cells(line.substr(1));
    for (std::string cell; std::getline(cells, cell, '|');) {
      row.push_back(cell.substr(1, cell.size() - 2));
    }
    tables[heading].push_back(row);
  }
  return tables;
}

std::string hex(std::string_view bytes) {
  std::string out;
  for (const char c : bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    if (!out.empty()) out += ' ';
    out += kDigits[static_cast<unsigned char>(c) >> 4];
    out += kDigits[static_cast<unsigned char>(c) & 15];
  }
  return out;
}

TEST(FormatDocument, ListsTheOffsetsMagicsAndVersionsOfTheFormatHeader) {
  const auto tables = document_tables();
  ASSERT_FALSE(tables.empty()) << "doc/tbf-format.md not found";
  struct Field {
    std::string section, field;
    std::size_t offset, width;
  };
  const std::vector<Field> fields{
      {"File header", "magic: " + hex(kFileMagic), 0, kFileMagic.size()},
      {"File header", "file format version", kFileVersionOffset, 4},
      {"File header", "position of the first stack", kFirstStackOffset, 8},
      {"File header", "description length", kFileDescriptionLengthOffset, 4},
      {"Stack header", "magic: " + hex(kStackMagic), 0, kStackMagic.size()},
      {"Stack header", "stack format version", kStackVersionOffset, 4},
      {"Stack header", "rank", kRankOffset, 4},
      {"Stack header", "size of each dimension", kSizesOffset, 4 * kMaxRank},
      {"Stack header", "physical length", kLengthsOffset, 8 * kMaxRank},
      {"Stack header", "physical offset", kOffsetsOffset, 8 * kMaxRank},
      {"Stack header", "element type code", kTypeOffset, 4},
      {"Stack header", "compression type", kCompressionTypeOffset, 4},
      {"Stack header", "compression level", kCompressionLevelOffset, 4},
      {"Stack header", "name length", kNameLengthOffset, 4},
      {"Stack header", "description length", kDescriptionLengthOffset, 4},
      {"Stack header", "data flag", kDataFlagOffset, 8},
      {"Stack header", "data length", kDataLengthOffset, 8},
      {"Stack header", "position of the next stack", kNextStackOffset,
       kStackHeaderSize - kNextStackOffset},
      {"Stack record", "magic: " + hex(kRecordMagic), 0, kRecordMagic.size()},
      {"Stack record", "record length", kRecordLengthOffset, kRecordEntriesOffset - 16},
      {"Stack record", "key", 0, 4},
      {"Stack record", "value length", 4, kRecordEntryHeaderSize - 4},
      {"Compressed data", "plain offset", 0, 8},
      {"Compressed data", "stored offset", 8, kFlushPointSize - 8},
      {"Chunk-wise written data", "magic: " + hex(kChunkMagic), 0, kChunkMagic.size()},
      {"Chunk-wise written data", "samples in the chunk", kChunkSamplesOffset, 8},
      {"Chunk-wise written data", "index length", kChunkIndexLengthOffset, 8},
      {"Chunk-wise written data", "stored length", kChunkStoredLengthOffset,
       kChunkHeaderSize - kChunkStoredLengthOffset},
      {"Chunk-wise written data", "the frame's offset", 16, kChunkIndexEntrySize - 16},
  };
  for (const Field& f : fields) {
    std::size_t found = 0;
    for (const Row& row : tables.at(f.section)) {
      if (row.size() != 4 || !row[3].starts_with(f.field)) continue;
      ++found;
      EXPECT_EQ(row[0], std::to_string(f.offset)) << f.section << ": " << f.field;
      EXPECT_EQ(row[1], std::to_string(f.width)) << f.section << ": " << f.field;
    }
    EXPECT_EQ(found, 1u) << f.section << ": " << f.field;
  }

  const std::map<std::string, std::string> versions{
      {"file format version: 1 or " + std::to_string(kFileFormatVersion), "File header"},
      {"stack format version: " + std::to_string(kStackFormatVersion), "Stack header"},
      {"u32: the oldest reader version that can read the stack; " + std::to_string(kReaderVersion),
       "Record keys"}};
  for (const auto& [text, section] : versions) {
    std::size_t found = 0;
    for (const Row& row : tables.at(section)) found += row.back().starts_with(text) ? 1u : 0u;
    EXPECT_EQ(found, 1u) << text;
  }
  std::map<std::string, std::string> keys;
  for (const Row& row : tables.at("Record keys")) keys[row[0]] = row[1];
  EXPECT_EQ(keys.at(std::to_string(static_cast<int>(RecordKey::minimum_reader_version))),
            "minimum reader version");
  EXPECT_EQ(keys.at(std::to_string(static_cast<int>(RecordKey::stack_info))), "stack info");
  EXPECT_EQ(keys.at(std::to_string(static_cast<int>(RecordKey::flush_index))), "flush index");
  EXPECT_EQ(keys.at(std::to_string(static_cast<int>(RecordKey::chunk_index))), "chunk index");
}

}  // namespace
}  // namespace Tarn::bf::internal
