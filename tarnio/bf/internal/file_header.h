#pragma once

// The file header as values: magic, format version, first-stack position, description and (from
// version 2) the metadata position field. Read and written through a DiskFileAccess at its
// current position. Stateless.

#include <cstdint>
#include <string>

#include "tarnio/bf/disk_file_access.h"

namespace Tarn::bf::internal {

struct FileHeader {
  std::uint32_t version = 2;
  std::uint64_t first_stack = 0;
  std::string description;
  // Only for version 2 and later.
  std::uint64_t metadata_position = 0;
};

// Where the fields lie in the file, for patching them later.
struct FileHeaderLayout {
  std::uint64_t first_stack_field = 0;
  // 0 for version 1, which has no metadata field.
  std::uint64_t metadata_field = 0;
  // Just behind the header.
  std::uint64_t end = 0;
};

// Writes the header at the file position.
FileHeaderLayout write_file_header(DiskFileAccess& file, const FileHeader& header);
// Reads the header at the file position. Throws std::runtime_error "No TBF file header found."
// when the first ten bytes are not the magic, TarnError "Unsupported TBF file format version
// {}." for versions 0 and above 2, and the disk file's TarnError for a header cut short (the
// description length is checked against the file before it is read).
FileHeader read_file_header(DiskFileAccess& file, FileHeaderLayout& layout);

}  // namespace Tarn::bf::internal
