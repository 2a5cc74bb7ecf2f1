#include "tarnio/props/prop_array.h"

#include <fmt/ranges.h>

#include <initializer_list>
#include <stdexcept>
#include <string>

#include "tarnio/props/internal/report.h"

namespace {

using Tarn::props::internal::report;

constexpr const char* kSizeMismatch =
    "Invalid array shape: Size does not match number of elements.";
constexpr const char* kInvalidSize = "Invalid size vector in property array.";

// Growing through get_idx adds at most this many elements at once, so that one index (from a
// path, say) cannot allocate memory without bound.
constexpr std::uint64_t kMaxGrowth = std::uint64_t{1} << 20;

// The product of the sizes; false when it overflows.
bool checked_product(const TPropSize& size, std::uint64_t& product) {
  product = 1;
  for (const std::uint64_t extent : size) {
    if (extent != 0 && product > ~std::uint64_t{0} / extent) return false;
    product *= extent;
  }
  return true;
}

TPropSize until_npos(std::initializer_list<std::uint64_t> values) {
  TPropSize result;
  for (const std::uint64_t value : values) {
    if (value == TProparrayBase::npos) break;
    result.push_back(value);
  }
  return result;
}

}  // namespace

TPropSize TProparrayBase::get_size(bool at_least_2d) const {
  TPropSize result = size_;
  if (at_least_2d && result.size() < 2) result.resize(2, 1);
  return result;
}

void TProparrayBase::set_size(const TPropSize& size, int set_mode, bool clear) {
  if (size.empty() && set_mode != 0) throw std::runtime_error(kInvalidSize);
  switch (set_mode) {
    case 0:
      break;
    case 1:
      if (!size_.empty() && TProparrayBase::size(size) != element_count()) {
        throw std::runtime_error(kSizeMismatch);
      }
      break;
    case 2:
    case 3:
      resize(static_cast<std::size_t>(TProparrayBase::size(size)), set_mode == 3 && clear);
      break;
    default:
      throw std::runtime_error(kInvalidSize);
  }
  size_ = size;
}

std::uint64_t TProparrayBase::get_idx(const TPropSize& position, bool grow, std::string* error) {
  const std::size_t rank = position.size();
  if (rank < size_.size()) {
    return report(error, npos, "Input rank '{}' too low (< '{}').", rank, size_.size());
  }
  if (rank > size_.size() && !grow) {
    return report(error, npos, "Input rank '{}' too high (> '{}').", rank, size_.size());
  }
  TPropSize grown = size_;
  grown.resize(rank, 1);
  bool changed = rank > size_.size();
  // The all-ones coordinate has no size that holds it: its size would wrap to 0.
  bool representable = true;
  const bool holds_elements = element_count() > 0;
  for (std::size_t i = 0; i < rank; ++i) {
    if (position[i] < grown[i]) continue;
    if (!grow || (holds_elements && i + 1 != rank)) {
      return report(error, npos, "Index {} out of bounds. ({} >= {})", i, position[i], grown[i]);
    }
    representable = representable && position[i] != npos;
    grown[i] = position[i] + 1;
    changed = true;
  }
  std::uint64_t count = 0;
  if (!representable || !checked_product(grown, count) || count > element_count() + kMaxGrowth) {
    return report(error, npos,
                  "Growing the array to hold index {} exceeds the limit of {} new "
                  "elements at once.",
                  fmt::join(position, ","), kMaxGrowth);
  }
  std::uint64_t index = 0;
  std::uint64_t stride = 1;
  for (std::size_t i = 0; i < rank; ++i) {
    index += position[i] * stride;
    stride *= grown[i];
  }
  if (changed) set_size(grown, 2);
  return index;
}

TPropSize TProparrayBase::get_pos(std::uint64_t index, std::string* error) const {
  if (size_.size() == 1) return {index};
  if (size_.empty()) return report(error, TPropSize{}, "Invalid size entry in TProparrayBase.");
  TPropSize position(size_.size());
  for (std::size_t i = 0; i + 1 < size_.size(); ++i) {
    if (size_[i] == 0) return report(error, TPropSize{}, "Invalid size entry in TProparrayBase.");
    position[i] = index % size_[i];
    index /= size_[i];
  }
  position.back() = index;
  return position;
}

std::uint64_t TProparrayBase::size(const TPropSize& size) {
  std::uint64_t product = 0;
  if (!checked_product(size, product) || product > std::size_t(-1) / 64) {
    throw std::runtime_error("Invalid array shape: element count exceeds the address space.");
  }
  return product;
}

TPropSize TProparrayBase::ptr2size(std::size_t count, const std::uint64_t* values) {
  return TPropSize(values, values + count);
}

TPropSize TProparrayBase::ptr2pos(std::size_t count, const std::uint64_t* values) {
  return TPropSize(values, values + count);
}

TPropSize TProparrayBase::val2size(std::uint64_t v0, std::uint64_t v1, std::uint64_t v2,
                                   std::uint64_t v3) {
  return until_npos({v0, v1, v2, v3});
}

TPropSize TProparrayBase::val2pos(std::uint64_t v0, std::uint64_t v1, std::uint64_t v2,
                                  std::uint64_t v3) {
  return until_npos({v0, v1, v2, v3});
}

void TProparrayBase::throw_if_not_equal(const TPropSize& a, const TPropSize& b) {
  if (a != b) throw std::runtime_error(kSizeMismatch);
}
