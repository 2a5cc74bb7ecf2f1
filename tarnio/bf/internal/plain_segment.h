#pragma once

// PlainSegment: element data stored as it is, directly at the stack's data position. Appending
// writes at the file position, which the stack keeps at the end of the data written so far;
// reading moves to the byte asked for and reads straight into the caller's span, so any range
// costs at most one move of the file position and the bytes themselves. Borrows the file
// access, which must outlive the segment. Not thread-safe.

#include <cstdint>
#include <span>

#include "tarnio/bf/disk_file_access.h"
#include "tarnio/bf/internal/data_segment.h"

namespace Tarn::bf::internal {

class PlainSegment final : public DataSegment {
 public:
  // A segment at `data_position` that already holds `length` bytes (0 for a new one, the data
  // length for one read from a file).
  PlainSegment(DiskFileAccess& file, std::uint64_t data_position, std::uint64_t length = 0);

  // Writes at the file position, which must be end(); a failed write leaves the segment's
  // length unknown (the stack fails with it).
  void append(std::span<const std::byte> bytes) override;
  std::uint64_t finish() override { return length_; }
  // Throws std::invalid_argument for bytes beyond the data, TarnError when the file position cannot
  // be moved or the file is shorter than the data.
  void read(std::uint64_t offset, std::span<std::byte> out) override;

  std::uint64_t end_position() const override { return data_position_ + length_; }

 private:
  DiskFileAccess& file_;
  std::uint64_t data_position_;
  std::uint64_t length_;
};

}  // namespace Tarn::bf::internal
