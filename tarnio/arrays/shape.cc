#include "tarnio/arrays/shape.h"

#include <limits>
#include <stdexcept>

namespace Tarn::arrays {

std::uint64_t number_of_elements(std::span<const std::uint64_t> shape) {
  if (shape.empty()) return 0;
  std::uint64_t product = 1;
  for (const std::uint64_t size : shape) {
    if (size == 0) return 0;
    if (size > std::numeric_limits<std::uint64_t>::max() / product) {
      throw std::runtime_error("The product exceeds the maximum size.");
    }
    product *= size;
  }
  return product;
}

std::vector<std::uint64_t> column_major_strides(std::span<const std::uint64_t> shape) {
  (void)number_of_elements(shape);
  std::vector<std::uint64_t> strides(shape.size());
  std::uint64_t stride = 1;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    strides[i] = stride;
    stride *= shape[i];
  }
  return strides;
}

}  // namespace Tarn::arrays
