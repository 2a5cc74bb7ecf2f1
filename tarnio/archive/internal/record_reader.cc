#include "tarnio/archive/internal/record_reader.h"

#include <fmt/format.h>

#include <cstring>
#include <stdexcept>

#include "tarnio/archive/internal/blob_format.h"

namespace Kalix::Blob::internal {

RecordReader::RecordReader(const std::byte* data, std::uint64_t size)
    : data_(data), size_(size), position_(kHeaderSize) {
  if (size < kHeaderSize) {
    throw std::runtime_error(
        fmt::format("Archive blob of {} bytes is too short for its header.", size));
  }
  std::memcpy(header_.signature.data(), data, kSignatureSize);
  std::memcpy(&header_.version, data + kVersionOffset, sizeof header_.version);
  std::memcpy(&header_.time, data + kTimeOffset, sizeof header_.time);
  std::memcpy(header_.reserved.data(), data + kReservedOffset, kReservedSize);
}

void RecordReader::require(std::uint64_t n) const {
  if (n > size_ - position_) {
    throw std::runtime_error(
        fmt::format("Archive entry at byte {} runs past the end of the blob ({} bytes).",
                    record_start_, size_));
  }
}

std::optional<Record> RecordReader::next() {
  record_start_ = position_;
  if (kLengthSize > size_ - position_) {
    throw std::runtime_error("Archive blob ends without its terminator.");
  }
  const std::uint64_t length = get_u64(data_ + position_);
  position_ += kLengthSize;
  if (length == 0) return std::nullopt;
  require(length);
  const std::string_view path(reinterpret_cast<const char*>(data_ + position_),
                              static_cast<std::size_t>(length));
  position_ += length;
  require(kKindSize);
  const auto kind = static_cast<std::uint8_t>(data_[position_]);
  position_ += kKindSize;
  if (kind == kDirectoryKind) return Record{path, true, {}};
  if (kind != kFileKind) {
    throw std::runtime_error(
        fmt::format("Archive entry at byte {} has the unknown kind {}.", record_start_, kind));
  }
  require(kLengthSize);
  const std::uint64_t file_size = get_u64(data_ + position_);
  position_ += kLengthSize;
  require(file_size);
  const std::span<const std::byte> contents(data_ + position_, static_cast<std::size_t>(file_size));
  position_ += file_size;
  return Record{path, false, contents};
}

std::vector<std::string> entry_components(std::string_view path) {
  if (path.find('\0') != std::string_view::npos) {
    throw std::runtime_error("Archive entry path holds a NUL byte.");
  }
  if (path.starts_with('/')) {
    throw std::runtime_error(fmt::format("Archive entry path '{}' is absolute.", path));
  }
  std::vector<std::string> components;
  std::size_t start = 0;
  while (start <= path.size()) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    const std::string_view component = path.substr(start, end - start);
    if (component == "..") {
      throw std::runtime_error(fmt::format("Archive entry path '{}' has a '..' component.", path));
    }
    if (!component.empty() && component != ".") components.emplace_back(component);
    start = end + 1;
  }
  if (components.empty()) {
    throw std::runtime_error(
        fmt::format("Archive entry path '{}' names nothing inside the target directory.", path));
  }
  return components;
}

}  // namespace Kalix::Blob::internal
