#include "tarnio/bf/disk_file_access.h"

#include <array>
#include <stdexcept>

#include "tarnio/bf/internal/length_prefix.h"
#include "tarnio/bf/internal/positioning.h"
#include "tarnio/errors/internal/raise.h"

namespace Tarn::bf {

namespace {

using Prefix = std::array<unsigned char, 4>;

}  // namespace

void DiskFileAccess::read_str(std::string& s, std::uint64_t n) {
  if (n == kNpos) {
    Prefix prefix{};
    read(prefix.data(), prefix.size());
    n = std::uint64_t{prefix[0]} | std::uint64_t{prefix[1]} << 8 | std::uint64_t{prefix[2]} << 16 |
        std::uint64_t{prefix[3]} << 24;
  }
  if (n == 0) {
    s.clear();
    return;
  }
  if (n > internal::bytes_left(*this)) {
    errors::internal::throw_tarn("Failed reading {} bytes from file: {}", n, "File too short.");
  }
  s.resize(n);
  read(s.data(), n);
}

void DiskFileAccess::write_str(const std::string& s, bool with_length) {
  if (with_length) {
    const std::uint32_t length = internal::length_prefix(s.size());
    const Prefix prefix{static_cast<unsigned char>(length), static_cast<unsigned char>(length >> 8),
                        static_cast<unsigned char>(length >> 16),
                        static_cast<unsigned char>(length >> 24)};
    write(prefix.data(), prefix.size());
  }
  write(s.data(), s.size());
}

void DiskFileAccess::read_at(std::uint64_t pos, void* buf, std::uint64_t n) {
  internal::seek_exactly(*this, pos);
  read(buf, n);
}

std::uint64_t DiskFileAccess::current_size() {
  const std::uint64_t here = tell();
  const std::uint64_t size = internal::seek_end(*this);
  internal::seek_exactly(*this, here);
  return size;
}

}  // namespace Tarn::bf
