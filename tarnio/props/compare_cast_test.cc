#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <string>

#include "tarnio/props/cast.h"
#include "tarnio/props/compare.h"
#include "tarnio/props/prop.h"
#include "tarnio/testing/expect_throw_message.h"

namespace {

namespace dt = Tarn::dt;
using Tarn::props::CompareTraits;
using Tarn::props::is_equal;

TProp doubles(TPropSize shape, std::initializer_list<double> values) {
  TProparray<double> array(shape);
  std::copy(values.begin(), values.end(), array.begin());
  return TProp(std::move(array));
}

TEST(IsEqual, StrictByDefaultRelaxedOnRequest) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  TPropstruct ab, ba;
  ab.set("a", TProp(1));
  ab.set("b", TProp(2));
  ba.set("b", TProp(2));
  ba.set("a", TProp(1));
  TProp with_id(1);
  with_id.set_id(3);
  TProp bits = doubles({1}, {1});
  bits.get_arr()->set_user_bits(5);

  constexpr CompareTraits kByValue{.numeric_by_value = true};
  constexpr CompareTraits kSingle{.scalar_equals_single_element = true};
  constexpr CompareTraits kEmpties{.empty_kinds_equal = true};
  constexpr CompareTraits kIds{.compare_ids = true};
  struct Case {
    const char* what;
    TProp a, b;
    bool strict;
    CompareTraits relaxed;
    bool when_relaxed;
  };
  const Case cases[] = {
      {"int vs double", TProp(5), TProp(5.0), false, kByValue, true},
      {"uint8 vs int64", TProp(std::uint8_t{200}), TProp(std::int64_t{200}), false, kByValue, true},
      {"large int vs nearest double", TProp(std::int64_t{(1LL << 62) + 1}),
       TProp(static_cast<double>((1LL << 62) + 1)), false, kByValue, false},
      {"complex vs real", TProp(std::complex<double>(2, 0)), TProp(2.0f), false, kByValue, true},
      {"logical vs int", TProp(true), TProp(1), false, kByValue, true},
      {"NaN", TProp(nan), TProp(nan), true, {.nan_equal = false}, false},
      {"zero signs", TProp(0.0), TProp(-0.0), true, {}, true},
      {"scalar vs 1x1", TProp(1.0), doubles({1, 1}, {1}), false, kSingle, true},
      {"3 vs 3x1", doubles({3}, {1, 2, 3}), doubles({3, 1}, {1, 2, 3}), false, kSingle, true},
      {"3x1 vs 1x3", doubles({3, 1}, {1, 2, 3}), doubles({1, 3}, {1, 2, 3}), false, kSingle, false},
      {"member order", TProp(ab), TProp(ba), false, {.ignore_member_order = true}, true},
      {"ids", with_id, TProp(1), true, kIds, false},
      {"user bits", bits, doubles({1}, {1}), true, kIds, false},
      {"none vs empty", TProp(), TProp(TPropempty{}), false, kEmpties, true},
      {"empty vs 0x0", TProp(TPropempty{}), doubles({0, 0}, {}), false, kEmpties, true},
      {"text vs number", TProp("1"), TProp(1), false, kByValue, false},
      {"rgb32 vs uint32", TProp::array(dt::rgb32, {1}), TProp::array(dt::uint32, {1}), false,
       kByValue, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(is_equal(c.a, c.b), c.strict) << c.what;
    EXPECT_EQ(c.a == c.b, c.strict) << c.what;
    EXPECT_EQ(is_equal(c.a, c.b, c.relaxed), c.when_relaxed) << c.what;
    EXPECT_EQ(is_equal(c.b, c.a, c.relaxed), c.when_relaxed) << c.what << " (swapped)";
  }
}

TEST(IsEqual, NestedValuesCompareDeeply) {
  TProp tree = TProp::cell({2});
  tree(0) = TProp(TPropstruct{});
  tree(0).s().set("x", doubles({2}, {1, std::nan("")}));
  TProp other = tree;
  EXPECT_EQ(tree, other);
  other(0).s().find("x")->second.get<TProparray<double>>()[0] = 2;
  EXPECT_FALSE(tree == other);
}

TEST(TarnPropCast, ConvertsScalarsAndRefusesTheRest) {
  EXPECT_EQ(TProp(300.7).as<std::uint8_t>(), 44);  // truncated, low bits, as the converters cast
  EXPECT_EQ(TProp(-1.9).as<std::uint16_t>(), 65535);
  EXPECT_EQ(TProp(std::complex<double>(2.5, 1)).as<double>(), 2.5);
  EXPECT_EQ(TProp(3).as<std::complex<float>>(), std::complex<float>(3, 0));
  EXPECT_EQ(TProp(true).as<double>(), 1.0);
  EXPECT_TRUE(TProp(0.5).as<bool>());
  EXPECT_FALSE(TProp(std::complex<float>(0, 0)).as<bool>());
  EXPECT_EQ(TProp(" 42 ").as<int>(), 42);
  EXPECT_EQ(TProp(1.25).as<std::string>(), "1.25");
  EXPECT_EQ(TProp("text").as<std::string>(), "text");

  std::uint32_t packed = 0;
  tarn_prop_cast(TProp(_s_tarn_RGB{0x11, 0x22, 0x33}), &packed, dt::rgb32);
  EXPECT_EQ(packed, 0x00332211u);

  EXPECT_THROW_MESSAGE(doubles({1, 1}, {1}).as<double>(), std::runtime_error,
                       "Cannot cast from array to scalar.");
  EXPECT_THROW_MESSAGE(TProp(TPropstruct{}).as<double>(), std::runtime_error, "Invalid cast.");
  EXPECT_THROW_MESSAGE(TProp().as<int>(), std::runtime_error, "Invalid cast.");
  EXPECT_THROW_MESSAGE(TProp(_s_tarn_RGB{}).as<int>(), std::runtime_error, "Invalid cast.");
  EXPECT_THROW_MESSAGE(TProp("4x").as<int>(), std::runtime_error,
                       "Could not convert \"4x\" to target type");
}

// Every scalar kind survives its text form, awkward values included.
TEST(TextForm, RoundTripsEveryScalarKind) {
  const double inf = std::numeric_limits<double>::infinity();
  TProparray<std::uint32_t> colour(TPropSize{}, dt::rgb32);
  colour[0] = 0x00ABCDEF;
  const TProp values[] = {TProp(std::numeric_limits<std::int64_t>::min()),
                          TProp(std::numeric_limits<std::uint64_t>::max()),
                          TProp(std::int8_t{-128}),
                          TProp(std::uint16_t{65535}),
                          TProp(0.1),
                          TProp(-0.0),
                          TProp(inf),
                          TProp(-inf),
                          TProp(std::nan("")),
                          TProp(std::numeric_limits<double>::denorm_min()),
                          TProp(3.4e38f),
                          TProp(1e-45f),
                          TProp(std::complex<float>(1.5f, -inf)),
                          TProp(std::complex<double>(1e300, 5e-324)),
                          TProp(true),
                          TProp(false),
                          TProp(_s_tarn_RGB{0, 128, 255}),
                          TProp(std::move(colour)),
                          TProp("  blanks kept \n")};
  for (const TProp& value : values) {
    const std::string text = tarn_val2string(value);
    const TProp back = tarn_string2val(text, value.type_code());
    EXPECT_EQ(back.type_code(), value.type_code()) << text;
    EXPECT_EQ(back, value) << text;
    EXPECT_TRUE(std::signbit(TProp(-0.0).as<double>()));
  }
  EXPECT_EQ(tarn_val2string(TProp(-std::numeric_limits<double>::infinity())), "-Inf");
  EXPECT_EQ(tarn_val2string(TProp(std::nan(""))), "NaN");
  EXPECT_EQ(tarn_val2string(TProp(std::complex<double>(1, -2))), "1 -2");
  EXPECT_EQ(tarn_string2val("true", dt::logical), TProp(true));
  EXPECT_EQ(tarn_string2val("1e-400", dt::double_), TProp(0.0));
}

TEST(TextForm, RefusesWhatHasNoTextForm) {
  for (const TProp& value :
       {TProp(), TProp(TPropempty{}), TProp(TPropstruct{}), TProp::cell({}), doubles({1}, {1})}) {
    EXPECT_THROW_MESSAGE(tarn_val2string(value), std::runtime_error,
                         "Conversion of unknown type to string.");
  }
  for (const int type :
       {dt::none, dt::struct_, dt::cell, dt::empty, dt::cplx_int8, dt::double_ | dt::array_flag}) {
    EXPECT_THROW_MESSAGE(tarn_string2val("1", type), std::runtime_error,
                         "Conversion of string to invalid type.");
  }
  struct Bad {
    const char* text;
    int type;
  };
  for (const Bad& bad :
       {Bad{"256", dt::uint8}, Bad{"-1", dt::uint32}, Bad{"1.5", dt::int32},
        Bad{"1e999", dt::double_}, Bad{"", dt::double_}, Bad{"1 2 3", dt::cplx_double},
        Bad{"1 2", dt::rgb}, Bad{"yes", dt::logical}, Bad{"0x10", dt::int32}}) {
    EXPECT_THROW_MESSAGE(tarn_string2val(bad.text, bad.type), std::runtime_error,
                         std::string("Could not convert \"") + bad.text + "\" to target type");
  }
}

}  // namespace
