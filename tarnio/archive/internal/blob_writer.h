#pragma once

// Writing the blob of a tree into memory that an output hands out piece by piece: one buffer
// for fs_to_buffer, a reused block for fs_to_sink. File contents are read straight into that
// memory, without a copy in between.

#include <cstddef>
#include <filesystem>
#include <span>

#include "tarnio/archive/blob.h"

namespace Kalix::Blob::internal {

class BlobOutput {
 public:
  virtual ~BlobOutput() = default;
  // Free memory of at least one byte for the next bytes of the blob. Throws std::runtime_error
  // when the blob would grow past what the output takes.
  virtual std::span<std::byte> room() = 0;
  // The first `n` bytes of room() now hold blob bytes.
  virtual void advance(std::size_t n) = 0;
};

// Throws std::runtime_error "The tree changed while it was packed." (for outputs to use).
[[noreturn]] void throw_tree_changed();

// Writes the header, one record per entry of walk_tree(directory) and the terminator to `out`.
// Throws as walk_tree, "error writing file {}, {} bytes" when a file cannot be read whole, and
// what `out` throws.
void write_blob(const Header& header, const std::filesystem::path& directory, BlobOutput& out);

}  // namespace Kalix::Blob::internal
