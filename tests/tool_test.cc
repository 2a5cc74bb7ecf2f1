// The tarn tool as scripts use it: exit codes, output and the one-line failure report.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "tarnio/json/read_write.h"
#include "tarnio/testing/temp_dir.h"

namespace {

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

std::string slurp(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void spill(const std::filesystem::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

ToolRun tarn(const std::string& arguments) {
  Tarn::testing::TempDir dir;
  const std::string command = std::string(TARN_TOOL_PATH) + " " + arguments + " >" +
                              (dir / "out").string() + " 2>" + (dir / "err").string();
  const int raw = std::system(command.c_str());
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(dir / "out"), slurp(dir / "err")};
}

TEST(TarnTool, TypesPrintsAnAlignedTable) {
  const ToolRun run = tarn("types");
  ASSERT_EQ(run.status, 0) << run.err;
  std::istringstream lines(run.out);
  std::string line;
  std::size_t width = 0;
  int rows = 0;
  bool saw_uint16 = false;
  while (std::getline(lines, line)) {
    if (width == 0) width = line.find("name");
    ASSERT_NE(width, std::string::npos) << "header without a name column: " << line;
    saw_uint16 = saw_uint16 || line.find("uint16") == width;
    ++rows;
  }
  EXPECT_TRUE(saw_uint16) << run.out;
  EXPECT_GE(rows, 29);
}

TEST(TarnTool, HelpAndVersionSucceed) {
  const ToolRun help = tarn("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("types"), std::string::npos);
  const ToolRun version = tarn("--version");
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out.rfind("tarn ", 0), 0u) << version.out;
}

TEST(TarnTool, UsageErrorsExitTwo) {
  EXPECT_EQ(tarn("").status, 2);
  EXPECT_EQ(tarn("no-such-command").status, 2);
  EXPECT_EQ(tarn("types --no-such-option").status, 2);
}

// A document with a struct, a value array, text, a logical, an empty value and a key that is
// no member name.
constexpr const char* kPropsJson =
    R"({"a": [1, 2.5, -3], "b": {"c": "text", "my key": true}, "n": null, "i": )"
    R"({"#type": "int16", "#size": [2, 2], "#data": [1, 2, 3, 4]}})";

TEST(TarnTool, PropsConvertsJsonToXmlAndBack) {
  Tarn::testing::TempDir dir;
  spill(dir / "in.json", kPropsJson);
  const ToolRun json = tarn("props " + (dir / "in.json").string());
  ASSERT_EQ(json.status, 0) << json.err;
  EXPECT_EQ(JSON::read(json.out), JSON::read(kPropsJson)) << json.out;

  for (const std::string to : {"xml", "xml:2"}) {
    const ToolRun xml = tarn("props " + (dir / "in.json").string() + " --to " + to + " -o " +
                             (dir / "out.xml").string());
    ASSERT_EQ(xml.status, 0) << xml.err;
    EXPECT_EQ(xml.out, "");
    EXPECT_NE(slurp(dir / "out.xml").find("tprop_version=\"1\""), std::string::npos);
    const ToolRun back = tarn("props " + (dir / "out.xml").string());
    ASSERT_EQ(back.status, 0) << back.err;
    EXPECT_EQ(JSON::read(back.out), JSON::read(kPropsJson)) << back.out;
  }
}

TEST(TarnTool, PropsWritesEveryXmlDialectAndReadsItBack) {
  Tarn::testing::TempDir dir;
  spill(dir / "in.json", R"({"x": 2.5, "s": "text"})");
  const std::pair<const char*, const char*> dialects[] = {
      {"xml:1", "xml_tb_version"}, {"xml:2", "tprop_version"}, {"xml:3", "<LVData"}};
  for (const auto& [to, marker] : dialects) {
    const ToolRun xml = tarn("props " + (dir / "in.json").string() + " --to " + to);
    ASSERT_EQ(xml.status, 0) << to << ": " << xml.err;
    EXPECT_NE(xml.out.find(marker), std::string::npos) << xml.out;
    spill(dir / "out.xml", xml.out);
    const ToolRun x = tarn("props - --get x < " + (dir / "out.xml").string());
    EXPECT_EQ(x.status, 0) << to << ": " << x.err;
    EXPECT_EQ(x.out, "2.5\n") << to;
    const ToolRun s = tarn("props " + (dir / "out.xml").string() + " --get s");
    EXPECT_EQ(s.out, "text\n") << to << ": " << s.err;
  }
}

TEST(TarnTool, PropsGetPrintsScalarsAsTextAndTheRestAsJson) {
  Tarn::testing::TempDir dir;
  spill(dir / "in.json", kPropsJson);
  const std::string in = (dir / "in.json").string();
  const std::pair<std::string, std::string> texts[] = {
      {"'a(1)'", "2.5\n"}, {"a/2", "-3\n"}, {"b.c", "text\n"}, {"'i(1,1)'", "4\n"}};
  for (const auto& [path, text] : texts) {
    const ToolRun run = tarn("props " + in + " --get " + path);
    EXPECT_EQ(run.status, 0) << path << ": " << run.err;
    EXPECT_EQ(run.out, text) << path;
  }
  const ToolRun escaped = tarn("props " + in + " --get b._-my-20key");
  EXPECT_EQ(escaped.out, "1\n") << escaped.err;
  const ToolRun members = tarn("props - --get b < " + in);
  ASSERT_EQ(members.status, 0) << members.err;
  EXPECT_EQ(JSON::read(members.out), JSON::read(R"({"c": "text", "my key": true})"));
  spill(dir / "array.json", R"({"s": [{"a": 1}, {"a": [true]}]})");
  const ToolRun element = tarn("props " + (dir / "array.json").string() + " --get 's(1)'");
  EXPECT_EQ(JSON::read(element.out), JSON::read(R"({"a": [true]})")) << element.err;
  const ToolRun matrix = tarn("props " + in + " --get i");
  EXPECT_EQ(JSON::read(matrix.out),
            JSON::read(R"({"#type": "int16", "#size": [2, 2], "#data": [1, 2, 3, 4]})"));
}

TEST(TarnTool, PropsFailuresExitOneWithOneLine) {
  Tarn::testing::TempDir dir;
  spill(dir / "in.json", kPropsJson);
  spill(dir / "bad.json", R"({"a": [1, 2)");
  spill(dir / "bad.xml", "<root tprop_version=\"2\"><item type=\"double\">1</item></root>");
  spill(dir / "tagged.json", R"({"#type": "uint8", "#data": 256})");
  const std::pair<std::string, std::string> failures[] = {
      {"props " + (dir / "missing.json").string(), "tarn: Could not read '"},
      {"props " + (dir / "bad.json").string(), "tarn: JSON parse error at line 1"},
      {"props " + (dir / "bad.xml").string(), "tarn: Xml input of newer version than library."},
      {"props " + (dir / "tagged.json").string(),
       "tarn: Invalid property JSON at '/#data': Number 256 does not fit 'uint8'."},
      {"props " + (dir / "in.json").string() + " --get b.zz",
       "tarn: Invalid property path 'b.zz': Struct member 'zz' does not exist."},
      {"props " + (dir / "in.json").string() + " -o " + (dir / "no" / "dir.json").string(),
       "tarn: Could not write '"},
  };
  for (const auto& [arguments, start] : failures) {
    const ToolRun run = tarn(arguments);
    EXPECT_EQ(run.status, 1) << arguments;
    EXPECT_EQ(run.err.rfind(start, 0), 0u) << arguments << ": " << run.err;
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
  }
}

TEST(TarnTool, PropsUsageErrorsExitTwo) {
  Tarn::testing::TempDir dir;
  spill(dir / "in.json", "1");
  const std::string in = (dir / "in.json").string();
  EXPECT_EQ(tarn("props").status, 2);
  EXPECT_EQ(tarn("props " + in + " --to yaml").status, 2);
  EXPECT_EQ(tarn("props " + in + " --to xml --get a").status, 2);
  EXPECT_EQ(tarn("props " + in + " " + in).status, 2);
}

TEST(TarnTool, UnitsConvertsValues) {
  const std::pair<std::string, std::string> conversions[] = {
      {"units '1.5 um' --to nm", "1500 nm\n"}, {"units '20 °C' --to K", "293.15 K\n"},
      {"units '1 inch' --to mm", "25.4 mm\n"}, {"units '3/s' --to Hz", "3 Hz\n"},
      {"units '2.5 um'", "2.5 µm\n"},
  };
  for (const auto& [arguments, out] : conversions) {
    const ToolRun run = tarn(arguments);
    EXPECT_EQ(run.status, 0) << arguments << ": " << run.err;
    EXPECT_EQ(run.out, out) << arguments;
  }
  const std::pair<std::string, std::string> failures[] = {
      {"units '1 um' --to s", "tarn: Cannot convert 'µm' to 's': incompatible units.\n"},
      {"units '1 furlong'", "tarn: Unknown unit 'furlong' at position 3 of '1 furlong'.\n"},
      {"units '1 m' --to 'm//s'", "tarn: Invalid unit 'm//s' at position 3.\n"},
  };
  for (const auto& [arguments, err] : failures) {
    const ToolRun run = tarn(arguments);
    EXPECT_EQ(run.status, 1) << arguments;
    EXPECT_EQ(run.err, err) << arguments;
  }
  EXPECT_EQ(tarn("units").status, 2);
}

}  // namespace
