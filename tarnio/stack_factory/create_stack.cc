#include "tarnio/stack_factory/create_stack.h"

#include <stdexcept>

#include "tarnio/arrays/stack_imp.h"

namespace Tarn {

std::unique_ptr<arrays::StackInterface> create_stack(DataType type,
                                                     std::span<const std::uint64_t> sizes) {
  if (sizes.size() > kMaxStackRank) throw std::invalid_argument("Invalid number of dimensions.");
  return std::make_unique<arrays::StackImp>(type, sizes);
}

}  // namespace Tarn
