#include "tarnio/bf/internal/positioning.h"

#include <array>
#include <cstddef>
#include <string>

#include "tarnio/bf/internal/byte_order.h"
#include "tarnio/errors/internal/raise.h"

namespace Tarn::bf::internal {

using errors::internal::throw_tarn;

void seek_exactly(DiskFileAccess& file, std::uint64_t position) {
  if (file.seek(position) != position) {
    throw_tarn("Could not move to position {} of the file.", position);
  }
}

std::uint64_t seek_end(DiskFileAccess& file) {
  const std::uint64_t end = file.seek(DiskFileAccess::kNpos);
  if (end == DiskFileAccess::kNpos) throw_tarn("Could not move to the end of the file.");
  return end;
}

std::uint64_t file_size(DiskFileAccess& file) { return file.current_size(); }

std::uint64_t bytes_left(DiskFileAccess& file) {
  const std::uint64_t pos = file.tell();
  const std::uint64_t end = file.seek(DiskFileAccess::kNpos);
  file.seek(pos);
  if (pos == DiskFileAccess::kNpos || end == DiskFileAccess::kNpos || end < pos) return 0;
  return end - pos;
}

void patch_u64(DiskFileAccess& file, std::uint64_t position, std::uint64_t value) {
  const std::uint64_t here = file.tell();
  std::array<std::byte, 8> bytes{};
  put_u64(bytes, 0, value);
  seek_exactly(file, position);
  file.write(bytes.data(), bytes.size());
  seek_exactly(file, here);
}

bool has_magic_at(DiskFileAccess& file, std::uint64_t position, std::uint64_t limit,
                  std::string_view magic) {
  if (position > limit || limit - position < magic.size()) return false;
  seek_exactly(file, position);
  std::string bytes(magic.size(), '\0');
  file.read(bytes.data(), bytes.size());
  return bytes == magic;
}

}  // namespace Tarn::bf::internal
