#include <fmt/format.h>
#include <gtest/gtest.h>

#include <string>

#include "tarnio/json/value.h"
#include "tarnio/ome/errors.h"
#include "tarnio/ome/ome_xml.h"
#include "tarnio/testing/expect_throw_message.h"

namespace OME {
namespace {

constexpr std::string_view kOpen =
    R"(<OME xmlns="http://www.openmicroscopy.org/Schemas/OME/2016-06">)";

// `levels` nested elements of a foreign kind around a text.
std::string nested(int levels) {
  std::string xml;
  for (int i = 0; i < levels; ++i) xml += "<n:deep xmlns:n=\"urn:n\">";
  xml += "x";
  for (int i = 0; i < levels; ++i) xml += "</n:deep>";
  return xml;
}

// Foreign XML 10000 levels deep, as the value of an XML annotation and as an element the
// model does not know, reads and writes back whole without the walk over it recursing.
TEST(OmeXmlSize, TenThousandLevelsReadAndWriteBack) {
  const std::string deep = nested(10000);
  const std::string xml = fmt::format(
      "{}<StructuredAnnotations><XMLAnnotation ID=\"Annotation:0\"><Value>{}</Value>"
      "</XMLAnnotation></StructuredAnnotations>{}</OME>",
      kOpen, deep, deep);
  const JSON::Value tree = read_OME_XML(xml);
  const JSON::Value& ome = tree.at("OME")[0];
  // Compared as booleans: a failure would print the texts.
  EXPECT_TRUE(ome.at_path("StructuredAnnotations[0].Annotation[0].Value[0].#xml").get_string() ==
              deep);
  EXPECT_TRUE(ome.at("#any")[0].get_string() == deep);
  EXPECT_TRUE(read_OME_XML(write_OME_XML(tree)) == tree);
}

// A 100 MB document reads and writes back; cut short, it is refused with the place; an
// attribute given twice is refused rather than one of its values dropped.
TEST(OmeXmlSize, HundredMegabytesAndDamagedDocuments) {
  const std::string text(std::size_t{100} << 20, 'x');
  const std::string xml = fmt::format(
      "{}<Image ID=\"Image:0\"><Description>{}</Description></Image></OME>", kOpen, text);
  JSON::Value tree = read_OME_XML(xml);
  EXPECT_EQ(tree.at_path("OME[0].Image[0].Description[0]").get_string().size(), text.size());
  const std::string written = write_OME_XML(tree);
  tree = JSON::Value();
  const std::size_t start =
      written.find("<Description>") + std::string_view("<Description>").size();
  EXPECT_EQ(written.compare(start, text.size(), text), 0);
  EXPECT_EQ(written.compare(start + text.size(), 14, "</Description>"), 0);
  EXPECT_THROW(read_OME_XML(std::string_view(xml).substr(0, xml.size() / 2)), Invalid_Data);
  EXPECT_THROW_MESSAGE(
      read_OME_XML(fmt::format("{}<Image ID=\"Image:0\" Name=\"a\" Name=\"b\"/></OME>", kOpen)),
      Invalid_Data, "Repeated attribute 'Name' in OME.Image.");
}

}  // namespace
}  // namespace OME
