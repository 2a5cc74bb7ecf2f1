// The tarn tool as scripts use it: exit codes, output and the one-line failure report.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <span>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tarnio/arrays/data_type.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/json/read_write.h"
#include "tarnio/props/json.h"
#include "tarnio/props/xml.h"
#include "tarnio/testing/loopback_server.h"
#include "tarnio/testing/temp_dir.h"
#include "tarnio/units/runtime_value.h"

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

// Runs a shell command with its standard output and error captured.
ToolRun shell(const std::string& command) {
  Tarn::testing::TempDir dir;
  const std::string full =
      "{ " + command + "; } >" + (dir / "out").string() + " 2>" + (dir / "err").string();
  const int raw = std::system(full.c_str());
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(dir / "out"), slurp(dir / "err")};
}

ToolRun tarn(const std::string& arguments) {
  return shell(std::string(TARN_TOOL_PATH) + " " + arguments);
}

// A failure as scripts see it: exit status 1 and exactly one line on standard error.
void expect_one_line_failure(const ToolRun& run, const std::string& context) {
  EXPECT_EQ(run.status, 1) << context << ": " << run.err;
  EXPECT_EQ(run.err.rfind("tarn: ", 0), 0u) << context << ": " << run.err;
  EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << context << ": " << run.err;
}

// One run of the tool and what it must give: with status 0 its standard output, with status 1
// its one error line (and no output), with status 2 (usage errors) nothing in particular. A
// text ending in a line feed is the whole output, any other its start.
struct Expected {
  std::string arguments;
  int status;
  std::string text;
};

