#include "tarnio/json/read_write.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <fstream>
#include <limits>
#include <random>
#include <regex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/temp_dir.h"

namespace JSON {
namespace {

using namespace std::string_view_literals;

std::string error_of(std::string_view text) {
  try {
    read(text);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "no error";
}

// The compact text written for what was read; "" where that is the text itself.
TEST(JsonReadWrite, TextsReadAndWriteBackCompact) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"null", ""},
      {"true", ""},
      {"[false,0,-1,1.5,0.1,-0.0,1.0,1e+20,5e-324,-1.7976931348623157e+308]", ""},
      {R"({"z":1,"a":{"m":[],"b":{}},"":"x","A":2,"z ":3})", ""},
      {R"(["\"\\\b\f\n\r\t","\u0000\u001f","é😀/",")"
       "\x7f\xF4\x8F\xBF\xBF\"]",
       ""},
      {"[-9223372036854775808,9223372036854775807,9223372036854775808,18446744073709551615]", ""},
      {"[18446744073709551616,-9223372036854775809]",
       "[1.8446744073709552e+19,-9.223372036854776e+18]"},
      {"[123456789012345678901234567890,1e-400,1e2,-0]", "[1.2345678901234568e+29,0.0,100.0,0]"},
      {R"(["\ud83d\ude00","\u00e9\u20AC\/","a\u0000b",{"k\"ey":1}])",
       "[\"\xF0\x9F\x98\x80\",\"é€/\",\"a\\u0000b\",{\"k\\\"ey\":1}]"},
      {" \t\r\n[ 1 ,\n{ \"a\" : [ ] } ]\n", R"([1,{"a":[]}])"},
  };
  for (const auto& [text, written] : cases) {
    EXPECT_EQ(write(read(text)), written.empty() ? text : written) << text;
  }
  EXPECT_TRUE(read("9223372036854775808").is_uint64());
  EXPECT_EQ(write(Value("a\0b\x1f\x7f"sv)), "\"a\\u0000b\\u001f\x7f\"");
  EXPECT_EQ(write(Value::list({std::numeric_limits<double>::quiet_NaN(),
                               std::numeric_limits<double>::infinity(),
                               -std::numeric_limits<double>::infinity()})),
            "[null,null,null]");
  const Value value = read(R"({"a":[1,{},[]],"b":{"c":"x"}})");
  EXPECT_EQ(write(value, 2), R"({
  "a": [
    1,
    {},
    []
  ],
  "b": {
    "c": "x"
  }
})");
  EXPECT_EQ(write(value, 0), "{\n\"a\": [\n1,\n{},\n[]\n],\n\"b\": {\n\"c\": \"x\"\n}\n}");
}

// A tree of every kind, with keys and strings that need escapes and multi-byte characters.
Value random_tree(std::mt19937_64& random, int depth) {
  static constexpr std::string_view kPieces[] = {"a", "Z", "\"", "\\", "\n",   "\x01",
                                                 "é", "😀", " ",  "/",  "\x7f", "key"};
  const auto text = [&] {
    std::string s;
    for (auto n = random() % 6; n > 0; --n) s += kPieces[random() % std::size(kPieces)];
    return s;
  };
  const auto kind = random() % (depth > 0 ? 8 : 6);
  if (kind < 6) {
    // Any finite double: its shortest text must read back bit for bit.
    const double bits = std::bit_cast<double>(random());
    const Value scalars[] = {Value(),
                             Value(random() % 2 == 0),
                             Value(static_cast<std::int64_t>(random())),
                             Value(random() | (std::uint64_t{1} << 63)),
                             Value(std::isfinite(bits) ? bits : 0.1),
                             Value(text())};
    return scalars[kind];
  }
  Value container = kind == 6 ? Value::list() : Value::object();
  for (auto n = random() % 5; n > 0; --n) {
    if (kind == 6) {
      container.push_back(random_tree(random, depth - 1));
    } else {
      container.set(text(), random_tree(random, depth - 1));
    }
  }
  return container;
}

