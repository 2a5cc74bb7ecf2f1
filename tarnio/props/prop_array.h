#pragma once

// TProparrayBase, the shape of every property array, and TProparray<T>, its elements.
//
// Elements are stored contiguously in column-major order: the first index varies fastest, as in
// stacks. A shape of rank 0 holds exactly one element; TProp uses it for scalars (a value is an
// array exactly when its type code carries the array flag, which TProp sets for rank 1 and more).
//
// Element classes: std::uint8_t ... std::int64_t, float, double, std::complex<float>,
// std::complex<double>, bool ("logical"), _s_tarn_RGB ("RGB"), std::uint32_t also for "RGB32"
// (told apart by the element code given at construction), TProp ("cell"), TPropstruct
// ("struct") and TPropstring ("char").
//
// An array may borrow its elements from the caller (borrow()): nothing is copied then, the caller
// keeps the memory alive and unchanged in size, and any change of the element count copies the
// elements into the array first. Not thread-safe; const operations may run concurrently.
//
// Arrays of numbers, logicals and colours keep a single element inside the array object rather
// than in a buffer of its own, so that a scalar costs no allocation beyond its holder.

#include <complex>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tarnio/arrays/data_type.h"
#include "tarnio/export.h"

class TProp;
class TPropstruct;
class TPropstring;

// Position and size vectors of property arrays.
using TPropSize = std::vector<std::uint64_t>;

class TARNIO_EXPORT TProparrayBase {
 public:
  // The all-ones value: a failed index, and the end of the lists of val2size and val2pos.
  static constexpr std::uint64_t npos = ~std::uint64_t{0};

  TProparrayBase() = default;
  TProparrayBase(const TProparrayBase&) = default;
  TProparrayBase(TProparrayBase&&) noexcept = default;
  TProparrayBase& operator=(const TProparrayBase&) = default;
  TProparrayBase& operator=(TProparrayBase&&) noexcept = default;
  virtual ~TProparrayBase() = default;

  // The number of stored elements.
  virtual std::size_t element_count() const noexcept = 0;
  // Changes the number of stored elements; kept elements keep their values unless `clear` is
  // set, in which case every element is reset to its default value.
  virtual void resize(std::size_t count, bool clear) = 0;
  // The type code of one element (no array flag).
  virtual DataType element_type() const noexcept = 0;

  std::size_t get_rank() const noexcept { return size_.size(); }
  // The shape; with `at_least_2d` padded with sizes of 1 to a rank of at least two, as
  // matrix-oriented formats write it.
  TPropSize get_size(bool at_least_2d = false) const;
  const TPropSize& shape() const noexcept { return size_; }

  // Stores a new shape. Modes: 0 stores it as given; 1 checks that its element count matches the
  // stored elements ("Invalid array shape: Size does not match number of elements." otherwise,
  // nothing changes) and stores it; 2 resizes the elements to its count and stores it; 3 does the
  // same passing `clear` to resize(). An empty size vector where a rank is needed (modes 1 to 3)
  // is "Invalid size vector in property array.". Throws std::runtime_error.
  void set_size(const TPropSize& size, int set_mode, bool clear = false);

  // The linear index of `position`; with `grow` the array grows to hold it (only in its last
  // dimension while it holds elements). On failure the message goes to the error sink (see
  // error_sink.h) and npos is returned.
  std::uint64_t get_idx(const TPropSize& position, bool grow = false, std::string* error = nullptr);
  // The position of a linear index; on failure an empty vector and the message to the sink.
  TPropSize get_pos(std::uint64_t index, std::string* error = nullptr) const;

  // Bits of the caller's own, kept with the array and written by the XML and JSON forms.
  std::uint32_t get_user_bits() const noexcept { return user_bits_; }
  void set_user_bits(std::uint32_t bits) noexcept { user_bits_ = bits; }

  // The product of the sizes (1 for rank 0); throws std::runtime_error "Invalid array shape:
  // element count exceeds the address space." when it does not fit a std::size_t.
  static std::uint64_t size(const TPropSize& size);
  // Size and position vectors from `count` values at `values`.
  static TPropSize ptr2size(std::size_t count, const std::uint64_t* values);
  static TPropSize ptr2pos(std::size_t count, const std::uint64_t* values);
  // Size and position vectors from up to four values; the first npos ends the list.
  static TPropSize val2size(std::uint64_t v0, std::uint64_t v1 = npos, std::uint64_t v2 = npos,
                            std::uint64_t v3 = npos);
  static TPropSize val2pos(std::uint64_t v0, std::uint64_t v1 = npos, std::uint64_t v2 = npos,
                           std::uint64_t v3 = npos);
  // Throws std::runtime_error "Invalid array shape: Size does not match number of elements."
  // when the two shapes differ.
  static void throw_if_not_equal(const TPropSize& a, const TPropSize& b);

 protected:
  TPropSize size_;
  std::uint32_t user_bits_ = 0;
};

