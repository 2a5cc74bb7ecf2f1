#pragma once

// Kalix::Blob: the byte form of a directory tree, "KLXDTA" blobs. A blob is a 147-byte header
// (signature, version, creation time, reserved bytes), one record per file and directory of the
// tree, and a terminator (a path length of 0); all numbers are little-endian:
//   record: path length L (8 bytes, never 0), the relative path (L bytes, narrow encoding), a
//           byte 1 for a directory or 0 for a regular file, and for a file its size S (8 bytes)
//           followed by its S bytes.
// The blob of a tree takes 155 bytes plus L + 9 per entry plus S + 8 per file.
//
// A blob is untrusted input: buffer_to_fs checks every record against the blob and every path
// against the target directory before it writes anything, never writes through a symbolic link
// and replaces each file by renaming a complete temporary file into place.
//
// Packing stores regular files and directories only: a symbolic link or any other kind of
// entry in the tree is refused. Thread-safe: no shared state.

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>

#include "tarnio/export.h"

namespace Kalix::Blob {

inline constexpr std::uint32_t current_version = 3;

struct TARNIO_EXPORT Header {
  // The signature "KLXDTA", current_version, the current time and zero reserved bytes.
  Header();

  std::array<char, 7> signature;
  std::uint32_t version;
  std::uint64_t time;  // seconds since 1970-01-01 00:00 UTC
  std::array<std::uint8_t, 128> reserved;
};

// The bytes of the blob of the tree at `path`; at least 155. Throws std::filesystem_error when
// the walk fails, std::runtime_error for a symbolic link or an entry that is neither a regular
// file nor a directory.
TARNIO_EXPORT std::uint64_t get_fs_size(const std::filesystem::path& path);

// Writes the blob of the tree at `directory` into `buffer`, which holds `size` bytes, at least
// get_fs_size(directory). Throws as get_fs_size, std::runtime_error "error writing file {}, {}
// bytes" when a file cannot be read whole, and std::runtime_error when the tree grew beyond
// `size` since it was measured.
TARNIO_EXPORT void fs_to_buffer(Header header, std::byte* buffer, std::uint64_t size,
                                const std::filesystem::path& directory);

// As fs_to_buffer, but hands the blob to `sink` in pieces of at most a few MiB, in order, so
// that it can go to a file without ever being whole in memory. The blob must come to exactly
// `size` bytes (get_fs_size of the tree); a tree that changed meanwhile throws.
using Sink = std::function<void(std::span<const std::byte> piece)>;
TARNIO_EXPORT void fs_to_sink(Header header, const std::filesystem::path& directory,
                              std::uint64_t size, const Sink& sink);

// Restores the tree of the blob `data` of `size` bytes in `directory`, which is created with
// its missing parents; files of the same name are replaced, other files kept. Bytes behind the
// terminator are ignored. Returns the blob's header (its version is not checked).
// Throws std::runtime_error for a damaged blob (too short, a record running past its end, no
// terminator, an unknown entry kind) and for an entry path that is empty, absolute, holds a NUL
// or a ".." component, all before anything is written; "error writing file {}, {} bytes" when
// a file cannot be written whole (nothing of it is left behind), and std::filesystem_error
// "create_directories" when a directory cannot be made.
TARNIO_EXPORT Header buffer_to_fs(const std::byte* data, std::uint64_t size,
                                  const std::filesystem::path& directory);

}  // namespace Kalix::Blob
