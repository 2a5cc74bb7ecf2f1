#include "tarnio/arrays/region.h"

#include <stdexcept>
#include <utility>

#include "tarnio/arrays/shape.h"

namespace Tarn::arrays {

Region::Region(std::vector<std::uint64_t> start, std::vector<std::uint64_t> size,
               std::vector<std::uint64_t> step)
    : start_(std::move(start)), size_(std::move(size)), step_(std::move(step)) {
  if (step_.empty()) step_.assign(size_.size(), 1);
  if (start_.size() != size_.size() || step_.size() != size_.size()) {
    throw std::invalid_argument("Region axes do not match.");
  }
  for (const std::uint64_t s : step_) {
    if (s == 0) throw std::invalid_argument("Region step must not be 0.");
  }
}

Region Region::whole(std::span<const std::uint64_t> shape) {
  return Region(std::vector<std::uint64_t>(shape.size(), 0),
                std::vector<std::uint64_t>(shape.begin(), shape.end()));
}

Region Region::slice(std::span<const std::uint64_t> shape, std::size_t axis, std::uint64_t index) {
  if (axis >= shape.size()) throw std::invalid_argument("Invalid axis specified.");
  if (index >= shape[axis]) throw std::invalid_argument("Invalid pixel position.");
  Region region = whole(shape);
  region.start_[axis] = index;
  region.size_[axis] = 1;
  return region;
}

std::uint64_t Region::number_of_elements() const { return arrays::number_of_elements(size_); }

std::vector<std::uint64_t> Region::slice_shape() const {
  std::vector<std::uint64_t> shape;
  for (const std::uint64_t s : size_) {
    if (s != 1) shape.push_back(s);
  }
  return shape;
}

bool Region::fits(std::span<const std::uint64_t> shape) const noexcept {
  if (shape.size() != rank()) return false;
  for (std::size_t i = 0; i < rank(); ++i) {
    if (size_[i] == 0) {
      if (start_[i] > shape[i]) return false;
      continue;
    }
    if (start_[i] >= shape[i]) return false;
    // The last index taken, start + (size - 1) * step, must stay below the axis size; divide
    // instead of multiplying so that no product can overflow.
    if ((size_[i] - 1) > (shape[i] - 1 - start_[i]) / step_[i]) return false;
  }
  return true;
}

void Region::check_fits(std::span<const std::uint64_t> shape) const {
  if (!fits(shape)) throw std::invalid_argument("Region does not fit the stack.");
}

}  // namespace Tarn::arrays