namespace Tarn::props {

// The type code of an element class; RGB32 arrays pass Tarn::dt::rgb32 explicitly.
template <typename T>
constexpr DataType element_code_of() {
  if constexpr (std::is_same_v<T, TProp>)
    return dt::cell;
  else if constexpr (std::is_same_v<T, TPropstruct>)
    return dt::struct_;
  else if constexpr (std::is_same_v<T, TPropstring>)
    return dt::char_;
  else
    return arrays::data_type_of<T>();
}

namespace detail {
// One logical element in storage: std::vector<bool> packs bits and has no element pointer.
struct LogicalByte {
  bool value = false;
};
static_assert(sizeof(LogicalByte) == sizeof(bool));
template <typename T>
using stored_t = std::conditional_t<std::is_same_v<T, bool>, LogicalByte, T>;
}  // namespace detail

}  // namespace Tarn::props

template <typename T>
class TProparray final : public TProparrayBase {
 public:
  // An empty array of rank 1 (of RGB32 elements: TProparray<std::uint32_t>({0}, dt::rgb32)).
  TProparray() : element_(Tarn::props::element_code_of<T>()) { size_.assign(1, 0); }
  // An array of the given shape, its elements default-initialised (0, false, "none"); rank 0
  // holds one element.
  explicit TProparray(const TPropSize& shape, DataType element = Tarn::props::element_code_of<T>())
      : element_(element) {
    if (shape.empty()) {
      resize(1, false);
    } else {
      set_size(shape, 2);
    }
  }
  // Copies borrow nothing: the copy owns its elements.
  TProparray(const TProparray& other) : TProparrayBase(other), element_(other.element_) {
    if constexpr (kInlineSingle) {
      if (other.element_count() == 1) {
        single_ = true;
        one_ = *reinterpret_cast<const stored*>(other.begin());
        return;
      }
    }
    elements_.assign(reinterpret_cast<const stored*>(other.begin()),
                     reinterpret_cast<const stored*>(other.end()));
  }
  TProparray(TProparray&&) noexcept = default;
  TProparray& operator=(const TProparray& other) {
    if (this != &other) *this = TProparray(other);
    return *this;
  }
  TProparray& operator=(TProparray&&) noexcept = default;

  // Views `data` (shape's element count of them) instead of owning elements.
  void borrow(T* data, const TPropSize& shape) {
    elements_.clear();
    single_ = false;
    borrowed_ = data;
    borrowed_count_ = static_cast<std::size_t>(size(shape));
    size_ = shape;
  }
  bool is_borrowed() const noexcept { return borrowed_ != nullptr; }
  // Copies borrowed elements into the array; nothing happens when it owns them.
  void own() {
    if (borrowed_ == nullptr) return;
    elements_.assign(reinterpret_cast<const stored*>(borrowed_),
                     reinterpret_cast<const stored*>(borrowed_) + borrowed_count_);
    borrowed_ = nullptr;
    borrowed_count_ = 0;
  }

  std::size_t element_count() const noexcept override {
    return borrowed_ != nullptr ? borrowed_count_ : single_ ? 1 : elements_.size();
  }
  void resize(std::size_t count, bool clear) override {
    own();
    if constexpr (kInlineSingle) {
      if (single_) {
        if (count == 1) {
          if (clear) one_ = stored{};
          return;
        }
        single_ = false;
        if (count > 0 && !clear) {
          elements_.reserve(count);
          elements_.push_back(one_);
        }
      } else if (count == 1 && elements_.empty()) {
        one_ = stored{};
        single_ = true;
        return;
      }
    }
    if (clear) elements_.clear();
    elements_.resize(count);
  }
  DataType element_type() const noexcept override { return element_; }

  T* data() noexcept { return borrowed_ != nullptr ? borrowed_ : owned_data(); }
  const T* data() const noexcept {
    return borrowed_ != nullptr ? borrowed_ : const_cast<TProparray*>(this)->owned_data();
  }
  std::span<T> values() noexcept { return {data(), element_count()}; }
  std::span<const T> values() const noexcept { return {data(), element_count()}; }
  T* begin() noexcept { return data(); }
  T* end() noexcept { return data() + element_count(); }
  const T* begin() const noexcept { return data(); }
  const T* end() const noexcept { return data() + element_count(); }
  T& operator[](std::size_t index) noexcept { return data()[index]; }
  const T& operator[](std::size_t index) const noexcept { return data()[index]; }

  // Appends one element to a rank-1 (or empty rank-0) array.
  void push_back(T value) {
    own();
    if constexpr (kInlineSingle) {
      if (single_) {
        single_ = false;
        elements_.reserve(2);
        elements_.push_back(one_);
      }
    }
    elements_.push_back(stored{std::move(value)});
    size_.assign(1, elements_.size());
  }

 private:
  using stored = Tarn::props::detail::stored_t<T>;
  static constexpr bool kInlineSingle = std::is_arithmetic_v<T> || std::is_same_v<T, _s_tarn_RGB> ||
                                        std::is_same_v<T, std::complex<float>> ||
                                        std::is_same_v<T, std::complex<double>>;
  struct NoSingle {};

  T* owned_data() noexcept {
    if constexpr (kInlineSingle) {
      if (single_) return reinterpret_cast<T*>(&one_);
    }
    return reinterpret_cast<T*>(elements_.data());
  }

  DataType element_;
  // Whether the one element is one_ (elements_ is empty then).
  bool single_ = false;
  [[no_unique_address]] std::conditional_t<kInlineSingle, stored, NoSingle> one_{};
  std::vector<stored> elements_;
  T* borrowed_ = nullptr;
  std::size_t borrowed_count_ = 0;
};
