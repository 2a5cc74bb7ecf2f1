#include "tarnio/arrays/stack_interface.h"

#include <stdexcept>

namespace Tarn::arrays {

void StackInterface::check_element_type(const std::type_info& type) const {
  if (tarn_dt_get_type(this->type()) != type) {
    throw std::invalid_argument("Element type does not match.");
  }
}

}  // namespace Tarn::arrays
