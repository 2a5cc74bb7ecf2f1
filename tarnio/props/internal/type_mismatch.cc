#include "tarnio/props/internal/type_mismatch.h"

#include <fmt/format.h>

#include <stdexcept>
#include <string>

#include "tarnio/props/internal/dispatch.h"
#include "tarnio/props/type_names.h"

namespace Tarn::props::internal {

void throw_type_mismatch(const std::type_info& wanted) {
  std::string name = "unknown";
  if (wanted == typeid(TPropstruct))
    name = "struct";
  else if (wanted == typeid(TPropstring))
    name = "char";
  else if (wanted == typeid(TPropempty))
    name = "empty";
  for (const auto& entry : type_names()) {
    visit_element(entry.first, [&](auto tag) {
      if (wanted == typeid(TProparray<typename decltype(tag)::type>)) name = entry.second;
    });
  }
  throw std::runtime_error(fmt::format("Type mismatch: expected '{}' type.", name));
}

}  // namespace Tarn::props::internal
