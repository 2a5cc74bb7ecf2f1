#include "tarnio/bf/internal/region_reader.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "tarnio/arrays/shape.h"

namespace Tarn::bf::internal {

namespace {

// Plain bytes one batch covers at most, decode units rounded out.
constexpr std::uint64_t kBatchBytes = std::uint64_t{32} << 20;
// Runs are cut into pieces of at most this span, so that a batch always takes at least one.
constexpr std::uint64_t kPieceBytes = std::uint64_t{8} << 20;
// A batch whose rounded-out units exceed this (decode units of a huge flush block size) is not
// held in memory; its pieces are read one by one through the segment.
constexpr std::uint64_t kMaxHeldBytes = 4 * kBatchBytes;
// Gaps of plain data up to this size are read along rather than skipped with another read.
constexpr std::uint64_t kPlainGap = std::uint64_t{64} << 10;
// Bounds the bookkeeping of a batch of very short runs.
constexpr std::size_t kMaxBatchRuns = std::size_t{1} << 16;

// `count` elements from plain byte `offset` on, `stride` elements apart, that go to the buffer
// from element `out` on.
struct Run {
  std::uint64_t offset = 0;
  std::uint64_t count = 0;
  std::uint64_t stride = 1;
  std::uint64_t out = 0;
};

class RegionReader {
 public:
  RegionReader(DataSegment& segment, const RegionTarget& target, const RegionProgress& progress)
      : segment_(segment),
        target_(target),
        progress_(progress),
        element_size_(tarn_dt_get_size(target.stack_type)),
        buffer_element_size_(tarn_dt_get_size(target.buffer_type)),
        convert_(target.buffer_type != target.stack_type || target.imag != nullptr) {}

  void add(const Run& run) {
    const std::uint64_t per_piece =
        std::max<std::uint64_t>(1, kPieceBytes / (run.stride * element_size_));
    for (std::uint64_t done = 0; done < run.count;) {
      const std::uint64_t n = std::min(per_piece, run.count - done);
      add_piece({run.offset + done * run.stride * element_size_, n, run.stride, run.out + done});
      done += n;
    }
  }

  void finish() { flush(); }

 private:
  std::uint64_t span_end(const Run& run) const {
    return run.offset + ((run.count - 1) * run.stride + 1) * element_size_;
  }

  void add_piece(const Run& piece) {
    const std::uint64_t end = span_end(piece);
    const auto [unit_begin, unit_end] = segment_.decode_unit(piece.offset);
    const bool units = unit_begin != unit_end;
    const std::uint64_t low = units ? unit_begin : piece.offset;
    std::uint64_t high = end;
    if (units) high = std::max(end, segment_.decode_unit(end - 1).second);
    const std::uint64_t gap = units ? 0 : kPlainGap;
    if (!batch_.empty() && low <= batch_end_ + gap && batch_.size() < kMaxBatchRuns &&
        std::max(high, batch_end_) - batch_begin_ <= kBatchBytes) {
      batch_end_ = std::max(batch_end_, high);
      batch_.push_back(piece);
      return;
    }
    flush();
    batch_begin_ = low;
    batch_end_ = high;
    batch_.push_back(piece);
  }

  bool held(std::uint64_t offset) const { return held_begin_ <= offset && offset < held_end_; }

  void flush() {
    if (batch_.empty()) return;
    const Run& first = batch_.front();
    if (batch_.size() == 1 && !convert_ && first.stride == 1 && first.offset == batch_begin_ &&
        span_end(first) == batch_end_ && !held(batch_begin_)) {
      segment_.read(first.offset, output(first));
    } else if (batch_end_ - batch_begin_ > kMaxHeldBytes) {
      held_begin_ = held_end_ = 0;
      for (const Run& piece : batch_) read_alone(piece);
    } else {
      hold_batch();
      for (const Run& piece : batch_) deliver(piece, held_.data() + (piece.offset - held_begin_));
    }
    for (const Run& piece : batch_) done_ += piece.count;
    batch_.clear();
    if (progress_) progress_(done_);
  }

