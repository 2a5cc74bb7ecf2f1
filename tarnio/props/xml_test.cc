#include "tarnio/props/xml.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "tarnio/props/compare.h"
#include "tarnio/testing/expect_throw_message.h"

namespace Tarn::props {
namespace {

constexpr const char* kMismatch = "Specified format does not match the xml string.";
constexpr const char* kUnknown = "Could not determine xml format.";
constexpr const char* kNewer = "Xml input of newer version than library.";

TEST(XmlEntryPoints, ExportWritesThePropertyFormByDefault) {
  const TProp value(2.5);
  const std::string xml = tarn_export_xml(value);
  EXPECT_EQ(xml,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<root tprop_version=\"1\">\n"
            "    <item type=\"double\">2.5</item>\n</root>\n");
  EXPECT_EQ(tarn_export_xml(value, xml_format::detect), xml);
  EXPECT_EQ(tarn_export_xml(value, xml_format::property), xml);
  EXPECT_EQ(tarn_import_xml(xml).as<double>(), 2.5);
}

TEST(XmlEntryPoints, NoVersionFlagLeavesTheMarkerOut) {
  const std::string xml = tarn_export_xml(TProp(1), xml_format::property | xml_format::no_version);
  EXPECT_EQ(xml,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<root>\n"
            "    <item type=\"int32\">1</item>\n</root>\n");
  EXPECT_EQ(tarn_export_xml(TProp(1), xml_format::no_version), xml);
  // Without its marker the text names no dialect.
  EXPECT_THROW_MESSAGE(tarn_import_xml(xml), std::runtime_error, kUnknown);
  EXPECT_THROW_MESSAGE(tarn_import_xml(xml, xml_format::property), std::runtime_error, kUnknown);
}

TEST(XmlEntryPoints, DetectionFollowsTheMarkers) {
  const std::string property = "<root tprop_version=\"1\"><item type=\"int8\">5</item></root>";
  const std::string toolbox = "<root xml_tb_version=\"2.0\" type=\"double\" size=\"1 1\">5</root>";
  const std::string labview =
      "<LVData xmlns=\"http://www.ni.com/LVData\">\n<Version>8.2.1</Version>\n"
      "<I8>\n<Name>n</Name>\n<Val>5</Val>\n</I8>\n</LVData>";
  struct Case {
    std::string text;
    int format;
    const char* message;  // null: it imports
  };
  const std::vector<Case> cases = {
      {property, xml_format::detect, nullptr},
      {property, xml_format::property, nullptr},
      {property, xml_format::toolbox, kMismatch},
      {property, xml_format::labview, kMismatch},
      {property, 4, kMismatch},
      // The version is read as a number; the newer-version check comes before any other.
      {"<root tprop_version=\"1.0\"><item type=\"int8\">5</item></root>", 0, nullptr},
      {"<root tprop_version=\"2\"><item type=\"int8\">5</item></root>", 0, kNewer},
      {"<root tprop_version=\"1.5\"/>", xml_format::toolbox, kNewer},
      {"<root tprop_version=\"2\" xml_tb_version=\"2.0\"/>", 0, kNewer},
      // A version below 1, or none that reads as a number, is no marker of the property form.
      {"<root tprop_version=\"0\"><item type=\"int8\">5</item></root>", 0, kUnknown},
      {"<root tprop_version=\"one\"><item type=\"int8\">5</item></root>", 0, kUnknown},
      {"<root tprop_version=\"0\" xml_tb_version=\"2.0\"/>", xml_format::property, kMismatch},
      {toolbox, xml_format::property, kMismatch},
      {toolbox, xml_format::labview, kMismatch},
      {labview, xml_format::property, kMismatch},
      {labview, xml_format::toolbox, kMismatch},
      {"<LVData><Name>n</Name><Version>8.2.1</Version></LVData>", 0, kUnknown},
      {"<lvdata><Version>8.2.1</Version></lvdata>", 0, kUnknown},
      {"<LVData/>", 0, kUnknown},
      {"<root><item type=\"int8\">5</item></root>", 0, kUnknown},
      {"<item type=\"int8\">5</item>", 0, kUnknown},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text + " format " + std::to_string(c.format));
    if (c.message == nullptr) {
      EXPECT_EQ(tarn_import_xml(c.text, c.format), TProp(std::int8_t{5}));
    } else {
      EXPECT_THROW_MESSAGE(tarn_import_xml(c.text, c.format), std::runtime_error, c.message);
    }
  }
}

TEST(XmlEntryPoints, MalformedTextAndDeepNestingAreRefused) {
  for (const std::string text : {"", "<root", "<root tprop_version=\"1\"></rot>", "text"}) {
    SCOPED_TRACE(text);
    try {
      tarn_import_xml(text);
      ADD_FAILURE() << "imported";
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(std::string(error.what()).rfind("Malformed xml: ", 0), 0u) << error.what();
    }
  }
  std::string deep = "<root tprop_version=\"1\">";
  for (int i = 0; i < 10000; ++i) deep += "<a type=\"struct\">";
  for (int i = 0; i < 10000; ++i) deep += "</a>";
  deep += "</root>";
  EXPECT_THROW_MESSAGE(tarn_import_xml(deep), std::runtime_error,
                       "Xml nesting deeper than 1000 levels.");
}

TEST(XmlEntryPoints, ReaderErrorsPassThroughWithTheirLocation) {
  EXPECT_THROW_MESSAGE(
      tarn_import_xml("<root tprop_version=\"1\"><item type=\"struct\"><a type=\"double\">x</a>"
                      "</item></root>"),
      std::runtime_error, "Could not convert \"x\" to target type\nLocation:\n/root/item/a");
}

TEST(XmlEntryPoints, UnknownExportFormatIsRefused) {
  EXPECT_THROW_MESSAGE(tarn_export_xml(TProp(1), 7), std::runtime_error, "Unknown xml format 7.");
}

// Each dialect's text reads back through detection, and only through its own code.
TEST(XmlEntryPoints, EveryDialectRoundTripsThroughDetection) {
  const TProp value(2.5);
  for (const int format : {xml_format::toolbox, xml_format::property, xml_format::labview}) {
    SCOPED_TRACE(format);
    const std::string xml = tarn_export_xml(value, format);
    EXPECT_TRUE(is_equal(tarn_import_xml(xml), value)) << xml;
    EXPECT_TRUE(is_equal(tarn_import_xml(xml, format), value)) << xml;
    const int other = format % 3 + 1;
    EXPECT_THROW_MESSAGE(tarn_import_xml(xml, other), std::runtime_error, kMismatch);
  }
}

}  // namespace
}  // namespace Tarn::props
