#include "tarnio/arrays/internal/converters.h"

#include <algorithm>
#include <array>
#include <complex>
#include <cstdint>
#include <cstring>
#include <tuple>
#include <type_traits>
#include <utility>

#include "tarnio/arrays/internal/blocked_convert.h"
#include "tarnio/arrays/internal/numeric_cast.h"

namespace Tarn::arrays::internal {
namespace {

// An RGB32 element: a uint32 that overloads apart from the integer.
enum class Rgb32 : std::uint32_t {};

// The element types of the converter tables, indexed like kSlotCodes.
using Slots = std::tuple<std::uint8_t, std::int8_t, std::uint16_t, std::int16_t, std::uint32_t,
                         std::int32_t, std::uint64_t, std::int64_t, float, double,
                         std::complex<float>, std::complex<double>, _s_tarn_RGB, Rgb32>;
constexpr std::array kSlotCodes{
    dt::uint8, dt::int8,   dt::uint16,  dt::int16,       dt::uint32,      dt::int32, dt::uint64,
    dt::int64, dt::single, dt::double_, dt::cplx_single, dt::cplx_double, dt::rgb,   dt::rgb32};
static_assert(kSlotCodes.size() == std::tuple_size_v<Slots>);

template <class T>
struct IsComplex : std::false_type {};
template <class C>
struct IsComplex<std::complex<C>> : std::true_type {};

template <class T>
constexpr bool kIsReal = std::is_arithmetic_v<T>;
template <class T>
constexpr bool kIsComplex = IsComplex<T>::value;
template <class T>
constexpr bool kIsColour = std::is_same_v<T, _s_tarn_RGB> || std::is_same_v<T, Rgb32>;

// One element of S as a D, for a pair of the plain mode.
template <class D, class S>
D convert_element(S x) noexcept {
  if constexpr (std::is_same_v<D, S>) {
    return x;
  } else if constexpr (kIsComplex<D> && kIsComplex<S>) {
    using Part = typename D::value_type;
    return D(numeric_cast<Part>(x.real()), numeric_cast<Part>(x.imag()));
  } else if constexpr (kIsComplex<D>) {
    return D(numeric_cast<typename D::value_type>(x), 0);
  } else if constexpr (std::is_same_v<D, Rgb32>) {
    return Rgb32{static_cast<std::uint32_t>(x.red | x.green << 8 | x.blue << 16)};
  } else if constexpr (std::is_same_v<D, _s_tarn_RGB>) {
    const auto packed = static_cast<std::uint32_t>(x);
    return D{static_cast<std::uint8_t>(packed), static_cast<std::uint8_t>(packed >> 8),
             static_cast<std::uint8_t>(packed >> 16)};
  } else {
    return numeric_cast<D>(x);
  }
}

// The contiguous kernels, one per pair and mode, written for the compiler to vectorise.
template <class S, class D>
void plain_loop(const S* __restrict src, D* __restrict dst, std::size_t count) noexcept {
  for (std::size_t i = 0; i < count; ++i) dst[i] = convert_element<D>(src[i]);
}

template <class S, class D>
void merge_loop(const S* __restrict src_real, const S* __restrict src_imag, D* __restrict dst,
                std::size_t count) noexcept {
  using Part = typename D::value_type;
  for (std::size_t i = 0; i < count; ++i) {
    dst[i] = D(numeric_cast<Part>(src_real[i]), numeric_cast<Part>(src_imag[i]));
  }
}

template <class S, class D>
void split_loop(const S* __restrict src, D* __restrict dst_real, D* __restrict dst_imag,
                std::size_t count) noexcept {
  for (std::size_t i = 0; i < count; ++i) {
    dst_real[i] = numeric_cast<D>(src[i].real());
    dst_imag[i] = numeric_cast<D>(src[i].imag());
  }
}

template <class S, class D>
void convert_plain(const void* src, std::size_t src_stride, void* dst, std::size_t dst_stride,
                   std::size_t count) noexcept {
  const auto* typed_src = static_cast<const S*>(src);
  auto* typed_dst = static_cast<D*>(dst);
  if constexpr (std::is_same_v<S, D>) {
    if (src_stride == 1 && dst_stride == 1) {
      std::memcpy(typed_dst, typed_src, count * sizeof(S));
      return;
    }
    // A strided copy within one type needs no block buffer: gather straight into a destination
    // that is not streamed, and scatter straight from a contiguous source.
    if (dst_stride == 1 && count * sizeof(D) < kStreamingThreshold) {
      gather(typed_src, src_stride, typed_dst, count);
      return;
    }
    if (src_stride == 1) {
      scatter(typed_src, typed_dst, dst_stride, count);
      return;
    }
  } else if (src_stride >= 2 && src_stride <= 4 && dst_stride == 1 &&
             count * sizeof(D) < kStreamingThreshold) {
    // Every second pixel and the like: one pass, vectorised for the stride, in place of a
    // gather into a block buffer followed by the kernel.
    with_stride(src_stride, [&](auto step) {
      for (std::size_t i = 0; i < count; ++i)
        typed_dst[i] = convert_element<D>(typed_src[i * step]);
    });
    return;
  }
  convert_blocked<S, D, 1, 1>(
      {typed_src}, src_stride, {typed_dst}, dst_stride, count,
      [](const auto& in, const auto& out, std::size_t n) { plain_loop(in[0], out[0], n); });
}

template <class S, class D>
void convert_merge(const void* src_real, const void* src_imag, std::size_t src_stride, void* dst,
                   std::size_t dst_stride, std::size_t count) noexcept {
  convert_blocked<S, D, 2, 1>(
      {static_cast<const S*>(src_real), static_cast<const S*>(src_imag)}, src_stride,
      {static_cast<D*>(dst)}, dst_stride, count,
      [](const auto& in, const auto& out, std::size_t n) { merge_loop(in[0], in[1], out[0], n); });
}

template <class S, class D>
void convert_split(const void* src, std::size_t src_stride, void* dst_real, void* dst_imag,
                   std::size_t dst_stride, std::size_t count) noexcept {
  convert_blocked<S, D, 1, 2>(
      {static_cast<const S*>(src)}, src_stride,
      {static_cast<D*>(dst_real), static_cast<D*>(dst_imag)}, dst_stride, count,
      [](const auto& in, const auto& out, std::size_t n) { split_loop(in[0], out[0], out[1], n); });
}

// Each mode names its supported pairs; the tables hold null for the others.
struct PlainMode {
  template <class S, class D>
  static constexpr PlainConverter entry() {
    if constexpr ((kIsReal<S> && (kIsReal<D> || kIsComplex<D>)) ||
                  (kIsComplex<S> && kIsComplex<D>) || (kIsColour<S> && kIsColour<D>)) {
      return &convert_plain<S, D>;
    } else {
      return nullptr;
    }
  }
};

struct MergeMode {
  template <class S, class D>
  static constexpr MergeConverter entry() {
    if constexpr (kIsReal<S> && kIsComplex<D>) {
      return &convert_merge<S, D>;
    } else {
      return nullptr;
    }
  }
};

struct SplitMode {
  template <class S, class D>
  static constexpr SplitConverter entry() {
    if constexpr (kIsComplex<S> && kIsReal<D>) {
      return &convert_split<S, D>;
    } else {
      return nullptr;
    }
  }
};

template <class Mode, std::size_t S, std::size_t... D>
constexpr auto make_row(std::index_sequence<D...>) {
  return std::array{
      Mode::template entry<std::tuple_element_t<S, Slots>, std::tuple_element_t<D, Slots>>()...};
}

template <class Mode, std::size_t... S>
constexpr auto make_table(std::index_sequence<S...> slots) {
  return std::array{make_row<Mode, S>(slots)...};
}

// kTable<Mode>[source slot][destination slot].
template <class Mode>
constexpr auto kTable = make_table<Mode>(std::make_index_sequence<kSlotCodes.size()>{});

// kSlotCodes.size() for a code without a slot.
constexpr std::size_t slot_of(DataType dt) {
  return static_cast<std::size_t>(std::ranges::find(kSlotCodes, dt) - kSlotCodes.begin());
}

template <class Mode>
auto find_converter(DataType src_dt, DataType dst_dt) noexcept {
  const std::size_t src_slot = slot_of(src_dt);
  const std::size_t dst_slot = slot_of(dst_dt);
  return src_slot < kSlotCodes.size() && dst_slot < kSlotCodes.size()
             ? kTable<Mode>[src_slot][dst_slot]
             : nullptr;
}

}  // namespace

PlainConverter find_plain_converter(DataType src_dt, DataType dst_dt) noexcept {
  return find_converter<PlainMode>(src_dt, dst_dt);
}

MergeConverter find_merge_converter(DataType src_dt, DataType dst_dt) noexcept {
  return find_converter<MergeMode>(src_dt, dst_dt);
}

SplitConverter find_split_converter(DataType src_dt, DataType dst_dt) noexcept {
  return find_converter<SplitMode>(src_dt, dst_dt);
}

}  // namespace Tarn::arrays::internal
