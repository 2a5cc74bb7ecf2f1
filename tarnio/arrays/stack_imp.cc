#include "tarnio/arrays/stack_imp.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

#include "tarnio/arrays/internal/region_copy.h"

namespace Tarn::arrays {
namespace {

// `type` if it is a code of the type table; the base info is built from what this returns, so
// an unknown code fails before anything is computed from the sizes.
DataType known_type(DataType type) {
  const std::span<const DataType> known = all_data_types();
  if (std::ranges::find(known, type) == known.end()) {
    throw std::invalid_argument("Unknown type of elements.");
  }
  return type;
}

// The byte count of `elements` elements of `type`. A type without a size holds only an empty
// stack.
std::size_t byte_count(DataType type, std::uint64_t elements) {
  if (elements == 0) return 0;
  const std::size_t size = tarn_dt_get_size(type);
  if (size == 0) throw std::invalid_argument("Unknown type of elements.");
  if (elements > std::numeric_limits<std::uint64_t>::max() / size) {
    throw std::runtime_error("The product exceeds the maximum size.");
  }
  return static_cast<std::size_t>(elements * size);
}

}  // namespace

StackImp::StackImp(DataType type, std::span<const std::uint64_t> sizes)
    : StackInfoImp(known_type(type), sizes),
      data_(byte_count(type, StackInfoImp::number_of_elements())) {}

StackImp::StackImp(const StackInterface& source, const Region& region)
    : StackInfoImp(source, region),
      data_(byte_count(StackInfoImp::type(), StackInfoImp::number_of_elements())) {
  if (!data_.empty()) source.copy_out(region, type(), data_.data());
}

// A copy has no callbacks: those registered on `other` watch `other`. A move takes them along,
// since the moved stack is the one they watched.
StackImp::StackImp(const StackImp& other) : StackInfoImp(other), data_(other.data_) {}

StackImp::StackImp(StackImp&& other) noexcept
    : StackInfoImp(std::move(other)),
      data_(std::move(other.data_)),
      callbacks_(std::move(other.callbacks_)),
      next_callback_id_(other.next_callback_id_) {}

std::span<std::byte> StackImp::bytes() { return data_; }

std::span<const std::byte> StackImp::bytes() const { return data_; }

void StackImp::copy_out(const Region& region, DataType buffer_type, void* buffer,
                        void* buffer_imag) const {
  internal::copy_region_out({shape(), type(), data_.data()}, region, buffer_type, buffer,
                            buffer_imag);
}

void StackImp::copy_in(const Region& region, DataType buffer_type, const void* buffer,
                       const void* buffer_imag) {
  internal::copy_region_in({shape(), type(), data_.data()}, region, buffer_type, buffer,
                           buffer_imag);
}

StackInterface::CallbackId StackImp::add_info_callback(InfoCallback callback) {
  const CallbackId id = next_callback_id_++;
  callbacks_.emplace(id, std::move(callback));
  return id;
}

void StackImp::remove_info_callback(CallbackId id) { callbacks_.erase(id); }

void StackImp::signal_info_changed(unsigned flags) {
  // A copy, so that a callback may add or remove callbacks, itself included.
  const auto callbacks = callbacks_;
  for (const auto& [id, callback] : callbacks) {
    if (callback) callback(flags);
  }
}

}  // namespace Tarn::arrays
