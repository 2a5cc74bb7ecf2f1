#include "tarnio/ome/ome_xml.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <pugixml.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tarnio/json/read_write.h"
#include "tarnio/ome/errors.h"
#include "tarnio/ome/quantity.h"
#include "tarnio/ome/root.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/ome_samples.h"
#include "tarnio/testing/temp_dir.h"

namespace OME {
namespace {

using Tarn::testing::kOMESamples;
using Tarn::testing::read_text;

std::string trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return "";
  return std::string(text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1));
}

// A value as a number when it reads as one, so that 1.0 and 1 compare equal; booleans alike.
std::string canonical_value(std::string_view raw) {
  const std::string text = trimmed(raw);
  if (text == "true" || text == "false") return text;
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (!text.empty() && error == std::errc() && end == text.data() + text.size()) {
    return fmt::format("#{}", number);
  }
  return text;
}

// The document as lines of element paths, sorted attributes and trimmed text, in document
// order; comments, white space and attribute order aside. Read with pugixml alone, so that it
// checks the model's reading and writing from outside.
void canonical(pugi::xml_node node, const std::string& path, std::vector<std::string>& lines) {
  std::string name = node.name();
  name = name.substr(name.find(':') + 1);
  const std::string here = fmt::format("{}/{}", path, name);
  std::vector<std::string> attributes;
  for (pugi::xml_attribute a : node.attributes()) {
    const std::string key = a.name();
    if (key.starts_with("xmlns")) continue;
    attributes.push_back(fmt::format("{}={}", key, canonical_value(a.value())));
  }
  std::sort(attributes.begin(), attributes.end());
  std::string text;
  for (pugi::xml_node child : node.children()) {
    if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata)
      text += child.value();
  }
  std::ostringstream line;
  line << here;
  for (const std::string& a : attributes) line << " " << a;
  line << " [" << canonical_value(text) << "]";
  lines.push_back(line.str());
  for (pugi::xml_node child : node.children(/*element*/)) {
    if (child.type() == pugi::node_element) canonical(child, here, lines);
  }
}

std::vector<std::string> canonical(const std::string& xml) {
  pugi::xml_document document;
  EXPECT_TRUE(document.load_string(xml.c_str()));
  std::vector<std::string> lines;
  canonical(document.document_element(), "", lines);
  return lines;
}

TEST(OmeXmlTest, EverySampleComesBackDirectlyAndThroughJson) {
  Tarn::testing::TempDir dir;
  int samples = 0;
  for (const auto& entry : std::filesystem::directory_iterator(kOMESamples)) {
    SCOPED_TRACE(entry.path().filename().string());
    ++samples;
    const std::string original = read_text(entry.path());
    Root root;
    root.read_XML(original);
    const std::string direct = root.XML();
    const JSON::Value tree = JSON::read(JSON::write(read_OME_XML(original)));
    const std::string through_json = write_OME_XML(tree);
    for (const std::string& written : {direct, through_json}) {
      EXPECT_TRUE(Tarn::testing::validates_as_OME_XML(written, dir.path() / "written.ome.xml"))
          << written;
      EXPECT_EQ(canonical(written), canonical(original));
    }
  }
  EXPECT_EQ(samples, 16);
}

