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
// from element `out` on; while batched, the first of them lies at `held` in the held bytes.
struct Run {
  std::uint64_t offset = 0;
  std::uint64_t count = 0;
  std::uint64_t stride = 1;
  std::uint64_t out = 0;
  std::uint64_t held = 0;
};

// Plain bytes [begin, end), held from `at` on.
struct Span {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  std::uint64_t at = 0;
  std::uint64_t size() const { return end - begin; }
};

// Where a span starting at plain byte `begin` goes in the held bytes, at or behind `used`:
// at the same place modulo kAlignment, so that elements lie as aligned as in the plain data
// (flush blocks may end inside elements) and the converters can load them.
constexpr std::uint64_t kAlignment = 16;
std::uint64_t held_position(std::uint64_t used, std::uint64_t begin) {
  return (used + kAlignment - 1) / kAlignment * kAlignment + begin % kAlignment;
}

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

  // Adds a piece to the batch: to its last span when the piece's units join it, as a span of
  // its own behind untouched units, or in a new batch.
  void add_piece(Run piece) {
    const std::uint64_t end = span_end(piece);
    const auto [unit_begin, unit_end] = segment_.decode_unit(piece.offset);
    const bool units = unit_begin != unit_end;
    Span span{units ? unit_begin : piece.offset, end};
    if (units) span.end = std::max(end, segment_.decode_unit(end - 1).second);
    if (!batch_.empty() && batch_.size() < kMaxBatchRuns) {
      Span& last = spans_.back();
      const std::uint64_t grown = std::max(last.end, span.end) - last.end;
      if (span.begin <= last.end + (units ? 0 : kPlainGap) && batch_bytes_ + grown <= kBatchBytes) {
        last.end += grown;
        batch_bytes_ += grown;
        piece.held = last.at + (piece.offset - last.begin);
        batch_.push_back(piece);
        return;
      }
      span.at = held_position(batch_bytes_, span.begin);
      if (units && span.begin > last.end && span.at + span.size() <= kBatchBytes) {
        start_span(span, piece);
        return;
      }
    }
    flush();
    span.at = held_position(0, span.begin);
    start_span(span, piece);
  }

  void start_span(const Span& span, Run& piece) {
    piece.held = span.at + (piece.offset - span.begin);
    spans_.push_back(span);
    batch_bytes_ = span.at + span.size();
    batch_.push_back(piece);
  }

  // Whether the batch is one stretch of the plain data that is wanted whole, in the stack's
  // type, and owes nothing to the held bytes: then it is read straight into the buffer.
  bool is_direct() const {
    const Span& span = spans_.front();
    if (convert_ || spans_.size() != 1 || kept_bytes() != 0) return false;
    std::uint64_t next = span.begin;
    for (const Run& piece : batch_) {
      if (piece.stride != 1 || piece.offset != next) return false;
      next = span_end(piece);
    }
    return next == span.end;
  }

  // The bytes the batch starts with that the last batch held (the block two batches share).
  std::uint64_t kept_bytes() const {
    const Span& first = spans_.front();
    if (first.begin < tail_.begin || first.begin >= tail_.end) return 0;
    return std::min(tail_.end, first.end) - first.begin;
  }

  void flush() {
    if (batch_.empty()) return;
    if (is_direct()) {
      const Run& first = batch_.front();
      segment_.read(first.offset, {target_.data + first.out * element_size_,
                                   static_cast<std::size_t>(spans_.front().size())});
      tail_ = {};
    } else if (batch_bytes_ > kMaxHeldBytes) {
      tail_ = {};
      for (const Run& piece : batch_) read_alone(piece);
    } else {
      hold_batch();
      for (const Run& piece : batch_) deliver(piece, held_.data() + piece.held);
    }
    for (const Run& piece : batch_) done_ += piece.count;
    batch_.clear();
    spans_.clear();
    if (progress_) progress_(done_);
  }

  // Puts the plain bytes of the batch's spans into held_, one behind the other, all read with
  // one call of the segment, reusing the bytes of the last batch that the first span starts
  // with.
  void hold_batch() {
    const std::uint64_t kept = kept_bytes();
    const Span& first = spans_.front();
    if (kept > 0) {
      std::memmove(held_.data() + first.at, held_.data() + tail_.at + (first.begin - tail_.begin),
                   kept);
    }
    if (held_.size() < batch_bytes_) held_.resize(batch_bytes_);
    std::vector<DataSegment::Range> ranges;
    for (const Span& span : spans_) {
      const std::uint64_t skip = &span == &first ? kept : 0;
      if (span.size() > skip) {
        ranges.emplace_back(span.begin + skip,
                            std::span(held_).subspan(span.at + skip, span.size() - skip));
      }
    }
    segment_.read_ranges(ranges);
    tail_ = spans_.back();
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
  // The batch: its pieces, the spans of decode units they take, and the held bytes those take.
  std::vector<Run> batch_;
  std::vector<Span> spans_;
  std::uint64_t batch_bytes_ = 0;
  // The bytes of the last batch held, its last span among them.
  std::vector<std::byte> held_;
  Span tail_;
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
