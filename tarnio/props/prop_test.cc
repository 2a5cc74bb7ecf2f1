#include "tarnio/props/prop.h"

#include <gtest/gtest.h>

#include <complex>
#include <cstdint>
#include <string>
#include <vector>

#include "tarnio/props/compare.h"
#include "tarnio/props/path.h"
#include "tarnio/props/type_names.h"
#include "tarnio/props/value_reference.h"
#include "tarnio/testing/expect_throw_message.h"

namespace {

namespace dt = Tarn::dt;
using Tarn::props::ignore_errors;

constexpr auto npos = TProparrayBase::npos;

TEST(TProp, ConstructorsPickTheKind) {
  struct Case {
    TProp value;
    DataType code;
  };
  const Case cases[] = {
      {TProp(), dt::none},
      {TProp("text"), dt::char_},
      {TProp(L"wide"), dt::char_},
      {TProp(std::string("s")), dt::char_},
      {TProp(std::wstring(L"s")), dt::char_},
      {TProp(5), dt::int32},
      {TProp(5LL), dt::int64},
      {TProp(static_cast<unsigned char>(5)), dt::uint8},
      {TProp(static_cast<short>(5)), dt::int16},
      {TProp(5UL), dt::uint64},
      {TProp(true), dt::logical},
      {TProp(1.5f), dt::single},
      {TProp(1.5), dt::double_},
      {TProp(std::complex<float>(1, 2)), dt::cplx_single},
      {TProp(_s_tarn_RGB{1, 2, 3}), dt::rgb},
      {TProp(TPropstruct()), dt::struct_},
      {TProp(TPropempty()), dt::empty},
      {TProp::array(dt::double_, {2, 3}), dt::double_ | dt::array_flag},
      {TProp::array(dt::double_, {}), dt::double_},
      {TProp::array(dt::struct_, {}), dt::struct_},
      {TProp::array(dt::struct_, {2}), dt::struct_ | dt::array_flag},
      {TProp::array(dt::char_, {}), dt::char_},
      {TProp::array(dt::rgb32, {4}), dt::rgb32 | dt::array_flag},
      {TProp::cell({}), dt::cell},
      {TProp::cell({0, 3}), dt::cell | dt::array_flag},
  };
  for (const Case& c : cases) EXPECT_EQ(c.value.type_code(), c.code) << c.code;
  EXPECT_EQ(TProp(L"\u00e9\u20ac").get<TPropstring>().to_utf8(), "\xC3\xA9\xE2\x82\xAC");
  EXPECT_THROW_MESSAGE(TProp::array(dt::cplx_int8, {2}), std::runtime_error,
                       "Type unknown or incompatible with property arrays.");
}

TEST(TProp, SizesPointersAndArrayAccess) {
  TProp none;
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(none.value_ptr(), nullptr);
  EXPECT_EQ(none.type(), typeid(void));

  TProp scalar(2.5);
  EXPECT_EQ(scalar.size(), 1u);
  EXPECT_EQ(*static_cast<const double*>(scalar.value_ptr()), 2.5);
  EXPECT_EQ(scalar.get_arr(false), nullptr);
  EXPECT_THROW_MESSAGE(scalar.get_arr(), std::runtime_error,
                       "Type mismatch: expected 'array' type.");
  EXPECT_EQ(scalar.as<int>(), 2);

  TProp matrix = TProp::array(dt::int16, {3, 0});
  EXPECT_TRUE(matrix.empty());
  EXPECT_EQ(matrix.get_arr()->get_size(), (TPropSize{3, 0}));
  EXPECT_EQ(TProp::array(dt::int16, {4}).get_arr()->get_size(true), (TPropSize{4, 1}));
  EXPECT_EQ(TProp("abc").size(), 3u);
  EXPECT_TRUE(TProp("").empty());
  EXPECT_FALSE(TProp(TPropstruct()).empty());
  EXPECT_THROW_MESSAGE(matrix.get<TPropstruct>(), std::runtime_error,
                       "Type mismatch: expected 'struct' type.");
  EXPECT_THROW_MESSAGE(matrix.get<TProparray<double>>(), std::runtime_error,
                       "Type mismatch: expected 'double' type.");
}

TEST(TProp, CopiesAreDeepAndShareTheInfo) {
  TPropstruct members;
  members.set("a", TProp::array(dt::double_, {2}));
  TProp original(members);
  original.set_id(7);
  original.get_info()->unit = "um";
  TProp copy = original;
  copy.s().find("a")->second.get<TProparray<double>>()[0] = 1;
  EXPECT_EQ(original.s().find("a")->second.get<TProparray<double>>()[0], 0);
  EXPECT_EQ(copy.get_id(), 7);
  copy.get_info()->description = "shared";
  EXPECT_EQ(original.get_info()->description, "shared");
  copy.set_info(std::make_shared<TPropInfo>());
  EXPECT_EQ(original.get_info()->unit, "um");

  TProp moved = std::move(copy);
  EXPECT_EQ(moved.type_code(), dt::struct_);
  EXPECT_EQ(copy.type_code(), dt::none);  // NOLINT(bugprone-use-after-move): moved from is none
}

TEST(TProp, DeepTreesCopyCompareOwnAndDestroyWithoutRecursion) {
  // Structs, cells and struct arrays in turn, deeper than the call stack could follow.
  std::string path = "m";
  for (int level = 0; level < 70000; ++level) path += "{1}(0).m";
  TProp original;
  original.getp(path, true) = TProp(1.0);
  TProp copy = original;
  EXPECT_EQ(copy, original);
  copy.getp(path) = TProp(2.0);
  EXPECT_FALSE(Tarn::props::is_equal(copy, original, {.ignore_member_order = true}));
  copy.own();
  EXPECT_TRUE(tarn_prop_is_valid_path(path));
}

TEST(TProp, SwapClearAndLock) {
  TProp a(1), b("x");
  a.swap_value(b);
  EXPECT_EQ(a.type_code(), dt::char_);
  EXPECT_EQ(b.type_code(), dt::int32);
  b.lock();
  EXPECT_THROW_MESSAGE(b.clear(), std::runtime_error, "Property is locked.");
  EXPECT_THROW_MESSAGE(b = TProp(2.0), std::runtime_error, "Property is locked.");
  EXPECT_THROW_MESSAGE(a.swap_value(b), std::runtime_error, "Property is locked.");
  EXPECT_EQ(b.as<int>(), 1);
  EXPECT_FALSE(TProp(b).is_locked());
  a.swap(b);  // the lock goes with the value
  EXPECT_TRUE(a.is_locked());
  EXPECT_FALSE(b.is_locked());
  b.clear();
  EXPECT_EQ(b.type_code(), dt::none);
}

TEST(TProp, BorrowedArraysViewCallerMemoryUntilOwned) {
  std::vector<std::uint16_t> pixels = {1, 2, 3, 4, 5, 6};
  TProp view = TProp::borrow(pixels.data(), {2, 3});
  EXPECT_EQ(view.value_ptr(), pixels.data());
  TProp copy = view;
  pixels[0] = 9;
  EXPECT_EQ(view.get<TProparray<std::uint16_t>>()[0], 9);
  EXPECT_EQ(copy.get<TProparray<std::uint16_t>>()[0], 1);
  TPropstruct holder_of_view;
  holder_of_view.set("view", view);
  TProp tree(holder_of_view);
  tree.own();
  view.own();
  pixels[0] = 10;
  EXPECT_NE(view.value_ptr(), pixels.data());
  EXPECT_EQ(view.get<TProparray<std::uint16_t>>()[0], 9);
  EXPECT_EQ(view.get_arr()->get_size(), (TPropSize{2, 3}));
}

TEST(TProparrayBase, LinearIndexFollowsColumnMajorOrder) {
  TProparray<int> array(TPropSize{2, 3, 4});
  for (std::uint64_t index = 0; index < 24; ++index) {
    const TPropSize position = array.get_pos(index);
    EXPECT_EQ(position[0] + 2 * position[1] + 6 * position[2], index);
    EXPECT_EQ(array.get_idx(position), index);
  }
  EXPECT_EQ(TProparray<int>(TPropSize{5}).get_pos(4), (TPropSize{4}));
  std::string error;
  EXPECT_TRUE(TProparray<int>(TPropSize{0, 3}).get_pos(1, &error).empty());
  EXPECT_EQ(error, "Invalid size entry in TProparrayBase.");
}

TEST(TProparrayBase, IndexErrorsGoToTheSink) {
  TProparray<int> array(TPropSize{3, 2});
  struct Case {
    TPropSize position;
    bool grow;
    const char* message;
  };
  const Case cases[] = {
      {{1}, false, "Input rank '1' too low (< '2')."},
      {{1}, true, "Input rank '1' too low (< '2')."},
      {{0, 0, 0}, false, "Input rank '3' too high (> '2')."},
      {{3, 0}, false, "Index 0 out of bounds. (3 >= 3)"},
      {{0, 2}, false, "Index 1 out of bounds. (2 >= 2)"},
      {{3, 1}, true, "Index 0 out of bounds. (3 >= 3)"},  // only the last dimension grows
  };
  for (const Case& c : cases) {
    std::string error;
    EXPECT_EQ(array.get_idx(c.position, c.grow, &error), npos);
    EXPECT_EQ(error, c.message);
    EXPECT_EQ(array.get_idx(c.position, c.grow, ignore_errors), npos);
    EXPECT_THROW_MESSAGE(array.get_idx(c.position, c.grow), std::runtime_error, c.message);
  }
  EXPECT_EQ(array.shape(), (TPropSize{3, 2}));
  std::string error;
  // Growth never wraps: the all-ones coordinate would need a size of 2^64.
  for (const TPropSize& position : {TPropSize{0, std::uint64_t{1} << 40}, TPropSize{0, npos},
                                    TPropSize{0, 0, npos}, TPropSize{0, npos - 1}}) {
    EXPECT_EQ(array.get_idx(position, true, &error), npos);
    EXPECT_NE(error.find("exceeds the limit"), std::string::npos) << error;
    EXPECT_EQ(array.shape(), (TPropSize{3, 2}));
  }
}

TEST(TProparrayBase, GrowingKeepsElementsInPlace) {
  TProparray<int> array(TPropSize{3, 2});
  for (std::size_t i = 0; i < 6; ++i) array[i] = static_cast<int>(i + 1);
  EXPECT_EQ(array.get_idx({2, 2}, true), 8u);
  EXPECT_EQ(array.shape(), (TPropSize{3, 3}));
  EXPECT_EQ(array[5], 6);
  EXPECT_EQ(array[8], 0);
  EXPECT_EQ(array.get_idx({0, 0, 1}, true), 9u);  // a new last dimension
  EXPECT_EQ(array.shape(), (TPropSize{3, 3, 2}));

  TProparray<int> empty(TPropSize{0, 0});
  EXPECT_EQ(empty.get_idx({4, 1}, true), 9u);  // an empty array grows in any dimension
  EXPECT_EQ(empty.shape(), (TPropSize{5, 2}));
}

TEST(TProparrayBase, SetSizeModes) {
  TProparray<int> array(TPropSize{2, 3});
  array[5] = 7;
  EXPECT_THROW_MESSAGE(array.set_size({4, 2}, 1), std::runtime_error,
                       "Invalid array shape: Size does not match number of elements.");
  EXPECT_EQ(array.shape(), (TPropSize{2, 3}));
  array.set_size({6}, 1);
  EXPECT_EQ(array.shape(), (TPropSize{6}));
  array.set_size({1, 8}, 2);
  EXPECT_EQ(array.element_count(), 8u);
  EXPECT_EQ(array[5], 7);
  array.set_size({2, 4}, 3, true);
  EXPECT_EQ(array[5], 0);
  array.set_size({100}, 0);  // stored as given
  EXPECT_EQ(array.shape(), (TPropSize{100}));
  EXPECT_EQ(array.element_count(), 8u);
  EXPECT_THROW_MESSAGE(array.set_size({}, 2), std::runtime_error,
                       "Invalid size vector in property array.");
}

TEST(TProparrayBase, StaticHelpers) {
  EXPECT_EQ(TProparrayBase::val2pos(1, 2, npos, 4), (TPropSize{1, 2}));
  EXPECT_EQ(TProparrayBase::size({2, 3, 4}), 24u);
  EXPECT_EQ(TProparrayBase::size({}), 1u);
  EXPECT_THROW(TProparrayBase::size({std::uint64_t{1} << 40, std::uint64_t{1} << 40}),
               std::runtime_error);
  EXPECT_NO_THROW(TProparrayBase::throw_if_not_equal({1, 2}, {1, 2}));
  EXPECT_THROW_MESSAGE(TProparrayBase::throw_if_not_equal({1, 2}, {2, 1}), std::runtime_error,
                       "Invalid array shape: Size does not match number of elements.");
}

TEST(TProp, CellAndStructArrayIndexing) {
  TProp cells = TProp::cell({2, 2});
  cells(1, 1) = TProp("corner");
  EXPECT_EQ(cells.get<TProparray<TProp>>()[3].get<TPropstring>().to_utf8(), "corner");
  EXPECT_THROW_MESSAGE(cells(2, 0), std::runtime_error, "Index 0 out of bounds. (2 >= 2)");
  EXPECT_THROW_MESSAGE(cells(0), std::runtime_error, "Input rank '1' too low (< '2').");

  TProp single = TProp::cell({});
  single(0) = TProp(1);
  EXPECT_EQ(single(0, 0).as<int>(), 1);
  EXPECT_THROW_MESSAGE(single(1), std::runtime_error, "Index 0 out of bounds. (1 >= 1)");

  TProp structs = TProp::array(dt::struct_, {3});
  structs.s(2).set("x", TProp(3));
  EXPECT_EQ(structs.get<TProparray<TPropstruct>>()[2].find("x")->second.as<int>(), 3);
  TProp one(TPropstruct{});
  EXPECT_NO_THROW(one.s(0, 0));
  EXPECT_THROW_MESSAGE(TProp(1.0).s(), std::runtime_error,
                       "Type mismatch: expected 'struct' type.");
  EXPECT_THROW_MESSAGE(TProp(1.0)(0), std::runtime_error, "Type mismatch: expected 'cell' type.");
}

TEST(TPropstruct, MembersKeepInsertionOrder) {
  TPropstruct members;
  for (const char* name : {"z", "a", "m"}) members.set(name, TProp(name));
  members.set("a", TProp(1));  // replaced in place
  std::vector<std::string> names;
  for (const auto& [name, value] : members) names.push_back(name);
  EXPECT_EQ(names, (std::vector<std::string>{"z", "a", "m"}));
  EXPECT_EQ(members.find("a")->second.type_code(), dt::int32);
  EXPECT_TRUE(members.erase("z"));
  EXPECT_FALSE(members.erase("z"));
  EXPECT_FALSE(members.has_key("z"));
  EXPECT_EQ(members.begin()->first, "a");
}

// Large structs find members through their hash index; it must agree with the order of members
// through inserts, replacements and erasures.
std::string member_name(int i) {
  std::string name = "m";  // appended, not "m" + ...: g++ 12 warns falsely on that at -O2
  name += std::to_string(i);
  return name;
}

TEST(TPropstruct, IndexedLookupAgreesWithMemberOrder) {
  TPropstruct members;
  for (int i = 0; i < 1000; ++i) members.set(member_name(i), TProp(i));
  for (int i = 0; i < 1000; i += 3) EXPECT_TRUE(members.erase(member_name(i)));
  for (int i = 0; i < 1000; i += 2) members.set(member_name(i), TProp(-i));
  int position = 0;
  for (const auto& [name, value] : members) {
    const auto found = members.find(name);
    ASSERT_NE(found, members.end()) << name;
    EXPECT_EQ(found - members.begin(), position++);
    EXPECT_EQ(found->second, value);
  }
  EXPECT_EQ(members.size(), 1000u - 334u + 167u);
  EXPECT_EQ(members.find("m3"), members.end());
  EXPECT_EQ(members.find("m6")->second.as<int>(), -6);
  EXPECT_EQ(members.find("m7")->second.as<int>(), 7);
  TPropstruct copy = members;
  EXPECT_EQ(copy.find("m997")->second.as<int>(), 997);
}

TEST(TypeNames, TableOrderAndLookups) {
  const auto& names = Tarn::props::type_names();
  ASSERT_EQ(names.size(), 27u);
  const std::pair<std::size_t, const char*> expected[] = {
      {0, "logical"}, {1, "cplx_logical"}, {2, "uint8"}, {3, "cplx_uint8"},
      {10, "int8"},   {21, "cplx_double"}, {26, "none"}};
  for (const auto& [index, name] : expected) EXPECT_EQ(names[index].second, name);
  EXPECT_EQ(Tarn::props::type_name(dt::single | dt::array_flag), "single");
  EXPECT_THROW_MESSAGE(Tarn::props::type_name(dt::rgb), std::runtime_error,
                       "Map entry not found and no default specified.");
  EXPECT_EQ(Tarn::props::type_name(dt::rgb, "rgb"), "rgb");
}

TEST(ValueReference, ViewsInPlace) {
  TProp value = TProp::array(dt::single, {2});
  Tarn::props::ValueReference view(value);
  view.get<TProparray<float>>()[1] = 4.5f;
  EXPECT_EQ(value.get<TProparray<float>>()[1], 4.5f);
  EXPECT_EQ(view.type_code(), dt::single | dt::array_flag);
  // The message names the class asked for, not the one held.
  EXPECT_THROW_MESSAGE(view.get<TProparray<double>>(), std::runtime_error,
                       "Type mismatch: expected 'double' type.");
  TPropstring text("t");
  Tarn::props::ValueReference raw(&text, dt::char_);
  EXPECT_EQ(raw.get<TPropstring>().to_utf8(), "t");
  EXPECT_THROW(Tarn::props::ValueReference(TProp().content()).get<TPropstring>(),
               std::runtime_error);
}

}  // namespace
