// The tarn tool as scripts use it: exit codes, output and the one-line failure report.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

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

}  // namespace
