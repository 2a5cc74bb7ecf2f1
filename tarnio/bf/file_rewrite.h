#pragma once

// Rewriting whole TBF files: recovery of a file whose writer died, and compaction.
//
//   Tarn::recover_file("run.tbf", "run-recovered.tbf");   // after a crash of the acquisition
//   Tarn::compact_file("run.tbf", "run-small.tbf",
//                      {.compression = {{Tarn::bf::StackImp::Compression::zlib, 6}}});
//
// Both read the source stack by stack and write a new, complete file at `out` (created, or
// replaced when it exists) that holds each stack with its whole info, element data bit for bit,
// the file's description and its metadata entries. The new file has no unused reserved space,
// no superseded metadata blocks of appended files and no gaps. `out` must not be `in`.
//
// Errors: the containers' and stacks' (TarnError for a damaged or unreadable source, failures
// of the system); std::invalid_argument when `out` is the source. A failed rewrite leaves
// whatever was written of `out` behind, incomplete (open_file refuses it).

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>

#include "tarnio/bf/stack_imp.h"
#include "tarnio/bf/threading_support.h"
#include "tarnio/export.h"

namespace Tarn::bf {

struct StackCompression {
  StackImp::Compression type = StackImp::Compression::none;
  std::uint32_t level = 0;
};

struct RewriteOptions {
  // Every stack stored with this compression instead of its own.
  std::optional<StackCompression> compression;
  // Threads for inflating the source and compressing the new file.
  ThreadingSupport threading;
};

struct RecoveryResult {
  // Stacks written to the new file.
  std::size_t stacks = 0;
  // Whether one of them was still being written chunk-wise and keeps only its whole slices of
  // committed chunks.
  bool partial_stack = false;
};

}  // namespace Tarn::bf

namespace Tarn {

// Writes to `out` what can be read of `damaged`, a file whose writer died or is still at work
// (see open_unfinished_file): every committed stack, and the committed chunks of a stack that
// was written chunk-wise, its last dimension cut to the whole slices among them. A file that is
// complete is copied whole.
TARNIO_EXPORT bf::RecoveryResult recover_file(const std::filesystem::path& damaged,
                                              const std::filesystem::path& out,
                                              const bf::RewriteOptions& options = {});

// Rewrites the complete file `in` to `out` without unused space, optionally recompressing.
TARNIO_EXPORT void compact_file(const std::filesystem::path& in, const std::filesystem::path& out,
                                const bf::RewriteOptions& options = {});

}  // namespace Tarn
