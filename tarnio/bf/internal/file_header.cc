#include "tarnio/bf/internal/file_header.h"

#include <array>
#include <cstddef>
#include <span>
#include <stdexcept>
#include <vector>

#include "tarnio/bf/internal/byte_order.h"
#include "tarnio/bf/internal/length_prefix.h"
#include "tarnio/bf/internal/positioning.h"
#include "tarnio/bf/internal/tbf_format.h"
#include "tarnio/errors/internal/raise.h"

namespace Tarn::bf::internal {

namespace {

constexpr std::size_t kMetadataFieldSize = 8;

bool has_metadata_field(std::uint32_t version) { return version >= kFirstVersionWithMetadata; }

}  // namespace

FileHeaderLayout write_file_header(DiskFileAccess& file, const FileHeader& header) {
  const std::uint32_t n = length_prefix(header.description.size());
  const bool with_field = has_metadata_field(header.version);
  std::vector<std::byte> bytes(kFileDescriptionOffset + n + (with_field ? kMetadataFieldSize : 0));
  const std::span<std::byte> out(bytes);
  put_bytes(out, 0, kFileMagic);
  put_u32(out, kFileVersionOffset, header.version);
  put_u64(out, kFirstStackOffset, header.first_stack);
  put_u32(out, kFileDescriptionLengthOffset, n);
  put_bytes(out, kFileDescriptionOffset, header.description);
  if (with_field) put_u64(out, kFileDescriptionOffset + n, header.metadata_position);

  const std::uint64_t start = file.tell();
  file.write(bytes.data(), bytes.size());
  FileHeaderLayout layout;
  layout.first_stack_field = start + kFirstStackOffset;
  layout.metadata_field = with_field ? start + kFileDescriptionOffset + n : 0;
  layout.end = start + bytes.size();
  return layout;
}

FileHeader read_file_header(DiskFileAccess& file, FileHeaderLayout& layout) {
  const std::uint64_t start = file.tell();
  std::array<std::byte, kFileDescriptionOffset> fixed{};
  // A file too short to hold the magic is no TBF file; one that holds it but ends inside the
  // fixed part is a TBF file cut short, and reading it gives the disk file's error.
  if (bytes_left(file) < kFileMagic.size()) throw std::runtime_error("No TBF file header found.");
  file.read(fixed.data(), kFileMagic.size());
  if (!has_bytes(fixed, 0, kFileMagic)) throw std::runtime_error("No TBF file header found.");
  file.read(fixed.data() + kFileMagic.size(), fixed.size() - kFileMagic.size());

  FileHeader header;
  header.version = get_u32(fixed, kFileVersionOffset);
  // Version 0 was never written; a version above ours may lay out the header or the chain
  // differently, and appending to it could damage it.
  if (header.version == 0 || header.version > kFileFormatVersion) {
    errors::internal::throw_tarn("Unsupported TBF file format version {}.", header.version);
  }
  header.first_stack = get_u64(fixed, kFirstStackOffset);
  const std::uint32_t n = get_u32(fixed, kFileDescriptionLengthOffset);
  file.read_str(header.description, n);

  layout.first_stack_field = start + kFirstStackOffset;
  layout.metadata_field = 0;
  if (has_metadata_field(header.version)) {
    layout.metadata_field = start + kFileDescriptionOffset + n;
    std::array<std::byte, kMetadataFieldSize> field{};
    file.read(field.data(), field.size());
    header.metadata_position = get_u64(field, 0);
  }
  layout.end = start + kFileDescriptionOffset + n +
               (has_metadata_field(header.version) ? kMetadataFieldSize : 0);
  return header;
}

}  // namespace Tarn::bf::internal
