#pragma once

// TProp, the library's dynamically typed value: "none", a scalar or an n-dimensional array of a
// numeric, logical, colour or complex kind, a string ("char") or an array of strings, a struct
// (TPropstruct) or struct array, a cell (a nested TProp) or cell array, or "empty", nested to any
// depth. Its type code (a DataType, with the array flag for arrays) is how the library tells
// kinds apart.
//
// Storage: a TProp owns a type-erased placeholder (null for "none"): a holder<TProparray<T>> for
// every element kind, a scalar being an array of rank 0 with one element; a holder<TPropstruct>
// for a single struct; a holder<TPropstring> for a string; a holder<TPropempty> for "empty".
//
// Copies are deep, except for the info record, which copies share. Moves transfer the value.
// Not thread-safe; const operations may run concurrently on one tree.

#include <complex>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "tarnio/arrays/data_type.h"
#include "tarnio/export.h"
#include "tarnio/props/error_sink.h"
#include "tarnio/props/prop_array.h"

namespace Tarn::props {

// The scalar classes a TProp is made from, and the element class each is stored as.
template <typename T>
concept ScalarValue = (std::is_integral_v<T> && !std::is_same_v<T, char> &&
                       !std::is_same_v<T, wchar_t> && !std::is_same_v<T, char8_t> &&
                       !std::is_same_v<T, char16_t> && !std::is_same_v<T, char32_t>) ||
                      std::is_same_v<T, float> || std::is_same_v<T, double> ||
                      std::is_same_v<T, std::complex<float>> ||
                      std::is_same_v<T, std::complex<double>> || std::is_same_v<T, _s_tarn_RGB>;

template <typename T>
struct element_value {
  using type = T;
};
template <typename T>
requires(std::is_integral_v<T> && !std::is_same_v<T, bool>) struct element_value<T> {
  using type = std::conditional_t<
      std::is_signed_v<T>,
      std::conditional_t<
          sizeof(T) == 1, std::int8_t,
          std::conditional_t<sizeof(T) == 2, std::int16_t,
                             std::conditional_t<sizeof(T) == 4, std::int32_t, std::int64_t>>>,
      std::conditional_t<
          sizeof(T) == 1, std::uint8_t,
          std::conditional_t<sizeof(T) == 2, std::uint16_t,
                             std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>>>>;
};
template <typename T>
using element_value_t = typename element_value<T>::type;

}  // namespace Tarn::props

// Describes a value for its users; shared between copies of the value (set_info to detach).
struct TARNIO_EXPORT TPropInfo {
  std::string unit;         // physical unit of the value, e.g. "um"
  std::string description;  // free text
};

// The held value of "empty".
struct TPropempty {};

// The type-erased store of a TProp.
class TARNIO_EXPORT placeholder {
 public:
  virtual ~placeholder() = default;
  // The type code: the element code, with the array flag for arrays of rank 1 and more.
  virtual DataType type_code() const noexcept = 0;
  // The run-time type of the held class.
  virtual const std::type_info& type() const noexcept = 0;
  virtual std::unique_ptr<placeholder> clone() const = 0;
  // The array base of the held class (also for scalars, which are arrays of rank 0); null for
  // strings, single structs and "empty".
  virtual TProparrayBase* array() noexcept = 0;
  const TProparrayBase* array() const noexcept { return const_cast<placeholder*>(this)->array(); }
  // The held object.
  virtual void* object() noexcept = 0;
  // The first element of an array (null when it has none), the struct of a single struct, the
  // first byte of a string; null for "empty".
  virtual void* value_ptr() noexcept = 0;
};

template <typename T>
class holder final : public placeholder {
 public:
  explicit holder(T value) : held(std::move(value)) {}
  DataType type_code() const noexcept override;
  const std::type_info& type() const noexcept override { return typeid(T); }
  std::unique_ptr<placeholder> clone() const override { return std::make_unique<holder>(held); }
  TProparrayBase* array() noexcept override {
    if constexpr (std::is_base_of_v<TProparrayBase, T>) {
      return &held;
    } else {
      return nullptr;
    }
  }
  void* object() noexcept override { return &held; }
  void* value_ptr() noexcept override;

  T held;
};

class TARNIO_EXPORT TProp {
 public:
  // "none".
  TProp() noexcept;
  TProp(const TProp& other);
  TProp(TProp&& other) noexcept;
  TProp& operator=(const TProp& other);
  TProp& operator=(TProp&& other);
  ~TProp();

