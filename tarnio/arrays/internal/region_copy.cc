#include "tarnio/arrays/internal/region_copy.h"

#include <algorithm>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "tarnio/arrays/shape.h"

namespace Tarn::arrays::internal {
namespace {

// A run shorter than this along the buffer's fastest axis costs more in converter calls than a
// strided run along a longer axis costs in scattered accesses.
constexpr std::uint64_t kShortRun = 16;

// One axis of a copy: how many elements it takes and how far apart they lie, in elements of
// the stack and of the buffer.
struct Axis {
  std::uint64_t count;
  std::uint64_t stack_stride;
  std::uint64_t buffer_stride;
};

// Where the copy starts in the stack (in elements), the run each converter call copies, and
// the axes around it.
struct Plan {
  std::uint64_t stack_offset = 0;
  Axis run{1, 1, 1};
  // Walked as an odometer, fastest first.
  std::vector<Axis> outer;
};

// Lays out the copy of a non-empty region that fits `shape`. Axes of size 1 only move the
// start; neighbours that continue each other in both the stack and the buffer merge.
Plan make_plan(std::span<const std::uint64_t> shape, const Region& region) {
  const std::vector<std::uint64_t> strides = column_major_strides(shape);
  Plan plan;
  std::vector<Axis> axes;
  std::uint64_t buffer_stride = 1;
  for (std::size_t i = 0; i < region.rank(); ++i) {
    plan.stack_offset += region.start()[i] * strides[i];
    const std::uint64_t count = region.size()[i];
    if (count == 1) continue;
    // The region fits and takes two indices or more here, so step * stride stays below the
    // stack's element count.
    const Axis axis{count, region.step()[i] * strides[i], buffer_stride};
    buffer_stride *= count;
    if (!axes.empty()) {
      Axis& last = axes.back();
      if (axis.stack_stride == last.count * last.stack_stride &&
          axis.buffer_stride == last.count * last.buffer_stride) {
        last.count *= count;
        continue;
      }
    }
    axes.push_back(axis);
  }
  if (axes.empty()) return plan;  // a single element
  auto run = axes.begin();
  if (run->count < kShortRun) {
    run = std::ranges::max_element(axes, {}, &Axis::count);
  }
  plan.run = *run;
  axes.erase(run);
  plan.outer = std::move(axes);
  return plan;
}

// Calls copy_run(stack_offset, buffer_offset) for the first element of every run.
template <class CopyRun>
void walk(const Plan& plan, CopyRun copy_run) {
  std::vector<std::uint64_t> index(plan.outer.size(), 0);
  std::uint64_t stack_offset = plan.stack_offset;
  std::uint64_t buffer_offset = 0;
  while (true) {
    copy_run(stack_offset, buffer_offset);
    std::size_t k = 0;
    for (; k < plan.outer.size(); ++k) {
      const Axis& axis = plan.outer[k];
      stack_offset += axis.stack_stride;
      buffer_offset += axis.buffer_stride;
      if (++index[k] < axis.count) break;
      // Unsigned arithmetic wraps, so the way back is exact even where count * stride would
      // pass the end of the stack.
      stack_offset -= axis.count * axis.stack_stride;
      buffer_offset -= axis.count * axis.buffer_stride;
      index[k] = 0;
    }
    if (k == plan.outer.size()) return;
  }
}

// The codes handed to the converters: logical has no converter, but between two logical
// buffers an element copies as a uint8 of the same size and bits.
struct Carriers {
  DataType from;
  DataType to;
};

Carriers carriers(DataType from, DataType to, bool split_or_merge) {
  if (!split_or_merge && from == dt::logical && to == dt::logical) return {dt::uint8, dt::uint8};
  return {from, to};
}

// Throws unless the converters support the pair in the mode the imaginary pointers select;
// a zero-count call writes nothing and tells.
void check_conversion(Carriers codes, const void* src_imag, void* dst_imag, DataType from_named,
                      DataType to_named) {
  if (tarn_dt_convert_with_strides(codes.from, codes.to, nullptr, 1, nullptr, 1, 0, src_imag,
                                   dst_imag) == 0) {
    return;
  }
  throw std::invalid_argument(std::string("Unsupported conversion from '") +
                              tarn_dt_get_name(from_named) + "' to '" + tarn_dt_get_name(to_named) +
                              "'.");
}

void check_buffer(const void* buffer) {
  if (buffer == nullptr) throw std::invalid_argument("Null buffer for a non-empty region.");
}

}  // namespace

void copy_region_out(const StackLayout<const std::byte>& stack, const Region& region,
                     DataType buffer_type, void* buffer, void* buffer_imag) {
  region.check_fits(stack.shape);
  const Carriers codes = carriers(stack.type, buffer_type, buffer_imag != nullptr);
  const DataType buffer_named =
      buffer_imag != nullptr ? buffer_type | dt::complex_flag : buffer_type;
  check_conversion(codes, nullptr, buffer_imag, stack.type, buffer_named);
  if (region.number_of_elements() == 0) return;
  check_buffer(buffer);

  const Plan plan = make_plan(stack.shape, region);
  const std::size_t stack_size = tarn_dt_get_size(stack.type);
  const std::size_t buffer_size = tarn_dt_get_size(buffer_type);
  auto* out = static_cast<std::byte*>(buffer);
  auto* out_imag = static_cast<std::byte*>(buffer_imag);
  walk(plan, [&](std::uint64_t stack_offset, std::uint64_t buffer_offset) {
    (void)tarn_dt_convert_with_strides(
        codes.from, codes.to, stack.data + stack_offset * stack_size, plan.run.stack_stride,
        out + buffer_offset * buffer_size, plan.run.buffer_stride, plan.run.count, nullptr,
        out_imag != nullptr ? out_imag + buffer_offset * buffer_size : nullptr);
  });
}

void copy_region_in(const StackLayout<std::byte>& stack, const Region& region, DataType buffer_type,
                    const void* buffer, const void* buffer_imag) {
  region.check_fits(stack.shape);
  const Carriers codes = carriers(buffer_type, stack.type, buffer_imag != nullptr);
  const DataType buffer_named =
      buffer_imag != nullptr ? buffer_type | dt::complex_flag : buffer_type;
  check_conversion(codes, buffer_imag, nullptr, buffer_named, stack.type);
  if (region.number_of_elements() == 0) return;
  check_buffer(buffer);

  const Plan plan = make_plan(stack.shape, region);
  const std::size_t stack_size = tarn_dt_get_size(stack.type);
  const std::size_t buffer_size = tarn_dt_get_size(buffer_type);
  const auto* in = static_cast<const std::byte*>(buffer);
  const auto* in_imag = static_cast<const std::byte*>(buffer_imag);
  walk(plan, [&](std::uint64_t stack_offset, std::uint64_t buffer_offset) {
    (void)tarn_dt_convert_with_strides(
        codes.from, codes.to, in + buffer_offset * buffer_size, plan.run.buffer_stride,
        stack.data + stack_offset * stack_size, plan.run.stack_stride, plan.run.count,
        in_imag != nullptr ? in_imag + buffer_offset * buffer_size : nullptr, nullptr);
  });
}

}  // namespace Tarn::arrays::internal