void expect_runs(const std::vector<Expected>& rows) {
  // Commands that wrongly wait for input find none.
  Tarn::testing::TempDir dir;
  const std::string empty = (dir / "empty").string();
  spill(empty, "");
  for (const auto& [arguments, status, text] : rows) {
    const bool redirected = arguments.find('<') != std::string::npos;
    const ToolRun run = tarn(arguments + (redirected ? "" : " < " + empty));
    EXPECT_EQ(run.status, status) << arguments << ": " << run.err;
    if (status == 1) {
      expect_one_line_failure(run, arguments);
      EXPECT_EQ(run.out, "") << arguments;
    }
    const std::string& shown = status == 0 ? run.out : run.err;
    if (text.ends_with('\n')) {
      EXPECT_EQ(shown, text) << arguments;
    } else {
      EXPECT_EQ(shown.rfind(text, 0), 0u) << arguments << ": " << shown;
    }
  }
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

// A document with a struct, a value array, text, a logical, an empty value and a key that is
// no member name.
constexpr const char* kPropsJson =
    R"({"a": [1, 2.5, -3], "b": {"c": "text", "my key": true}, "n": null, "i": )"
    R"({"#type": "int16", "#size": [2, 2], "#data": [1, 2, 3, 4]}})";

// Exit codes, outputs and messages of every command, for arguments that need at most a file.
TEST(TarnTool, CommandsGiveTheirExitCodeOutputAndMessage) {
  Tarn::testing::TempDir dir;
  const auto at = [&](const char* name) { return (dir / name).string(); };
  spill(dir / "in.json", kPropsJson);
  spill(dir / "bad.json", R"({"a": [1, 2)");
  spill(dir / "bad.xml", "<root tprop_version=\"2\"><item type=\"double\">1</item></root>");
  spill(dir / "tagged.json", R"({"#type": "uint8", "#data": 256})");
  spill(dir / "array.json", R"({"s": [{"a": 1}, {"a": [true]}]})");
  spill(dir / "text.tbf", "not a stack file at all");
  spill(dir / "abcd.raw", "abcd");
  spill(dir / "missing.ome.xml",
        R"(<OME xmlns="http://www.openmicroscopy.org/Schemas/OME/2016-06">)"
        R"(<Dataset ID="Dataset:0"><ImageRef ID="Image:3"/></Dataset></OME>)");
  const std::string in = at("in.json");
  const std::string one = at("one.tbf");
  ASSERT_EQ(tarn("write " + one + " --type uint8 --shape 4 " + at("abcd.raw")).status, 0);
  const std::string f = at("f.tbf");  // never made: every command using it fails first
  std::vector<Expected> rows = {
      {"--help", 0, "tarn: read, write"},
      {"--version", 0, "tarn "},
      {"props " + in + " --get 'a(1)'", 0, "2.5\n"},
      {"props " + in + " --get a/2", 0, "-3\n"},
      {"props " + in + " --get b.c", 0, "text\n"},
      {"props " + in + " --get 'i(1,1)'", 0, "4\n"},
      {"props " + in + " --get b._-my-20key", 0, "1\n"},
      {"props - --get b < " + in, 0, "{\n  \"c\": \"text\",\n  \"my key\": true\n}\n"},
      {"props " + at("array.json") + " --get 's(1)'", 0, "{\n  \"a\": [\n    true\n  ]\n}\n"},
      {"props " + in + " --get i", 0,
       "{\n  \"#type\": \"int16\",\n  \"#size\": [\n    2,\n    2\n  ],"},
      {"units '1.5 um' --to nm", 0, "1500 nm\n"},
      {"units '20 °C' --to K", 0, "293.15 K\n"},
      {"units '1 inch' --to mm", 0, "25.4 mm\n"},
      {"units '3/s' --to Hz", 0, "3 Hz\n"},
      {"units '2.5 um'", 0, "2.5 µm\n"},
      {"props " + at("missing.json"), 1, "tarn: Could not read '"},
      {"props " + at("bad.json"), 1, "tarn: JSON parse error at line 1"},
      {"props " + at("bad.xml"), 1, "tarn: Xml input of newer version than library.\n"},
      {"props " + at("tagged.json"), 1,
       "tarn: Invalid property JSON at '/#data': Number 256 does not fit 'uint8'.\n"},
      {"props " + in + " --get b.zz", 1,
       "tarn: Invalid property path 'b.zz': Struct member 'zz' does not exist.\n"},
      {"props " + in + " -o " + at("no/dir.json"), 1, "tarn: Could not write '"},
      {"ome " + at("missing.ome.xml"), 1, "tarn: Incomplete data: missing Image:3.\n"},
      {"units '1 um' --to s", 1, "tarn: Cannot convert 'µm' to 's': incompatible units.\n"},
      {"units '1 furlong'", 1, "tarn: Unknown unit 'furlong' at position 3 of '1 furlong'.\n"},
      {"units '1 m' --to 'm//s'", 1, "tarn: Invalid unit 'm//s' at position 3.\n"},
      {"read " + one + " --stack 5", 1, "tarn: Invalid stack index '5'.\n"},
      {"read " + one + " --stack 1 -o " + at("out.raw"), 1, "tarn: Invalid stack index '1'.\n"},
      {"read " + one + " --stack 0 -o " + one, 1, "tarn: "},
      {"meta " + one + " nope", 1, "tarn: No metadata entry 'nope'.\n"},
      {"verify " + one, 0, ""},
      {"demo " + at("no/such/dir.tbf"), 1, "tarn: "},
      {"write " + at("abcd.raw") + " --type uint8 --shape 4 " + at("abcd.raw"), 1, "tarn: "},
      // Appending needs an existing file and creates none.
      {"write " + f + " --append --type uint8 --shape 4 " + at("abcd.raw"), 1, "tarn: "},
      // A pipe or device named as output stays what it is (checked below).
      {"write " + at("pipe") + " --type uint8 --shape 4 " + at("abcd.raw"), 1,
       "tarn: Could not create '" + at("pipe") + "': not a regular file.\n"},
      {"compact " + one + " " + at("pipe"), 1, "tarn: Could not create '"},
  };
  ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
  // Usage errors exit with 2 and make no file.
  for (const std::string& arguments :
       {"props " + in + " --to yaml", "props " + in + " --to xml --get a", "props " + in + " " + in,
        "ome " + at("missing.ome.xml") + " --to yaml", "compact " + one + " --compression zlib:12",
        "info " + f + " " + f, "read " + f, "read " + f + " --stack -1", "read " + f + " --stack x",
        "meta " + f + " a b", "write " + f + " --type uint8 --shape 4"}) {
    rows.push_back({arguments, 2, ""});
  }
  for (const char* arguments :
       {"", "no-such-command", "types --no-such-option", "props", "units", "info", "meta", "verify",
        "demo a.tbf b.tbf", "tcp 127.0.0.1 0 x", "read x.tbf --stack 0 --threads 0"}) {
    rows.push_back({arguments, 2, ""});
  }
  for (const char* options :
       {"--shape 4", "--type uint8", "--type uint12 --shape 4", "--type none --shape 4",
        "--type cplx_uint8 --shape 4", "--type uint8 --shape 4,x", "--type uint8 --shape 4,-1",
        "--type uint8 --shape 4 --compression lz4", "--type uint8 --shape 4 --compression zlib:10",
        "--type uint8 --shape 4 --threads 0",
        "--type uint8 --shape 4 --append --file-description d"}) {
    rows.push_back({"write " + f + " " + options + " -", 2, ""});
  }
  // A file that is none, and one that is missing, fail alike in every command reading files.
  for (const std::string command : {"info ", "meta ", "verify ", "read --stack 0 "}) {
    rows.push_back({command + at("text.tbf"), 1, "tarn: No TBF file header found.\n"});
    rows.push_back({command + at("none.tbf"), 1, "tarn: "});
  }
  expect_runs(rows);
  struct stat pipe_status {};
  EXPECT_TRUE(::stat(at("pipe").c_str(), &pipe_status) == 0 && S_ISFIFO(pipe_status.st_mode));
  EXPECT_FALSE(std::filesystem::exists(f));
  EXPECT_EQ(slurp(dir / "abcd.raw"), "abcd");
  // A failed read leaves no output file behind.
  EXPECT_FALSE(std::filesystem::exists(dir / "out.raw"));
}

// Each form the tool writes is the library's own text of the document; any of them, also with a
// byte order mark, from a file or standard input, reads back as the library reads it.
TEST(TarnTool, PropsWritesEachFormAsTheLibraryAndReadsItBack) {
  namespace xml_format = Tarn::props::xml_format;
  Tarn::testing::TempDir dir;
  spill(dir / "in.json", kPropsJson);
  const TProp value = tarn_import_json(kPropsJson);
  const auto line = [](std::string text) { return text.ends_with('\n') ? text : text + '\n'; };
  const std::string json = line(tarn_export_json(value, 2));
  const std::pair<const char*, int> forms[] = {{"json", -1},
                                               {"xml", xml_format::property},
                                               {"xml:1", xml_format::toolbox},
                                               {"xml:2", xml_format::property},
                                               {"xml:3", xml_format::labview}};
  for (const auto& [to, format] : forms) {
    const std::string out = (dir / "out").string();
    const ToolRun run = tarn("props " + (dir / "in.json").string() + " --to " + to + " -o " + out);
    ASSERT_EQ(run.status, 0) << to << ": " << run.err;
    EXPECT_EQ(run.out, "");
    const std::string text = slurp(out);
    EXPECT_EQ(text, format < 0 ? json : line(tarn_export_xml(value, format))) << to;
    const std::string back = line(
        tarn_export_json(format < 0 ? tarn_import_json(text) : tarn_import_xml(text, format), 2));
    if (format < 0 || format == xml_format::property) {
      EXPECT_EQ(back, json) << to;
    }
    EXPECT_EQ(tarn("props " + out).out, back) << to;
    spill(out, "\xEF\xBB\xBF" + text);
    EXPECT_EQ(tarn("props - < " + out).out, back) << to;
  }
}

TEST(TarnTool, OmeConvertsBetweenXmlAndJson) {
  Tarn::testing::TempDir dir;
  const std::string sample = (dir / "in.ome.xml").string();
  spill(sample,
        R"(<OME xmlns="http://www.openmicroscopy.org/Schemas/OME/2016-06"><Image ID="Image:0">)"
        R"(<Pixels ID="Pixels:0" DimensionOrder="XYZCT" Type="uint8" SizeX="2" SizeY="2" )"
        R"(SizeZ="1" SizeC="3" SizeT="1"><MetadataOnly/></Pixels></Image></OME>)");
  const ToolRun json = tarn("ome " + sample + " -o " + (dir / "out.json").string());
  ASSERT_EQ(json.status, 0) << json.err;
  const JSON::Value tree = JSON::read(slurp(dir / "out.json"));
  EXPECT_EQ(tree.at_path("OME[0].Image[0].Pixels[0].SizeC"), JSON::Value(3));
  const ToolRun xml = tarn("ome - < " + (dir / "out.json").string());
  ASSERT_EQ(xml.status, 0) << xml.err;
  EXPECT_EQ(xml.out.rfind("<?xml", 0), 0u) << xml.out;
  const ToolRun again = tarn("ome - --to json < " + (dir / "out.json").string());
  ASSERT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(JSON::read(again.out), tree);
}

// --- TBF file commands ---

std::string random_bytes(std::size_t n, std::uint32_t seed) {
  std::mt19937 random(seed);
  std::string bytes(n, '\0');
  for (char& c : bytes) c = static_cast<char>(random() & 0xFFu);
  return bytes;
}

JSON::Value info_json(const std::filesystem::path& file) {
  const ToolRun run = tarn("info --json " + file.string());
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  return JSON::read(run.out);
}

std::vector<std::string> directory_entries(const std::filesystem::path& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// What the tool writes, appends, reads back and describes is what the library reads from the
// file.
TEST(TarnTool, WriteAppendInfoReadRoundTripEveryType) {
  const struct {
    const char* type;
    const char* shape;
    bool from_stdin;
  } cases[] = {
      {"uint8", "7,3", false},        {"int8", "1", true},
      {"uint16", "5,4,3", true},      {"int16", "2,3", false},
      {"uint32", "1000", false},      {"int32", "3,1,2", true},
      {"uint64", "4,4", false},       {"int64", "9", true},
      {"single", "3,3,3,3", false},   {"double", "100,10", true},
      {"cplx_single", "10,2", false}, {"cplx_double", "6", true},
      {"uint16", "2049,1025", true},  // more than one transfer block of 4 MiB
  };
  Tarn::testing::TempDir dir;
  const std::string out = (dir / "out.tbf").string();
  std::size_t index = 0;
  for (const auto& [type, shape, from_stdin] : cases) {
    const std::string context = std::to_string(index) + ": " + type + " " + shape;
    const DataType code = tarn_dt_from_name(type);
    std::uint64_t samples = 1;
    for (std::istringstream extents(shape); extents.good(); extents.ignore()) {
      std::uint64_t extent = 0;
      extents >> extent;
      samples *= extent;
    }
    const std::string bytes =
        random_bytes(samples * tarn_dt_get_size(code), static_cast<std::uint32_t>(index));
    spill(dir / "in.raw", bytes);
    const ToolRun write = tarn(
        "write " + out + (index == 0 ? " --file-description 'round trip'" : " --append") +
        " --type " + type + " --shape " + shape + " --name 'stack of " + type +
        "' --description 'random bytes' " + (from_stdin ? "- < " : "") + (dir / "in.raw").string());
    ASSERT_EQ(write.status, 0) << context << ": " << write.err;
    EXPECT_EQ(write.out + write.err, "") << context;

    const auto file = Tarn::open_file(out, Tarn::bf::DiskFile::Mode::read);
    const auto stack = file->stack(index);
    std::string direct(bytes.size(), '\0');
    stack->read(0, samples, direct.data());
    EXPECT_TRUE(direct == bytes) << context;
    EXPECT_EQ(stack->name(), std::string("stack of ") + type);
    EXPECT_EQ(stack->description(), "random bytes");
    EXPECT_EQ(stack->type(), code);

    const JSON::Value info = info_json(out);
    EXPECT_EQ(info.at("format_version").get_uint64(), file->format_version()) << context;
    EXPECT_EQ(info.at("description"), JSON::Value("round trip")) << context;
    ASSERT_EQ(info.at("stacks").size(), index + 1) << context;
    const JSON::Value& listed = info.at("stacks")[index];
    const std::pair<const char*, JSON::Value> fields[] = {
        {"index", JSON::Value(index)},
        {"name", JSON::Value(stack->name())},
        {"description", JSON::Value(stack->description())},
        {"type", JSON::Value(type)},
        {"type_code", JSON::Value(static_cast<std::uint32_t>(code))},
        {"compression", JSON::Value("none")},
        {"compression_level", JSON::Value(0)},
        {"data_length", JSON::Value(bytes.size())},
        {"next", JSON::Value(0)}};
    for (const auto& [key, expected] : fields) EXPECT_EQ(listed.at(key), expected) << key;
    ASSERT_EQ(listed.at("shape").size(), stack->shape().size()) << context;
    for (std::size_t axis = 0; axis < stack->shape().size(); ++axis) {
      EXPECT_EQ(listed.at("shape")[axis].get_uint64(), stack->shape()[axis]) << context;
      EXPECT_EQ(listed.at("lengths")[axis].get_double(), stack->lengths()[axis]) << context;
      EXPECT_EQ(listed.at("offsets")[axis].get_double(), stack->offsets()[axis]) << context;
    }
    // Each stack follows the one before; its header, name and description lie before the data.
    if (index > 0) {
      EXPECT_EQ(info.at("stacks")[index - 1].at("next"), listed.at("position"));
    }
    EXPECT_LE(listed.at("position").get_uint64() + 368 + 2 * 12 + bytes.size(),
              std::filesystem::file_size(out))
        << context;

    // Half of the stacks read to standard output, the other half into a file.
    const std::string back = (dir / "back.raw").string();
    const ToolRun read = tarn("read " + out + " --stack " + std::to_string(index++) +
                              (from_stdin ? "" : " --output " + back));
    ASSERT_EQ(read.status, 0) << context << ": " << read.err;
    EXPECT_TRUE((from_stdin ? read.out : slurp(back)) == bytes) << context;
  }
  const ToolRun verify = tarn("verify " + out);
  EXPECT_EQ(verify.status, 0) << verify.err;
  EXPECT_NE(verify.out.find("stack 12 "), std::string::npos) << verify.out;
  // Only the files the test made: no temporary file of the tool is left behind.
  EXPECT_EQ(directory_entries(dir.path()),
            (std::vector<std::string>{"back.raw", "in.raw", "out.tbf"}));
}

TEST(TarnTool, FailedWritesLeaveNoFileThatLooksComplete) {
  Tarn::testing::TempDir dir;
  const std::string out = (dir / "out.tbf").string();
  const std::string good = random_bytes(20, 3);  // 10 uint16 samples
  spill(dir / "good.raw", good);
  const std::pair<std::size_t, std::string> inputs[] = {
      {0, "tarn: Not enough samples written.\n"},
      {18, "tarn: Not enough samples written.\n"},
      {19, "tarn: Not enough samples written.\n"},
      {21, "tarn: Trying to write more samples than the stack is long.\n"},
      {22, "tarn: Trying to write more samples than the stack is long.\n"},
  };
  for (const auto& [size, err] : inputs) {
    spill(dir / "in.raw", random_bytes(size, 4));
    const std::string write =
        "write " + out + " --type uint16 --shape 10 " + (dir / "in.raw").string();
    // A new file is not created.
    std::filesystem::remove(out);
    ToolRun run = tarn(write);
    EXPECT_EQ(run.status, 1) << size;
    EXPECT_EQ(run.err, err) << size;
    EXPECT_FALSE(std::filesystem::exists(out)) << size;
    // An existing file stays as it was, also from standard input.
    ASSERT_EQ(
        tarn("write " + out + " --type uint16 --shape 10 " + (dir / "good.raw").string()).status,
        0);
    const std::string before = slurp(out);
    run = tarn("write " + out + " --type uint16 --shape 10 - < " + (dir / "in.raw").string());
    EXPECT_EQ(run.err, err) << size;
    EXPECT_TRUE(slurp(out) == before) << size;
    // An append that fails drops its stack; the file keeps the ones it had.
    run = tarn("write " + out + " --append --type uint16 --shape 10 " + (dir / "in.raw").string());
    EXPECT_EQ(run.err, err) << size;
    EXPECT_EQ(tarn("verify " + out).status, 0) << size;
    EXPECT_EQ(info_json(out).at("stacks").size(), 1u) << size;
    EXPECT_TRUE(tarn("read " + out + " --stack 0").out == good) << size;
  }
  // A compressed write that fails leaves nothing either.
  std::filesystem::remove(out);
  spill(dir / "in.raw", random_bytes(18, 4));
  const ToolRun zlib = tarn("write " + out + " --type uint16 --shape 10 --compression zlib:3 " +
                            (dir / "in.raw").string());
  EXPECT_EQ(zlib.err, "tarn: Not enough samples written.\n");
  EXPECT_FALSE(std::filesystem::exists(out));
  EXPECT_EQ(directory_entries(dir.path()), (std::vector<std::string>{"good.raw", "in.raw"}));
}

// The columns of a table line: where each cell starts, in characters, cells being separated
// by two blanks or more.
std::vector<std::size_t> cell_starts(const std::string& line) {
  std::vector<std::size_t> starts;
  std::size_t column = 0;
  std::size_t blanks = 2;
  for (const char c : line) {
    if ((static_cast<unsigned char>(c) & 0xC0) == 0x80) continue;  // inside a character
    if (c != ' ' && blanks >= 2) starts.push_back(column);
    blanks = c == ' ' ? blanks + 1 : 0;
    ++column;
  }
  return starts;
}

// The table and the JSON form of info, and the metadata entries, of a file the library wrote.
TEST(TarnTool, InfoAndMetaShowWhatTheLibraryWroteExactly) {
  Tarn::testing::TempDir dir;
  const std::string path = (dir / "table.tbf").string();
  const std::string binary("\0\x01\xFF no line end", 16);
  const std::pair<std::string, std::string> metadata[] = {
      {"alpha", "one\n"}, {"binary", binary}, {"empty", ""}};
  {
    const auto file = Tarn::create_file(false);  // no OME description: the table alone
    file->open(path, Tarn::bf::DiskFile::Mode::write);
    file->set_description("cells\nday 2");
    for (const auto& [key, value] : metadata) file->set_metadata(key, value);
    const std::string names[] = {"short", "Länge in µm", "two\nlines\xFF"};
    const DataType types[] = {Tarn::dt::uint8, Tarn::dt::double_, Tarn::dt::uint16};
    for (std::size_t i = 0; i < 3; ++i) {
      const auto stack = file->add_stack(types[i], {2, i + 1, 3});
      stack->set_name(names[i]);
      if (i == 1) {
        stack->set_labels({"x", "", "t"});
        stack->set_units(0, Tarn::units::RuntimeValue(0.5, "um"));
        stack->set_units(2, Tarn::units::RuntimeValue(2, "s"));
      }
      const std::vector<std::byte> zeros((i + 1) * 6 * tarn_dt_get_size(types[i]));
      stack->write(zeros.data(), zeros.size());
      stack->commit();
    }
    file->close();
  }
  const ToolRun run = tarn("info " + path);
  ASSERT_EQ(run.status, 0) << run.err;
  std::istringstream lines(run.out);
  std::string line;
  std::vector<std::string> rows;
  while (std::getline(lines, line)) rows.push_back(line);
  ASSERT_GE(rows.size(), 9u) << run.out;
  EXPECT_EQ(rows[0], "description     cells\\nday 2");
  EXPECT_EQ(rows[1], "format version  2");
  EXPECT_NE(rows[2].find("alpha"), std::string::npos);
  EXPECT_EQ(rows[3], "stacks          3");
  const std::size_t header = 5;
  ASSERT_EQ(rows[header].rfind("index", 0), 0u) << run.out;
  const std::vector<std::size_t> columns = cell_starts(rows[header]);
  ASSERT_EQ(columns.size(), 8u) << rows[header];
  ASSERT_EQ(rows.size(), header + 4) << run.out;
  for (std::size_t i = header + 1; i < rows.size(); ++i) {
    EXPECT_EQ(cell_starts(rows[i]), columns) << rows[i];
  }
  EXPECT_NE(rows[header + 2].find("Länge in µm"), std::string::npos);
  EXPECT_NE(rows[header + 2].find("2x2x3"), std::string::npos);
  EXPECT_NE(rows[header + 2].find("x [0.5 µm], -, t [2 s]"), std::string::npos);
  EXPECT_NE(rows[header + 3].find("two\\nlines\\xFF"), std::string::npos);

  // The JSON form stays valid UTF-8 whatever the file holds.
  const JSON::Value info = info_json(path);
  EXPECT_EQ(info.at("description"), JSON::Value("cells\nday 2"));
  EXPECT_EQ(info.at("stacks")[2].at("name"), JSON::Value("two\nlines\uFFFD"));
  EXPECT_EQ(info.at("stacks")[1].at("data_length"), JSON::Value(2 * 2 * 3 * 8));
  EXPECT_EQ(JSON::write(info.at("stacks")[1].at("labels")), R"(["x","","t"])");
  EXPECT_EQ(JSON::write(info.at("stacks")[1].at("units")), R"(["0.5 µm",null,"2 s"])");
  EXPECT_EQ(JSON::write(info.at("stacks")[0].at("units")), "[null,null,null]");

  // meta lists the keys as the library reads them and prints each value byte for byte.
  std::string keys;
  const auto file = Tarn::open_file(path, Tarn::bf::DiskFile::Mode::read);
  for (const auto& entry : file->metadata()) {
    keys += entry.first + "\n";
  }
  EXPECT_NE(keys.find("alpha\nbinary\nempty\n"), std::string::npos) << keys;
  EXPECT_EQ(tarn("meta " + path).out, keys);
  for (const auto& [key, value] : metadata) {
    const ToolRun shown = tarn("meta " + path + " " + key);
    EXPECT_EQ(shown.status, 0) << key << ": " << shown.err;
    EXPECT_TRUE(shown.out == value) << key;
  }
}

TEST(TarnTool, VerifyPassesIntactFilesAndFailsDamagedOnesWithOneLine) {
  Tarn::testing::TempDir dir;
  const std::string good = (dir / "good.tbf").string();
  spill(dir / "a.raw", random_bytes(64 * 64 * 2, 11));
  spill(dir / "b.raw", random_bytes(16 * 16 * 4, 12));
  ASSERT_EQ(tarn("write " + good + " --type uint16 --shape 64,64 --name a --file-description f " +
                 (dir / "a.raw").string())
                .status,
            0);
  ASSERT_EQ(tarn("write " + good + " --append --type single --shape 16,16 --name b " +
                 (dir / "b.raw").string())
                .status,
            0);
  const ToolRun ok = tarn("verify " + good);
  ASSERT_EQ(ok.status, 0) << ok.err;
  EXPECT_EQ(ok.err, "");
  EXPECT_EQ(std::count(ok.out.begin(), ok.out.end(), '\n'), 3) << ok.out;

  const std::string bytes = slurp(good);
  const std::string bad = (dir / "bad.tbf").string();
  // Truncated anywhere: at the header fields, inside the stacks, before the metadata block.
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{9}, std::size_t{13}, std::size_t{25}, std::size_t{30},
        std::size_t{40}, std::size_t{200}, std::size_t{500}, bytes.size() / 2, bytes.size() - 20,
        bytes.size() - 1}) {
    spill(bad, bytes.substr(0, size));
    expect_one_line_failure(tarn("verify " + bad), "truncated to " + std::to_string(size));
  }

  // Bytes flipped with a fixed seed: either intact-looking plain data or a one-line failure,
  // never a crash, a hang or a usage error.
  std::mt19937 random(5);
  for (int round = 0; round < 16; ++round) {
    std::string flipped = bytes;
    for (int i = 0; i < 3; ++i) {
      flipped[random() % flipped.size()] ^= static_cast<char>(1 + random() % 255);
    }
    spill(bad, flipped);
    for (const std::string command : {"verify ", "info --json "}) {
      const ToolRun run = tarn(command + bad);
      if (run.status != 0) expect_one_line_failure(run, command + std::to_string(round));
    }
  }
}

// Camera-like samples: a dark offset with noise, so that deflate has something to find.
std::string camera_bytes(std::size_t samples, std::uint32_t seed) {
  std::mt19937 random(seed);
  std::string bytes(samples * 2, '\0');
  for (std::size_t i = 0; i < samples; ++i) {
    const auto value = static_cast<std::uint32_t>(100 + random() % 16 + (i % 4096 < 64 ? 2000 : 0));
    bytes[2 * i] = static_cast<char>(value & 0xFF);
    bytes[2 * i + 1] = static_cast<char>(value >> 8);
  }
  return bytes;
}

// Plain and compressed stacks written in parallel read back whole and by region; verify passes
// them and finds a flipped byte in the compressed data.
TEST(TarnTool, StacksWrittenPlainAndCompressedReadByRegionAndVerify) {
  Tarn::testing::TempDir dir;
  const std::uint64_t nx = 500, ny = 400, nz = 9;
  const std::string raw = camera_bytes(nx * ny * nz, 5);
  spill(dir / "in.raw", raw);
  struct Case {
    std::string text;
    std::uint64_t start[3], end[3];
  };
  const std::vector<Case> cases{{"0:128,0:16,4", {0, 0, 4}, {128, 16, 5}},
                                {"7,:,2:", {7, 0, 2}, {8, ny, nz}},
                                {":,:,:", {0, 0, 0}, {nx, ny, nz}}};
  for (const std::string compression : {"none", "zlib:1"}) {
    const std::string file = (dir / (compression.substr(0, 4) + ".tbf")).string();
    ASSERT_EQ(tarn("write " + file + " --type uint16 --shape 500,400,9 --threads 2 --compression " +
                   compression + " " + (dir / "in.raw").string())
                  .status,
              0);
    for (const Case& c : cases) {
      std::string expected;
      for (std::uint64_t z = c.start[2]; z < c.end[2]; ++z) {
        for (std::uint64_t y = c.start[1]; y < c.end[1]; ++y) {
          for (std::uint64_t x = c.start[0]; x < c.end[0]; ++x) {
            expected += raw.substr(2 * (x + nx * (y + ny * z)), 2);
          }
        }
      }
      const ToolRun run = tarn("read " + file + " --stack 0 --threads 2 --region " + c.text);
      EXPECT_EQ(run.status, 0) << run.err;
      EXPECT_TRUE(run.out == expected) << compression << " " << c.text;
    }
    for (const std::string outside : {"0:501,:,:", ":,:", "1:2:3,:,:"}) {
      expect_one_line_failure(tarn("read " + file + " --stack 0 --region " + outside), outside);
    }
    EXPECT_EQ(tarn("verify " + file).status, 0);
  }
  const std::string zipped = (dir / "zlib.tbf").string();
  const JSON::Value stack = info_json(zipped).at("stacks").at(0);
  EXPECT_EQ(stack.at("compression").get_string(), "zlib");
  EXPECT_EQ(stack.at("compression_level").get_uint64(), 1u);
  EXPECT_LT(stack.at("stored_ratio").get_double(), 0.6);
  EXPECT_NE(tarn("info " + zipped).out.find("zlib:1 ("), std::string::npos);
  std::string bytes = slurp(zipped);
  bytes[bytes.size() / 2] ^= 0x5A;
  spill(zipped, bytes);
  expect_one_line_failure(tarn("verify " + zipped), "flipped");
}

TEST(TarnTool, CommandsThatCompressOrInflateUseEveryHardwareThreadByDefault) {
  const std::string report = "(default: every hardware thread, " +
                             std::to_string(std::max(1u, std::thread::hardware_concurrency())) +
                             " here)";
  for (const std::string command : {"write", "read", "verify", "compact", "recover"}) {
    const ToolRun help = tarn(command + " --help");
    EXPECT_NE(help.out.find(report), std::string::npos) << command << "\n" << help.out;
  }
}

TEST(TarnTool, RecoverAndCompactRewriteFiles) {
  Tarn::testing::TempDir dir;
  const std::string raw = camera_bytes(300 * 200, 4);
  spill(dir / "in.raw", raw);
  const std::string file = (dir / "file.tbf").string();
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(tarn("write " + file + (i > 0 ? " --append" : "") +
                   " --type uint16 --shape 300,200 " + (dir / "in.raw").string())
                  .status,
              0);
  }
  // The file as a writer that died leaves it: the header points at no metadata block.
  std::string bytes = slurp(file);
  const std::size_t metadata_field = 26 + std::size_t{static_cast<unsigned char>(bytes[22])} +
                                     std::size_t{static_cast<unsigned char>(bytes[23])} * 256;
  std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(metadata_field), 8, '\0');
  const std::string broken = (dir / "broken.tbf").string();
  spill(broken, bytes);
  expect_one_line_failure(tarn("info " + broken), "broken");
  const std::string recovered = (dir / "recovered.tbf").string();
  const ToolRun recover = tarn("recover " + broken + " " + recovered);
  ASSERT_EQ(recover.status, 0) << recover.err;
  EXPECT_EQ(recover.out, "recovered 2 stacks\n");
  ASSERT_EQ(tarn("read " + recovered + " --stack 1 --output " + (dir / "back.raw").string()).status,
            0);
  EXPECT_EQ(slurp(dir / "back.raw"), raw);

  // Compacting in place, recompressed: smaller, and the same samples.
  const auto size_before = std::filesystem::file_size(file);
  const ToolRun compact = tarn("compact " + file + " --compression zlib");
  ASSERT_EQ(compact.status, 0) << compact.err;
  EXPECT_LT(std::filesystem::file_size(file), size_before);
  EXPECT_EQ(info_json(file).at("stacks").at(1).at("compression").get_string(), "zlib");
  ASSERT_EQ(tarn("read " + file + " --stack 1 --output " + (dir / "back.raw").string()).status, 0);
  EXPECT_EQ(slurp(dir / "back.raw"), raw);
  EXPECT_EQ(
      directory_entries(dir.path()),
      (std::vector<std::string>{"back.raw", "broken.tbf", "file.tbf", "in.raw", "recovered.tbf"}));
}

