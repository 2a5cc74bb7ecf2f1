#include "python/src/region_read.h"

#include <cstring>
#include <stdexcept>
#include <vector>

namespace tarnio_python {
namespace {

// The most bytes read at once around the elements a region needs; wider regions are read per
// index of their slowest axis.
constexpr std::uint64_t kSpanBytes = std::uint64_t{16} << 20;

// Reads a region by contiguous runs of the stack: a run either lands straight in the buffer
// (the region's lower axes are whole) or is read into a span and its elements picked out.
class RegionReader {
 public:
  RegionReader(Tarn::bf::StackImp& stack, const Tarn::arrays::Region& region, DataType type)
      : stack_(stack), region_(region), type_(type), element_(tarn_dt_get_size(type)) {
    const auto& shape = stack.shape();
    std::uint64_t stack_stride = 1, buffer_stride = 1;
    for (std::size_t axis = 0; axis < shape.size(); ++axis) {
      stack_stride_.push_back(stack_stride);
      buffer_stride_.push_back(buffer_stride);
      stack_stride *= shape[axis];
      buffer_stride *= region.size()[axis];
    }
  }

  void read(std::byte* buffer) {
    std::uint64_t first = 0;
    for (std::size_t axis = 0; axis < region_.rank(); ++axis)
      first += region_.start()[axis] * stack_stride_[axis];
    read_axes(region_.rank() - 1, first, buffer);
  }

 private:
  // Reads axes 0 to `axis` of the region whose first element is stack element `first`.
  void read_axes(std::size_t axis, std::uint64_t first, std::byte* buffer) {
    const std::uint64_t count = last_offset(axis) + 1;
    if (is_contiguous(axis)) {
      stack_.read(first, count, buffer, type_);
    } else if (count * element_ <= kSpanBytes) {
      span_.resize(count * element_);
      stack_.read(first, count, span_.data(), type_);
      pick(axis, span_.data(), buffer);
    } else {
      const std::uint64_t step = region_.step()[axis];
      for (std::uint64_t i = 0; i < region_.size()[axis]; ++i) {
        std::byte* target = buffer + i * buffer_stride_[axis] * element_;
        const std::uint64_t at = first + i * step * stack_stride_[axis];
        if (axis == 0)
          stack_.read(at, 1, target, type_);
        else
          read_axes(axis - 1, at, target);
      }
    }
  }

  // The stack offset of the last element of axes 0 to `axis` from their first.
  std::uint64_t last_offset(std::size_t axis) const {
    std::uint64_t offset = 0;
    for (std::size_t i = 0; i <= axis; ++i)
      offset += (region_.size()[i] - 1) * region_.step()[i] * stack_stride_[i];
    return offset;
  }

  // Whether axes 0 to `axis` of the region are one run of the stack: below the slowest of
  // them that takes more than one index, every axis is whole.
  bool is_contiguous(std::size_t axis) const {
    std::size_t top = axis;
    while (top > 0 && region_.size()[top] == 1) --top;
    for (std::size_t i = 0; i < top; ++i) {
      if (region_.size()[i] != stack_.shape()[i] || region_.step()[i] != 1) return false;
    }
    return region_.step()[top] == 1 || region_.size()[top] == 1;
  }

  // Copies axes 0 to `axis` of the region out of the stack run at `run`.
  void pick(std::size_t axis, const std::byte* run, std::byte* buffer) const {
    const std::uint64_t step = region_.step()[axis] * stack_stride_[axis] * element_;
    if (axis == 0 && region_.step()[0] == 1) {
      std::memcpy(buffer, run, region_.size()[0] * element_);
      return;
    }
    for (std::uint64_t i = 0; i < region_.size()[axis]; ++i) {
      std::byte* target = buffer + i * buffer_stride_[axis] * element_;
      if (axis == 0)
        std::memcpy(target, run + i * step, element_);
      else
        pick(axis - 1, run + i * step, target);
    }
  }

  Tarn::bf::StackImp& stack_;
  const Tarn::arrays::Region& region_;
  DataType type_;
  std::size_t element_;
  std::vector<std::uint64_t> stack_stride_;
  std::vector<std::uint64_t> buffer_stride_;
  std::vector<std::byte> span_;
};

}  // namespace

void read_region(Tarn::bf::StackImp& stack, const Tarn::arrays::Region& region,
                 std::span<std::byte> buffer, DataType buffer_type) {
  if (region.rank() != stack.shape().size())
    throw std::invalid_argument("Region does not fit the stack.");
  region.check_fits(stack.shape());
  const std::size_t element = tarn_dt_get_size(buffer_type);
  if (element == 0 || buffer.size() != region.number_of_elements() * element)
    throw std::invalid_argument("Buffer does not match the region.");
  if (region.number_of_elements() == 0) return;
  RegionReader(stack, region, buffer_type).read(buffer.data());
}

}  // namespace tarnio_python
