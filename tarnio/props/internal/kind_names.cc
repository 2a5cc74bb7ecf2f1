#include "tarnio/props/internal/kind_names.h"

#include <stdexcept>

namespace Tarn::props::internal {

std::string_view kind_name(DataType code) {
  for (const KindName& kind : kKindNames) {
    if (kind.code == code) return kind.name;
  }
  throw std::runtime_error("Type unknown or incompatible with property arrays.");
}

std::optional<DataType> kind_of_name(std::string_view name) noexcept {
  for (const KindName& kind : kKindNames) {
    if (kind.name == name) return kind.code;
  }
  return std::nullopt;
}

}  // namespace Tarn::props::internal