TEST(TarnTool, ReadIntoAClosedPipeFailsWithoutASignal) {
  Tarn::testing::TempDir dir;
  const std::string path = (dir / "big.tbf").string();
  spill(dir / "in.raw", random_bytes(std::size_t{8} << 20, 21));
  ASSERT_EQ(
      tarn("write " + path + " --type uint8 --shape 8388608 " + (dir / "in.raw").string()).status,
      0);
  const std::string status = (dir / "status").string();
  const ToolRun run = shell("{ " + std::string(TARN_TOOL_PATH) + " read " + path +
                            " --stack 0; echo $? >" + status + "; } | head -c 1 >/dev/null");
  EXPECT_EQ(slurp(status), "1\n") << run.err;
  EXPECT_EQ(run.err, "tarn: Could not write output: Broken pipe\n");
}

TEST(TarnTool, ProgressBarShowsOnATerminalOnly) {
  Tarn::testing::TempDir dir;
  const std::string in = (dir / "in.raw").string();
  const std::string out = (dir / "out.tbf").string();
  spill(in, random_bytes(std::size_t{1} << 20, 31));
  // Standard error on a terminal, standard output not.
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  ASSERT_GE(child, 0);
  if (child == 0) {
    const int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, STDOUT_FILENO);
    ::execl(TARN_TOOL_PATH, "tarn", "write", out.c_str(), "--type", "uint8", "--shape", "1048576",
            in.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  std::string screen;
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(terminal, buffer, sizeof buffer);
    if (n <= 0) break;  // EIO once the child has gone
    screen.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(terminal);
  int raw = 0;
  ASSERT_EQ(::waitpid(child, &raw, 0), child);
  ASSERT_TRUE(WIFEXITED(raw));
  EXPECT_EQ(WEXITSTATUS(raw), 0) << screen;
  EXPECT_NE(screen.find("write ["), std::string::npos) << screen;
  EXPECT_NE(screen.find("MiB/s"), std::string::npos) << screen;
  // The line is cleared at the end.
  ASSERT_GE(screen.size(), 4u);
  EXPECT_EQ(screen.substr(screen.size() - 4), "\r\x1B[K") << screen;
  // Redirected, the same command prints nothing.
  const ToolRun piped = tarn("write " + out + " --type uint8 --shape 1048576 " + in);
  EXPECT_EQ(piped.status, 0);
  EXPECT_EQ(piped.out + piped.err, "");
}

TEST(TarnTool, DemoWritesChecksAndDescribesASampleAcquisition) {
  Tarn::testing::TempDir dir;
  const ToolRun run = shell("cd " + dir.path().string() + " && " + TARN_TOOL_PATH + " demo");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_NE(run.out.find("cells"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("256x256x3x16"), std::string::npos) << run.out;
  const std::string path = (dir / "demo.tbf").string();
  ASSERT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ(tarn("verify " + path).status, 0);

  const auto file = Tarn::open_file(path, Tarn::bf::DiskFile::Mode::read);
  ASSERT_EQ(file->number_of_stacks(), 2u);
  EXPECT_EQ(file->stack(1)->type(), Tarn::dt::single);
  EXPECT_FALSE(file->description().empty());
  EXPECT_FALSE(file->metadata().empty());
  const auto stack = file->stack(0);
  EXPECT_EQ(stack->type(), Tarn::dt::uint16);
  EXPECT_EQ(stack->shape(), (std::vector<std::uint64_t>{256, 256, 3, 16}));
  EXPECT_EQ(stack->labels(), (std::vector<std::string>{"x", "y", "c", "z"}));
  EXPECT_EQ(stack->col_labels(2), (std::vector<std::string>{"DAPI", "GFP", "mCherry"}));
  EXPECT_EQ(stack->units(0).to_string(), "1 µm");
  EXPECT_FALSE(stack->tags().empty());
  // Camera-like counts: a dark offset of about 100 and bright objects well above it.
  std::vector<std::uint16_t> samples(stack->number_of_elements());
  stack->read(0, std::span<std::uint16_t>(samples));
  const auto [low, high] = std::minmax_element(samples.begin(), samples.end());
  EXPECT_GT(*low, 70);
  EXPECT_LT(*low, 110);
  EXPECT_GT(*high, 1000);
}

TEST(TarnTool, TcpPrintsEachAnswerAndStopsAtTheFirstFailure) {
  Tarn::testing::LoopbackServer echo(Tarn::testing::echo_bytes);
  const ToolRun answered = tarn("tcp 127.0.0.1 " + std::to_string(echo.port()) + " 'POS?' '' a");
  EXPECT_EQ(answered.status, 0) << answered.err;
  EXPECT_EQ(answered.out, "POS?\n\na\n");

  Tarn::testing::LoopbackServer greeter([](int fd, int) {  // one line, then silence
    Tarn::testing::send_all(fd, "ready\n");
    for (char ignored; ::recv(fd, &ignored, 1, 0) > 0;) {
    }
  });
  const ToolRun silent =
      tarn("tcp localhost " + std::to_string(greeter.port()) + " --timeout .2 a b");
  EXPECT_EQ(silent.status, 1);
  EXPECT_EQ(silent.out, "ready\n");
  EXPECT_EQ(silent.err, "tarn: Timed out after 200 ms reading a line.\n");
}

TEST(TarnTool, PackAndUnpackRoundTripATreeBesideOtherStacks) {
  Tarn::testing::TempDir dir;
  namespace fs = std::filesystem;
  for (const char* sub : {"klx", "locs", "empty"}) fs::create_directories(dir / "tree/zarr" / sub);
  spill(dir / "tree/zarr/klx/.zattrs", R"({"did": "d-9"})");
  spill(dir / "tree/zarr/locs/0.0", random_bytes(70000, 5));
  const std::string out = (dir / "a.tbf").string();
  spill(dir / "s.raw", random_bytes(8, 6));
  ASSERT_EQ(tarn("write " + out + " --type uint8 --shape 8 " + (dir / "s.raw").string()).status, 0);
  const std::string tree = (dir / "tree").string();
  for (const char* compression : {"none", "zlib:1"}) {
    const ToolRun pack =
        tarn("pack " + tree + " " + out + " --append --label 'run \"1\"' --aid A " +
             "--compression " + compression);
    ASSERT_EQ(pack.status, 0) << pack.err;
  }
  ASSERT_EQ(tarn("pack " + tree + " " + (dir / "new.tbf").string() + " --label x").status, 0);

  const JSON::Value stacks = info_json(out).at("stacks");
  ASSERT_EQ(stacks.size(), 3u);
  EXPECT_EQ(stacks[0].find("kalix"), nullptr);
  EXPECT_EQ(JSON::write(stacks[2].at("kalix")),
            R"({"aid":"A","did":"d-9","label":"run \"1\"","type":"data","sid":"d-9"})");
  EXPECT_NE(tarn("info " + out).out.find(R"(stack 1 holds archive "run \"1\"" (aid "A", did)"),
            std::string::npos);
  const JSON::Value fresh = info_json(dir / "new.tbf").at("stacks")[0].at("kalix");
  EXPECT_EQ(fresh.at("aid").get_string().size(), 36u);

  for (const char* index : {"1", "2"}) {
    const fs::path restored = dir / (std::string("out") + index);
    const ToolRun unpack = tarn("unpack " + out + " --stack " + index + " " + restored.string());
    ASSERT_EQ(unpack.status, 0) << unpack.err;
    EXPECT_EQ(shell("diff -r " + tree + " " + restored.string()).status, 0) << index;
  }

  // A stack of other bytes is refused and restores nothing; bad trees and indices fail.
  expect_one_line_failure(tarn("unpack " + out + " --stack 0 " + (dir / "o0").string()), "bytes");
  EXPECT_FALSE(fs::exists(dir / "o0"));
  expect_one_line_failure(tarn("unpack " + out + " --stack 3 " + (dir / "o3").string()), "index");
  expect_one_line_failure(tarn("pack " + (dir / "none").string() + " " + out + " --label x"),
                          "missing tree");
  const ToolRun inside = tarn("pack " + dir.path().string() + " " + out + " --label x --append");
  expect_one_line_failure(inside, "output inside the tree");
  EXPECT_NE(inside.err.find("lies inside the tree"), std::string::npos) << inside.err;
  EXPECT_EQ(info_json(out).at("stacks").size(), 3u);
}

}  // namespace
