#pragma once

// Tarn::arrays::StackInterface: an n-dimensional stack held in memory: its description (the
// stack info) and its elements, contiguous in column-major order (index 0 varies fastest, as
// in property arrays and file stacks). A complex element is a (real, imaginary) pair, as
// std::complex lays it out.
//
// Regions (region.h) are copied out of and into the stack through the element converters, so
// a buffer may have another element type than the stack: a uint16 plane read as float, a
// double buffer written into an int32 stack. Conversions are the plain casts of
// tarn_dt_convert (data_type.h). Errors: std::invalid_argument "Region does not fit the
// stack." when a region leaves the stack, "Unsupported conversion from 'FROM' to 'TO'." when
// the converters have no path between the two types, "Null buffer for a non-empty region.",
// and "Element type does not match." for typed access in the wrong type; a failed call changes
// nothing. Logical elements copy between logical buffers only.
//
// Info callbacks receive the change flags of the info (stack_info_interface.h) after each
// change, or once when a deferral ends. Not thread-safe: one thread at a time, apart from the
// tags.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <stdexcept>
#include <typeinfo>

#include "tarnio/arrays/data_type.h"
#include "tarnio/arrays/region.h"
#include "tarnio/arrays/stack_info_interface.h"
#include "tarnio/export.h"

namespace Tarn::arrays {

class TARNIO_EXPORT StackInterface : public virtual StackInfoInterface {
 public:
  using InfoCallback = std::function<void(unsigned flags)>;
  using CallbackId = std::uint64_t;

  // The elements' bytes: number_of_elements() times the element size.
  virtual std::span<std::byte> bytes() = 0;
  virtual std::span<const std::byte> bytes() const = 0;

  // The elements as T, which must be the value type of the stack's element type
  // (tarn_dt_get_type): std::uint16_t for uint16, std::complex<float> for cplx_single.
  template <class T>
  std::span<T> data() {
    check_element_type(typeid(T));
    const auto b = bytes();
    return {reinterpret_cast<T*>(b.data()), b.size() / sizeof(T)};
  }
  template <class T>
  std::span<const T> data() const {
    check_element_type(typeid(T));
    const auto b = bytes();
    return {reinterpret_cast<const T*>(b.data()), b.size() / sizeof(T)};
  }

  // Copies the elements of `region` into `buffer`, converted to `buffer_type`, in column-major
  // order of the region; `buffer` holds region.number_of_elements() elements. With
  // `buffer_imag`, a complex stack's real parts go to `buffer` and its imaginary parts to
  // `buffer_imag`, both of the real `buffer_type`.
  virtual void copy_out(const Region& region, DataType buffer_type, void* buffer,
                        void* buffer_imag = nullptr) const = 0;
  // Copies `buffer` (laid out as copy_out writes it) into the elements of `region`, converted
  // to the stack's type. With `buffer_imag`, real parts from `buffer` and imaginary parts from
  // `buffer_imag` fill a complex stack.
  virtual void copy_in(const Region& region, DataType buffer_type, const void* buffer,
                       const void* buffer_imag = nullptr) = 0;

  // Registers a callback for info changes; the id removes it again.
  virtual CallbackId add_info_callback(InfoCallback callback) = 0;
  virtual void remove_info_callback(CallbackId id) = 0;

 private:
  // Throws std::invalid_argument "Element type does not match." unless `type` is the value type
  // of the stack's elements.
  void check_element_type(const std::type_info& type) const;
};

}  // namespace Tarn::arrays
