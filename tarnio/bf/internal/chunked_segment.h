#pragma once

// ChunkedSegment: element data written chunk by chunk, as chunk frames (layout in
// tbf_format.h), so that what was written stays readable while the stack grows and after its
// writer died. A chunk holds a fixed number of samples (the last chunk of a finished stack may
// hold fewer); its stored bytes are plain, or a zlib stream of their own (a ZlibSegment over the
// frame's bytes, with the frame's flush index).
//
// Writing: append() fills the current chunk; the frame header goes to the file when the chunk
// starts, the stored bytes behind it as they come, and when the chunk is full its flush index
// follows and the stored length is patched last: from then on the chunk is committed, for a
// reader in another process too. finish() commits a partly filled last chunk (patching its
// sample count first) and returns the length of all frames.
//
// Reading: from the chunk index of a finished stack (checked against the frames it names), or,
// for a stack whose writer is still at work or died, by walking the frames from the data
// position up to the first one not committed. read() reads the chunks a range touches.
//
// A damaged frame or index is a TarnError "Damaged chunk index: {}" or "Damaged chunk: {}".
// Borrows the file access, which must outlive the segment. Not thread-safe.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "tarnio/bf/disk_file_access.h"
#include "tarnio/bf/internal/data_segment.h"
#include "tarnio/bf/internal/zlib_segment.h"

namespace Tarn::bf::internal {

struct ChunkLayout {
  std::size_t element_size = 1;
  // Samples per chunk, at least 1.
  std::uint64_t chunk_samples = 1;
  // Set: chunks are zlib streams made with these settings (reading uses only the threading).
  std::optional<ZlibSettings> zlib;
};

// One committed chunk.
struct Chunk {
  std::uint64_t first_sample = 0;
  std::uint64_t samples = 0;
  // From the data position to the frame header.
  std::uint64_t frame_offset = 0;
  std::uint64_t stored_length = 0;
  std::uint64_t index_length = 0;
};

class ChunkedSegment final : public DataSegment {
 public:
  // A new segment at `data_position`, where the file position is, for writing.
  ChunkedSegment(DiskFileAccess& file, std::uint64_t data_position, ChunkLayout layout);
  ~ChunkedSegment() override;
  ChunkedSegment(const ChunkedSegment&) = delete;
  ChunkedSegment& operator=(const ChunkedSegment&) = delete;

  // The segment of a finished stack, from its chunk index (the record's value), whose frames
  // take `data_length` bytes and hold `samples` samples. Throws "Damaged chunk index: {}"
  // unless the chunks follow each other without gap or overlap, cover the samples and the data
  // length, and their frame headers agree.
  static std::unique_ptr<ChunkedSegment> from_index(
      DiskFileAccess& file, std::uint64_t data_position, std::uint64_t data_length,
      std::uint64_t samples, std::string_view chunk_index, ChunkLayout layout);
  // The committed chunks of a stack still being written (or whose writer died), walked from
  // `data_position` up to the first frame that is not committed, not complete within `limit`
  // (the file's size), or holds more than `max_samples` samples in all.
  static std::unique_ptr<ChunkedSegment> from_frames(DiskFileAccess& file,
                                                     std::uint64_t data_position,
                                                     std::uint64_t limit, std::uint64_t max_samples,
                                                     ChunkLayout layout);

  void append(std::span<const std::byte> bytes) override;
  std::uint64_t finish() override;
  void read(std::uint64_t offset, std::span<std::byte> out) override;
  // The flush block of a compressed chunk holding `offset`; empty for plain chunks.
  std::pair<std::uint64_t, std::uint64_t> decode_unit(std::uint64_t offset) override;
  // The chunk index (key chunk_index).
  std::vector<std::pair<RecordKey, std::string>> record_entries() const override;
  std::uint64_t end_position() const override;

  const std::vector<Chunk>& chunks() const;
  // Samples in committed chunks.
  std::uint64_t committed_samples() const;
  // Inflates and checks every compressed chunk (see ZlibSegment::verify); plain chunks have
  // nothing to check beyond their frames.
  void verify();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace Tarn::bf::internal
