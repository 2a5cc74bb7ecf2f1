#pragma once

// DataSegment: the element data of one file stack on disk, as the stack sees it: plain bytes
// in the stack's element type, appended front to back while writing and read by byte range
// afterwards, whatever the segment stores (plain bytes, one zlib stream, or chunk frames). A
// segment works at a fixed data position of a DiskFileAccess it borrows. All file access of a
// segment happens in the calling thread, so between two calls the file position is
// end_position() while writing. Not thread-safe.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "tarnio/bf/disk_file_access.h"
#include "tarnio/bf/internal/tbf_format.h"

namespace Tarn::bf::internal {

class DataSegment {
 public:
  virtual ~DataSegment() = default;

  // Appends plain bytes behind those written before; the file position must be end_position().
  // A segment may keep up to its block size of them in memory (or in flight on its threads)
  // until a later append() or finish().
  virtual void append(std::span<const std::byte> bytes) = 0;
  // Ends writing: everything is in the file, and the file position is end_position(), where
  // the stack record goes. Returns the length of the data on disk.
  virtual std::uint64_t finish() = 0;
  // Reads `out.size()` plain bytes starting at byte `offset` of the plain data.
  virtual void read(std::uint64_t offset, std::span<std::byte> out) = 0;
  // The plain bytes [first, second) that are decoded as one whenever plain byte `offset` (below
  // the plain length) is read: the flush block holding it. An empty range (the default) says
  // that a read costs only the bytes read, as for plain data.
  virtual std::pair<std::uint64_t, std::uint64_t> decode_unit(std::uint64_t offset) {
    return {offset, offset};
  }
  // The record entries this segment needs to be read again (empty for plain data).
  virtual std::vector<std::pair<RecordKey, std::string>> record_entries() const { return {}; }
  // The file position just behind the bytes the segment has put into the file.
  virtual std::uint64_t end_position() const = 0;
};

}  // namespace Tarn::bf::internal
