#include <fmt/format.h>
#include <gtest/gtest.h>

#include <complex>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarnio/props/internal/xml_dialects.h"
#include "tarnio/props/internal/xml_support.h"
#include "tarnio/props/prop.h"
#include "tarnio/props/xml.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/xml_dialect_testing.h"

namespace Tarn::props {
namespace {

using testing::array_of;
using testing::cell_of;
using testing::read_file;
using testing::struct_of;

const testing::XmlDialect kLabview{internal::read_labview_xml, internal::write_labview_xml};

// A document of the values, one tag per line as LabVIEW writes it.
std::string lv(std::string_view values) {
  return "<?xml version='1.0' standalone='yes' ?>\n<LVData "
         "xmlns=\"http://www.ni.com/LVData\">\n<Version>9.0</Version>\n" +
         std::string(values) + "\n</LVData>\n";
}

std::string scalar(std::string_view tag, std::string_view label, std::string_view val) {
  return fmt::format("<{0}>\n<Name>{1}</Name>\n<Val>{2}</Val>\n</{0}>\n", tag, label, val);
}

TEST(LabviewXml, ReadsHandWrittenCluster) {
  const std::string text = read_file("tests/data/props/labview_cluster.xml");
  TProparray<TPropstruct> positions({2, 3});
  for (std::uint64_t row = 0; row < 2; ++row) {
    for (std::uint64_t column = 0; column < 3; ++column) {
      TPropstruct& position = positions[row + 2 * column];
      position.set("X", static_cast<double>(10 * row + column));
      position.set("Y", static_cast<std::int32_t>(column));
    }
  }
  const TProp expected = struct_of({
      {"Frame_count", std::int32_t{100}},
      {"Exposure__s_", 0.025},
      {"Offset", std::nan("")},
      {"Gain", -std::numeric_limits<float>::infinity()},
      {"Serial", std::numeric_limits<std::uint64_t>::max()},
      {"Delta", std::numeric_limits<std::int64_t>::min()},
      {"x", std::uint8_t{255}},
      {"x_2", std::int8_t{-128}},
      {"Enabled", true},
      {"Comment", TProp(" a & b <c> \"quoted\" 'single' ")},
      {"field", TProp("")},
      {"Data_Folder", TProp("C:\\data\\run 1")},
      {"_2nd_mode", TProp("Fast")},
      {"Started", 1060006030.5},
      {"Impedance", std::complex<double>(1.5, 2)},
      {"z_ext", std::complex<double>(-0.25, -1000)},
      {"Precise", 3.14159265358979323},
      {"Session", TProp("0x00000000")},
      {"Positions", TProp(std::move(positions))},
      {"Matrix", array_of<std::int16_t>({2, 3}, {1, 4, 2, 5, 3, 6})},
      {"Empty_list", TProp::array(dt::double_, {0})},
      {"Channels", cell_of({2}, {TProp("Dev1/ai0"), TProp("Dev1/ai1")})},
      {"Extra", 4.5},
      {"Unset", TProp()},
      {"AI", TProp("Dev1/ai0:3")},
  });
  kLabview.expect_same(expected, kLabview.read(text));
  kLabview.expect_same(expected, tarn_import_xml(text));
}

TEST(LabviewXml, SeveralTopLevelValuesFormAStructAndLegacyTextConverts) {
  kLabview.expect_same(
      struct_of({{"L_nge", TProp("25 \u00b0C")}, {"Pr_fer", TProp("M\u00fcller \u20ac")}}),
      kLabview.read(read_file("tests/data/props/labview_windows1252.xml")));
  EXPECT_TRUE(kLabview.read(lv("")) == TProp());
}

TEST(LabviewXml, LabelsBecomeUniqueMemberNames) {
  const char* labels[] = {"a b", "", "", "1x", "-y", "\u00e4", "a_2", "a", "a", "x.y/z(1)", "ok-1"};
  std::string values;
  for (const char* label : labels) values += scalar("I8", label, "1");
  const TPropstruct members = kLabview.read(lv(values)).get<TPropstruct>();
  std::vector<std::string> names;
  for (const auto& member : members) names.push_back(member.first);
  EXPECT_EQ(names, (std::vector<std::string>{"a_b", "field", "field_2", "_1x", "_-y", "_", "a_2",
                                             "a", "a_3", "x_y_z_1_", "ok-1"}));
}

TEST(LabviewXml, ReadsArraysRowMajorWithTheirTemplate) {
  const struct {
    std::string values;
    TProp expected;
  } cases[] = {
      // Three Dimsizes, elements in row-major order: the last index varies fastest.
      {"<Array><Name>a</Name><Dimsize>2</Dimsize><Dimsize>1</Dimsize><Dimsize>2</Dimsize>" +
           scalar("U16", "", "1") + scalar("U16", "", "2") + scalar("U16", "", "3") +
           scalar("U16", "", "4") + "</Array>",
       array_of<std::uint16_t>({2, 1, 2}, {1, 3, 2, 4})},
      {"<Array><Name>b</Name><Dimsize>3</Dimsize>" + scalar("Boolean", "", "FALSE") +
           scalar("Boolean", "", "1") + scalar("Boolean", "", "0") + "</Array>",
       array_of<bool>({3}, {false, true, false})},
      {"<Array><Name>c</Name><Dimsize>2</Dimsize>" + scalar("CSG", "", "1 +2 i") +
           scalar("CSG", "", "-1.5-2.5e-1i") + "</Array>",
       array_of<std::complex<float>>({2}, {{1, 2}, {-1.5f, -0.25f}})},
      {"<Array><Name>e</Name><Dimsize>0</Dimsize><Dimsize>4</Dimsize><Cluster><Name></Name>"
       "<NumElts>1</NumElts>" +
           scalar("DBL", "v", "0") + "</Cluster></Array>",
       TProp(TProparray<TPropstruct>({0, 4}))},
      {"<Array><Name>s</Name><Dimsize>0</Dimsize>" + scalar("String", "", "") + "</Array>",
       TProp::cell({0})},
      {"<Array><Name>n</Name><Dimsize>0</Dimsize></Array>", TProp::array(dt::double_, {0})},
      {"<Array><Name>v</Name><Dimsize>2</Dimsize><LvVariant><Name></Name>" +
           scalar("I32", "", "5") + "</LvVariant><LvVariant><Name></Name></LvVariant></Array>",
       cell_of({2}, {TProp(std::int32_t{5}), TProp()})},
      {"<Array><Name>t</Name><Dimsize>1</Dimsize><Timestamp><Name></Name><Cluster><Name></Name>"
       "<NumElts>4</NumElts>" +
           scalar("I32", "", "0") + scalar("I32", "", "1073741824") +
           scalar("I32", "", "2082844800") + scalar("I32", "", "0") +
           "</Cluster></Timestamp></Array>",
       array_of<double>({1}, {0.25})},
      {"<EB><Name>m</Name><Choice>a&amp;b</Choice><Choice>c</Choice><Val>0</Val></EB>",
       TProp("a&b")},
  };
  for (const auto& [values, expected] : cases)
    kLabview.expect_same(expected, kLabview.read(lv(values)));
}

TEST(LabviewXml, WritesTheLabviewLayout) {
  TPropstruct root;
  root.set("a", 1.5);
  root.set("m", array_of<std::int32_t>({2, 3}, {1, 4, 2, 5, 3, 6}));
  root.set("e", TProp::array(dt::logical, {0}));
  EXPECT_EQ(
      internal::write_labview_xml(TProp(root)),
      "<?xml version='1.0' encoding='UTF-8' standalone='yes' ?>\n"
      "<LVData xmlns=\"http://www.ni.com/LVData\">\n"
      "    <Version>8.2.1</Version>\n"
      "    <Cluster>\n"
      "        <Name></Name>\n"
      "        <NumElts>3</NumElts>\n"
      "        <DBL>\n"
      "            <Name>a</Name>\n"
      "            <Val>1.5</Val>\n"
      "        </DBL>\n"
      "        <Array>\n"
      "            <Name>m</Name>\n"
      "            <Dimsize>2</Dimsize>\n"
      "            <Dimsize>3</Dimsize>\n" +
          [] {
            std::string elements;
            for (int v = 1; v <= 6; ++v) {
              elements += fmt::format(
                  "            <I32>\n"
                  "                <Name></Name>\n"
                  "                <Val>{}</Val>\n"
                  "            </I32>\n",
                  v);
            }
            return elements;
          }() +
          "        </Array>\n"
          "        <Array>\n"
          "            <Name>e</Name>\n"
          "            <Dimsize>0</Dimsize>\n"
          "            <Boolean>\n"
          "                <Name></Name>\n"
          "                <Val>0</Val>\n"
          "            </Boolean>\n"
          "        </Array>\n"
          "    </Cluster>\n"
          "</LVData>\n");
}

TEST(LabviewXml, WritesEachKindInItsForm) {
  TProparray<TPropstruct> mixed(TPropSize{2});
  mixed[0].set("a", 1.0);
  mixed[1].set("a", std::int32_t{1});
  const struct {
    TProp value;
    std::string piece;
  } cases[] = {
      {TProp(1.0f / 3), "<SGL>\n        <Name></Name>\n        <Val>0.33333334</Val>"},
      {TProp(-std::numeric_limits<double>::infinity()),
       "<DBL>\n        <Name></Name>\n        <Val>-Inf</Val>"},
      {TProp(true), "<Boolean>\n        <Name></Name>\n        <Val>1</Val>"},
      {TProp(std::complex<double>(1.5, 2)),
       "<CDB>\n        <Name></Name>\n        <Val>1.5 +2 i</Val>"},
      {TProp(std::complex<float>(-0.5f, -0.0f)),
       "<CSG>\n        <Name></Name>\n        <Val>-0.5 -0 i</Val>"},
      {TProp("a & <b> \"q\" 'x'\r\n"), "<Val>a &amp; &lt;b&gt; \"q\" 'x'&#13;\n</Val>"},
      {TProp(_s_tarn_RGB{0x11, 0x22, 0x33}),
       "<U32>\n        <Name></Name>\n        <Val>3351057</Val>"},
      {TProp(TPropempty{}), "    <LvVariant>\n        <Name></Name>\n    </LvVariant>\n</LVData>"},
      {cell_of({}, {TProp(2.0)}),
       "    <LvVariant>\n        <Name></Name>\n        <DBL>\n            <Name></Name>\n"},
      {cell_of({1, 2}, {TProp("x"), TProp("y")}),
       "<Dimsize>2</Dimsize>\n        <String>\n            <Name></Name>\n            "
       "<Val>x</Val>"},
      {cell_of({2}, {TProp("x"), TProp(1.0)}),
       "<Dimsize>2</Dimsize>\n        <LvVariant>\n            <Name></Name>\n            "
       "<String>"},
      {TProp(std::move(mixed)),
       "<Dimsize>2</Dimsize>\n        <LvVariant>\n            <Name></Name>\n            "
       "<Cluster>"},
      {TProp::cell({0}),
       "<Dimsize>0</Dimsize>\n        <LvVariant>\n            <Name></Name>\n"
       "        </LvVariant>"},
  };
  for (const auto& [value, piece] : cases) {
    const std::string xml = internal::write_labview_xml(value);
    EXPECT_NE(xml.find(piece), std::string::npos) << piece << "\nnot in\n" << xml;
  }
}

// The LabVIEW type a value is written as, to tell uniform struct arrays.
std::string labview_type(const TProp& value) {
  const DataType code = value.type_code();
  if (code == dt::none || code == dt::empty) return "variant";
  if (value.get_if<TPropstring>() != nullptr) return "string";
  if (const auto* members = value.get_if<TPropstruct>()) {
    std::string type = "cluster(";
    for (const auto& [name, member] : *members) type += name + ":" + labview_type(member) + ",";
    return type + ")";
  }
  if (const auto* cells = value.get_if<TProparray<TProp>>()) {
    if (cells->get_rank() == 0) return "variant";
    bool strings = cells->element_count() > 0;
    for (const TProp& cell : *cells) strings = strings && cell.get_if<TPropstring>() != nullptr;
    return fmt::format("array{}({})", cells->get_rank(), strings ? "string" : "variant");
  }
  if (const auto* texts = value.get_if<TProparray<TPropstring>>()) {
    return fmt::format("array{}(string)", texts->get_rank());
  }
  if (const auto* structs = value.get_if<TProparray<TPropstruct>>()) {
    std::string element = "cluster()";
    for (std::size_t i = 0; i < structs->element_count(); ++i) {
      const std::string type = labview_type(TProp((*structs)[i]));
      if (i == 0) element = type;
      if (type != element) element = "variant";
    }
    return fmt::format("array{}({})", structs->get_rank(), element);
  }
  DataType element = code & dt::name_mask;
  if (element == dt::rgb || element == dt::rgb32) element = dt::uint32;
  return value.is_array() ? fmt::format("array{}({})", value.get_arr()->get_rank(), element)
                          : std::to_string(element);
}

std::uint32_t packed(const _s_tarn_RGB& colour) {
  return colour.red | (std::uint32_t{colour.green} << 8) | (std::uint32_t{colour.blue} << 16);
}

// What a value reads back as after the LabVIEW form: colours as uint32, char arrays as cells,
// single cells as their value, "empty" as "none", struct arrays of differing elements as cells.
TProp after_labview(const TProp& value) {
  const DataType code = value.type_code();
  if (code == dt::none || code == dt::empty) return TProp();
  if (value.get_if<TPropstring>() != nullptr) return value;
  if (const auto* members = value.get_if<TPropstruct>()) {
    TPropstruct result;
    for (const auto& [name, member] : *members) result.set(name, after_labview(member));
    return TProp(std::move(result));
  }
  if (const auto* cells = value.get_if<TProparray<TProp>>()) {
    if (cells->get_rank() == 0) return after_labview((*cells)[0]);
    TProparray<TProp> result(cells->shape());
    for (std::size_t i = 0; i < cells->element_count(); ++i) result[i] = after_labview((*cells)[i]);
    return TProp(std::move(result));
  }
  if (const auto* texts = value.get_if<TProparray<TPropstring>>()) {
    TProparray<TProp> result(texts->shape());
    for (std::size_t i = 0; i < texts->element_count(); ++i) result[i] = TProp((*texts)[i]);
    return TProp(std::move(result));
  }
  if (const auto* structs = value.get_if<TProparray<TPropstruct>>()) {
    if (!labview_type(value).ends_with("(variant)")) {
      TProparray<TPropstruct> result(structs->shape());
      for (std::size_t i = 0; i < structs->element_count(); ++i) {
        result[i] = after_labview(TProp((*structs)[i])).get<TPropstruct>();
      }
      return TProp(std::move(result));
    }
    TProparray<TProp> result(structs->shape());
    for (std::size_t i = 0; i < structs->element_count(); ++i) {
      result[i] = after_labview(TProp((*structs)[i]));
    }
    return TProp(std::move(result));
  }
  const DataType element = code & dt::name_mask;
  if (element != dt::rgb && element != dt::rgb32) return value;
  TProparray<std::uint32_t> words(value.content()->array()->shape());
  for (std::size_t i = 0; i < words.element_count(); ++i) {
    words[i] = element == dt::rgb32 ? value.get<TProparray<std::uint32_t>>()[i]
                                    : packed(value.get<TProparray<_s_tarn_RGB>>()[i]);
  }
  return TProp(std::move(words));
}

TEST(LabviewXml, RandomTreesRoundTripAsTheFormAllows) {
  testing::expect_random_round_trips(kLabview, 300, after_labview, false);
}

TEST(LabviewXml, DamagedDocumentsFailClearly) {
  const std::string one_double = scalar("DBL", "", "1");
  const struct {
    std::string values;
    std::string message;
  } cases[] = {
      {"<Array><Name>a</Name><Dimsize>1000000000000000000</Dimsize>" + one_double + "</Array>",
       "Array has 1 elements but Dimsize gives 1000000000000000000.\nLocation:\n/LVData/Array"},
      {"<Array><Name>a</Name><Dimsize>4294967296</Dimsize><Dimsize>4294967296</Dimsize>" +
           one_double + "</Array>",
       "Array Dimsize product exceeds 64 bits.\nLocation:\n/LVData/Array"},
      {"<Array><Name>a</Name><Dimsize>-1</Dimsize>" + one_double + "</Array>",
       "Could not convert \"-1\" to target type\nLocation:\n/LVData/Array/Dimsize"},
      {"<Array><Name>a</Name>" + one_double + "</Array>",
       "Array without 'Dimsize'.\nLocation:\n/LVData/Array"},
      {"<Array><Name>a</Name><Dimsize>2</Dimsize>" + one_double + scalar("SGL", "", "1") +
           "</Array>",
       "Array elements of different types.\nLocation:\n/LVData/Array/SGL"},
      {"<Array><Name>a</Name><Dimsize>1</Dimsize><Array><Name></Name><Dimsize>1</Dimsize>" +
           one_double + "</Array></Array>",
       "Arrays of arrays are not supported.\nLocation:\n/LVData/Array/Array"},
      {"<Cluster><Name>c</Name><NumElts>3</NumElts>" + one_double + one_double + "</Cluster>",
       "Cluster has 2 elements but NumElts gives 3.\nLocation:\n/LVData/Cluster"},
      {"<Waveform><Name>w</Name></Waveform>",
       "Unknown element 'Waveform'.\nLocation:\n/LVData/Waveform"},
      {scalar("CDB", "z", "1.5 +"),
       "Could not convert \"1.5 +\" to target type\nLocation:\n/LVData/CDB"},
      {scalar("CSG", "z", "1.5 +2 +3 i"),
       "Could not convert \"1.5 +2 +3 i\" to target type\nLocation:\n/LVData/CSG"},
      {scalar("I8", "i", "200"), "Could not convert \"200\" to target type\nLocation:\n/LVData/I8"},
      {scalar("Boolean", "b", "yes"),
       "Could not convert \"yes\" to target type\nLocation:\n/LVData/Boolean"},
      {"<DBL><Name>d</Name></DBL>", "Missing 'Val' element.\nLocation:\n/LVData/DBL"},
      {"<EW><Name>e</Name><Choice>a</Choice><Val>1</Val></EW>",
       "Enum value 1 out of range of its 1 items.\nLocation:\n/LVData/EW"},
      {"<Timestamp><Name>t</Name><Cluster><Name></Name><NumElts>3</NumElts>" +
           scalar("I32", "", "0") + scalar("I32", "", "0") + scalar("I32", "", "0") +
           "</Cluster></Timestamp>",
       "Malformed 'Timestamp' element: four words expected.\nLocation:\n/LVData/Timestamp"},
      {"<LvVariant><Name>v</Name>" + one_double + one_double + "</LvVariant>",
       "LvVariant holds more than one value.\nLocation:\n/LVData/LvVariant"},
      {"<Cluster><Name>c</Name><NumElts>1</NumElts><Array><Name>a</Name><Dimsize>2</Dimsize>"
       "<Cluster><Name></Name><NumElts>1</NumElts>" +
           one_double + "</Cluster><Cluster><Name></Name><NumElts>1</NumElts>" +
           scalar("DBL", "", "x") + "</Cluster></Array></Cluster>",
       "Could not convert \"x\" to target type\nLocation:\n/LVData/Cluster/Array/Cluster[2]/DBL"},
  };
  for (const auto& [values, message] : cases) {
    EXPECT_THROW_MESSAGE(kLabview.read(lv(values)), std::runtime_error, message);
  }
  EXPECT_THROW_MESSAGE(kLabview.read("<LVData>" + one_double + "</LVData>"), std::runtime_error,
                       "Missing 'Version' element.\nLocation:\n/LVData");
}

TEST(LabviewXml, RefusesWhatItCannotWrite) {
  // Each struct level is a Cluster with Name and NumElts below it.
  const TProp deep = testing::nested_structs(kMaxXmlDepth - 2);
  EXPECT_THROW_MESSAGE(internal::write_labview_xml(deep), std::runtime_error,
                       "Xml nesting deeper than 1000 levels.");
  EXPECT_NO_THROW(kLabview.read(internal::write_labview_xml(deep.getp("a"))));
  EXPECT_THROW_MESSAGE(internal::write_labview_xml(TProp("\xc3")), std::runtime_error,
                       "Could not convert value to text");
}

}  // namespace
}  // namespace Tarn::props
