#include "tarnio/arrays/data_type.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <complex>
#include <cstdint>
#include <string>
#include <typeinfo>
#include <utility>

#include "tarnio/props/prop.h"

namespace {

namespace dt = Tarn::dt;

struct Row {
  std::uint32_t code;
  const char* name;
  std::size_t size;
};

// The codes as they are stored in files, written out independently of the constants.
constexpr Row kTable[] = {
    {0x00000000, "none", 0},        {0x00000001, "uint8", 1},        {0x00000002, "int8", 1},
    {0x00000004, "uint16", 2},      {0x00000008, "int16", 2},        {0x00000010, "uint32", 4},
    {0x00000020, "int32", 4},       {0x00000040, "single", 4},       {0x00000080, "double", 8},
    {0x00000400, "none", 3},        {0x00000800, "none", 4},         {0x00001000, "uint64", 8},
    {0x00002000, "int64", 8},       {0x00004000, "cell", 0},         {0x00008000, "struct", 0},
    {0x00010000, "logical", 1},     {0x00020000, "char", 0},         {0x00040000, "empty", 0},
    {0x40000001, "cplx_uint8", 0},  {0x40000002, "cplx_int8", 0},    {0x40000004, "cplx_uint16", 0},
    {0x40000008, "cplx_int16", 0},  {0x40000010, "cplx_uint32", 0},  {0x40000020, "cplx_int32", 0},
    {0x40000040, "cplx_single", 8}, {0x40000080, "cplx_double", 16}, {0x40001000, "cplx_uint64", 0},
    {0x40002000, "cplx_int64", 0},  {0x40010000, "cplx_logical", 0},
};

DataType code(std::uint32_t bits) { return static_cast<DataType>(bits); }

TEST(DataTypeTable, NamesSizesAndListAgreeWithTheStoredCodes) {
  const auto all = Tarn::arrays::all_data_types();
  ASSERT_EQ(all.size(), std::size(kTable));
  for (std::size_t i = 0; i < all.size(); ++i) {
    const Row& row = kTable[i];
    SCOPED_TRACE(row.name);
    EXPECT_EQ(all[i], code(row.code));
    EXPECT_STREQ(tarn_dt_get_name(code(row.code)), row.name);
    EXPECT_EQ(tarn_dt_get_size(code(row.code)), row.size);
    EXPECT_STRNE(Tarn::arrays::data_type_description(code(row.code)), "unknown");
    const bool property_class =
        code(row.code) == dt::cell || code(row.code) == dt::struct_ || code(row.code) == dt::char_;
    EXPECT_EQ(tarn_dt_get_type(code(row.code)) != typeid(void), row.size != 0 || property_class);
    // A named code round-trips through its name; the array flag changes the size only.
    if (std::string(row.name) != "none") {
      EXPECT_EQ(tarn_dt_from_name(row.name), code(row.code));
    }
    EXPECT_STREQ(tarn_dt_get_name(code(row.code | 0x80000000u)), row.name);
    EXPECT_EQ(tarn_dt_get_size(code(row.code | 0x80000000u)), 0u);
  }
}

TEST(DataTypeTable, OddCodesAndNames) {
  for (const DataType odd : {DataType{3}, dt::complex_flag, dt::array_flag}) {
    EXPECT_STREQ(tarn_dt_get_name(odd), "none") << odd;
    EXPECT_EQ(tarn_dt_get_size(odd), 0u) << odd;
  }
  EXPECT_STREQ(Tarn::arrays::data_type_description(3), "unknown");
  for (const char* name : {"Single", "single ", "none", "", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(tarn_dt_from_name(name), 0) << (name ? name : "null");
  }
}

TEST(DataTypeTable, ValueTypes) {
  // clang-format off
  const std::pair<DataType, const std::type_info&> kTypes[] = {
      {dt::uint8, typeid(std::uint8_t)}, {dt::int64, typeid(std::int64_t)},
      {dt::single, typeid(float)}, {dt::logical, typeid(bool)}, {dt::rgb, typeid(_s_tarn_RGB)},
      {dt::rgb32, typeid(std::uint32_t)}, {dt::cplx_single, typeid(std::complex<float>)},
      {dt::cplx_double, typeid(std::complex<double>)}, {dt::empty, typeid(void)},
      {dt::cplx_uint8, typeid(void)}, {DataType{3}, typeid(void)},
      {dt::cell, typeid(TProp)}, {dt::struct_, typeid(TPropstruct)}, {dt::char_, typeid(TPropstring)},
      {dt::array_flag | dt::double_, typeid(TProparray<double>)},
      {dt::array_flag | dt::rgb32, typeid(TProparray<std::uint32_t>)},
      {dt::array_flag | dt::struct_, typeid(TProparray<TPropstruct>)},
      {dt::array_flag | dt::cplx_uint8, typeid(void)}, {dt::array_flag, typeid(void)}};
  // clang-format on
  for (const auto& [code, type] : kTypes) EXPECT_EQ(tarn_dt_get_type(code), type) << code;
}

}  // namespace