  // Strings always make a "char" value; wide text is converted to UTF-8.
  TProp(char* text);
  TProp(const char* text);
  TProp(wchar_t* text);
  TProp(const wchar_t* text);
  TProp(const std::string& text);
  TProp(const std::wstring& text);

  // Scalars of every element kind: integers as the fixed-width kind of their size and
  // signedness, bool as "logical", float as "single", double, the two complex kinds and RGB.
  template <Tarn::props::ScalarValue T>
  TProp(T scalar) : TProp(scalar_array(Tarn::props::element_value_t<T>(scalar))) {}

  // Takes over a held class: an array (of rank 0 for a scalar), a struct, a string or "empty".
  // A struct or string array of rank 0 becomes its single struct or string.
  template <typename T>
  explicit TProp(TProparray<T> array) : TProp() {
    set_array(std::move(array));
  }
  explicit TProp(TPropstruct value);
  explicit TProp(TPropstring value);
  explicit TProp(TPropempty);

  // An array of `element` (a code of an element kind, without the array flag) with the given
  // shape and default elements; a rank-0 shape gives a scalar. Throws std::runtime_error
  // "Type unknown or incompatible with property arrays." for other codes.
  static TProp array(DataType element, const TPropSize& shape);
  // A cell array of "none" values of the given shape; rank 0 gives a single cell.
  static TProp cell(const TPropSize& shape);
  // A numeric array viewing caller memory (see TProparray::borrow); own() copies it.
  template <typename T>
  static TProp borrow(T* data, const TPropSize& shape) {
    TProparray<T> array;
    array.borrow(data, shape);
    return TProp(std::move(array));
  }

  DataType type_code() const noexcept;
  // The run-time type of the held class; typeid(void) for "none".
  const std::type_info& type() const noexcept;
  bool is_array() const noexcept { return (type_code() & Tarn::dt::array_flag) != 0; }

  // "none", "empty", and arrays and strings without elements.
  bool empty() const noexcept;
  // The number of elements: of an array, 1 for a scalar, a struct or a cell, the bytes of a
  // string, 0 for "none" and "empty".
  std::size_t size() const noexcept;
  // The first element (the first byte of a string, the struct itself); null without one.
  void* value_ptr() noexcept;
  const void* value_ptr() const noexcept;
  // The array base of an array value; for other values null, or with `throw_if_not`
  // std::runtime_error "Type mismatch: expected 'array' type.".
  TProparrayBase* get_arr(bool throw_if_not = true);
  const TProparrayBase* get_arr(bool throw_if_not = true) const;

  // The held class (TProparray<T>, also for scalars; TPropstruct; TPropstring), or null when the
  // value holds another class. RGB32 is held as TProparray<std::uint32_t>.
  template <typename T>
  T* get_if() noexcept {
    return content_ != nullptr && content_->type() == typeid(T)
               ? static_cast<T*>(content_->object())
               : nullptr;
  }
  template <typename T>
  const T* get_if() const noexcept {
    return const_cast<TProp*>(this)->get_if<T>();
  }
  // As get_if, throwing std::runtime_error "Type mismatch: expected '{name}' type." otherwise.
  template <typename T>
  T& get() {
    if (T* held = get_if<T>()) return *held;
    throw_type_mismatch(typeid(T));
  }
  template <typename T>
  const T& get() const {
    return const_cast<TProp*>(this)->get<T>();
  }
  // A scalar converted to T with tarn_prop_cast (see cast.h).
  template <typename T>
  T as() const;

  placeholder* content() noexcept { return content_.get(); }
  const placeholder* content() const noexcept { return content_.get(); }

  // Makes the value own elements it borrows.
  void own();
  // Back to "none"; keeps info, id and lock.
  void clear();
  // Exchanges everything: value, info, id and lock.
  void swap(TProp& other) noexcept;
  // Exchanges only the held values.
  void swap_value(TProp& other);

  // The info record shared between copies; made on first use.
  const std::shared_ptr<TPropInfo>& get_info();
  std::shared_ptr<const TPropInfo> get_info() const { return info_; }
  void set_info(std::shared_ptr<TPropInfo> info) noexcept { info_ = std::move(info); }

  // An integer of the caller's own, copied with the value.
  std::int64_t get_id() const noexcept { return id_; }
  void set_id(std::int64_t id) noexcept { id_ = id; }

