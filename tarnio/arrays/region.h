#pragma once

// Tarn::arrays::Region: a rectangular, strided part of an n-dimensional stack. Per axis it
// holds the first index, the number of indices taken and the step between them: axis i takes
// the stack indices start[i], start[i] + step[i], ..., start[i] + (size[i] - 1) * step[i].
// A region is a plain value; it meets a stack's shape only when checked against it.
//
// A slice is a region with axes of size 1, such as one plane of a 3-D stack (start {0, 0, z},
// size {nx, ny, 1}). Its slice shape drops those axes, so that it can be matched with a region
// of lower rank (the plane placed into a 2-D stack).
//
// The elements of a region, copied out of a stack, lie in column-major order of the region:
// its axis 0 varies fastest.

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "tarnio/export.h"

namespace Tarn::arrays {

class TARNIO_EXPORT Region {
 public:
  // The region of rank 0, which holds no element.
  Region() = default;
  // An empty `step` means step 1 on every axis. Throws std::invalid_argument
  // "Region axes do not match." when the vectors differ in length and "Region step must not
  // be 0." for a step of 0.
  Region(std::vector<std::uint64_t> start, std::vector<std::uint64_t> size,
         std::vector<std::uint64_t> step = {});

  // Every element of a stack of `shape`.
  static Region whole(std::span<const std::uint64_t> shape);
  // The hyperplane at `index` of `axis`, every other axis whole: slice(shape, 2, z) is plane z
  // of a 3-D stack. Throws std::invalid_argument "Invalid axis specified." or "Invalid pixel
  // position." when the axis or the index lies outside `shape`.
  static Region slice(std::span<const std::uint64_t> shape, std::size_t axis, std::uint64_t index);

  std::size_t rank() const { return size_.size(); }
  const std::vector<std::uint64_t>& start() const { return start_; }
  const std::vector<std::uint64_t>& size() const { return size_; }
  const std::vector<std::uint64_t>& step() const { return step_; }

  // The product of the sizes, by the rule of number_of_elements() (0 for rank 0).
  std::uint64_t number_of_elements() const;
  // The sizes without the axes of size 1.
  std::vector<std::uint64_t> slice_shape() const;

  // Whether every index the region takes lies inside a stack of `shape` of the same rank. An
  // axis of size 0 takes no index; its start may be anything up to the axis size.
  bool fits(std::span<const std::uint64_t> shape) const noexcept;
  // Throws std::invalid_argument "Region does not fit the stack." unless fits(shape).
  void check_fits(std::span<const std::uint64_t> shape) const;

  friend bool operator==(const Region&, const Region&) = default;

 private:
  std::vector<std::uint64_t> start_;
  std::vector<std::uint64_t> size_;
  std::vector<std::uint64_t> step_;
};

}  // namespace Tarn::arrays
