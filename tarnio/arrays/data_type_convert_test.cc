#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tarnio/arrays/data_type.h"

namespace {

namespace dt = Tarn::dt;

// An element type with its code, as the type lists below carry them.
template <class T, DataType Code>
struct Typed {
  using Type = T;
  static constexpr DataType kCode = Code;
};

using Reals = std::tuple<Typed<std::uint8_t, dt::uint8>, Typed<std::int8_t, dt::int8>,
                         Typed<std::uint16_t, dt::uint16>, Typed<std::int16_t, dt::int16>,
                         Typed<std::uint32_t, dt::uint32>, Typed<std::int32_t, dt::int32>,
                         Typed<std::uint64_t, dt::uint64>, Typed<std::int64_t, dt::int64>,
                         Typed<float, dt::single>, Typed<double, dt::double_>>;
using Complexes = std::tuple<Typed<std::complex<float>, dt::cplx_single>,
                             Typed<std::complex<double>, dt::cplx_double>>;

template <class T>
constexpr bool kIsComplex = false;
template <class P>
constexpr bool kIsComplex<std::complex<P>> = true;

// Calls f(T{}) for every T of the tuple types Lists.
template <class... Lists, class F>
void for_each_type(F f) {
  using List = decltype(std::tuple_cat(std::declval<Lists>()...));
  [&]<class... T>(std::tuple<T...>*) { (f(T{}), ...); }(static_cast<List*>(nullptr));
}

// The plain cast, written apart from the library's: truncation in long double, then the
// intermediate's range check by branches; complex elements part by part, a real source having
// imaginary part 0.
template <class D, class S>
D reference_cast(S x) {
  if constexpr (kIsComplex<D>) {
    using Part = typename D::value_type;
    if constexpr (kIsComplex<S>) {
      return D(reference_cast<Part>(x.real()), reference_cast<Part>(x.imag()));
    } else {
      return D(reference_cast<Part>(x), 0);
    }
  } else if constexpr (std::is_floating_point_v<S> && std::is_integral_v<D>) {
    const long double t = std::trunc(static_cast<long double>(x));
    if constexpr (sizeof(D) <= 4) {
      const bool fits = t >= -0x1p31L && t < 0x1p31L;
      return static_cast<D>(fits ? static_cast<std::int64_t>(t) : INT32_MIN);
    } else if constexpr (std::is_signed_v<D>) {
      return t >= -0x1p63L && t < 0x1p63L ? static_cast<std::int64_t>(t) : INT64_MIN;
    } else {
      if (t >= 0 && t < 0x1p64L) return static_cast<std::uint64_t>(t);
      if (t < 0 && t >= -0x1p63L) return static_cast<std::uint64_t>(static_cast<std::int64_t>(t));
      return std::uint64_t{1} << 63;
    }
  } else {
    return static_cast<D>(x);
  }
}

// 0x20000000000001 is 2^53 + 1, which no double holds.
// clang-format off
constexpr std::uint64_t kIntegerBits[] = {
    0, 1, 2, 0x7F, 0x80, 0xFF, 0x100, 0x7FFF, 0x8000, 0xFFFF, 0x10000, 0x7FFFFFFF, 0x80000000,
    0xFFFFFFFF, 0x100000000, 0x20000000000001, 0x7FFFFFFFFFFFFFFF, 0x8000000000000000,
    0xFFFFFFFFFFFFFFFF, 0xFFFFFFFFFFFFFF7F, 0x123456789ABCDEF0};
// clang-format on

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kFloatingValues[] = {
    0.0,          -0.0,           0.5,           -0.5,         0.999,         1.5,
    -1.9,         44.7,           127.9,         128.5,        -128.5,        -129.9,
    255.9,        256.0,          300.7,         32767.9,      32768.0,       -32768.9,
    65535.5,      65536.0,        2147483647.9,  2147483648.0, -2147483648.9, -2147483649.0,
    4294967295.0, 4294967296.5,   1e10,          -1e10,        0x1p53,        0x1p63,
    -0x1p63,      -0x1p63 - 2048, 0x1p64 - 2048, 0x1p64,       1.8e19,        1e30,
    -1e30,        3e38,           1e300,         kInf,         -kInf,         kNan,
    -kNan,        1e-40,          5e-324};

// Values of S that sit on every boundary of every cast: integers by their low bits, complex
// values pairing each floating value with the next.
template <class S>
std::vector<S> values_of() {
  std::vector<S> values;
  if constexpr (std::is_integral_v<S>) {
    for (const std::uint64_t bits : kIntegerBits) values.push_back(static_cast<S>(bits));
  } else if constexpr (kIsComplex<S>) {
    const auto parts = values_of<typename S::value_type>();
    for (std::size_t i = 0; i < parts.size(); ++i) {
      values.emplace_back(parts[i], parts[(i + 1) % parts.size()]);
    }
  } else {
    for (const double value : kFloatingValues) values.push_back(static_cast<S>(value));
  }
  return values;
}

template <class T>
void expect_same_bits(const std::vector<T>& got, const std::vector<T>& want) {
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(std::memcmp(&got[i], &want[i], sizeof(T)), 0) << "element " << i;
  }
}