TEST(JsonReadWrite, GeneratedTreesRoundTrip) {
  std::mt19937_64 random(7);
  for (int i = 0; i < 300; ++i) {
    const Value tree = random_tree(random, 5);
    const std::string compact = write(tree);
    EXPECT_EQ(read(compact), tree) << compact;
    EXPECT_EQ(read(write(tree, 2)), tree) << compact;
    EXPECT_EQ(write(read(compact)), compact);  // member order and number kinds survive
  }
}

TEST(JsonReadWrite, DeepNestingUpToTheLimit) {
  std::string lists(kMaxDepth, '[');
  lists.append(kMaxDepth, ']');
  EXPECT_EQ(write(read(lists)), lists);
  EXPECT_EQ(read(write(read(lists), 0)), read(lists));
  std::string objects;
  for (int i = 0; i < kMaxDepth; ++i) objects += R"({"a":)";
  objects += "1";
  objects.append(kMaxDepth, '}');
  EXPECT_EQ(write(read(objects)), objects);
  for (const std::string& too_deep : {"[" + lists + "]", std::string(100000, '[')}) {
    EXPECT_EQ(error_of(too_deep),
              "JSON parse error at line 1, column 10001: nesting deeper than 10000 levels.");
  }
}

TEST(JsonRead, RejectsMalformedTextWithPosition) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"", "line 1, column 1: unexpected end of text"},
      {"[1,2", "line 1, column 5: unexpected end of text"},
      {"tru", "line 1, column 4: unexpected end of text"},
      {"\"abc", "line 1, column 5: unterminated string"},
      {"[1,]", "line 1, column 3: trailing comma before ']'"},
      {"{\"a\":1 , }", "line 1, column 8: trailing comma before '}'"},
      {"01", "line 1, column 1: leading zero in number"},
      {"[-012]", "line 1, column 3: leading zero in number"},
      {"-", "line 1, column 2: invalid number"},
      {"[1.]", "line 1, column 4: invalid number"},
      {"NaN", "line 1, column 1: unexpected character 'N'"},
      {"[-Infinity]", "line 1, column 3: invalid number"},
      {"+1", "line 1, column 1: unexpected character '+'"},
      {"[1] // note", "line 1, column 5: comments are not allowed"},
      {"/* note */ 1", "line 1, column 1: comments are not allowed"},
      {"\xEF\xBB\xBF{}", "line 1, column 1: byte order mark before the value"},
      {"\xFF", "line 1, column 1: unexpected byte 0xFF"},
      {"1e999", "line 1, column 1: number out of range"},
      {"[0, -1E+400]", "line 1, column 5: number out of range"},
      {"\"a\tb\"", "line 1, column 3: unescaped control character U+0009 in string"},
      {"\"a\0b\""sv, "line 1, column 3: unexpected NUL byte"},
      {"[1]\0"sv, "line 1, column 4: unexpected NUL byte"},
      {"[1,\0]"sv, "line 1, column 4: unexpected NUL byte"},
      {"\"\\x\"", "line 1, column 3: invalid escape sequence"},
      {"\"\\u12x4\"", "line 1, column 6: \\u escape without four hex digits"},
      {"\"\\ud83d\"", "line 1, column 8: high surrogate escape without a low one after it"},
      {"\"\\ud83d\\u0041\"", "line 1, column 13: high surrogate escape without a low one after it"},
      {"\"\\ude00\"", "line 1, column 7: low surrogate escape without a high one before it"},
      {"\"\xC3(\"", "line 1, column 3: invalid UTF-8 in string"},
      {"\"\xC0\xAF\"", "line 1, column 2: invalid UTF-8 in string"},
      {"\"\xED\xA0\x80\"", "line 1, column 3: invalid UTF-8 in string"},
      {"\"\xF4\x90\x80\x80\"", "line 1, column 3: invalid UTF-8 in string"},
      {"[1 2]", "line 1, column 4: unexpected number; expected ',' or ']'"},
      {"{\"a\" 1}", "line 1, column 6: unexpected number; expected ':'"},
      {"{1:2}", "line 1, column 2: unexpected number; expected a key string"},
      {"[:]", "line 1, column 2: unexpected ':'; expected a value"},
      {"{} \"x\"", "line 1, column 4: unexpected string after the value"},
      {"{\"a\":1,\"b\":2,\"a\":3}", "line 1, column 14: duplicate key 'a'"},
      {R"({"q\"":{"q\"":1},"q\"":2})", "line 1, column 18: duplicate key 'q\"'"},
      {"{\n  \"a\": [1,\n    2,,\n  ]\n}", "line 3, column 7: unexpected ','; expected a value"},
      {"{\r\n\"a\": tru\r\n}", "line 2, column 9: unexpected byte 0x0D"},
  };
  for (const auto& [text, message] : cases) {
    EXPECT_EQ(error_of(text), "JSON parse error at " + std::string(message) + ".")
        << "for " << testing::PrintToString(std::string(text));
  }
}

