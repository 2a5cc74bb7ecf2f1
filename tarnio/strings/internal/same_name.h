#pragma once

// Equality of two names of one element or object, which often differ only in their last
// character (SizeX, SizeY): sizes and last characters are compared before the whole.

#include <string_view>

namespace Tarn::strings::internal {

inline bool same_name(std::string_view a, std::string_view b) noexcept {
  return a.size() == b.size() && (a.empty() || (a.back() == b.back() && a == b));
}

}  // namespace Tarn::strings::internal
