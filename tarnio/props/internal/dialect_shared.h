#pragma once

// What the dialect readers and writers share: the messages of values that have no form in them
// and of text they cannot write, and the checked element count of a shape read from a document.

#include <algorithm>
#include <cstdint>
#include <optional>

#include "tarnio/props/prop.h"

namespace Tarn::props::internal {

inline constexpr const char* kNoDialectForm = "Type unknown or incompatible with xml export.";
inline constexpr const char* kBadDialectText = "Could not convert value to text";

// The product of the sizes, or nothing when it does not fit 64 bits.
inline std::optional<std::uint64_t> element_count(const TPropSize& shape) {
  if (std::find(shape.begin(), shape.end(), 0) != shape.end()) return 0;
  std::uint64_t product = 1;
  for (const std::uint64_t extent : shape) {
    if (product > ~std::uint64_t{0} / extent) return std::nullopt;
    product *= extent;
  }
  return product;
}

}  // namespace Tarn::props::internal
