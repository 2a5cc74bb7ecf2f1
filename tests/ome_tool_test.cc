// The OME metadata of TBF files through the tarn tool: what tarn write and tarn demo record
// validates against the OME 2016-06 schema, tarn ome prints and changes it, tarn info and tarn
// verify report it.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "tarnio/testing/temp_dir.h"

namespace {

struct Result {
  int status = -1;
  std::string output;  // standard output and error
};

Result run(const std::string& command) {
  Result result;
  FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  for (int c; pipe != nullptr && (c = std::fgetc(pipe)) != EOF;) result.output += char(c);
  const int raw = pipe != nullptr ? ::pclose(pipe) : -1;
  result.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  return result;
}

Result tarn(const std::string& arguments) {
  return run(std::string(TARN_TOOL_PATH) + " " + arguments);
}

// Whether the OME-XML of the file validates against the schema, offline.
void expect_valid_ome_xml(const std::string& tbf, const std::filesystem::path& xml) {
  ASSERT_EQ(tarn("meta " + tbf + " ome_xml > " + xml.string()).status, 0);
  const std::string schema = TARNIO_OME_SCHEMA_DIR;
  const Result check = run("XML_CATALOG_FILES=" + schema + "/catalog.xml xmllint --noout --nonet " +
                           "--schema " + schema + "/ome.xsd " + xml.string());
  EXPECT_EQ(check.status, 0) << check.output;
}

TEST(OmeTool, WrittenAndDemoFilesCarryValidOmeXmlThatMatchesTheirStacks) {
  if (run("command -v xmllint").status != 0) GTEST_SKIP() << "xmllint is not installed";
  Tarn::testing::TempDir dir;
  const std::string file = (dir / "w.tbf").string();
  std::ofstream(dir / "raw", std::ios::binary) << std::string(4 * 3 * 2 * 2, 'a');
  ASSERT_EQ(tarn("write --type uint16 --shape 4,3,2 --lengths 0.4,0.3,1 --units um,um,um "
                 "--labels X,Y,Z --name cells " +
                 file + " " + (dir / "raw").string())
                .status,
            0);
  expect_valid_ome_xml(file, dir / "w.xml");
  const Result info = tarn("info " + file);
  EXPECT_NE(info.output.find("stack 0 is image \"cells\", pixel size 0.1 µm x 0.1 µm x 0.5 µm"),
            std::string::npos)
      << info.output;

  ASSERT_EQ(tarn("ome " + file + " --set 'OME[0].Image[0].Name=\"nuclei\"'").status, 0);
  EXPECT_NE(tarn("info --json " + file).output.find("\"name\": \"nuclei\""), std::string::npos);
  // A compacted file copies the description and describes no stack twice.
  ASSERT_EQ(tarn("compact " + file).status, 0);
  const std::string xml = tarn("ome " + file).output;
  EXPECT_EQ(xml.find("\"Image:stack-0\""), xml.rfind("\"Image:stack-0\"")) << xml;
  const Result refused = tarn("ome " + file + " --set OME[0].Image[0].Pixels[0].Type=uint7");
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.output, "tarn: Invalid PixelType 'uint7' in OME.Image.Pixels.Type.\n");

  const std::string demo = (dir / "demo.tbf").string();
  ASSERT_EQ(tarn("demo " + demo).status, 0);
  expect_valid_ome_xml(demo, dir / "demo.xml");
  EXPECT_NE(tarn("ome " + demo).output.find("<Channel ID=\"Channel:stack-0:1\" Name=\"GFP\""),
            std::string::npos);
}

TEST(OmeTool, BadOmeXmlFailsOmeAndVerifyButNotTheStacks) {
  Tarn::testing::TempDir dir;
  const std::string file = (dir / "bad.tbf").string();
  std::ofstream(dir / "raw", std::ios::binary) << std::string(4, 'a');
  ASSERT_EQ(tarn("write --type uint8 --shape 4 " + file + " " + (dir / "raw").string()).status, 0);
  // Not OME: the root element is another one. The new entry takes the old one's place.
  ASSERT_EQ(run("sed -i 's/<OME xmlns=/<MOE xmlns=/; s/<\\/OME>/<\\/MOE>/' " + file).status, 0);
  const Result ome = tarn("ome " + file);
  EXPECT_EQ(ome.status, 1);
  EXPECT_EQ(ome.output.rfind("tarn: Unsupported OME-XML namespace", 0), 0u) << ome.output;
  const Result verify = tarn("verify " + file);
  EXPECT_EQ(verify.status, 1);
  EXPECT_NE(verify.output.find("stack 0 (uint8, 4, 4 bytes): ok\nome_xml: damaged: "),
            std::string::npos)
      << verify.output;
  EXPECT_EQ(tarn("read " + file + " --stack 0").output, "aaaa");
  EXPECT_NE(tarn("info " + file).output.find("OME metadata unreadable"), std::string::npos);
}

}  // namespace
