#include "tarnio/bf/internal/plain_segment.h"

#include <stdexcept>

#include "tarnio/bf/internal/positioning.h"

namespace Tarn::bf::internal {

PlainSegment::PlainSegment(DiskFileAccess& file, std::uint64_t data_position, std::uint64_t length)
    : file_(file), data_position_(data_position), length_(length) {}

void PlainSegment::append(std::span<const std::byte> bytes) {
  file_.write(bytes.data(), bytes.size());
  length_ += bytes.size();
}

void PlainSegment::read(std::uint64_t offset, std::span<std::byte> out) {
  require_within(offset, out.size(), length_);
  file_.read_at(data_position_ + offset, out.data(), out.size());
}

}  // namespace Tarn::bf::internal
