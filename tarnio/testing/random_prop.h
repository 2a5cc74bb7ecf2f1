#pragma once

// random_prop: property trees of every kind, shape and nesting from a seeded generator, for
// round-trip tests of the text forms. Values include the awkward ones: NaN, infinities, -0.0,
// denormals, integer extremes, empty arrays, text with markup characters, blanks at the ends,
// line breaks and non-ASCII letters. For tests only.

#include <array>
#include <complex>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <type_traits>

#include "tarnio/props/internal/dispatch.h"
#include "tarnio/props/prop.h"

namespace Tarn::testing {

struct RandomPropOptions {
  int max_depth = 4;             // levels of structs and cells below the root
  std::uint64_t max_extent = 4;  // largest size of one dimension
  bool ids = true;               // random ids and user bits
};

class RandomProp {
 public:
  explicit RandomProp(std::uint64_t seed, RandomPropOptions options = {})
      : rng_(seed), options_(options) {}

  TProp operator()() { return value(options_.max_depth); }

  TProp value(int depth) {
    TProp result = pick_value(depth);
    if (options_.ids && chance(4)) result.set_id(static_cast<std::int64_t>(rng_() % 1000) - 500);
    if (options_.ids && result.is_array() && chance(3)) {
      result.get_arr()->set_user_bits(static_cast<std::uint32_t>(rng_()));
    }
    return result;
  }

  // Text of letters, digits, markup characters, blanks, line breaks and multi-byte UTF-8.
  std::string text() {
    static constexpr std::array<const char*, 16> pieces = {"a",
                                                           "Z",
                                                           "0",
                                                           "_",
                                                           " ",
                                                           "<",
                                                           ">",
                                                           "&",
                                                           "\"",
                                                           "'",
                                                           "\n",
                                                           "\t",
                                                           "\xC3\xA9",
                                                           "\xE2\x82\xAC",
                                                           "\xF0\x9F\x94\xAC",
                                                           "\r\n"};
    std::string result;
    for (auto n = rng_() % 8; n > 0; --n) result += pieces[rng_() % pieces.size()];
    return result;
  }

  std::string name() {
    static constexpr char first[] = "abcxyzABCXYZ_";
    static constexpr char rest[] = "abcxyz019_-";
    std::string result(1, first[rng_() % (sizeof(first) - 1)]);
    for (auto n = rng_() % 6; n > 0; --n) result += rest[rng_() % (sizeof(rest) - 1)];
    return result;
  }

  TPropSize shape(bool allow_rank0) {
    const std::uint64_t rank = allow_rank0 ? rng_() % 4 : 1 + rng_() % 3;
    TPropSize result(rank);
    for (auto& extent : result) extent = rng_() % (options_.max_extent + 1);
    return result;
  }

 private:
  bool chance(unsigned one_in) { return rng_() % one_in == 0; }

  TProp pick_value(int depth) {
    static constexpr std::array<DataType, 18> kinds = {
        dt::uint8,  dt::int8,        dt::uint16,      dt::int16,   dt::uint32,  dt::int32,
        dt::uint64, dt::int64,       dt::single,      dt::double_, dt::logical, dt::rgb,
        dt::rgb32,  dt::cplx_single, dt::cplx_double, dt::char_,   dt::cell,    dt::struct_};
    switch (rng_() % 24) {
      case 0:
        return TProp();
      case 1:
        return TProp(TPropempty{});
      default:
        break;
    }
    const DataType kind = kinds[rng_() % kinds.size()];
    const bool nested = kind == dt::cell || kind == dt::struct_;
    if (nested && depth <= 0) return TProp(text());
    TProp result = TProp::array(kind, shape(true));
    props::internal::visit_element(kind, [&](auto tag) {
      using T = typename decltype(tag)::type;
      if (result.type_code() == dt::char_) {
        result.get<TPropstring>() = TPropstring(text());
        return;
      }
      if (result.type_code() == dt::struct_) {
        fill(result.get<TPropstruct>(), depth);
        return;
      }
      for (T& element : result.get<TProparray<T>>()) element = random_element<T>(depth);
    });
    return result;
  }

  void fill(TPropstruct& members, int depth) {
    for (auto n = rng_() % 4; n > 0; --n) members.set(name(), value(depth - 1));
  }

  template <typename T>
  T random_element(int depth) {
    if constexpr (std::is_same_v<T, TProp>) {
      return value(depth - 1);
    } else if constexpr (std::is_same_v<T, TPropstruct>) {
      TPropstruct members;
      fill(members, depth);
      return members;
    } else if constexpr (std::is_same_v<T, TPropstring>) {
      return TPropstring(text());
    } else if constexpr (std::is_same_v<T, _s_tarn_RGB>) {
      const auto bits = rng_();
      return {static_cast<std::uint8_t>(bits), static_cast<std::uint8_t>(bits >> 8),
              static_cast<std::uint8_t>(bits >> 16)};
    } else if constexpr (std::is_same_v<T, bool>) {
      return chance(2);
    } else if constexpr (std::is_floating_point_v<T>) {
      return random_float<T>();
    } else if constexpr (std::is_integral_v<T>) {
      switch (rng_() % 4) {
        case 0:
          return std::numeric_limits<T>::min();
        case 1:
          return std::numeric_limits<T>::max();
        default:
          return static_cast<T>(rng_());
      }
    } else {
      using Part = typename T::value_type;
      return T(random_float<Part>(), random_float<Part>());
    }
  }

  template <typename F>
  F random_float() {
    switch (rng_() % 10) {
      case 0:
        return std::numeric_limits<F>::quiet_NaN();
      case 1:
        return chance(2) ? std::numeric_limits<F>::infinity() : -std::numeric_limits<F>::infinity();
      case 2:
        return F(-0.0);
      case 3:
        return std::numeric_limits<F>::denorm_min();
      case 4:
        return std::numeric_limits<F>::max();
      default:
        return static_cast<F>(std::uniform_real_distribution<double>(-1e6, 1e6)(rng_)) /
               static_cast<F>(1 + rng_() % 1000);
    }
  }

  std::mt19937_64 rng_;
  RandomPropOptions options_;
};

}  // namespace Tarn::testing
