#include "tarnio/bf/internal/stack_record.h"

#include <array>
#include <cstddef>
#include <span>

#include "tarnio/bf/internal/byte_order.h"
#include "tarnio/errors/internal/raise.h"

namespace Tarn::bf::internal {

namespace {

constexpr std::size_t kMagicSize = kRecordMagic.size();

[[noreturn]] void damaged(std::string_view what) {
  errors::internal::throw_tarn("Damaged stack record: {}", what);
}

}  // namespace

const std::string* StackRecord::find(RecordKey key) const {
  for (const auto& [entry_key, value] : entries) {
    if (entry_key == static_cast<std::uint32_t>(key)) return &value;
  }
  return nullptr;
}

void StackRecord::add(RecordKey key, std::string value) {
  entries.emplace_back(static_cast<std::uint32_t>(key), std::move(value));
}

std::string encode_stack_record(const StackRecord& record) {
  std::uint64_t length = kRecordEntriesOffset;
  for (const auto& entry : record.entries) length += kRecordEntryHeaderSize + entry.second.size();

  std::string bytes(length, '\0');
  const std::span<std::byte> out(reinterpret_cast<std::byte*>(bytes.data()), bytes.size());
  put_bytes(out, 0, kRecordMagic);
  put_u64(out, kRecordLengthOffset, length);
  std::size_t at = kRecordEntriesOffset;
  for (const auto& [key, value] : record.entries) {
    put_u32(out, at, key);
    put_u64(out, at + 4, value.size());
    put_bytes(out, at + kRecordEntryHeaderSize, value);
    at += kRecordEntryHeaderSize + value.size();
  }
  return bytes;
}

std::optional<StackRecord> read_stack_record(DiskFileAccess& file, std::uint64_t position,
                                             std::uint64_t limit) {
  // Too little room left for the magic: whatever lies there is no record.
  if (position > limit || limit - position < kMagicSize) return std::nullopt;
  if (file.seek(position) != position) return std::nullopt;
  std::array<std::byte, kRecordEntriesOffset> head{};
  file.read(head.data(), kMagicSize);
  if (!has_bytes(head, 0, kRecordMagic)) return std::nullopt;

  if (limit - position < kRecordEntriesOffset)
    damaged("its length lies beyond the end of the file.");
  file.read(head.data() + kMagicSize, kRecordEntriesOffset - kMagicSize);
  const std::uint64_t length = get_u64(head, kRecordLengthOffset);
  if (length < kRecordEntriesOffset) damaged(fmt::format("record length {} is too small.", length));
  if (length > limit - position) {
    damaged(fmt::format("record length {} reaches beyond the end of the file.", length));
  }

  StackRecord record;
  std::uint64_t left = length - kRecordEntriesOffset;
  while (left > 0) {
    if (left < kRecordEntryHeaderSize) damaged("an entry header is cut short.");
    std::array<std::byte, kRecordEntryHeaderSize> entry{};
    file.read(entry.data(), entry.size());
    left -= kRecordEntryHeaderSize;
    const std::uint32_t key = get_u32(entry, 0);
    const std::uint64_t size = get_u64(entry, 4);
    if (size > left) {
      damaged(fmt::format("entry {} of {} bytes reaches beyond the end of the record.", key, size));
    }
    std::string value;
    file.read_str(value, size);
    left -= size;
    record.entries.emplace_back(key, std::move(value));
  }
  return record;
}

}  // namespace Tarn::bf::internal
