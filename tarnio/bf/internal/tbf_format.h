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
//
// Compressed data (compression type 1) is one zlib stream (RFC 1950) of data-length bytes that
// any inflater turns into the plain bytes: the 2-byte zlib header; per flush block of plain
// input, a run of raw deflate blocks ended by a full flush (an empty stored block, so the run
// ends on a byte and needs no earlier bytes to inflate); an empty final block; the adler32 of
// all plain bytes, big-endian. The flush index (record key 3) lists the flush points as pairs
// (u64 plain offset, u64 stored offset from the data position): (0, 2) first, then the start of
// every further run, and last (plain length, offset of the final block); both offsets strictly
// increase. A stream without index (one run, or a simpler writer) is read front to back.
// Beside the index, record key 5 holds the adler32 of each flush block's plain bytes, so that a
// read of some blocks checks what it inflates, where the stream's own adler32 covers only all
// of them; a stream without that entry is read unchecked block by block.
//
// Chunk-wise written data is a sequence of chunk frames from the data position on, each
//   "TARN_BF_CHUNK\n" FF FF, u64 samples, u64 index length, u64 stored length,
//   stored bytes (the chunk's plain samples, or a zlib stream of them as above),
//   index-length bytes: the flush index of the chunk's stream (compressed chunks only).
// The writer patches a frame's stored length last, once everything else of the chunk is in
// the file: a frame with stored length 0 was never completed, and a reader (another process
// while the file grows, or the recovery of a file whose writer died) stops there and never
// sees a torn chunk. The chunk index (record key 4) lists (u64 first sample, u64 samples,
// u64 frame offset from the data position) per chunk. The header's data length covers all
// frames; a stack whose last dimension grows stores that dimension's size at commit.

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
  // The flush points of compressed data: pairs of u64 (plain offset, stored offset).
  flush_index = 3,
  // The chunks of chunk-wise written data: triples of u64 (first sample, samples, frame offset).
  chunk_index = 4,
  // The adler32 of each flush block's plain bytes: one u32 per block of the flush index.
  block_checksums = 5,
  // The block checksums of each compressed chunk, in chunk order: per chunk a u32 byte count
  // and that many bytes, laid out as the value of block_checksums.
  chunk_checksums = 6,
};

// Compressed data.
inline constexpr std::size_t kZlibHeaderSize = 2;
// The empty final block (2 bytes) and the adler32 (4 bytes) that end a stream.
inline constexpr std::size_t kZlibTrailerSize = 6;
inline constexpr std::size_t kFlushPointSize = 16;
inline constexpr std::size_t kBlockChecksumSize = 4;

// Chunk frames.
inline constexpr std::string_view kChunkMagic{"TARN_BF_CHUNK\n\xFF\xFF", 16};
inline constexpr std::size_t kChunkSamplesOffset = 16;
inline constexpr std::size_t kChunkIndexLengthOffset = 24;
inline constexpr std::size_t kChunkStoredLengthOffset = 32;
inline constexpr std::size_t kChunkHeaderSize = 40;
inline constexpr std::size_t kChunkIndexEntrySize = 24;

}  // namespace Tarn::bf::internal
