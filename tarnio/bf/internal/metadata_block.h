#pragma once

// The metadata block: (key, value) entries as length-prefixed strings in key order, ended by a
// 4-byte zero where the next key length would stand. Stateless.

#include <cstdint>
#include <map>
#include <string>

#include "tarnio/bf/disk_file_access.h"

namespace Tarn::bf::internal {

// Writes the block at the file position.
void write_metadata_block(DiskFileAccess& file, const std::map<std::string, std::string>& entries);
// Reads the block at the file position; the position is left behind its end. Every length is
// checked against the bytes left before anything is allocated. Throws TarnError "Damaged
// metadata block: {}" (an entry beyond the end of the file, a repeated key, no end mark).
std::map<std::string, std::string> read_metadata_block(DiskFileAccess& file,
                                                       std::uint64_t file_size);

}  // namespace Tarn::bf::internal
