#include <gtest/gtest.h>

#include <boost/locale/encoding_utf.hpp>
#include <complex>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "tarnio/props/compare.h"
#include "tarnio/props/internal/legacy_text.h"
#include "tarnio/props/internal/xml_dialects.h"
#include "tarnio/props/internal/xml_support.h"
#include "tarnio/props/prop.h"
#include "tarnio/props/xml.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/xml_dialect_testing.h"

namespace Tarn::props {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr float kInfF = std::numeric_limits<float>::infinity();

using testing::array_of;
using testing::cell_of;
using testing::read_file;
using testing::struct_array_of;
using testing::struct_of;

const testing::XmlDialect kToolbox{internal::read_toolbox_xml, internal::write_toolbox_xml};

TEST(ToolboxXml, ReadsHandWrittenParameters) {
  const std::string text = read_file("tests/data/props/toolbox_params.xml");
  TProparray<TPropstring> names({2, 1});
  names[0] = TPropstring("abc");
  names[1] = TPropstring("bca");
  const TProp expected = struct_of({
      {"exposure", TProp(0.025)},
      {"binning", array_of<std::int16_t>({1, 2}, {2, -4})},
      {"frame", array_of<std::uint8_t>({2, 3}, {1, 2, 3, 4, 5, 6})},
      {"flags", array_of<bool>({1, 3}, {true, false, true})},
      {"limits", array_of<float>({1, 4}, {kInfF, -kInfF, std::nanf(""), 1.5f})},
      {"title", TProp("  Tom & Jerry <1> '\" ")},
      {"nothing", TProp::array(dt::double_, {0, 3})},
      {"gains", array_of<double>({1, 3}, {1, 2.5, 3})},
      {"offset", TProp(7.0)},
      {"label", TProp("cam1")},
      {"count", TProp(12.0)},
      {"ratio", TProp(0.5)},
      {"weights", array_of<double>({2, 1}, {3, 4})},
      {"valid", TProp(true)},
      {"lasers", struct_array_of({1, 2}, {struct_of({{"name", TProp("red")}, {"power", 5.0}}),
                                          struct_of({{"name", TProp("blue")}, {"power", 2.5}})})},
      {"stage", struct_of({{"x", 1.0}, {"y", -2.0}})},
      {"notes",
       cell_of({1, 3}, {TProp("ok"), array_of<double>({1, 2}, {1, 2}), TProp::cell({0, 0})})},
      {"impedance", array_of<std::complex<double>>({1, 2}, {{1, 2}, {-0.5, 0}})},
      {"mask", array_of<double>({3, 2}, {0, 0, 6, 4.5, 0, 0})},
      {"names", TProp(std::move(names))},
      {"history", cell_of({1, 2}, {TProp("a"), TProp(2.0)})},
      {"runs", struct_array_of({1, 2}, {struct_of({{"id", std::int32_t{7}}}),
                                        struct_of({{"id", std::int32_t{8}}})})},
      {"empty_struct", TProp(TPropstruct())},
  });
  kToolbox.expect_same(expected, kToolbox.read(text));
  // The reader behind the public entry point detects the dialect.
  kToolbox.expect_same(expected, tarn_import_xml(text));
}

TEST(ToolboxXml, ReadsWindows1252Text) {
  const TProp value = kToolbox.read(read_file("tests/data/props/toolbox_windows1252.xml"));
  kToolbox.expect_same(struct_of({{"sample", TProp("Temperatur 25\u00b0C \u2013 Pr\u00fcfung")},
                                  {"operator", TProp("M\u00fcller")}}),
                       value);
}

TEST(LegacyText, ConvertsWindows1252) {
  using internal::windows1252_to_utf8;
  EXPECT_EQ(windows1252_to_utf8("plain <ascii>"), "plain <ascii>");
  EXPECT_EQ(windows1252_to_utf8("\x80\x96\xe4\xff"), "\u20ac\u2013\u00e4\u00ff");
  // Bytes the code page leaves undefined keep their value as control characters.
  EXPECT_EQ(windows1252_to_utf8(std::string_view("a\x81\x8d\x8f\x90\x9d"
                                                 "b")),
            "a\u0081\u008d\u008f\u0090\u009db");
  EXPECT_EQ(windows1252_to_utf8(std::string_view("\0x", 2)), std::string("\0x", 2));

  pugi::xml_document utf8;
  internal::parse_document(utf8, "<a b=\"\xc3\xa4\">\xe2\x82\xac</a>");
  EXPECT_TRUE(internal::document_is_utf8(utf8));
  pugi::xml_document legacy_attribute;
  internal::parse_document(legacy_attribute, "<a b=\"\xe4\">\xe2\x82\xac</a>");
  EXPECT_FALSE(internal::document_is_utf8(legacy_attribute));
  // One legacy text decides for the whole document: the valid UTF-8 of the other text is
  // read as Windows-1252 too.
  pugi::xml_document mixed;
  internal::parse_document(mixed, "<a><b>\xc3\xa4</b><c>\xe4</c></a>");
  const internal::DocumentText text(mixed);
  EXPECT_TRUE(text.legacy());
  EXPECT_EQ(text.text_of(mixed.child("a").child("b")), "\u00c3\u00a4");
  EXPECT_EQ(text.text_of(mixed.child("a").child("c")), "\u00e4");
}

TEST(ToolboxXml, WritesTheToolboxLayout) {
  TPropstruct first;
  first.set("a", 1.0);
  first.set("b", "x");
  TPropstruct second;
  second.set("a", 2.0);
  TProparray<TPropstruct> structs({1, 2});
  structs[0] = first;
  structs[1] = second;
  TPropstruct root;
  root.set("s", TProp(std::move(structs)));
  root.set("c", cell_of({2}, {TProp(std::int32_t{-3}), TProp()}));
  root.set("z", TProp(std::complex<float>(1.5f, -2)));
  root.set("e", TProp(TPropstruct()));
  EXPECT_EQ(internal::write_toolbox_xml(TProp(root)),
            "<?xml version=\"1.0\"?>\n"
            "<root xml_tb_version=\"2.0\" idx=\"1\" type=\"struct\" size=\"1 1\">\n"
            "    <s idx=\"1\" type=\"struct\" size=\"1 2\">\n"
            "        <a idx=\"1\" type=\"double\" size=\"1 1\">1</a>\n"
            "        <b idx=\"1\" type=\"char\" size=\"1 1\">x</b>\n"
            "        <a idx=\"2\" type=\"double\" size=\"1 1\">2</a>\n"
            "        <b idx=\"2\" type=\"double\" size=\"0 0\"/>\n"
            "    </s>\n"
            "    <c idx=\"1\" type=\"cell\" size=\"2 1\">\n"
            "        <item idx=\"1\" type=\"int32\" size=\"1 1\">-3</item>\n"
            "        <item idx=\"2\" type=\"double\" size=\"0 0\"/>\n"
            "    </c>\n"
            "    <z idx=\"1\" type=\"complex\" size=\"1 1\">\n"
            "        <item idx=\"1\" type=\"single\" size=\"1 1\">1.5</item>\n"
            "        <item idx=\"2\" type=\"single\" size=\"1 1\">-2</item>\n"
            "    </z>\n"
            "    <e idx=\"1\" type=\"struct\" size=\"1 1\"/>\n"
            "</root>\n");
}

TEST(ToolboxXml, WritesEachKindInItsForm) {
  TProparray<TPropstring> matrix(TPropSize{2});
  matrix[0] = TPropstring("ab");
  matrix[1] = TPropstring("cd");
  TProparray<TPropstring> ragged(TPropSize{2});
  ragged[0] = TPropstring("ab");
  ragged[1] = TPropstring("c");
  const struct {
    TProp value;
    std::string root_line;
  } cases[] = {
      {TProp(1.0 / 3), "type=\"double\" size=\"1 1\">0.3333333333333333</root>"},
      {TProp(1e300), "type=\"double\" size=\"1 1\">1e+300</root>"},
      {TProp(-kInf), "type=\"double\" size=\"1 1\">-Inf</root>"},
      {TProp(std::numeric_limits<std::int64_t>::min()),
       "type=\"int64\" size=\"1 1\">-9223372036854775808</root>"},
      {array_of<std::int8_t>({3}, {-1, 0, 1}), "type=\"int8\" size=\"3 1\">-1 0 1</root>"},
      {array_of<bool>({1, 2}, {true, false}), "type=\"boolean\" size=\"1 2\">1 0</root>"},
      {TProp(_s_tarn_RGB{1, 2, 3}), "type=\"uint8\" size=\"3 1\">1 2 3</root>"},
      {array_of<_s_tarn_RGB>({2}, {{1, 2, 3}, {4, 5, 6}}),
       "type=\"uint8\" size=\"3 2\">1 2 3 4 5 6</root>"},
      {TProp(), "type=\"double\" size=\"0 0\"/>"},
      {TProp::array(dt::single, {0, 3}), "type=\"single\" size=\"0 3\"/>"},
      {TProp(""), "type=\"char\" size=\"0 0\"/>"},
      {TProp("a<b>&'\"\r\n"),
       "type=\"char\" size=\"1 9\">a&lt;b&gt;&amp;&apos;&quot;&#13;\n</root>"},
      {TProp("\u00e9\u20ac\U0001F52C"), "type=\"char\" size=\"1 4\">\u00e9\u20ac\U0001F52C</root>"},
      {TProp(std::move(matrix)), "type=\"char\" size=\"2 2\">acbd</root>"},
      {TProp(std::move(ragged)), "type=\"cell\" size=\"2 1\">"},
      {TProp::cell({}), "type=\"cell\" size=\"1 1\">"},
      {TProp::cell({0}), "type=\"cell\" size=\"0 1\"/>"},
      {TProp(TProparray<TPropstruct>({0, 2})), "type=\"struct\" size=\"0 2\"/>"},
  };
  for (const auto& [value, root_line] : cases) {
    const std::string xml = internal::write_toolbox_xml(value);
    EXPECT_NE(xml.find("<root xml_tb_version=\"2.0\" idx=\"1\" " + root_line), std::string::npos)
        << xml;
  }
}

// What a value reads back as after the toolbox form: shapes of at least two sizes, all-ones
// shapes as single values, colours as integers, char arrays as matrices or cells, struct arrays
// with the members of all elements, and "none" and "empty" as double 0x0.
TProp after_toolbox(const TProp& value) {
  const DataType code = value.type_code();
  if (code == dt::none || code == dt::empty) return TProp::array(dt::double_, {0, 0});
  if (value.get_if<TPropstring>() != nullptr) return value;
  const auto shape_of = [](const TProparrayBase& array) {
    TPropSize shape = array.get_size(true);
    for (const std::uint64_t extent : shape) {
      if (extent != 1) return shape;
    }
    return TPropSize{};
  };
  if (const auto* members = value.get_if<TPropstruct>()) {
    TPropstruct result;
    for (const auto& [name, member] : *members) result.set(name, after_toolbox(member));
    return TProp(std::move(result));
  }
  if (const auto* structs = value.get_if<TProparray<TPropstruct>>()) {
    std::vector<std::string> names;
    std::unordered_set<std::string> known;
    for (const TPropstruct& element : *structs) {
      for (const auto& member : element) {
        if (known.insert(member.first).second) names.push_back(member.first);
      }
    }
    TProparray<TPropstruct> result(shape_of(*structs));
    for (std::size_t i = 0; i < structs->element_count(); ++i) {
      for (const std::string& name : names) {
        const auto found = (*structs)[i].find(name);
        result[i].set(name, after_toolbox(found != (*structs)[i].end() ? found->second : TProp()));
      }
    }
    return TProp(std::move(result));
  }
  if (const auto* cells = value.get_if<TProparray<TProp>>()) {
    TProparray<TProp> result(shape_of(*cells));
    for (std::size_t i = 0; i < cells->element_count(); ++i) result[i] = after_toolbox((*cells)[i]);
    return TProp(std::move(result));
  }
  if (const auto* texts = value.get_if<TProparray<TPropstring>>()) {
    const auto length = [](const TPropstring& text) {
      return boost::locale::conv::utf_to_utf<char16_t>(text.to_utf8()).size();
    };
    const TPropSize shape = texts->get_size(true);
    bool matrix = shape.size() == 2 && shape[1] == 1 && shape[0] >= 2;
    for (const TPropstring& text : *texts) {
      matrix = matrix && length(text) > 0 && length(text) == length((*texts)[0]);
    }
    if (matrix) {
      TProparray<TPropstring> result(shape);
      std::copy(texts->begin(), texts->end(), result.begin());
      return TProp(std::move(result));
    }
    TProparray<TProp> result(shape_of(*texts));
    for (std::size_t i = 0; i < texts->element_count(); ++i) result[i] = TProp((*texts)[i]);
    return TProp(std::move(result));
  }
  // Numbers keep their bytes; a colour becomes a column of three bytes.
  const DataType element = code & dt::name_mask;
  const TProparrayBase& array = *value.content()->array();
  TPropSize shape = shape_of(array);
  if (element == dt::rgb) {
    shape = array.shape();
    shape.insert(shape.begin(), 3);
    if (shape.size() < 2) shape.push_back(1);
  }
  TProp result = TProp::array(element == dt::rgb     ? dt::uint8
                              : element == dt::rgb32 ? dt::uint32
                                                     : element,
                              shape);
  const std::size_t bytes = array.element_count() * tarn_dt_get_size(element);
  if (bytes > 0) std::memcpy(result.value_ptr(), value.value_ptr(), bytes);
  return result;
}

TEST(ToolboxXml, RandomTreesRoundTripAsTheFormAllows) {
  testing::expect_random_round_trips(kToolbox, 300, after_toolbox, true);
}

std::string tb(std::string_view body) {
  return "<root xml_tb_version=\"2.0\" " + std::string(body) + "</root>";
}

TEST(ToolboxXml, DamagedDocumentsFailClearly) {
  const struct {
    std::string text;
    std::string message;
  } cases[] = {
      {tb("type=\"quaternion\" size=\"1 1\">1"), "Unknown type 'quaternion'.\nLocation:\n/root"},
      {tb("type=\"double\" size=\"3\">1 2 3"), "Invalid size '3'.\nLocation:\n/root"},
      {tb("type=\"double\" size=\"2 x\">1 2"), "Invalid size '2 x'.\nLocation:\n/root"},
      {tb("type=\"double\" size=\"4294967296 4294967296\">1"),
       "Invalid size '4294967296 4294967296'.\nLocation:\n/root"},
      {tb("type=\"double\" size=\"1000000000 1000000000\">1 2"),
       "Size gives 1000000000000000000 elements but the element holds 2.\nLocation:\n/root"},
      {tb("type=\"int8\" size=\"1 2\">1 300"),
       "Could not convert \"300\" to target type\nLocation:\n/root"},
      {tb("type=\"double\" size=\"1 1\"><x/>"),
       "Unexpected element 'x' in a value of this type.\nLocation:\n/root"},
      {tb("type=\"char\" size=\"2 2\">abc"),
       "Size gives 4 characters but the element holds 3.\nLocation:\n/root"},
      {tb("type=\"complex\" size=\"1 1\"><item type=\"double\">1</item>"),
       "Malformed 'complex' element.\nLocation:\n/root"},
      {tb("type=\"complex\" size=\"1 2\"><item type=\"double\">1 2</item>"
          "<item type=\"double\">1</item>"),
       "Malformed 'complex' element.\nLocation:\n/root"},
      {tb("type=\"complex\" size=\"1 1\"><item type=\"char\">a</item>"
          "<item type=\"double\">1</item>"),
       "Malformed 'complex' element.\nLocation:\n/root"},
      {tb("type=\"sparse\" size=\"2 2\"><item>1</item><item>3</item><item>5</item>"),
       "Sparse index 3 out of range 1 to 2.\nLocation:\n/root"},
      // What nothing in the text lists one by one is bounded by the size of the text.
      {tb("type=\"sparse\" size=\"4096 4096\"><item>1</item><item>1</item><item>5</item>"),
       "Sparse matrix of 4096 x 4096 (16777216 elements) exceeds the limit of 87296 elements "
       "for its 85 bytes of text."
       "\nLocation:\n/root"},
      {tb("type=\"sparse\" size=\"2 2\"><item>1</item><item>1</item>"),
       "Malformed 'sparse' element.\nLocation:\n/root"},
      {tb("type=\"struct\" size=\"1 2\"><a idx=\"1\" type=\"double\">1</a>"
          "<b idx=\"1\" type=\"double\">1</b><a idx=\"2\" type=\"double\">2</a>"),
       "Member 'b' is missing in struct element 2.\nLocation:\n/root"},
      {tb("type=\"struct\" size=\"1 2\"><a idx=\"1\" type=\"double\">1</a>"
          "<a idx=\"1\" type=\"double\">2</a>"),
       "Member 'a' appears twice in struct element 1.\nLocation:\n/root"},
      {tb("type=\"struct\" size=\"1 1\"><a idx=\"1\" type=\"double\">1</a>"
          "<b idx=\"7\" type=\"double\">1</b>"),
       "Index 7 out of range of the 1 struct elements.\nLocation:\n/root/b"},
      {tb("type=\"struct\" size=\"1 1\"><a idx=\"x\" type=\"double\">1</a>"),
       "Invalid idx 'x'.\nLocation:\n/root/a"},
      {tb("type=\"struct\" size=\"1 100000\">"),
       "Struct array without members (100000 elements) exceeds the limit of 80128 elements "
       "for its 57 bytes of text."
       "\nLocation:\n/root"},
      {tb("type=\"struct\" size=\"1 1\"><a.b type=\"double\">1</a.b>"),
       "Invalid struct member name 'a.b'.\nLocation:\n/root/a.b"},
      {tb("type=\"cell\" size=\"1 3\"><item>a</item>"),
       "Size gives 3 cell items but the element holds 1.\nLocation:\n/root"},
      {tb("type=\"cell\" size=\"1 2\"><item idx=\"2\">a</item><item idx=\"2\">b</item>"),
       "Cell item 2 appears twice.\nLocation:\n/root/item[2]"},
      {tb("type=\"cell\" size=\"1 2\"><item idx=\"3\">a</item><item>b</item>"),
       "Index 3 out of range of the 2 cell items.\nLocation:\n/root/item[1]"},
      {tb("type=\"struct\" size=\"1 1\"><a type=\"cell\" size=\"1 2\"><item>a</item>"
          "<item type=\"double\">1 x</item></a>"),
       "Could not convert \"x\" to target type\nLocation:\n/root/a/item[2]"},
  };
  for (const auto& [text, message] : cases) {
    EXPECT_THROW_MESSAGE(kToolbox.read(text), std::runtime_error, message);
  }
}

TEST(ToolboxXml, RefusesWhatItCannotWrite) {
  const TProp deep = testing::nested_structs(kMaxXmlDepth);
  EXPECT_THROW_MESSAGE(internal::write_toolbox_xml(deep), std::runtime_error,
                       "Xml nesting deeper than 1000 levels.");
  // One level less reads back.
  EXPECT_NO_THROW(kToolbox.read(internal::write_toolbox_xml(deep.getp("a"))));

  // Text must be UTF-8 and free of the control characters XML 1.0 cannot carry.
  TProp matrix = TProp::array(dt::char_, {2});
  matrix.get<TProparray<TPropstring>>()[0] = TPropstring("a\x1b");
  matrix.get<TProparray<TPropstring>>()[1] = TPropstring("bc");
  for (const TProp& text : {TProp("\xff"), TProp("a\x01"), TProp(std::string(1, '\0')), matrix}) {
    EXPECT_THROW_MESSAGE(internal::write_toolbox_xml(struct_of({{"t", text}})), std::runtime_error,
                         "Could not convert value to text");
  }
  EXPECT_EQ(kToolbox.read(internal::write_toolbox_xml(TProp(" \t\r\n "))), TProp(" \t\r\n "));
  TPropstruct bad_name;
  bad_name.set("a b", 1.0);
  EXPECT_THROW_MESSAGE(internal::write_toolbox_xml(TProp(bad_name)), std::runtime_error,
                       "Struct member name 'a b' cannot be an xml element name.");
}

}  // namespace
}  // namespace Tarn::props
