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

// Foreign XML 10000 levels deep, as an XML annotation's value and as an element the model
// does not know, reads and writes back whole, without a walk over it that recurses.
TEST(OmeXmlSize, TenThousandLevelsReadAndWriteBack) {
  std::string deep;
  for (int i = 0; i < 10000; ++i) deep += "<n:d xmlns:n=\"urn:n\">";
  for (int i = 0; i < 10000; ++i) deep += i == 0 ? "x</n:d>" : "</n:d>";
  const JSON::Value tree = read_OME_XML(
      fmt::format("{}<StructuredAnnotations><XMLAnnotation ID=\"Annotation:0\"><Value>{}</Value>"
                  "</XMLAnnotation></StructuredAnnotations>{}</OME>",
                  kOpen, deep, deep));
  const JSON::Value& ome = tree.at("OME")[0];
  // Compared as booleans: a failure would print the texts.
  EXPECT_TRUE(ome.at_path("StructuredAnnotations[0].Annotation[0].Value[0].#xml").get_string() ==
              deep);
  EXPECT_TRUE(ome.at("#any")[0].get_string() == deep);
  EXPECT_TRUE(read_OME_XML(write_OME_XML(tree)) == tree);
}

// A 100 MB document reads and writes back; cut short, it is refused; an attribute given
// twice is refused rather than one of its values dropped.
TEST(OmeXmlSize, HundredMegabytesAndDamagedDocuments) {
  const std::string text(std::size_t{100} << 20, 'x');
  const std::string xml = fmt::format(
      "{}<Image ID=\"Image:0\"><Description>{}</Description></Image></OME>", kOpen, text);
  const std::string written = write_OME_XML(read_OME_XML(xml));
  const std::size_t start =
      written.find("<Description>") + std::string_view("<Description>").size();
  EXPECT_EQ(written.compare(start, text.size() + 14, text + "</Description>"), 0);
  EXPECT_THROW(read_OME_XML(std::string_view(xml).substr(0, xml.size() / 2)), Invalid_Data);
  EXPECT_THROW_MESSAGE(
      read_OME_XML(fmt::format("{}<Image ID=\"Image:0\" Name=\"a\" Name=\"b\"/></OME>", kOpen)),
      Invalid_Data, "Repeated attribute 'Name' in OME.Image.");
}

}  // namespace
}  // namespace OME
