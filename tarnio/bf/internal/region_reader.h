#pragma once

// read_region: the elements of a Region of a file stack, read from the stack's DataSegment
// into a caller's buffer in column-major order of the region (axis 0 fastest) and converted to
// the buffer's element type on the way.
//
// The region is walked as runs of elements that follow each other with one stride in the plain
// data: the leading axes the region takes whole merge with the first axis it does not, so that
// a plane is one run and a sub-block one run per line. Runs are gathered into batches that
// cover consecutive decode units (flush blocks) of at most 32 MiB, and each batch is one read
// of the segment, so that its blocks inflate together on the segment's threads. A block is
// decoded once however many short runs take bytes from it: the last block of a batch stays in
// memory for the next one. Plain data is batched too, joining runs whose gaps are small, so that
// a region of many short lines costs few reads; a lone run of plain data is read straight into
// the buffer.
//
// Memory beyond the caller's buffer: one batch with its blocks rounded out (flush blocks larger
// than 32 MiB are not held but read run by run through the segment). Not thread-safe.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

#include "tarnio/arrays/data_type.h"
#include "tarnio/arrays/region.h"
#include "tarnio/bf/internal/data_segment.h"

namespace Tarn::bf::internal {

// Where the elements go: `data` (and `imag` for the imaginary parts of a complex stack read
// into a real `buffer_type`), converted whenever buffer_type differs from stack_type or `imag`
// is set. The caller has checked that the converters have the pair.
struct RegionTarget {
  DataType stack_type = 0;
  DataType buffer_type = 0;
  std::byte* data = nullptr;
  std::byte* imag = nullptr;
};

// Called after each batch with the number of elements delivered so far; may throw to cancel.
using RegionProgress = std::function<void(std::uint64_t elements_done)>;

// Reads `region` of a stack of `shape` whose plain data `segment` holds. The caller has checked
// that the region fits the shape and that the segment holds every element it takes.
void read_region(DataSegment& segment, std::span<const std::uint64_t> shape,
                 const arrays::Region& region, const RegionTarget& target,
                 const RegionProgress& progress = {});

}  // namespace Tarn::bf::internal
