#pragma once

// Tarn::props::ValueReference: a non-owning view on a property value, by which typed code reads
// and writes a value in place. It is made from a TProp, from a placeholder with its info, or from
// raw memory with a type code. It lives no longer than what it views.

#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>

#include "tarnio/arrays/data_type.h"
#include "tarnio/export.h"
#include "tarnio/props/prop.h"

namespace Tarn::props {

class TARNIO_EXPORT ValueReference {
 public:
  // Views the held value of `value` (nothing for "none").
  explicit ValueReference(TProp& value);
  explicit ValueReference(placeholder* content, std::shared_ptr<TPropInfo> info = nullptr);
  // Views `object`, which is an object of the class that type code `type` is held as in a TProp
  // (TProparray<T> for an array or a scalar, TPropstruct, TPropstring).
  ValueReference(void* object, DataType type, std::shared_ptr<TPropInfo> info = nullptr);

  DataType type_code() const noexcept { return type_; }
  // Null for "none".
  void* object() const noexcept { return object_; }
  const std::shared_ptr<TPropInfo>& info() const noexcept { return info_; }

  // The viewed object as T; std::runtime_error "Type mismatch: expected '{name}' type." when the
  // type code is held as another class.
  template <typename T>
  T& get() const {
    if (object_ == nullptr || !holds(typeid(T))) throw_type_mismatch(typeid(T));
    return *static_cast<T*>(object_);
  }

 private:
  bool holds(const std::type_info& type) const noexcept;
  [[noreturn]] void throw_type_mismatch(const std::type_info& wanted) const;

  void* object_ = nullptr;
  DataType type_ = Tarn::dt::none;
  std::shared_ptr<TPropInfo> info_;
};

}  // namespace Tarn::props
