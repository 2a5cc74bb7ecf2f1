#include "tarnio/props/json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "tarnio/json/read_write.h"
#include "tarnio/props/cast.h"
#include "tarnio/props/compare.h"
#include "tarnio/props/path.h"
#include "tarnio/props/xml.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/random_prop.h"

namespace {

namespace dt = Tarn::dt;

bool equal_with_ids(const TProp& a, const TProp& b) {
  return Tarn::props::is_equal(a, b, Tarn::props::CompareTraits{.compare_ids = true});
}

TProp round_trip(const TProp& value, int indent = -1) {
  return tarn_import_json(tarn_export_json(value, indent));
}

// Random trees, some of them deep, round trip exactly in both layouts; the property XML form,
// written independently, gives the same trees back.
TEST(PropJson, RandomTreesRoundTripExactlyAndAgreeWithXml) {
  for (std::uint64_t seed = 0; seed < 400; ++seed) {
    Tarn::testing::RandomPropOptions options;
    if (seed % 20 == 0) options = {.max_depth = 9, .max_extent = 3};
    const TProp tree = Tarn::testing::RandomProp(seed, options)();
    const std::string text = tarn_export_json(tree);
    const TProp back = tarn_import_json(text);
    ASSERT_TRUE(equal_with_ids(tree, back)) << "seed " << seed << ": " << text;
    ASSERT_EQ(tarn_export_json(back), text) << "seed " << seed;
    ASSERT_TRUE(equal_with_ids(tree, round_trip(tree, 2))) << "seed " << seed;
    const TProp from_xml =
        tarn_import_xml(tarn_export_xml(tree, Tarn::props::xml_format::property));
    ASSERT_TRUE(equal_with_ids(back, from_xml)) << "seed " << seed << "\n"
                                                << tarn_export_json(tree, 2);
  }
}

// The text is written directly, not through JSON::Value; it must match JSON::write byte for
// byte in every layout.
TEST(PropJson, TextMatchesTheJsonLibrarysWriter) {
  std::string control;
  for (char c = 1; c < 0x20; ++c) control.push_back(c);
  control += "\x7f\\\"/\xC3\xA9";
  TProp extra;
  extra["text"] = TProp(control);
  extra["empty"] = TProp::cell({0});
  extra["nested"] = TProp::cell({1});
  extra["nested"](0) = TProp(TPropstruct());
  std::vector<TProp> trees = {extra, TProp(1e21), TProp(1e-7), TProp(-0.0), TProp(1.0f / 3)};
  for (std::uint64_t seed = 0; seed < 100; ++seed)
    trees.push_back(Tarn::testing::RandomProp(seed)());
  for (const TProp& tree : trees) {
    JSON::Value json;
    JSON::set_value(json, tree);
    for (const int indent : {-1, 0, 3}) {
      ASSERT_EQ(tarn_export_json(tree, indent), JSON::write(json, indent));
    }
  }
}

// is_equal takes 0.0 and -0.0 for equal; the sign must survive all the same.
TEST(PropJson, NegativeZeroKeepsItsSign) {
  TProparray<float> singles(TPropSize{2});
  singles[0] = -0.0f;
  TProparray<std::complex<double>> complexes(TPropSize{});
  complexes[0] = {-0.0, 0.0};
  for (const TProp& value :
       {TProp(-0.0), TProp(-0.0f), TProp(std::move(singles)), TProp(std::move(complexes))}) {
    const TProp back = round_trip(value);
    ASSERT_EQ(back.type_code(), value.type_code());
    const std::size_t size = tarn_dt_get_size(value.type_code() & dt::name_mask) * value.size();
    const auto* bytes = static_cast<const unsigned char*>(back.value_ptr());
    const auto* expected = static_cast<const unsigned char*>(value.value_ptr());
    EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + size),
              std::vector<unsigned char>(expected, expected + size))
        << tarn_export_json(value);
  }
}

