#include "tarnio/bf/internal/metadata_block.h"

#include <array>
#include <cstddef>
#include <span>
#include <stdexcept>
#include <vector>

#include "tarnio/bf/internal/byte_order.h"
#include "tarnio/bf/internal/length_prefix.h"
#include "tarnio/errors/internal/raise.h"

namespace Tarn::bf::internal {

namespace {

constexpr std::size_t kLengthSize = 4;
// The most characters of a key that a message shows.
constexpr std::size_t kShownKeyLength = 64;

using errors::internal::throw_tarn;

void append_length(std::vector<std::byte>& out, std::size_t length) {
  const std::uint32_t prefix = length_prefix(length);
  const std::size_t at = out.size();
  out.resize(at + kLengthSize);
  put_u32(out, at, prefix);
}

void append_string(std::vector<std::byte>& out, const std::string& s) {
  append_length(out, s.size());
  const std::size_t at = out.size();
  out.resize(at + s.size());
  put_bytes(out, at, s);
}

std::uint32_t read_length(DiskFileAccess& file) {
  std::array<std::byte, kLengthSize> bytes{};
  file.read(bytes.data(), bytes.size());
  return get_u32(bytes, 0);
}

}  // namespace

void write_metadata_block(DiskFileAccess& file, const std::map<std::string, std::string>& entries) {
  // Encoded whole first, so that an entry that cannot be stored leaves the file untouched, and
  // written with one call.
  std::vector<std::byte> block;
  for (const auto& [key, value] : entries) {
    // A key of length 0 would read as the end mark and hide every entry behind it.
    if (key.empty()) throw std::invalid_argument("Metadata key must not be empty.");
    append_string(block, key);
    append_string(block, value);
  }
  append_length(block, 0);
  file.write(block.data(), block.size());
}

std::map<std::string, std::string> read_metadata_block(DiskFileAccess& file,
                                                       std::uint64_t file_size) {
  std::uint64_t pos = file.tell();
  if (pos == DiskFileAccess::kNpos || pos > file_size) {
    throw_tarn("Damaged metadata block: {}", "it starts behind the end of the file.");
  }
  // Reads a length-given string at pos, checked against the end of the file first.
  const auto read_string = [&](std::string& s, const char* what) {
    if (file_size - pos < kLengthSize) {
      throw_tarn("Damaged metadata block: {}", "the file ends before its end mark.");
    }
    const std::uint32_t length = read_length(file);
    pos += kLengthSize;
    if (length > file_size - pos) {
      throw_tarn(
          "Damaged metadata block: {} of {} bytes at position {} runs past the end of the "
          "file.",
          what, length, pos);
    }
    s.resize(length);
    file.read(s.data(), length);
    pos += length;
  };

  std::map<std::string, std::string> entries;
  for (;;) {
    std::string key;
    read_string(key, "key");
    if (key.empty()) break;
    std::string value;
    read_string(value, "value");
    if (!entries.try_emplace(std::move(key), std::move(value)).second) {
      throw_tarn("Damaged metadata block: the key '{}' appears twice.",
                 key.size() <= kShownKeyLength ? key : key.substr(0, kShownKeyLength) + "...");
    }
  }
  return entries;
}

}  // namespace Tarn::bf::internal
