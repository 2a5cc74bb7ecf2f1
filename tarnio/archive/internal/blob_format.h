#pragma once

// The byte layout of a "KLXDTA" blob (see blob.h): offsets of the header fields and the
// little-endian number codecs of its records.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Kalix::Blob::internal {

inline constexpr char kSignature[7] = "KLXDTA";  // six letters and the zero byte
inline constexpr std::size_t kSignatureSize = sizeof kSignature;
inline constexpr std::size_t kVersionOffset = 7;
inline constexpr std::size_t kTimeOffset = 11;
inline constexpr std::size_t kReservedOffset = 19;
inline constexpr std::size_t kReservedSize = 128;
inline constexpr std::size_t kHeaderSize = 147;
inline constexpr std::size_t kLengthSize = 8;  // path lengths, file sizes, the terminator
inline constexpr std::size_t kKindSize = 1;
inline constexpr std::uint64_t kEmptyBlobSize = kHeaderSize + kLengthSize;
inline constexpr std::uint8_t kFileKind = 0;
inline constexpr std::uint8_t kDirectoryKind = 1;

// Bytes of the record of an entry whose path has `path_length` bytes, without a file's contents.
inline constexpr std::uint64_t record_overhead(std::uint64_t path_length, bool directory) {
  return kLengthSize + path_length + kKindSize + (directory ? 0 : kLengthSize);
}

// The machine is little-endian (the file container refuses others), so numbers copy as they are.
inline void put_u64(std::byte* to, std::uint64_t value) { std::memcpy(to, &value, 8); }
inline std::uint64_t get_u64(const std::byte* from) {
  std::uint64_t value;
  std::memcpy(&value, from, 8);
  return value;
}

}  // namespace Kalix::Blob::internal