TEST(PropJson, IdsAndUserBitsOfEveryKindRoundTrip) {
  std::vector<TProp> values = {TProp(),         TProp(TPropempty{}),  TProp("text"),
                               TProp(2.5),      TProp(TPropstruct()), TProp::cell({}),
                               TProp::cell({2})};
  for (const DataType kind : {dt::uint8, dt::int64, dt::logical, dt::rgb, dt::rgb32,
                              dt::cplx_single, dt::char_, dt::struct_, dt::double_}) {
    values.push_back(TProp::array(kind, {0, 3}));
  }
  values.push_back(TProp(std::int16_t{-3}));
  values.push_back(TProp::array(dt::int8, {std::uint64_t{1} << 62, 0, 5}));
  for (TProp& value : values) {
    value.set_id(std::numeric_limits<std::int64_t>::min());
    if (TProparrayBase* array = value.content() ? value.content()->array() : nullptr) {
      array->set_user_bits(0xFFFFFFFF);
    }
    EXPECT_TRUE(equal_with_ids(value, round_trip(value))) << tarn_export_json(value);
  }
}

// The tagged form as written, for one value of each shape of it.
TEST(PropJson, TaggedFormIsWrittenAsDocumented) {
  TProparray<std::int16_t> matrix(TPropSize{2, 3});
  for (std::int16_t i = 0; i < 6; ++i)
    matrix[static_cast<std::size_t>(i)] = static_cast<std::int16_t>(i - 3);
  TProp with_id(1.0);
  with_id.set_id(7);
  TPropstruct escaped;
  escaped.set("_-abc", TProp(1.0));
  TProparray<_s_tarn_RGB> colours(TPropSize{1});
  colours[0] = {1, 2, 255};
  TProp rgb32 = TProp::array(dt::rgb32, {});
  rgb32.get<TProparray<std::uint32_t>>()[0] = 0x00332211;
  TProparray<std::complex<float>> complexes(TPropSize{});
  complexes[0] = {0.1f, -std::numeric_limits<float>::infinity()};
  TProp cell = TProp::cell({2});
  cell(0) = TProp(1.0);
  cell(1) = TProp(2.0);

  const std::vector<std::pair<TProp, std::string>> cases = {
      {TProp(std::move(matrix)), R"({"#type":"int16","#size":[2,3],"#data":[-3,-2,-1,0,1,2]})"},
      {TProp(std::numeric_limits<double>::quiet_NaN()), R"({"#type":"double","#data":"NaN"})"},
      {TProp(0.1f), R"({"#type":"single","#data":0.1})"},
      {with_id, R"({"#type":"double","#id":7,"#data":1.0})"},
      {TProp(), R"({"#type":"none"})"},
      {TProp(TPropempty{}), "null"},
      {TProp(TPropstruct(escaped)), R"({"#type":"struct","#data":{"_-abc":1.0}})"},
      {TProp(std::move(colours)), R"({"#type":"rgb","#size":[1],"#data":[[1,2,255]]})"},
      {rgb32, R"({"#type":"rgb32","#data":3351057})"},
      {TProp(std::move(complexes)), R"({"#type":"cplx_single","#data":[0.1,"-Inf"]})"},
      {cell, R"({"#type":"cell","#size":[2],"#data":[1.0,2.0]})"},
      {TProp::cell({}), R"({"#type":"cell","#data":{"#type":"none"}})"},
      {TProp::array(dt::double_, {0, 3}), R"({"#type":"double","#size":[0,3],"#data":[]})"},
      {TProp(std::int64_t{5}), R"({"#type":"int64","#data":5})"},
      {TProp(std::int64_t{9007199254740993}), "9007199254740993"},
      {TProp(std::uint64_t{9007199254740993}), R"({"#type":"uint64","#data":9007199254740993})"},
  };
  for (const auto& [value, text] : cases) {
    EXPECT_EQ(tarn_export_json(value), text);
    EXPECT_TRUE(equal_with_ids(value, tarn_import_json(text))) << text;
  }
}

// Plain JSON reads as the natural kinds and writes back as an equal document.
TEST(PropJson, PlainDocumentsImportNaturallyAndRoundTrip) {
  struct Case {
    std::string text;
    DataType type;
    TPropSize shape;  // of arrays
  };
  const std::vector<Case> cases = {
      {"null", dt::empty, {}},
      {"true", dt::logical, {}},
      {"-0", dt::double_, {}},
      {"1e300", dt::double_, {}},
      {"5e-324", dt::double_, {}},
      {"9007199254740993", dt::int64, {}},
      {"-9223372036854775807", dt::int64, {}},
      {"9223372036854775808", dt::double_, {}},
      {"18446744073709551615", dt::uint64, {}},
      {R"("caf\u00e9 \ud83d\udd2c")", dt::char_, {}},
      {"[]", dt::double_ | dt::array_flag, {0}},
      {"[1, 2.5, -3]", dt::double_ | dt::array_flag, {3}},
      {"[true, false]", dt::logical | dt::array_flag, {2}},
      {R"(["a", ""])", dt::char_ | dt::array_flag, {2}},
      {R"([{"a": 1}, {"b": [2]}])", dt::struct_ | dt::array_flag, {2}},
      {R"([1, "a", null, [true], {}])", dt::cell | dt::array_flag, {5}},
      {"[[1, 2], [3, 4]]", dt::cell | dt::array_flag, {2}},
      {"[1.5, 9007199254740993]", dt::cell | dt::array_flag, {2}},
      {"[null]", dt::cell | dt::array_flag, {1}},
      {"[[]]", dt::cell | dt::array_flag, {1}},
      {"{}", dt::struct_, {}},
      {R"({"a": {"b": {"c": [null, {"d": false}]}}, "e": "x"})", dt::struct_, {}},
      {R"({"my key": 1, "1abc": 2, "": 3, "_-x": 4, "#note": 5, "a-b": 6, "\u00e9": 7})",
       dt::struct_,
       {}},
  };
  for (const Case& c : cases) {
    const TProp value = tarn_import_json(c.text);
    EXPECT_EQ(value.type_code(), c.type) << c.text;
    if (value.is_array()) {
      EXPECT_EQ(value.get_arr()->shape(), c.shape) << c.text;
    }
    const JSON::Value again = JSON::read(tarn_export_json(value));
    EXPECT_EQ(again, JSON::read(c.text)) << c.text << " came back as " << JSON::write(again);
  }
}

TEST(PropJson, KeysThatAreNoNamesAreEscapedReversibly) {
  const TProp value =
      tarn_import_json(R"({"my key": 1, "1abc": 2, "": 3, "_-x": 4, "ok_1-2": 5, "\u00e9": 6})");
  std::vector<std::string> names;
  for (const auto& member : value.get<TPropstruct>()) names.push_back(member.first);
  EXPECT_EQ(names, (std::vector<std::string>{"_-my-20key", "_-1abc", "_-", "_-_-2Dx", "ok_1-2",
                                             "_--C3-A9"}));
  for (const std::string& name : names) EXPECT_TRUE(tarn_prop_is_valid_name(name)) << name;
  EXPECT_EQ(value["_-my-20key"].as<double>(), 1.0);
}

// A member name that looks escaped but is not what escaping makes keeps the struct tagged.
TEST(PropJson, EscapeLookalikeNamesForceTheTaggedForm) {
  for (const char* name : {"_-abc", "_--2d", "_--41", "_--FF", "_--C3", "_-a-"}) {
    TPropstruct members;
    members.set(name, TProp(1.0));
    const TProp value(members);
    const std::string text = tarn_export_json(value);
    EXPECT_NE(text.find(R"("#type":"struct")"), std::string::npos) << name << ": " << text;
    EXPECT_TRUE(equal_with_ids(value, tarn_import_json(text))) << text;
  }
}

TEST(PropJson, MalformedTaggedValuesAreRefused) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"({"#type": "int17", "#data": 1})", "Invalid property JSON: Unknown type 'int17'."},
      {R"({"#type": 16, "#data": 1})",
       "Invalid property JSON: '#type' must be a string, found number."},
      {R"({"#type": "cplx_uint8", "#data": 1})",
       "Invalid property JSON: Unknown type 'cplx_uint8'."},
      {R"({"#type": "int8"})", "Invalid property JSON: Missing '#data' for type 'int8'."},
      {R"({"#type": "int8", "#data": 1, "#extra": 2})",
       "Invalid property JSON: Unknown key '#extra' in a tagged value."},
      {R"({"#type": "none", "#data": 1})",
       "Invalid property JSON: '#data' does not belong to type 'none'."},
      {R"({"#type": "empty", "#size": [1]})",
       "Invalid property JSON: '#size' does not belong to type 'empty'."},
      {R"({"#type": "int16", "#size": [2, 3], "#data": [1, 2, 3]})",
       "Invalid property JSON: '#size' [2,3] holds 6 elements but '#data' holds 3."},
      {R"({"#type": "uint8", "#size": [100000, 100000], "#data": []})",
       "Invalid property JSON: '#size' [100000,100000] holds 10000000000 elements but '#data' "
       "holds 0."},
      {R"({"#type": "uint8", "#size": [1000000000, 1000000000], "#data": []})",
       "Invalid property JSON: '#size' [1000000000,1000000000] holds more elements than can be "
       "addressed."},
      {R"({"#type": "uint8", "#size": [4294967296, 4294967296, 0], "#data": []})",
       "Invalid property JSON: '#size' [4294967296,4294967296,0] holds more elements than can "
       "be addressed."},
      {R"({"#type": "uint8", "#size": [], "#data": []})",
       "Invalid property JSON: '#size' must be a non-empty list of non-negative integers, found "
       "[]."},
      {R"({"#type": "uint8", "#size": [-1], "#data": []})",
       "Invalid property JSON: '#size' must be a non-empty list of non-negative integers, found "
       "[-1]."},
      {R"({"#type": "uint8", "#size": [1], "#data": 1})",
       "Invalid property JSON: '#data' of an array must be a list, found number."},
      {R"({"#type": "uint8", "#data": 256})",
       "Invalid property JSON at '/#data': Number 256 does not fit 'uint8'."},
      {R"({"#type": "int64", "#data": 9223372036854775808})",
       "Invalid property JSON at '/#data': Number 9223372036854775808 does not fit 'int64'."},
      {R"({"#type": "int32", "#size": [2], "#data": [1, 1.5]})",
       "Invalid property JSON at '/#data/1': Number 1.5 does not fit 'int32'."},
      {R"({"#type": "single", "#data": 1e39})",
       "Invalid property JSON at '/#data': Number 1e+39 does not fit 'single'."},
      {R"({"#type": "double", "#data": "nan"})",
       R"(Invalid property JSON at '/#data': Expected a number, "NaN", "Inf" or "-Inf" for )"
       R"('double', found "nan".)"},
      {R"({"#type": "logical", "#data": 1})",
       "Invalid property JSON at '/#data': Expected true or false for 'logical', found number."},
      {R"({"#type": "cplx_double", "#data": [1]})",
       "Invalid property JSON at '/#data': Expected a list of two numbers (real, imaginary) for "
       "'cplx_double', found a list of 1."},
      {R"({"#type": "rgb", "#data": [1, 2, 300]})",
       "Invalid property JSON at '/#data': Number 300 does not fit 'rgb'."},
      {R"({"#type": "char", "#data": 1})",
       "Invalid property JSON at '/#data': Expected a string for 'char', found number."},
      {R"({"#type": "struct", "#data": []})",
       "Invalid property JSON at '/#data': Expected an object for 'struct', found list."},
      {R"({"#type": "struct", "#data": {"a b": 1}})",
       "Invalid property JSON at '/#data/a b': Invalid struct member name 'a b'."},
      {R"({"#type": "char", "#data": "x", "#bits": 1})",
       "Invalid property JSON: '#bits' does not belong to a single 'char'."},
      {R"({"#type": "int8", "#data": 1, "#bits": -1})",
       "Invalid property JSON: '#bits' must be an unsigned 32-bit integer, found -1."},
      {R"({"#type": "int8", "#data": 1, "#id": "x"})",
       "Invalid property JSON: '#id' must be a signed 64-bit integer, found \"x\"."},
      {R"({"a/b~": [0, {"#type": "cell", "#data": {"#type": "x"}}]})",
       "Invalid property JSON at '/a~1b~0/1/#data': Unknown type 'x'."},
  };
  for (const auto& [text, message] : cases) {
    EXPECT_THROW_MESSAGE(tarn_import_json(text), std::runtime_error, message);
  }
}

TEST(PropJson, MalformedTextGivesTheReadersMessage) {
  for (const char* text : {"", "{", "[1,]", "NaN", R"({"a": 1, "a": 2})"}) {
    std::string expected;
    try {
      JSON::read(text);
    } catch (const std::runtime_error& error) {
      expected = error.what();
    }
    ASSERT_FALSE(expected.empty()) << text;
    EXPECT_THROW_MESSAGE(tarn_import_json(text), std::runtime_error, expected);
  }
}

TEST(PropJson, NestingIsLimited) {
  const auto nested_lists = [](int levels) {
    return std::string(static_cast<std::size_t>(levels), '[') +
           std::string(static_cast<std::size_t>(levels), ']');
  };
  EXPECT_NO_THROW(tarn_import_json(nested_lists(Tarn::props::kMaxXmlDepth)));
  EXPECT_THROW_MESSAGE(tarn_import_json(nested_lists(Tarn::props::kMaxXmlDepth + 1)),
                       std::runtime_error, "Property JSON nested deeper than 1000 levels.");

  TProp deep;
  TProp* innermost = &deep;
  for (int level = 1; level < Tarn::props::kMaxXmlDepth + 1; ++level) {
    *innermost = TProp::cell({});
    innermost = &(*innermost)(0);
  }
  EXPECT_THROW_MESSAGE(tarn_export_json(deep), std::runtime_error,
                       "Property JSON nested deeper than 1000 levels.");
}

TEST(PropJson, TreesThatJsonCannotCarryAreRefusedWithTheirLocation) {
  TProp bad_text;
  bad_text["a"] = TProp::cell({2});
  bad_text["a"](1) = TProp(std::string("\xC3"));
  EXPECT_THROW_MESSAGE(tarn_export_json(bad_text), std::runtime_error,
                       "Cannot write the property value at 'a{1}' as JSON: text is not valid "
                       "UTF-8.");
  TPropstruct bad_name;
  bad_name.set("a b", TProp(1.0));
  EXPECT_THROW_MESSAGE(tarn_export_json(TProp(bad_name)), std::runtime_error,
                       "Cannot write the property value at 'a b' as JSON: invalid struct member "
                       "name.");
}

TEST(PropJson, ValuesConvertWithoutText) {
  JSON::Value json =
      JSON::Value::object({{"n", JSON::Value(5u)},
                           {"x", JSON::Value(std::numeric_limits<double>::infinity())},
                           {"list", JSON::Value::list({1, 2})}});
  TProp value;
  JSON::get_value(json, value);
  EXPECT_EQ(value["n"], TProp(5.0));
  EXPECT_EQ(value["x"], TProp(std::numeric_limits<double>::infinity()));
  JSON::Value back;
  JSON::set_value(back, value);
  EXPECT_EQ(back.at("x"), JSON::Value::object({{"#type", "double"}, {"#data", "Inf"}}));
  EXPECT_EQ(back.at("list"), json.at("list"));
}

}  // namespace