TEST(OmeXmlTest, ValuesAreTypedByTheSchema) {
  const JSON::Value tree =
      read_OME_XML(R"(<OME xmlns="http://www.openmicroscopy.org/Schemas/OME/2016-06">
    <Instrument ID="Instrument:0"><Laser ID="LightSource:0" Power="1.50" PowerUnit="mW"
      Tuneable="1" Wavelength="488"/><Arc ID="LightSource:1" Type="Xe"/></Instrument>
    <Image ID="Image:0"><AcquisitionDate>2026-01-01T00:00:00</AcquisitionDate>
      <Pixels ID="Pixels:0" DimensionOrder="XYZCT" Type="uint8" SizeX="+3" SizeY="2"
      SizeZ="1" SizeC="1" SizeT="1"><MetadataOnly/><Future Level="2"/></Pixels></Image>
    <StructuredAnnotations><XMLAnnotation ID="Annotation:0"><Value><a:x xmlns:a="urn:a">
      <a:y k="v">t</a:y></a:x></Value></XMLAnnotation><LongAnnotation ID="Annotation:1">
      <Value>-7</Value></LongAnnotation></StructuredAnnotations></OME>)");
  const JSON::Value& ome = tree.at("OME")[0];
  EXPECT_EQ(ome.at_path("Instrument[0].LightSource"), JSON::read(R"([
    {"ID": "LightSource:0", "Power": 1.5, "PowerUnit": "mW", "Tuneable": true,
     "Wavelength": 488, "#kind": "Laser"}, {"ID": "LightSource:1", "Type": "Xe", "#kind": "Arc"}])"));
  EXPECT_EQ(ome.at_path("Image[0].Pixels[0].SizeX"), JSON::Value(3));
  EXPECT_EQ(ome.at_path("Image[0].Pixels[0].#any[0]"), JSON::Value(R"(<Future Level="2"/>)"));
  EXPECT_EQ(ome.at_path("Image[0].AcquisitionDate[0]"), JSON::Value("2026-01-01T00:00:00"));
  EXPECT_EQ(ome.at_path("StructuredAnnotations[0].Annotation[1].Value[0]"), JSON::Value(-7));
  const std::string xml = write_OME_XML(tree);
  EXPECT_NE(
      xml.find(
          R"(<Laser ID="LightSource:0" Power="1.5" PowerUnit="mW" Wavelength="488" Tuneable="true")"),
      std::string::npos);
  EXPECT_NE(xml.find(R"(<Value><a:x xmlns:a="urn:a">
      <a:y k="v">t</a:y></a:x></Value>)"),
            std::string::npos);
  EXPECT_NE(xml.find("<MetadataOnly />\n      <Future Level=\"2\"/>\n"), std::string::npos) << xml;
  EXPECT_EQ(read_OME_XML(xml), tree);
}

// Whitespace alone can be a value; documents with and without foreign content are read by
// different parses, which must agree.
TEST(OmeXmlTest, WhitespaceValuesAreKept) {
  for (const std::string_view foreign : {"", "<Future>\n  <Level/>\n</Future>"}) {
    const JSON::Value tree = read_OME_XML(fmt::format(
        R"(<OME xmlns="http://www.openmicroscopy.org/Schemas/OME/2016-06">
      <Image ID="Image:0"><Description>  </Description>{}</Image><StructuredAnnotations>
      <MapAnnotation ID="Annotation:0"><Value><M K="k"> </M><M K="e"></M></Value>
      </MapAnnotation></StructuredAnnotations></OME>)",
        foreign));
    const JSON::Value& ome = tree.at("OME")[0];
    EXPECT_EQ(ome.at_path("Image[0].Description[0]"), JSON::Value("  ")) << foreign;
    const JSON::Value& map = ome.at_path("StructuredAnnotations[0].Annotation[0].Value[0].M");
    EXPECT_EQ(map[0].at("#text"), JSON::Value(" ")) << foreign;
    EXPECT_EQ(map[1].at("#text"), JSON::Value("")) << foreign;
    if (!foreign.empty()) {
      EXPECT_EQ(ome.at_path("Image[0].#any[0]"), JSON::Value(foreign));
    }
    EXPECT_EQ(read_OME_XML(write_OME_XML(tree)), tree);
  }
}

