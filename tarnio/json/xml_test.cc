#include "tarnio/json/xml.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <pugixml.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tarnio/json/read_write.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/temp_dir.h"
#include "tarnio/testing/tree_files.h"

namespace JSON {
namespace {

const std::string kSamples = "tests/data/ome/samples/";
const std::string kSchema = "tests/data/ome/schema/2016-06/";

// One line per element (depth, name, attributes in order, trimmed text), in document order;
// comments, processing instructions and white space between elements do not count.
void append_canonical(pugi::xml_node element, int depth, std::string& out) {
  out += std::to_string(depth) + " <" + element.name();
  for (pugi::xml_attribute attribute : element.attributes()) {
    out += std::string(" ") + attribute.name() + "=\"" + attribute.value() + "\"";
  }
  std::string text;
  for (pugi::xml_node child : element.children()) {
    if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) {
      text += child.value();
    }
  }
  const auto first = text.find_first_not_of(" \t\r\n");
  const auto last = text.find_last_not_of(" \t\r\n");
  out += "> " + (first == std::string::npos ? "" : text.substr(first, last - first + 1)) + "\n";
  for (pugi::xml_node child : element.children()) {
    if (child.type() == pugi::node_element) append_canonical(child, depth + 1, out);
  }
}

std::string canonical(const std::string& xml) {
  pugi::xml_document document;
  EXPECT_TRUE(document.load_string(xml.c_str()));
  std::string out;
  append_canonical(document.document_element(), 0, out);
  return out;
}

Value list(std::initializer_list<Value> items) { return Value::list(items); }

TEST(FromXml, ElementsAttributesTextAndOrder) {
  const Value read = from_xml(
      "<?xml version=\"1.0\"?>\n<!-- made by hand -->\n"
      "<Pixels ID=\"Pixels:0\" SizeX=\"6\">\n"
      "  <Channel ID=\"Channel:0\"/>\n  <Channel ID=\"Channel:1\"></Channel>\n"
      "  <?pi dropped?><Description>Two  channels </Description>\n"
      "  <BinData Length=\"3\">\n abc </BinData>\n  <Empty/><Blank> \n</Blank>\n"
      "  <M K=\" \n\"> </M>\n"
      "</Pixels>\n");
  const Value pixels = Value::object(
      {{"ID", "Pixels:0"},
       {"SizeX", "6"},
       {"Channel",
        list({Value::object({{"ID", "Channel:0"}}), Value::object({{"ID", "Channel:1"}})})},
       {"Description", list({"Two  channels "})},
       {"BinData", list({Value::object({{"Length", "3"}, {"#text", "\n abc "}})})},
       {"Empty", list({""})},
       {"Blank", list({" \n"})},
       {"M", list({Value::object({{"K", "  "}})})}});
  EXPECT_EQ(read, Value::object({{"Pixels", list({pixels})}}));
  EXPECT_EQ(write(read), R"({"Pixels":[)" + write(pixels) + "]}");  // members in document order

  const Value interleaved = from_xml("<a><b>1</b><c/><b>2</b><c/></a>");
  EXPECT_EQ(
      interleaved,
      Value::object({{"a", list({Value::object({{"b", list({"1", "2"})},
                                                {"c", list({"", ""})},
                                                {"#order", list({"b", "c", "b", "c"})}})})}}));
  EXPECT_FALSE(from_xml("<a><b/><b/><c/></a>").at_path("a[0]").contains("#order"));
  EXPECT_EQ(to_xml(interleaved, -1),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?><a><b>1</b><c/><b>2</b><c/></a>");
}

TEST(FromXml, NamesEscapesCdataAndUtf8) {
  const Value read = from_xml(
      "<ome:OME xmlns:ome=\"urn:o\" xsi:loc=\"a\n\tb &amp; &#10;c\">"
      "<ome:V>x &amp; &lt;y&gt; &#65;&#x42; <![CDATA[<raw>&]]> \xC2\xB5m</ome:V>"
      "<W xmlns=\"urn:w\">B<n/>C</W></ome:OME>");
  EXPECT_EQ(
      read,
      Value::object(
          {{"ome:OME", list({Value::object({{"xmlns:ome", "urn:o"},
                                            {"xsi:loc", "a  b & \nc"},
                                            {"ome:V", list({"x & <y> AB <raw>& \xC2\xB5m"})},
                                            {"W", list({Value::object({{"xmlns", "urn:w"},
                                                                       {"n", list({""})},
                                                                       {"#text", "BC"}})})}})})}}));
}

TEST(FromXml, MalformedOrTooDeepXmlGivesTheOffset) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "0: no root element"},
      {"<a><b></a>", "8: Start-end tags mismatch"},
      {"<a/>\n<b/>", "5: more than one root element"},
      {"<a/>text", "4: text outside the root element"},
      {"<r><a x='1' x='2'/></r>", "3: duplicate attribute 'x'"},
      {"<a b='1'><b/></a>", "9: element 'b' has the name of an attribute"},
  };
  for (const auto& [xml, message] : cases) {
    EXPECT_THROW_MESSAGE(from_xml(xml), std::runtime_error,
                         "XML parse error at offset " + message + ".");
  }
  // Every truncation of a sample before its end is an error with an offset.
  const std::string sample = Tarn::testing::slurp_file(kSamples + "single-image.ome.xml");
  ASSERT_FALSE(sample.empty());
  for (std::size_t size = 0; size < sample.rfind('>'); size += 5) {
    try {
      from_xml(std::string_view(sample).substr(0, size));
      ADD_FAILURE() << "no error for " << size << " bytes";
    } catch (const std::runtime_error& error) {
      EXPECT_TRUE(std::string(error.what()).starts_with("XML parse error at offset "))
          << error.what();
    }
  }

  const auto nested = [](int depth) {
    std::string xml;
    for (int i = 0; i < depth; ++i) xml += "<a>";
    for (int i = 0; i < depth; ++i) xml += "</a>";
    return xml;
  };
  EXPECT_THROW_MESSAGE(from_xml(nested(100000)), std::runtime_error,
                       "XML parse error at offset 30000: nesting deeper than 10000 levels.");
  const std::string deepest = nested(kMaxDepth);
  EXPECT_TRUE(to_xml(from_xml(deepest), -1) == "<?xml version=\"1.0\" encoding=\"UTF-8\"?>" +
                                                   deepest.substr(0, 3 * kMaxDepth - 3) + "<a/>" +
                                                   deepest.substr(3 * kMaxDepth + 4));
}