// Every pair of element types in every mode it supports: plain, a real source merged with
// imaginary parts, a complex source split into real and imaginary parts.
TEST(ConvertPlain, EveryPairAndModeCastsLikeTheReference) {
  for_each_type<Reals, Complexes>([](auto source) {
    using S = typename decltype(source)::Type;
    const std::vector<S> src = values_of<S>();
    const std::vector<S> imag_src(src.rbegin(), src.rend());
    for_each_type<Reals, Complexes>([&](auto destination) {
      using D = typename decltype(destination)::Type;
      SCOPED_TRACE(std::string(tarn_dt_get_name(source.kCode)) + " -> " +
                   tarn_dt_get_name(destination.kCode));
      const auto run = [&](void* dst, const void* imag_in, void* imag_out) {
        return tarn_dt_convert(source.kCode, destination.kCode, src.data(), dst, src.size(),
                               imag_in, imag_out);
      };
      std::vector<D> dst(src.size()), imag(src.size()), want, want_imag;
      if constexpr (kIsComplex<S> && !kIsComplex<D>) {
        ASSERT_EQ(run(dst.data(), nullptr, imag.data()), 0);
        for (const S value : src) {
          want.push_back(reference_cast<D>(value.real()));
          want_imag.push_back(reference_cast<D>(value.imag()));
        }
        expect_same_bits(imag, want_imag);
      } else {
        ASSERT_EQ(run(dst.data(), nullptr, nullptr), 0);
        for (const S value : src) want.push_back(reference_cast<D>(value));
      }
      expect_same_bits(dst, want);
      if constexpr (!kIsComplex<S> && kIsComplex<D>) {
        using Part = typename D::value_type;
        ASSERT_EQ(run(dst.data(), imag_src.data(), nullptr), 0);
        for (std::size_t i = 0; i < src.size(); ++i) {
          want[i] = D(reference_cast<Part>(src[i]), reference_cast<Part>(imag_src[i]));
        }
        expect_same_bits(dst, want);
      }
    });
  });
}

TEST(ConvertPlain, WorkedNumbersAndMissingBuffers) {
  struct Case {
    double value;
    DataType to;
    std::uint64_t want;  // the destination's bytes, little-endian
  };
  // uint32 goes through the int32 intermediate too: 3e9 is out of its range.
  for (const Case& c : {Case{300.7, dt::uint8, 44}, Case{-1.9, dt::uint16, 65535},
                        Case{3e9, dt::uint32, 0x80000000u}}) {
    SCOPED_TRACE(tarn_dt_get_name(c.to));
    std::uint64_t out = 0;
    EXPECT_EQ(tarn_dt_convert(dt::double_, c.to, &c.value, &out, 1, nullptr, nullptr), 0);
    EXPECT_EQ(out, c.want);
  }
  // An empty run needs no buffers; a run without them fails instead of crashing.
  const double value = 1;
  std::uint8_t byte = 0;
  EXPECT_EQ(tarn_dt_convert(dt::double_, dt::uint8, nullptr, nullptr, 0, nullptr, nullptr), 0);
  EXPECT_EQ(tarn_dt_convert(dt::double_, dt::uint8, nullptr, &byte, 1, nullptr, nullptr), -1);
  EXPECT_EQ(tarn_dt_convert(dt::double_, dt::uint8, &value, nullptr, 1, nullptr, nullptr), -1);
}

TEST(ConvertColour, PacksAndUnpacksRedGreenBlue) {
  const _s_tarn_RGB rgb[2] = {{0x11, 0x22, 0x33}, {0xFF, 0x00, 0x80}};
  std::uint32_t packed[2] = {0xAB000000u, 0};  // the high byte is cleared on packing
  ASSERT_EQ(tarn_dt_convert(dt::rgb, dt::rgb32, rgb, packed, 2, nullptr, nullptr), 0);
  EXPECT_EQ(packed[0], 0x00332211u);
  EXPECT_EQ(packed[1], 0x008000FFu);
  packed[0] |= 0xAB000000u;  // and ignored on unpacking
  _s_tarn_RGB back[1] = {};
  ASSERT_EQ(tarn_dt_convert(dt::rgb32, dt::rgb, packed, back, 1, nullptr, nullptr), 0);
  EXPECT_EQ(std::tuple(back[0].red, back[0].green, back[0].blue), std::tuple(0x11, 0x22, 0x33));
}