TEST(OmeXmlTest, QuantitiesTakeTheirUnitOrTheSchemasDefault) {
  Root root;
  root.read_XML(R"(<OME xmlns="http://www.openmicroscopy.org/Schemas/OME/2016-06">
    <Image ID="Image:0"><Pixels ID="Pixels:0" DimensionOrder="XYZCT" Type="uint8" SizeX="1"
      SizeY="1" SizeZ="1" SizeC="1" SizeT="1" PhysicalSizeX="0.5" PhysicalSizeY="20"
      PhysicalSizeYUnit="nm"><MetadataOnly/></Pixels></Image></OME>)");
  Image::Pixels& pixels = *root.images()[0].pixels().get();
  using Tarn::units::RuntimeValue;
  EXPECT_EQ(quantity(pixels, "Pixels", "PhysicalSizeX"), RuntimeValue(0.5, "µm"));
  EXPECT_EQ(quantity(pixels, "Pixels", "PhysicalSizeY"), RuntimeValue(0.02, "µm"));
  EXPECT_FALSE(quantity(pixels, "Pixels", "PhysicalSizeZ"));
  set_quantity(pixels, "Pixels", "PhysicalSizeZ", RuntimeValue(1.5, "mm"));
  EXPECT_EQ(quantity(pixels, "Pixels", "PhysicalSizeZ"), RuntimeValue(1500, "µm"));
  EXPECT_NE(root.XML().find(R"(PhysicalSizeZ="1.5" PhysicalSizeZUnit="mm")"), std::string::npos);
  EXPECT_THROW_MESSAGE(set_quantity(pixels, "Pixels", "PhysicalSizeZ", RuntimeValue(1, "s")),
                       Invalid_Argument, "'s' is not a unit of Pixels.PhysicalSizeZ.");
  EXPECT_THROW_MESSAGE(quantity(pixels, "Pixels", "SizeX"), Invalid_Argument,
                       "Pixels.SizeX has no unit.");
}

TEST(OmeXmlTest, BadDocumentsAreRefusedWithTheirReason) {
  const std::string head = R"(<OME xmlns="http://www.openmicroscopy.org/Schemas/OME/2016-06">)";
  const struct {
    std::string xml;
    std::string message;
  } cases[] = {
      {"<OME", "OME-XML parse error at offset 3: Error parsing start element tag."},
      {"", "OME-XML parse error at offset 0: No document element found."},
      {R"(<OME xmlns="http://www.openmicroscopy.org/Schemas/OME/2015-01"/>)",
       "Unsupported OME-XML namespace 'http://www.openmicroscopy.org/Schemas/OME/2015-01'."},
      {"<Root/>", "Unsupported OME-XML namespace ''."},
      {head + R"(<Image ID="Image:0"><Pixels SizeX="3.5"/></Image></OME>)",
       "Invalid PositiveInt '3.5' in OME.Image.Pixels.SizeX."},
      {head + R"(<Image ID="Image:0"><Pixels DimensionOrder="XYQ"/></Image></OME>)",
       "Invalid DimensionOrder 'XYQ' in OME.Image.Pixels.DimensionOrder."},
      {head + R"(<Image ID="Image:0"><Pixels SizeX="0"/></Image></OME>)",
       "Invalid PositiveInt '0' in OME.Image.Pixels.SizeX."},
      {head + R"(<Image ID="Image:0"><Pixels SizeX="2147483648"/></Image></OME>)",
       "Invalid PositiveInt '2147483648' in OME.Image.Pixels.SizeX."},
      {head + R"(<Instrument><Laser Wavelength="0"/></Instrument></OME>)",
       "Invalid PositiveFloat '0' in OME.Instrument.Laser.Wavelength."},
      {head + R"(<Instrument><Laser Tuneable="yes"/></Instrument></OME>)",
       "Invalid boolean 'yes' in OME.Instrument.Laser.Tuneable."},
      {head + R"(<StructuredAnnotations><DoubleAnnotation><Value>x</Value></DoubleAnnotation>)"
              R"(</StructuredAnnotations></OME>)",
       "Invalid double 'x' in OME.StructuredAnnotations.DoubleAnnotation.Value."},
  };
  for (const auto& c : cases) {
    EXPECT_THROW_MESSAGE(read_OME_XML(c.xml), Invalid_Data, c.message);
  }
  EXPECT_THROW_MESSAGE(write_OME_XML(JSON::read(R"({"OME": [{"Image": {"ID": 1}}]})")),
                       Invalid_Data,
                       "JSON value cannot be written as OME-XML: Image is not a list.");
  EXPECT_THROW_MESSAGE(
      write_OME_XML(
          JSON::read(R"({"OME": [{"Instrument": [{"LightSource": [{"#kind": "Sun"}]}]}]})")),
      Invalid_Data, "JSON value cannot be written as OME-XML: unknown LightSource kind Sun.");
}

}  // namespace
}  // namespace OME
