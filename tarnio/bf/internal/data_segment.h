#pragma once

// DataSegment: the element data of one file stack on disk, as the stack sees it: plain bytes
// in the stack's element type, appended front to back while writing and read by byte range
// afterwards, whatever the segment stores (plain now; compressed or chunked segments keep the
// same face). A segment works at a fixed data position of a DiskFileAccess it borrows.
// Not thread-safe.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tarnio/bf/disk_file_access.h"
#include "tarnio/bf/internal/tbf_format.h"

namespace Tarn::bf::internal {

class DataSegment {
 public:
  virtual ~DataSegment() = default;

  // Appends plain bytes behind those written before; the file position is the end of what the
  // segment wrote so far.
  virtual void append(std::span<const std::byte> bytes) = 0;
  // Ends writing; returns the length of the data on disk.
  virtual std::uint64_t finish() = 0;
  // Reads `out.size()` plain bytes starting at byte `offset` of the plain data.
  virtual void read(std::uint64_t offset, std::span<std::byte> out) = 0;
  // The record entries this segment needs to be read again (empty for plain data).
  virtual std::vector<std::pair<RecordKey, std::string>> record_entries() const { return {}; }
};

}  // namespace Tarn::bf::internal