  // A locked value refuses to change its held value through this class (assignment, clear,
  // swap_value, set_array, and creation through paths): std::runtime_error
  // "Property is locked.". swap() exchanges the lock with the value; elements reached through
  // pointers are not guarded. Copies are not locked.
  void lock(bool locked = true) noexcept { locked_ = locked; }
  bool is_locked() const noexcept { return locked_; }

  // The element of a cell array (or of a single cell at position 0); throws std::runtime_error
  // with the messages of get_idx and "Type mismatch: expected 'cell' type.".
  TProp& operator()(std::uint64_t i0, std::uint64_t i1 = TProparrayBase::npos,
                    std::uint64_t i2 = TProparrayBase::npos,
                    std::uint64_t i3 = TProparrayBase::npos);
  const TProp& operator()(std::uint64_t i0, std::uint64_t i1 = TProparrayBase::npos,
                          std::uint64_t i2 = TProparrayBase::npos,
                          std::uint64_t i3 = TProparrayBase::npos) const;
  // The struct at a position of a struct array (or the single struct at position 0); throws as
  // operator() with "Type mismatch: expected 'struct' type.".
  TPropstruct& s(std::uint64_t i0 = 0, std::uint64_t i1 = TProparrayBase::npos,
                 std::uint64_t i2 = TProparrayBase::npos, std::uint64_t i3 = TProparrayBase::npos);
  const TPropstruct& s(std::uint64_t i0 = 0, std::uint64_t i1 = TProparrayBase::npos,
                       std::uint64_t i2 = TProparrayBase::npos,
                       std::uint64_t i3 = TProparrayBase::npos) const;

  // Paths (path.h): the entry at `path`, created on the way with `create`. Throws
  // std::runtime_error "Invalid property path '{}': {}".
  TProp& getp(std::string_view path, bool create = false);
  const TProp& getp(std::string_view path) const;
  // As getp, reporting through the error sink and returning null.
  TProp* getp(std::string_view path, std::string* error, bool create = false);
  const TProp* getp(std::string_view path, std::string* error) const;
  // getp with creation; the const form does not create.
  TProp& operator[](std::string_view path) { return getp(path, true); }
  const TProp& operator[](std::string_view path) const { return getp(path); }

  // Strict equality: see compare.h.
  bool operator==(const TProp& other) const;

  // Replaces the held value by an array; a rank-0 struct or string array becomes its single
  // struct or string.
  template <typename T>
  void set_array(TProparray<T> array);

 private:
  template <typename T>
  static TProparray<T> scalar_array(T value) {
    TProparray<T> array(TPropSize{});
    array[0] = value;
    return array;
  }
  void set_content(std::unique_ptr<placeholder> content);
  [[noreturn]] static void throw_type_mismatch(const std::type_info& wanted);

  std::unique_ptr<placeholder> content_;
  std::shared_ptr<TPropInfo> info_;
  std::int64_t id_ = 0;
  bool locked_ = false;
};

// The element type of a single struct, defined after TProp as it holds TProps.
#include "tarnio/props/prop_string.h"
#include "tarnio/props/prop_struct.h"

// The cast behind TProp::as, which needs the string class.
#include "tarnio/props/cast.h"

template <typename T>
DataType holder<T>::type_code() const noexcept {
  if constexpr (std::is_same_v<T, TPropstruct>) {
    return Tarn::dt::struct_;
  } else if constexpr (std::is_same_v<T, TPropstring>) {
    return Tarn::dt::char_;
  } else if constexpr (std::is_same_v<T, TPropempty>) {
    return Tarn::dt::empty;
  } else {
    return held.element_type() | (held.get_rank() > 0 ? Tarn::dt::array_flag : 0);
  }
}

template <typename T>
void* holder<T>::value_ptr() noexcept {
  if constexpr (std::is_same_v<T, TPropstruct>) {
    return &held;
  } else if constexpr (std::is_same_v<T, TPropstring>) {
    return held.to_utf8().data();
  } else if constexpr (std::is_same_v<T, TPropempty>) {
    return nullptr;
  } else {
    return held.element_count() > 0 ? static_cast<void*>(held.data()) : nullptr;
  }
}

template <typename T>
void TProp::set_array(TProparray<T> array) {
  if constexpr (std::is_same_v<T, TPropstruct> || std::is_same_v<T, TPropstring>) {
    if (array.get_rank() == 0) {
      set_content(std::make_unique<holder<T>>(std::move(array[0])));
      return;
    }
  }
  set_content(std::make_unique<holder<TProparray<T>>>(std::move(array)));
}
