#pragma once

// The stack record behind a stack's data (layout in tbf_format.h): the entries a stack needs
// beyond its fixed header. Encoding and a reader that finds the record, or its absence, at a
// position without guessing. Stateless.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tarnio/bf/disk_file_access.h"
#include "tarnio/bf/internal/tbf_format.h"

namespace Tarn::bf::internal {

struct StackRecord {
  // In the order written; keys this reader does not know are kept and ignored.
  std::vector<std::pair<std::uint32_t, std::string>> entries;

  // The value of the first entry with `key`, or null.
  const std::string* find(RecordKey key) const;
  void add(RecordKey key, std::string value);
};

std::string encode_stack_record(const StackRecord& record);

// Reads the record at `position` when the 16 bytes there are the record magic; returns nothing
// when they are not (another stack header, the metadata block, the end of the file: a stack
// written without record). `limit` is where the record must end at the latest (the file
// size). Throws TarnError "Damaged stack record: {}" for a record whose lengths leave it.
std::optional<StackRecord> read_stack_record(DiskFileAccess& file, std::uint64_t position,
                                             std::uint64_t limit);

}  // namespace Tarn::bf::internal