// What write returns, read takes back: text that is not UTF-8 is refused in strings and keys
// alike, and exactly where the reader refuses the same bytes.
TEST(JsonWrite, RefusesTextThatIsNotUtf8WhereTheReaderWould) {
  const std::string_view texts[] = {
      "plain", "\xC3\xA9", "\xF0\x9F\x98\x80", "\xF4\x8F\xBF\xBF",
      "\xC3(", "\xC0\xAF", "\xED\xA0\x80",     "\xF4\x90\x80\x80",
      "\xFF",  "a\x80",    "\xE2\x82",         "\xF0\x9F\x98",
  };
  for (const std::string_view text : texts) {
    std::string quoted(1, '"');
    quoted.append(text).push_back('"');
    for (const Value& value : {Value(text), Value::object({{text, Value(1)}})}) {
      if (error_of(quoted) == "no error") {
        EXPECT_EQ(read(write(value, 2)), value);
      } else {
        EXPECT_THROW_MESSAGE(write(Value::list({1, value})), std::runtime_error,
                             "JSON write error: a string or key is not valid UTF-8.");
      }
    }
  }
}

// Every prefix and many one-byte corruptions of a valid document fail cleanly.
TEST(JsonRead, DamagedDocumentsFailWithAPosition) {
  const std::string document =
      "{\n  \"name\": \"sample \\\"7\\\" \\u00e9 \xF0\x9F\x98\x80\",\n  \"values\": [1, -2.5e-3, "
      "18446744073709551615, true, false, null],\n  \"nested\": {\"a\": [{}, []]}\n}";
  ASSERT_NO_THROW(read(document));
  const std::regex located("JSON parse error at line [1-5], column [0-9]+: .+\\.");
  for (std::size_t size = 0; size < document.size(); ++size) {
    const std::string error = error_of(std::string_view(document).substr(0, size));
    EXPECT_TRUE(std::regex_match(error, located)) << size << ": " << error;
  }
  for (std::size_t at = 0; at < document.size(); ++at) {
    for (const char byte : {'\0', '"', '\\', ']', '{', ',', '\x80', '\xFF', '0', 'x'}) {
      std::string damaged = document;
      damaged[at] = byte;
      const std::string error = error_of(damaged);
      EXPECT_TRUE(error == "no error" || std::regex_match(error, located)) << error;
    }
  }
}

TEST(JsonReadFile, ReadsAWholeFileOrSaysWhyNot) {
  Tarn::testing::TempDir dir;
  const std::string text = R"({"a": [1, 2.5, "x"]})";
  std::ofstream(dir / "a.json") << text;
  EXPECT_EQ(read_file(dir / "a.json"), read(text));
  std::ofstream(dir / "bad.json") << "[1,\n2";
  EXPECT_THROW_MESSAGE(read_file(dir / "bad.json"), std::runtime_error,
                       "JSON parse error at line 2, column 2: unexpected end of text.");
  EXPECT_THROW_MESSAGE(read_file(dir / "missing.json"), std::runtime_error,
                       "Could not read JSON file '" + (dir / "missing.json").string() +
                           "': No such file or directory");
  EXPECT_THROW_MESSAGE(read_file(dir.path()), std::runtime_error,
                       "Could not read JSON file '" + dir.path().string() + "': Is a directory");
}

}  // namespace
}  // namespace JSON
