#pragma once

// ZlibSegment: element data stored as one zlib stream with a full flush behind every flush
// block of plain input (layout in tbf_format.h), compressed and inflated on the threads of the
// file's ThreadingSupport.
//
// Writing: append() collects plain bytes into flush blocks; every full block is deflated on
// its own (raw deflate ended by a full flush, with its adler32) by a worker, and the caller's
// thread writes the finished blocks to the file in order, so the file is only ever touched
// by the caller. finish() deflates the last, shorter block, writes the final block and the
// adler32 of the whole stream (combined from the blocks'), and knows the flush index.
// At most thread count + 1 blocks of plain input and their compressed forms are in memory.
//
// Reading: with a flush index, read() inflates exactly the flush blocks that overlap the range
// asked for, several at once, each straight into the caller's span when it lies wholly inside;
// without one (a stream from a simpler writer), it inflates front to back from the start.
//
// The compression level of the header, 0 to 9, picks the deflate engine and its setting (see
// deflate_engine.h); any level produces a standard stream. Every damage of the stored bytes (bad
// deflate data, a block that inflates to more or fewer bytes than the index says, a wrong
// adler32 where the whole stream is checked) is a TarnError "Damaged compressed data: {}".
//
// Borrows the file access, which must outlive the segment. Not thread-safe.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "tarnio/bf/disk_file_access.h"
#include "tarnio/bf/flush_point.h"
#include "tarnio/bf/internal/data_segment.h"
#include "tarnio/bf/threading_support.h"

namespace Tarn::bf::internal {

struct ZlibSettings {
  // 0 (stored, no compression) to 9 (smallest).
  std::uint32_t level = 6;
  // Plain bytes between two flush points.
  std::uint64_t flush_block_size = std::uint64_t{4} << 20;
  ThreadingSupport threading;
};

class ZlibSegment final : public DataSegment {
 public:
  // A new stream at `data_position`, where the file position is, for writing.
  ZlibSegment(DiskFileAccess& file, std::uint64_t data_position, ZlibSettings settings);
  // The stream of `stored_length` bytes at `data_position` that inflates to `plain_length`
  // bytes, with its flush points (empty when the stack has no index), for reading on the
  // threads of `threading`.
  ZlibSegment(DiskFileAccess& file, std::uint64_t data_position, std::uint64_t stored_length,
              std::uint64_t plain_length, std::vector<FlushPoint> flush_points,
              ThreadingSupport threading);
  ~ZlibSegment() override;
  ZlibSegment(const ZlibSegment&) = delete;
  ZlibSegment& operator=(const ZlibSegment&) = delete;

  void append(std::span<const std::byte> bytes) override;
  std::uint64_t finish() override;
  // Throws std::runtime_error "Zipped segment unexpectedly initialized in write mode." on a
  // segment being written, std::out_of_range for bytes beyond the plain data.
  void read(std::uint64_t offset, std::span<std::byte> out) override;
  // The flush block holding `offset`; empty for a stream without index, which is read front to
  // back from where the last read ended.
  std::pair<std::uint64_t, std::uint64_t> decode_unit(std::uint64_t offset) override;
  // The flush index (key flush_index), once finished.
  std::vector<std::pair<RecordKey, std::string>> record_entries() const override;
  std::uint64_t end_position() const override;

  // The flush points: those of the index read, or those written so far.
  const std::vector<FlushPoint>& flush_points() const;
  // The stored bytes of the flush blocks that make up plain bytes [begin, end): raw deflate
  // runs, each ended by its full flush, which a raw inflater (or this format's stream, between
  // a header and a trailer) takes as they are. Throws std::runtime_error "No flush blocks
  // available" for a stream without flush points and "Requested range is not flush point
  // aligned, empty or has not yet been written" unless begin < end are both flush points.
  std::vector<std::byte> read_flush_blocks(std::uint64_t begin, std::uint64_t end);
  // Inflates the whole stream on the segment's threads and checks every block against the
  // index, the zlib header and the adler32 of the trailer; throws TarnError "Damaged compressed
  // data: {}" at the first fault.
  void verify();

  // The number of flush blocks inflated so far by read() and verify(): what a partial read
  // really cost.
  std::uint64_t blocks_inflated() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace Tarn::bf::internal
