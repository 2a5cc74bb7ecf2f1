#include <gtest/gtest.h>

#include <complex>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tarnio/props/compare.h"
#include "tarnio/props/prop.h"
#include "tarnio/props/xml.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/random_prop.h"
#include "tarnio/testing/xml_dialect_testing.h"

namespace Tarn::props {
namespace {

using testing::array_of;
using testing::struct_of;

constexpr CompareTraits kExact{.compare_ids = true};
constexpr const char* kSizeMismatch =
    "Invalid array shape: Size does not match number of elements.";

TProp round_trip(const TProp& value) { return tarn_import_xml(tarn_export_xml(value, 2), 2); }

void expect_round_trip(const TProp& value) {
  const std::string xml = tarn_export_xml(value, 2);
  TProp back;
  try {
    back = tarn_import_xml(xml, 2);
  } catch (const std::runtime_error& error) {
    ADD_FAILURE() << error.what() << "\n" << xml;
    return;
  }
  EXPECT_TRUE(is_equal(value, back, kExact)) << xml << "\nread back as\n"
                                             << tarn_export_xml(back, 2);
}

std::string document(const std::string& value) {
  return "<root tprop_version=\"1\">" + value + "</root>";
}

TEST(PropertyXml, WritesTheDocumentedLayout) {
  TProp gain(1.5);
  gain.set_id(7);
  gain.get_info()->unit = "dB";
  TProp flags = array_of<bool>({3}, {true, false, true});
  flags.get_arr()->set_user_bits(5);
  TProp cell = TProp::cell({});
  cell(0) = TProp(std::int8_t{-3});
  TProparray<std::uint32_t> packed({1}, dt::rgb32);
  packed[0] = 0x332211;
  TProp names = TProp::array(dt::char_, {2});
  names.get<TProparray<TPropstring>>()[0] = TPropstring("first");
  names.get<TProparray<TPropstring>>()[1] = TPropstring(" <second>\r\n");
  const TProp value = struct_of({
      {"gain", gain},
      {"roi", array_of<std::uint16_t>({2, 2}, {0, 0, 512, 512})},
      {"z", array_of<std::complex<double>>({1, 2}, {{1, -0.5}, {2, -INFINITY}})},
      {"names", names},
      {"flags", flags},
      {"colour", TProp(_s_tarn_RGB{255, 128, 0})},
      {"packed", TProp(std::move(packed))},
      {"nothing", TProp()},
      {"e", TProp(TPropempty{})},
      {"c", cell},
      {"m", TProp::array(dt::double_, {0, 3})},
      {"s", struct_of({})},
  });
  EXPECT_EQ(
      tarn_export_xml(value),
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<root tprop_version=\"1\">\n"
      "    <item type=\"struct\">\n"
      "        <gain type=\"double\" id=\"7\" unit=\"dB\">1.5</gain>\n"
      "        <roi type=\"uint16\" isarr=\"1\" size=\"2 2\" userbits=\"0\">0 0 512 512</roi>\n"
      "        <z type=\"cplx_double\" isarr=\"1\" size=\"1 2\" userbits=\"0\">\n"
      "            <complex re=\"1 2\" im=\"-0.5 -Inf\"/>\n"
      "        </z>\n"
      "        <names type=\"char\" isarr=\"1\" size=\"2\" userbits=\"0\">\n"
      "            <item type=\"char\" idx=\"1\">first</item>\n"
      "            <item type=\"char\" idx=\"2\"> &lt;second&gt;&#13;\n</item>\n"
      "        </names>\n"
      "        <flags type=\"logical\" isarr=\"1\" size=\"3\" userbits=\"5\">1 0 1</flags>\n"
      "        <colour type=\"rgb\">255 128 0</colour>\n"
      "        <packed type=\"rgb32\" isarr=\"1\" size=\"1\" userbits=\"0\">3351057</packed>\n"
      "        <nothing type=\"none\"/>\n"
      "        <e type=\"empty\" isempty=\"1\"/>\n"
      "        <c type=\"cell\" isnoarr=\"1\">\n"
      "            <item type=\"int8\" idx=\"1\">-3</item>\n"
      "        </c>\n"
      "        <m type=\"double\" isarr=\"1\" size=\"0 3\" isempty=\"1\" userbits=\"0\"/>\n"
      "        <s type=\"struct\"/>\n"
      "    </item>\n"
      "</root>\n");
  expect_round_trip(value);
}

TEST(PropertyXml, RandomTreesRoundTripExactly) {
  for (std::uint64_t seed = 1; seed <= 300; ++seed) {
    testing::RandomPropOptions options;
    options.max_depth = static_cast<int>(seed % 5);
    options.max_extent = seed % 3 == 0 ? 6 : 3;
    testing::RandomProp generate(seed, options);
    SCOPED_TRACE(seed);
    expect_round_trip(generate());
    // A struct of several trees reaches more kinds at every level.
    TPropstruct members;
    for (int i = 0; i < 8; ++i) members.set(generate.name() + std::to_string(i), generate());
    expect_round_trip(TProp(std::move(members)));
  }
}

TEST(PropertyXml, StringsKeepEveryBlankAndBreak) {
  const std::vector<std::string> texts = {
      " a ",  "\r\n",     "\r",     "\t",  "   ",
      "\n\n", "a\rb\r\n", "<&>\"'", "]]>", "\xC3\xA9\xF0\x9F\x94\xAC",
      "&amp;"};
  for (const std::string& text : texts) {
    SCOPED_TRACE(text);
    expect_round_trip(TProp(text));
    TProp array = TProp::array(dt::char_, {2});
    array.get<TProparray<TPropstring>>()[1] = TPropstring(text);
    expect_round_trip(array);
    TProp described(1);
    described.get_info()->unit = text;
    described.get_info()->description = text + "x";
    const TProp back = round_trip(described);
    ASSERT_NE(back.get_info(), nullptr);
    EXPECT_EQ(back.get_info()->unit, text);
    EXPECT_EQ(back.get_info()->description, text + "x");
  }
}

TEST(PropertyXml, LargeArraysAndStructs) {
  TProp numbers = TProp::array(dt::double_, {1000, 100});
  auto& elements = numbers.get<TProparray<double>>();
  for (std::size_t i = 0; i < elements.element_count(); ++i) {
    elements[i] = 1.0 / static_cast<double>(i + 1);
  }
  expect_round_trip(numbers);
  TPropstruct members;
  for (int i = 0; i < 2000; ++i) members.set(std::string("m").append(std::to_string(i)), TProp(i));
  expect_round_trip(TProp(std::move(members)));
}

TEST(PropertyXml, NestingUpToTheLimitRoundTrips) {
  // The root element and the value elements: 998 struct levels and the double fill 1000.
  expect_round_trip(testing::nested_structs(kMaxXmlDepth - 2));
  EXPECT_THROW_MESSAGE(tarn_export_xml(testing::nested_structs(kMaxXmlDepth - 1)),
                       std::runtime_error, "Xml nesting deeper than 1000 levels.");
  // A complex value needs one level more for its parts.
  TProp complex_inside(std::complex<double>(1, 2));
  for (int i = 0; i < kMaxXmlDepth - 2; ++i) {
    TProp cell = TProp::cell({1});
    cell(0) = std::move(complex_inside);
    complex_inside = std::move(cell);
  }
  EXPECT_THROW_MESSAGE(tarn_export_xml(complex_inside), std::runtime_error,
                       "Xml nesting deeper than 1000 levels.");
}

TEST(PropertyXml, RefusesWhatXmlCannotCarry) {
  TProp control = TProp::array(dt::char_, {3});
  control.get<TProparray<TPropstring>>()[2] = TPropstring("a\x01");
  EXPECT_THROW_MESSAGE(tarn_export_xml(struct_of({{"list", control}})), std::runtime_error,
                       "The string holds the control character U+0001, which xml cannot carry.\n"
                       "Location:\n/root/item/list/item[3]");
  EXPECT_THROW_MESSAGE(tarn_export_xml(TProp("\xC3")), std::runtime_error,
                       "Could not convert value to text\nLocation:\n/root/item");
  EXPECT_THROW_MESSAGE(tarn_export_xml(TProp(std::string("a\0b", 3))), std::runtime_error,
                       "The string holds the control character U+0000, which xml cannot carry.\n"
                       "Location:\n/root/item");
  EXPECT_THROW_MESSAGE(tarn_export_xml(struct_of({{"a b", TProp(1)}})), std::runtime_error,
                       "Struct member name 'a b' cannot be written as xml.\nLocation:\n/root/item");
  TProp described(1);
  described.get_info()->description = "\x1B[0m";
  EXPECT_THROW_MESSAGE(
      tarn_export_xml(described), std::runtime_error,
      "The description holds the control character U+001B, which xml cannot carry.\n"
      "Location:\n/root/item");
}

TEST(PropertyXml, ReadsHandWrittenDocuments) {
  struct Case {
    const char* body;
    TProp expected;
  };
  TProp one_cell = TProp::cell({});
  one_cell(0) = TProp("x");
  const std::vector<Case> cases = {
      {"<item type=\"double\" isarr=\"true\" size=\"2, 2\">\n 1\t2\n 3 inf\n</item>",
       array_of<double>({2, 2}, {1, 2, 3, INFINITY})},
      {"<item type=\"single\"> +1e-3 </item>", TProp(1e-3f)},
      {"<item type=\"logical\" isarr=\"1\" size=\"2\">true 0</item>",
       array_of<bool>({2}, {true, false})},
      {"<item type=\"char\"><![CDATA[<a>]]> &amp; b</item>", TProp("<a> & b")},
      {"<item type=\"char\"></item>", TProp("")},
      {"<item type=\"char\"> </item>", TProp(" ")},
      {"<item type=\"cell\"><item type=\"char\">x</item></item>", one_cell},
      {"<item type=\"struct\">\n  <b type=\"none\"/>\n  <a type=\"int32\">-4</a>\n</item>",
       struct_of({{"b", TProp()}, {"a", TProp(-4)}})},
      {"<item type=\"cplx_single\">\n <complex im=\"NaN\" re=\"-Inf\"/>\n</item>",
       TProp(std::complex<float>(-INFINITY, NAN))},
      // "isempty" without "isarr": numbers and cells without elements, empty strings and structs.
      {"<item type=\"int16\" isempty=\"1\"/>", TProp::array(dt::int16, {0})},
      {"<item type=\"cell\" isnoarr=\"1\" isempty=\"1\"/>", TProp::cell({0})},
      {"<item type=\"char\" isempty=\"1\"/>", TProp("")},
      {"<item type=\"struct\" isempty=\"1\"/>", TProp(TPropstruct{})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    TProp read;
    ASSERT_NO_THROW(read = tarn_import_xml(document(c.body)));
    EXPECT_TRUE(is_equal(read, c.expected, kExact)) << tarn_export_xml(read);
  }
}

TEST(PropertyXml, DamagedDocumentsSayWhatAndWhere) {
  struct Case {
    std::string body;
    std::string message;
  };
  const std::string at_item = "\nLocation:\n/root/item";
  const std::vector<Case> cases = {
      {"<item/>", "Attribute 'type' does not exist" + at_item},
      {"<item type=\"float128\">1</item>", "Unknown value type 'float128'." + at_item},
      {"<item type=\"cplx_int8\">1</item>", "Unknown value type 'cplx_int8'." + at_item},
      {"<item type=\"double\" isarr=\"1\">1</item>", "Attribute 'size' does not exist" + at_item},
      {"<item type=\"double\" isarr=\"1\" size=\"3\">1 2</item>", kSizeMismatch + at_item},
      {"<item type=\"double\" isarr=\"1\" size=\"1\">1 2</item>", kSizeMismatch + at_item},
      {"<item type=\"double\"></item>", kSizeMismatch + at_item},
      {"<item type=\"rgb\">1 2</item>", kSizeMismatch + at_item},
      // Shapes claiming more than the text holds are refused before anything is allocated.
      {"<item type=\"double\" isarr=\"1\" size=\"100000000 1000000000\">1</item>",
       kSizeMismatch + at_item},
      {"<item type=\"rgb\" isarr=\"1\" size=\"100000000000000000\">1 2 3</item>",
       kSizeMismatch + at_item},
      {"<item type=\"cplx_single\" isarr=\"1\" size=\"100000000000000000\">"
       "<complex re=\"1\" im=\"2\"/></item>",
       kSizeMismatch + at_item},
      {"<item type=\"char\" isarr=\"1\" size=\"100000000000000000\"><item type=\"char\"/>"
       "</item>",
       kSizeMismatch + at_item},
      {"<item type=\"double\" isarr=\"1\" size=\"1000000000 1000000000\">1</item>",
       "Invalid array shape: element count exceeds the address space." + at_item},
      {"<item type=\"cell\" isarr=\"1\" size=\"2\"><item type=\"none\"/></item>",
       kSizeMismatch + at_item},
      {"<item type=\"double\" isarr=\"1\" size=\"4294967296 4294967296 4294967296\"/>",
       "Invalid array shape: element count exceeds the address space." + at_item},
      {"<item type=\"double\" isarr=\"1\" size=\"\"/>",
       "Invalid value '' of attribute 'size'." + at_item},
      {"<item type=\"double\" isarr=\"1\" size=\"2 -1\"/>",
       "Invalid value '2 -1' of attribute 'size'." + at_item},
      {"<item type=\"double\" isarr=\"1\" size=\"2\" isempty=\"1\">1 2</item>",
       kSizeMismatch + at_item},
      {"<item type=\"double\" isempty=\"1\">1</item>", kSizeMismatch + at_item},
      {"<item type=\"char\" isempty=\"1\">a</item>", kSizeMismatch + at_item},
      {"<item type=\"double\">1,5</item>", "Could not convert \"1,5\" to target type" + at_item},
      {"<item type=\"int8\">128</item>", "Could not convert \"128\" to target type" + at_item},
      {"<item type=\"uint32\" isarr=\"1\" size=\"2\">1 -1</item>",
       "Could not convert \"-1\" to target type" + at_item},
      {"<item type=\"logical\">2</item>", "Could not convert \"2\" to target type" + at_item},
      {"<item type=\"double\" id=\"x\">1</item>", "Invalid value 'x' of attribute 'id'." + at_item},
      {"<item type=\"double\" isarr=\"yes\">1</item>",
       "Invalid value 'yes' of attribute 'isarr'." + at_item},
      {"<item type=\"cplx_double\">1</item>", "Malformed 'complex' element." + at_item},
      {"<item type=\"cplx_double\"><complex re=\"1\"/></item>",
       "Malformed 'complex' element." + at_item},
      {"<item type=\"cplx_double\"><complex re=\"1\" im=\"2\"/><complex re=\"1\" im=\"2\"/></item>",
       "Malformed 'complex' element." + at_item},
      {"<item type=\"cplx_double\"><parts re=\"1\" im=\"2\"/></item>",
       "Malformed 'complex' element." + at_item},
      {"<item type=\"cplx_double\" isarr=\"1\" size=\"2\"><complex re=\"1 2\" im=\"2\"/></item>",
       kSizeMismatch + at_item},
      {"<item type=\"double\"><a type=\"double\">1</a></item>",
       "Unexpected element 'a' in a value of type 'double'." + at_item},
      {"<item type=\"struct\">text</item>", "Unexpected text in element 'item'." + at_item},
      {"text<item type=\"none\"/>", "Unexpected text in element 'root'.\nLocation:\n/root"},
      {"<item type=\"none\" isarr=\"1\" size=\"1\"/>",
       "A value of type 'none' cannot be an array." + at_item},
      {"<item type=\"char\">\xC3(</item>", "The text is not valid UTF-8." + at_item},
      {"<item type=\"char\">a&#1;</item>",
       "The text holds the control character U+0001, which xml cannot carry." + at_item},
      {"<item type=\"double\" unit=\"&#27;\">1</item>",
       "The text holds the control character U+001B, which xml cannot carry." + at_item},
      {"<item type=\"struct\"><a type=\"none\"/><a type=\"none\"/></item>",
       "Struct member 'a' appears twice.\nLocation:\n/root/item/a[2]"},
      {"<item type=\"struct\"><a.b type=\"none\"/></item>",
       "Invalid struct member name 'a.b'.\nLocation:\n/root/item/a.b"},
      {"<item type=\"struct\"><a><b type=\"uint8\">256</b></a></item>",
       "Attribute 'type' does not exist\nLocation:\n/root/item/a"},
      {"<item type=\"cell\" isarr=\"1\" size=\"2\"><item type=\"none\"/>"
       "<item type=\"struct\"><b type=\"uint8\">256</b></item></item>",
       "Could not convert \"256\" to target type\nLocation:\n/root/item/item[2]/b"},
      {"<item type=\"cell\" isarr=\"1\" size=\"2\"><item type=\"none\" idx=\"2\"/>"
       "<item type=\"none\"/></item>",
       "Element index 2 found where 1 belongs.\nLocation:\n/root/item/item[1]"},
      {"<item type=\"char\" isarr=\"1\" size=\"1\"><item type=\"int8\">1</item></item>",
       "An element of a char array must be a single char.\nLocation:\n/root/item/item"},
      {"<item type=\"struct\" isarr=\"1\" size=\"1\"><item type=\"struct\" isarr=\"1\" "
       "size=\"1\"/></item>",
       "An element of a struct array must be a single struct.\nLocation:\n/root/item/item"},
      {"<item type=\"cell\" isarr=\"1\" isnoarr=\"1\" size=\"1\"><item type=\"none\"/></item>",
       "A cell cannot be marked both 'isarr' and 'isnoarr'." + at_item},
      {"", "The root element holds 0 values instead of one.\nLocation:\n/root"},
      {"<item type=\"none\"/><item type=\"none\"/>",
       "The root element holds 2 values instead of one.\nLocation:\n/root"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    EXPECT_THROW_MESSAGE(tarn_import_xml(document(c.body)), std::runtime_error, c.message);
  }
}

TEST(PropertyXml, TruncatedExportsFailCleanly) {
  testing::RandomProp generate(77);
  for (int n = 0; n < 20; ++n) {
    const std::string xml = tarn_export_xml(generate());
    // Only the final line feed can go without harm.
    for (std::size_t length = 0; length + 1 < xml.size(); length += 1 + length / 8) {
      EXPECT_THROW(tarn_import_xml(xml.substr(0, length)), std::runtime_error) << length;
    }
  }
}

}  // namespace
}  // namespace Tarn::props
