#pragma once

// Tarn::arrays::StackImp: the in-memory stack, a StackInfoImp and its elements in one owned,
// contiguous, zero-initialised buffer. Tarn::create_stack makes them for any element type;
// see stack_interface.h for the layout, the region copies and their errors.
//
// Copies are deep. Not thread-safe: one thread at a time, apart from the tags.

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "tarnio/arrays/stack_info_imp.h"
#include "tarnio/arrays/stack_interface.h"
#include "tarnio/export.h"

namespace Tarn::arrays {

class TARNIO_EXPORT StackImp : public StackInterface, public StackInfoImp {
 public:
  // Throws std::invalid_argument "Unknown type of elements." for a code outside the type table,
  // and for a type whose elements have no size unless the stack is empty; and std::runtime_error
  // "The product exceeds the maximum size." when the sizes' product or the byte count overflows.
  StackImp(DataType type, std::span<const std::uint64_t> sizes);
  // The region of `source`, its info transformed as StackInfoImp(info, region) does.
  StackImp(const StackInterface& source, const Region& region);
  StackImp(const StackImp& other);
  StackImp(StackImp&& other) noexcept;

  std::span<std::byte> bytes() override;
  std::span<const std::byte> bytes() const override;
  void copy_out(const Region& region, DataType buffer_type, void* buffer,
                void* buffer_imag = nullptr) const override;
  void copy_in(const Region& region, DataType buffer_type, const void* buffer,
               const void* buffer_imag = nullptr) override;
  CallbackId add_info_callback(InfoCallback callback) override;
  void remove_info_callback(CallbackId id) override;

 protected:
  void signal_info_changed(unsigned flags) override;

 private:
  std::vector<std::byte> data_;
  std::map<CallbackId, InfoCallback> callbacks_;
  CallbackId next_callback_id_ = 1;
};

}  // namespace Tarn::arrays
