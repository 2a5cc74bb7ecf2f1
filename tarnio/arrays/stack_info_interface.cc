#include "tarnio/arrays/stack_info_interface.h"

#include <stdexcept>

namespace Tarn::arrays {

std::uint64_t StackInfoInterface::get_size(std::uint64_t axis) const {
  const auto& sizes = shape();
  if (axis >= sizes.size()) throw std::invalid_argument("Invalid axis specified.");
  return sizes[axis];
}

}  // namespace Tarn::arrays
