#pragma once

// Moves of the file position that must succeed, the sizes around it, and patching a field in
// place: the few position steps that the file container, the stacks and their segments share.
// Stateless; each works on the DiskFileAccess it is given.

#include <cstdint>
#include <string_view>

#include "tarnio/bf/disk_file_access.h"

namespace Tarn::bf::internal {

// Throws TarnError "Could not move to position {} of the file." when the move fails.
void seek_exactly(DiskFileAccess& file, std::uint64_t position);
// Moves to the end and returns the file's size. Throws TarnError "Could not move to the end of
// the file." when that fails.
std::uint64_t seek_end(DiskFileAccess& file);
// The file's size (DiskFileAccess::current_size); the position is left where it was.
std::uint64_t file_size(DiskFileAccess& file);
// The bytes between the position and the end of the file, 0 when either is unknown; the
// position is left where it was. Never throws.
std::uint64_t bytes_left(DiskFileAccess& file);
// Writes `value` as 8 little-endian bytes at `position` and moves back to where the file was.
void patch_u64(DiskFileAccess& file, std::uint64_t position, std::uint64_t value);
// Whether the bytes at `position` are `magic`, which must end at `limit` (the file's size) at
// the latest. Leaves the file position behind the bytes compared, or where it was when they
// do not fit.
bool has_magic_at(DiskFileAccess& file, std::uint64_t position, std::uint64_t limit,
                  std::string_view magic);

}  // namespace Tarn::bf::internal
