#pragma once

// The TBF binary stack file, byte by byte: every magic, offset and version of the file header,
// the metadata block, the stack header and the stack record. All numbers are little-endian.
//
//   file header     "TARN_BF\n" FF FF, version, first stack, description, [metadata position]
//   stack           368-byte header, name, description, element data, [stack record]
//   ...             further stacks, linked from the previous header's next-stack field
//   metadata block  (key, value) pairs of length-prefixed strings, ended by a 4-byte zero
//
// The stack record sits directly behind the stack's data (at data position + data length) and
// carries what the fixed header cannot: the minimum reader version, the full stack info (units,
// labels, column positions, tags, ...) and, for compressed and chunked data, their indices. A
// stack without a record (plain data from a simpler writer) is read as well.
//
//   record          "TARN_BF_RECORD\n" FF, u64 record length (all of it, magic included),
//                   entries: u32 key, u64 length, length bytes; unknown keys are skipped

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Tarn::bf::internal {

// File header.
inline constexpr std::string_view kFileMagic{"TARN_BF\n\xFF\xFF", 10};
inline constexpr std::size_t kFileVersionOffset = 10;
inline constexpr std::size_t kFirstStackOffset = 14;
inline constexpr std::size_t kFileDescriptionLengthOffset = 22;
inline constexpr std::size_t kFileDescriptionOffset = 26;
// Format version 2 adds the metadata position field behind the description.
inline constexpr std::uint32_t kFileFormatVersion = 2;
inline constexpr std::uint32_t kFirstVersionWithMetadata = 2;

// Stack header.
inline constexpr std::string_view kStackMagic{"TARN_BF_STACK\n\xFF\xFF", 16};
inline constexpr std::size_t kStackHeaderSize = 368;
inline constexpr std::size_t kStackVersionOffset = 16;
inline constexpr std::size_t kRankOffset = 20;
inline constexpr std::size_t kSizesOffset = 24;
inline constexpr std::size_t kLengthsOffset = 84;
inline constexpr std::size_t kOffsetsOffset = 204;
inline constexpr std::size_t kTypeOffset = 324;
inline constexpr std::size_t kCompressionTypeOffset = 328;
inline constexpr std::size_t kCompressionLevelOffset = 332;
inline constexpr std::size_t kNameLengthOffset = 336;
inline constexpr std::size_t kDescriptionLengthOffset = 340;
inline constexpr std::size_t kDataFlagOffset = 344;
inline constexpr std::size_t kDataLengthOffset = 352;
inline constexpr std::size_t kNextStackOffset = 360;
inline constexpr std::size_t kMaxRank = 15;
inline constexpr std::uint32_t kStackFormatVersion = 7;
// The version this library reads up to; a stack that needs a newer reader is refused.
inline constexpr std::uint32_t kReaderVersion = 7;
inline constexpr std::uint32_t kNoMinimumReaderVersion = 0xFFFFFFFF;

// Stack record.
inline constexpr std::string_view kRecordMagic{"TARN_BF_RECORD\n\xFF", 16};
inline constexpr std::size_t kRecordLengthOffset = 16;
inline constexpr std::size_t kRecordEntriesOffset = 24;
inline constexpr std::size_t kRecordEntryHeaderSize = 12;

enum class RecordKey : std::uint32_t {
  // u32: the oldest reader version that can read the stack.
  minimum_reader_version = 1,
  // UTF-8 JSON: the stack info beyond the fixed header (see stack_info_json.h).
  stack_info = 2,
  // Reserved for the compressed and chunk-wise written data.
  flush_index = 3,
  chunk_index = 4,
};

}  // namespace Tarn::bf::internal