// Runs long enough for many blocks, with every kind of stride on either side.
TEST(ConvertStrided, ManyBlocksMatchTheReference) {
  constexpr std::size_t count = 10007;
  std::vector<double> src(count * 7);
  for (std::size_t i = 0; i < src.size(); ++i) {
    src[i] = kFloatingValues[i % std::size(kFloatingValues)];
  }
  constexpr std::size_t kStrides[] = {1, 2, 3, 4, 7};
  for (const std::size_t src_stride : kStrides) {
    for (const std::size_t dst_stride : kStrides) {
      SCOPED_TRACE(::testing::Message() << "strides " << src_stride << ", " << dst_stride);
      std::vector<std::int16_t> real(count * dst_stride, 99), imag(count * dst_stride, 99);
      std::vector<std::complex<float>> merged(count * dst_stride);
      ASSERT_EQ(
          tarn_dt_convert_with_strides(dt::double_, dt::cplx_single, src.data(), src_stride,
                                       merged.data(), dst_stride, count, src.data() + 1, nullptr),
          0);
      ASSERT_EQ(tarn_dt_convert_with_strides(dt::cplx_single, dt::int16, merged.data(), dst_stride,
                                             real.data(), dst_stride, count, nullptr, imag.data()),
                0);
      for (std::size_t i = 0; i < count; ++i) {
        const std::complex<float> want(static_cast<float>(src[i * src_stride]),
                                       static_cast<float>(src[i * src_stride + 1]));
        ASSERT_EQ(std::memcmp(&merged[i * dst_stride], &want, sizeof(want)), 0) << i;
        ASSERT_EQ(real[i * dst_stride], reference_cast<std::int16_t>(want.real())) << i;
        ASSERT_EQ(imag[i * dst_stride], reference_cast<std::int16_t>(want.imag())) << i;
        if (dst_stride > 1) {
          ASSERT_EQ(real[i * dst_stride + 1], 99) << i;
        }
      }
    }
  }
}

// Destinations beyond the caches are written with streaming stores where they are aligned;
// both ways give the same elements, up to the last one.
TEST(ConvertLarge, StreamedAndUnalignedDestinationsMatchTheReference) {
  constexpr std::size_t count = (std::size_t{32} << 20) / sizeof(float) + 5;
  std::vector<std::uint16_t> src(count);
  for (std::size_t i = 0; i < count; ++i) src[i] = static_cast<std::uint16_t>(i * 7919);
  std::vector<float> dst(count + 1, -1.0f);
  for (const std::size_t offset : {std::size_t{0}, std::size_t{1}}) {
    SCOPED_TRACE(::testing::Message() << "offset " << offset);
    ASSERT_EQ(tarn_dt_convert(dt::uint16, dt::single, src.data(), dst.data() + offset, count,
                              nullptr, nullptr),
              0);
    for (std::size_t i = 0; i < count; ++i) ASSERT_EQ(dst[i + offset], src[i]) << i;
  }
  // Two destinations streamed at once: each must get its own parts.
  std::vector<std::uint16_t> src_imag(src.rbegin(), src.rend());
  std::vector<std::complex<double>> merged(count);
  ASSERT_EQ(tarn_dt_convert(dt::uint16, dt::cplx_double, src.data(), merged.data(), count,
                            src_imag.data(), nullptr),
            0);
  std::vector<std::int32_t> real(count), imag(count);
  ASSERT_EQ(tarn_dt_convert(dt::cplx_double, dt::int32, merged.data(), real.data(), count, nullptr,
                            imag.data()),
            0);
  for (std::size_t i = 0; i < count; ++i) {
    ASSERT_EQ(real[i], src[i]) << i;
    ASSERT_EQ(imag[i], src_imag[i]) << i;
  }
}

// The support rules, stated on their own, for the byte-level checks below.
enum class Mode { plain, merge, split, both };

