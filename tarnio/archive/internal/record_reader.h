#pragma once

// Reading a blob (see blob.h) that may be damaged: the header and then one record after the
// other, each checked against the end of the blob before anything of it is used.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tarnio/archive/blob.h"

namespace Kalix::Blob::internal {

struct Record {
  std::string_view path;  // as stored, not yet checked
  bool is_directory;
  std::span<const std::byte> contents;  // empty for a directory
};

class RecordReader {
 public:
  // Throws std::runtime_error when `size` bytes cannot hold a header. Borrows `data`.
  RecordReader(const std::byte* data, std::uint64_t size);

  const Header& header() const { return header_; }
  // The next record, or none at the terminator. Throws std::runtime_error for a record that
  // runs past the end of the blob, a missing terminator and an unknown entry kind.
  std::optional<Record> next();

 private:
  // Throws unless `n` more bytes lie within the blob.
  void require(std::uint64_t n) const;

  const std::byte* data_;
  std::uint64_t size_;
  std::uint64_t position_;
  std::uint64_t record_start_ = 0;
  Header header_;
};

// The components of an entry path below the target directory, "." and empty components
// dropped. Throws std::runtime_error for a path that is absolute, holds a NUL byte or a ".."
// component, or names nothing below the target.
std::vector<std::string> entry_components(std::string_view path);

}  // namespace Kalix::Blob::internal