TEST(ToXml, ScalarsIndentationAndEscapes) {
  const Value document = Value::object(
      {{"R", list({Value::object(
                 {{"i", -5},
                  {"u", std::numeric_limits<std::uint64_t>::max()},
                  {"d", 0.1},
                  {"e", 1e300},
                  {"n", std::numeric_limits<double>::quiet_NaN()},
                  {"b", true},
                  {"skipped", nullptr},
                  {"q", "<\"&'>\n\t"},
                  {"C", list({"t<&>", 2.5, Value::object({{"#text", "x"}, {"k", false}})})},
                  {"#text", "first"}})})}});
  EXPECT_EQ(to_xml(document),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<R i=\"-5\" u=\"18446744073709551615\" d=\"0.1\" e=\"1e+300\" n=\"NaN\" b=\"true\" "
            "q=\"&lt;&quot;&amp;'>&#10;&#09;\">first<C>t&lt;&amp;&gt;</C>\n"
            "  <C>2.5</C>\n  <C k=\"false\">x</C>\n</R>\n");
  EXPECT_EQ(to_xml(Value::object({{"R", list({Value::object({{"C", list({""})}})})}}), 0),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<R>\n<C />\n</R>\n");
  EXPECT_EQ(from_xml(to_xml(document)).at_path("R[0].q"), document.at_path("R[0].q"));
  // A reader turns a raw carriage return into a line feed: text keeps it as a reference.
  const Value returns = Value::object({{"R", list({"a\rb"})}});
  EXPECT_EQ(from_xml(to_xml(returns)), returns);
}

TEST(ToXml, WrongShapesAreErrors) {
  const auto element = [](Value value) { return Value::object({{"R", list({std::move(value)})}}); };
  const std::vector<std::pair<std::string, Value>> cases = {
      {"the document is not an object with one member", list({})},
      {"the document is not an object with one member",
       Value::object({{"A", list({""})}, {"B", list({""})}})},
      {"the root 'R' is not a list with one item", Value::object({{"R", list({"", ""})}})},
      {"an item of 'R' is a null", element(nullptr)},
      {"an item of 'C' is a list", element(Value::object({{"C", list({list({})})}}))},
      {"member 'C' of 'R' is an object, not a list of elements",
       element(Value::object({{"C", Value::object()}}))},
      {"'#text' of 'R' is a list", element(Value::object({{"#text", list({})}}))},
      {"'a b' is not an XML name", element(Value::object({{"a b", "1"}}))},
      {"'1C' is not an XML name", element(Value::object({{"1C", list({""})}}))},
      {"'R' holds the control character U+0001", element("\x01")},
      {"'#order' of 'R' names 'D', which is not a list member",
       element(Value::object({{"C", list({""})}, {"#order", list({"D"})}}))},
      {"'#order' of 'R' names 'C' more often than it has items",
       element(Value::object({{"C", list({""})}, {"#order", list({"C", "C"})}}))},
      {"'#order' of 'R' leaves out items of 'C'",
       element(Value::object({{"C", list({"", ""})}, {"#order", list({"C"})}}))}};
  for (const auto& [reason, document] : cases) {
    EXPECT_THROW_MESSAGE(to_xml(document), std::runtime_error,
                         "JSON value cannot be written as XML: " + reason + ".");
  }
}

// Each sample survives from_xml/to_xml (indented and compact) element for element, and the
// written document is valid against the schema exactly when the original is (xmllint).
TEST(OmeSamples, RoundTripAndValidateAsTheOriginalsDo) {
  const Tarn::testing::TempDir dir;
  std::vector<std::string> files;  // original, written, original, written, ...
  for (const auto& entry : std::filesystem::directory_iterator(kSamples)) {
    const std::string name = entry.path().filename().string();
    if (!name.ends_with(".ome.xml")) continue;
    SCOPED_TRACE(name);
    const std::string original = Tarn::testing::slurp_file(entry.path().string());
    const Value read = from_xml(original);
    const std::string written = to_xml(read);
    EXPECT_EQ(canonical(written), canonical(original));
    EXPECT_EQ(from_xml(written), read);
    EXPECT_EQ(from_xml(to_xml(read, -1)), read);
    files.push_back(entry.path().string());
    files.push_back((dir / name).string());
    std::ofstream(files.back(), std::ios::binary) << written;
  }
  ASSERT_EQ(files.size(), 32u);
  if (std::system("command -v xmllint > /dev/null 2>&1") != 0) GTEST_SKIP() << "no xmllint";
  const std::string log = (dir / "xmllint.log").string();
  std::string command = "XML_CATALOG_FILES=" + kSchema + "catalog.xml xmllint --noout --nonet " +
                        "--schema " + kSchema + "ome.xsd";
  for (const std::string& file : files) command += " " + file;
  (void)std::system((command + " > " + log + " 2>&1").c_str());
  std::map<std::string, std::string> verdicts;
  std::istringstream lines(Tarn::testing::slurp_file(log));
  for (std::string line; std::getline(lines, line);) {
    for (const std::string& file : files) {
      for (const char* verdict : {" validates", " fails to validate"}) {
        if (line == file + verdict) verdicts[file] = verdict;
      }
    }
  }
  for (std::size_t i = 0; i < files.size(); i += 2) {
    ASSERT_TRUE(verdicts.contains(files[i]) && verdicts.contains(files[i + 1])) << files[i];
    EXPECT_EQ(verdicts.at(files[i + 1]), verdicts.at(files[i])) << files[i];
  }
}

}  // namespace
}  // namespace JSON