bool supported(Mode mode, DataType src, DataType dst) {
  const auto kind = [](DataType code) {
    constexpr DataType kReal[] = {dt::uint8, dt::int8,   dt::uint16, dt::int16,  dt::uint32,
                                  dt::int32, dt::uint64, dt::int64,  dt::single, dt::double_};
    if (std::ranges::count(kReal, code) == 1) return 'r';
    if (code == dt::cplx_single || code == dt::cplx_double) return 'c';
    return code == dt::rgb || code == dt::rgb32 ? 'k' : '-';
  };
  const std::string pair{kind(src), kind(dst)};
  switch (mode) {
    case Mode::plain:
      return pair == "rr" || pair == "rc" || pair == "cc" || pair == "kk";
    case Mode::merge:
      return pair == "rc";
    case Mode::split:
      return pair == "cr";
    case Mode::both:
      return false;
  }
  return false;
}

constexpr DataType kCodesUnderTest[] = {
    dt::uint8,       dt::int8,        dt::uint16,     dt::int16,   dt::uint32,
    dt::int32,       dt::uint64,      dt::int64,      dt::single,  dt::double_,
    dt::cplx_single, dt::cplx_double, dt::rgb,        dt::rgb32,   dt::logical,
    dt::none,        dt::char_,       dt::cplx_uint8, DataType{3}, dt::single | dt::array_flag,
};
constexpr std::byte kGuard{0xA5};

// Converts `count` elements in `mode` into `dst`, whose second half takes imaginary parts; a
// merge reads its imaginary parts from the same bytes as the real parts.
int convert(Mode mode, DataType src_dt, DataType dst_dt, const std::vector<std::byte>& src,
            std::size_t stride, std::vector<std::byte>& dst, std::size_t count) {
  const bool merge = mode == Mode::merge || mode == Mode::both;
  const bool split = mode == Mode::split || mode == Mode::both;
  return tarn_dt_convert_with_strides(src_dt, dst_dt, src.data(), stride, dst.data(), stride, count,
                                      merge ? src.data() : nullptr,
                                      split ? dst.data() + dst.size() / 2 : nullptr);
}

TEST(ConvertModes, StridedMatchesContiguousAndUnsupportedWritesNothing) {
  constexpr std::size_t count = 9;
  constexpr std::size_t stride = 3;
  for (const Mode mode : {Mode::plain, Mode::merge, Mode::split, Mode::both}) {
    for (const DataType src_dt : kCodesUnderTest) {
      for (const DataType dst_dt : kCodesUnderTest) {
        SCOPED_TRACE(::testing::Message()
                     << "mode " << static_cast<int>(mode) << ", " << src_dt << " -> " << dst_dt);
        const std::size_t src_size = std::max<std::size_t>(tarn_dt_get_size(src_dt), 1);
        const std::size_t dst_size = std::max<std::size_t>(tarn_dt_get_size(dst_dt), 1);
        std::vector<std::byte> src(src_size * stride * count), packed;
        for (std::size_t i = 0; i < src.size(); ++i) src[i] = static_cast<std::byte>(i * 37 + 11);
        for (std::size_t i = 0; i < src.size(); i += stride * src_size) {
          packed.insert(packed.end(), &src[i], &src[i] + src_size);
        }
        std::vector<std::byte> contiguous(2 * dst_size * count, kGuard);
        std::vector<std::byte> strided(2 * dst_size * stride * count, kGuard);
        const bool supports = supported(mode, src_dt, dst_dt);
        EXPECT_EQ(convert(mode, src_dt, dst_dt, packed, 1, contiguous, count), supports ? 0 : -1);
        EXPECT_EQ(convert(mode, src_dt, dst_dt, src, stride, strided, count), supports ? 0 : -1);
        std::vector<std::byte> untouched(2, kGuard);
        EXPECT_EQ(convert(mode, src_dt, dst_dt, packed, 1, untouched, 0), supports ? 0 : -1);
        EXPECT_EQ(untouched, std::vector<std::byte>(2, kGuard));
        // The strided run writes the contiguous run's elements at every stride-th place of
        // each half, and nothing else; neither run writes anything it does not support.
        std::vector<std::byte> expected(strided.size(), kGuard);
        for (std::size_t i = 0; i < 2 * count; ++i) {
          const std::size_t at =
              i < count ? i * stride : strided.size() / dst_size / 2 + (i - count) * stride;
          std::memcpy(&expected[at * dst_size], &contiguous[i * dst_size], dst_size);
        }
        EXPECT_EQ(strided, expected);
        if (!supports) {
          EXPECT_EQ(contiguous, std::vector<std::byte>(contiguous.size(), kGuard));
        }
      }
    }
  }
}

}  // namespace
