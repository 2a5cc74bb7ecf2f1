#include "tarnio/props/compare.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "tarnio/props/internal/dispatch.h"

static_assert(LDBL_MANT_DIG >= 64, "integers compare exactly as long double");

namespace Tarn::props {

namespace {

using internal::is_complex_element;
using internal::is_number_code;
using internal::is_number_element;
using internal::visit_element;

// A value seen uniformly: a single struct or string is an element of rank 0.
struct View {
  DataType element = dt::none;
  bool is_array = false;
  TPropSize shape;
  std::size_t count = 0;
  const void* first = nullptr;
  const TProparrayBase* array = nullptr;
};

View view_of(const TProp& value) {
  View view;
  view.element = value.type_code() & dt::name_mask;
  view.is_array = value.is_array();
  const placeholder* content = value.content();
  if (content == nullptr || view.element == dt::empty) return view;
  view.first = const_cast<placeholder*>(content)->value_ptr();
  view.count = 1;
  if (view.element == dt::struct_ && !view.is_array) return view;
  if (view.element == dt::char_ && !view.is_array) {
    view.first = const_cast<placeholder*>(content)->object();
    return view;
  }
  view.array = content->array();
  view.shape = view.array->shape();
  view.count = view.array->element_count();
  return view;
}

bool is_empty_kind(const View& view) {
  return view.element == dt::none || view.element == dt::empty ||
         (view.array != nullptr && view.count == 0);
}

TPropSize without_trailing_ones(TPropSize shape) {
  while (!shape.empty() && shape.back() == 1) shape.pop_back();
  return shape;
}

template <typename F>
bool same_float(F a, F b, const CompareTraits& traits) {
  if (std::isnan(a) || std::isnan(b)) return traits.nan_equal && std::isnan(a) && std::isnan(b);
  return a == b;
}

// Pairs of nested values still to compare: trees nest without limit, so the comparison keeps
// its own list on the heap instead of recursing.
using Pending = std::vector<std::pair<const TProp*, const TProp*>>;

// Compares the member names; the member values go to `pending`.
bool equal_structs(const TPropstruct& a, const TPropstruct& b, const CompareTraits& traits,
                   Pending& pending) {
  if (a.size() != b.size()) return false;
  if (!traits.ignore_member_order) {
    return std::equal(a.begin(), a.end(), b.begin(), [&](const auto& x, const auto& y) {
      pending.emplace_back(&x.second, &y.second);
      return x.first == y.first;
    });
  }
  return std::all_of(a.begin(), a.end(), [&](const auto& member) {
    const auto other = b.find(member.first);
    if (other == b.end()) return false;
    pending.emplace_back(&member.second, &other->second);
    return true;
  });
}

template <typename T>
bool equal_elements(const T& a, const T& b, const CompareTraits& traits, Pending& pending) {
  if constexpr (std::is_floating_point_v<T>) {
    return same_float(a, b, traits);
  } else if constexpr (is_complex_element<T>) {
    return same_float(a.real(), b.real(), traits) && same_float(a.imag(), b.imag(), traits);
  } else if constexpr (std::is_same_v<T, _s_tarn_RGB>) {
    return a.red == b.red && a.green == b.green && a.blue == b.blue;
  } else if constexpr (std::is_same_v<T, TProp>) {
    pending.emplace_back(&a, &b);
    return true;
  } else if constexpr (std::is_same_v<T, TPropstruct>) {
    return equal_structs(a, b, traits, pending);
  } else {
    return a == b;
  }
}

// One number of any kind; long double holds every 64-bit integer and every double exactly.
struct Number {
  long double real = 0;
  long double imag = 0;
};

using NumberAt = Number (*)(const void* first, std::size_t index);

template <typename T>
Number number_at(const void* first, std::size_t index) {
  const T value = static_cast<const T*>(first)[index];
  Number number;
  if constexpr (std::is_arithmetic_v<T>) {
    number.real = static_cast<long double>(value);
  } else {
    number.real = value.real();
    number.imag = value.imag();
  }
  return number;
}

NumberAt number_reader(DataType element) {
  NumberAt reader = nullptr;
  visit_element(element, [&](auto tag) {
    using T = typename decltype(tag)::type;
    if constexpr (is_number_element<T>) reader = &number_at<T>;
  });
  return reader;
}

bool equal_numbers(const View& a, const View& b, const CompareTraits& traits) {
  const NumberAt read_a = number_reader(a.element);
  const NumberAt read_b = number_reader(b.element);
  for (std::size_t i = 0; i < a.count; ++i) {
    const Number x = read_a(a.first, i);
    const Number y = read_b(b.first, i);
    if (!same_float(x.real, y.real, traits) || !same_float(x.imag, y.imag, traits)) {
      return false;
    }
  }
  return true;
}

// One value against another; nested values go to `pending`.
bool equal_outer(const TProp& a, const TProp& b, const CompareTraits& traits, Pending& pending) {
  if (traits.compare_ids && a.get_id() != b.get_id()) return false;
  const View x = view_of(a);
  const View y = view_of(b);
  if (is_empty_kind(x) || is_empty_kind(y)) {
    if (traits.empty_kinds_equal && is_empty_kind(x) && is_empty_kind(y)) return true;
    if (x.element == dt::none || x.element == dt::empty || y.element == dt::none ||
        y.element == dt::empty) {
      return x.element == y.element;
    }
  }
  const bool same_kind = x.element == y.element;
  if (!same_kind &&
      !(traits.numeric_by_value && is_number_code(x.element) && is_number_code(y.element))) {
    return false;
  }
  if (traits.scalar_equals_single_element) {
    if (without_trailing_ones(x.shape) != without_trailing_ones(y.shape)) return false;
  } else if (x.is_array != y.is_array || x.shape != y.shape) {
    return false;
  }
  if (x.count != y.count) return false;
  if (traits.compare_ids && x.array != nullptr && y.array != nullptr &&
      x.array->get_user_bits() != y.array->get_user_bits()) {
    return false;
  }
  if (!same_kind) return equal_numbers(x, y, traits);
  bool equal = true;
  visit_element(x.element, [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* first = static_cast<const T*>(x.first);
    const T* second = static_cast<const T*>(y.first);
    for (std::size_t i = 0; i < x.count && equal; ++i) {
      equal = equal_elements(first[i], second[i], traits, pending);
    }
  });
  return equal;
}

}  // namespace

bool is_equal(const TProp& a, const TProp& b, const CompareTraits& traits) {
  Pending pending{{&a, &b}};
  while (!pending.empty()) {
    const auto [x, y] = pending.back();
    pending.pop_back();
    if (!equal_outer(*x, *y, traits, pending)) return false;
  }
  return true;
}

}  // namespace Tarn::props