  // Puts the plain bytes of the batch into held_, reusing those of the last batch that it
  // starts with (the block two batches share).
  void hold_batch() {
    const std::uint64_t length = batch_end_ - batch_begin_;
    std::uint64_t kept = 0;
    if (held(batch_begin_)) {
      kept = std::min(held_end_, batch_end_) - batch_begin_;
      std::memmove(held_.data(), held_.data() + (batch_begin_ - held_begin_), kept);
    }
    if (held_.size() < length) held_.resize(length);
    held_begin_ = batch_begin_;
    held_end_ = batch_end_;
    segment_.read(batch_begin_ + kept, std::span(held_).subspan(kept, length - kept));
  }

  void read_alone(const Run& piece) {
    const std::uint64_t length = span_end(piece) - piece.offset;
    if (!convert_ && piece.stride == 1) {
      segment_.read(piece.offset, output(piece));
      return;
    }
    std::vector<std::byte> bounce(length);
    segment_.read(piece.offset, bounce);
    deliver(piece, bounce.data());
  }

  std::span<std::byte> output(const Run& piece) const {
    return {target_.data + piece.out * element_size_, piece.count * element_size_};
  }

  // Copies or converts the elements of `piece`, whose first plain byte is at `plain`.
  void deliver(const Run& piece, const std::byte* plain) const {
    if (convert_) {
      const std::uint64_t at = piece.out * buffer_element_size_;
      tarn_dt_convert_with_strides(target_.stack_type, target_.buffer_type, plain, piece.stride,
                                   target_.data + at, 1, piece.count, nullptr,
                                   target_.imag != nullptr ? target_.imag + at : nullptr);
      return;
    }
    std::byte* out = target_.data + piece.out * element_size_;
    if (piece.stride == 1) {
      std::memcpy(out, plain, piece.count * element_size_);
      return;
    }
    const std::uint64_t step = piece.stride * element_size_;
    for (std::uint64_t i = 0; i < piece.count; ++i) {
      std::memcpy(out + i * element_size_, plain + i * step, element_size_);
    }
  }

  DataSegment& segment_;
  const RegionTarget& target_;
  const RegionProgress& progress_;
  const std::size_t element_size_;
  const std::size_t buffer_element_size_;
  const bool convert_;
  std::vector<Run> batch_;
  std::uint64_t batch_begin_ = 0;
  std::uint64_t batch_end_ = 0;
  std::vector<std::byte> held_;
  std::uint64_t held_begin_ = 0;
  std::uint64_t held_end_ = 0;
  std::uint64_t done_ = 0;
};

}  // namespace

void read_region(DataSegment& segment, std::span<const std::uint64_t> shape,
                 const arrays::Region& region, const RegionTarget& target,
                 const RegionProgress& progress) {
  if (region.number_of_elements() == 0) return;
  const std::size_t rank = shape.size();
  const std::vector<std::uint64_t>& start = region.start();
  const std::vector<std::uint64_t>& size = region.size();
  const std::vector<std::uint64_t>& step = region.step();
  const std::vector<std::uint64_t> strides = arrays::column_major_strides(shape);

  // The leading axes the region takes whole lie back to back; the first axis it does not take
  // whole continues them when its step is 1, and otherwise each of its indices starts a run
  // (or, for axis 0, its indices form one strided run).
  std::size_t whole = 0;
  while (whole < rank && start[whole] == 0 && size[whole] == shape[whole] && step[whole] == 1) {
    ++whole;
  }
  Run run;
  std::size_t outer = whole;
  if (whole == rank) {
    run.count = arrays::number_of_elements(shape);
  } else if (step[whole] == 1) {
    run.count = strides[whole] * size[whole];
    outer = whole + 1;
  } else if (whole == 0) {
    run.count = size[0];
    run.stride = step[0];
    outer = 1;
  } else {
    run.count = strides[whole];
  }

  // An odometer over the outer axes, moving the run's first element along.
  const std::size_t element_size = tarn_dt_get_size(target.stack_type);
  std::uint64_t first = 0;
  for (std::size_t i = 0; i < rank; ++i) first += start[i] * strides[i];
  std::vector<std::uint64_t> index(rank, 0);
  RegionReader reader(segment, target, progress);
  for (;;) {
    run.offset = first * element_size;
    reader.add(run);
    run.out += run.count;
    std::size_t axis = outer;
    for (; axis < rank; ++axis) {
      if (++index[axis] < size[axis]) {
        first += step[axis] * strides[axis];
        break;
      }
      index[axis] = 0;
      first -= (size[axis] - 1) * step[axis] * strides[axis];
    }
    if (axis == rank) break;
  }
  reader.finish();
}

}  // namespace Tarn::bf::internal
