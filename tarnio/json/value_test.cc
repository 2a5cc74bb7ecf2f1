#include "tarnio/json/value.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace JSON {
namespace {

constexpr std::int64_t kInt64Max = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kInt64Min = std::numeric_limits<std::int64_t>::min();
constexpr std::uint64_t kUint64Max = std::numeric_limits<std::uint64_t>::max();

std::vector<std::string> keys_of(const Value& object) {
  std::vector<std::string> keys;
  for (const Member& member : object.members()) keys.emplace_back(member.key());
  return keys;
}

// The message of the std::runtime_error that `action` throws, or "no error".
std::string error_of(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "no error";
}

// The number's text, to tell table rows apart.
std::string write_number(const Value& value) {
  if (value.is_int64()) return std::to_string(value.get_int64());
  if (value.is_uint64()) return std::to_string(value.get_uint64());
  return value.is_double() ? fmt::format("{}", value.get_double()) : kind_name(value.kind());
}

// A chain of `depth` containers, alternating lists and objects, around the string "end".
Value deep_tree(std::size_t depth) {
  Value value("end");
  for (std::size_t i = 0; i < depth; ++i) {
    Value outer = i % 2 == 0 ? Value::list() : Value::object();
    if (outer.is_list()) {
      outer.push_back(std::move(value));
    } else {
      outer.set("k", std::move(value));
    }
    value = std::move(outer);
  }
  return value;
}

TEST(JsonValue, NumbersKeepTheirRepresentationAndConvertExactlyOrSayWhy) {
  static_assert(sizeof(Member) == 32);
  for (const Value& v : {Value(-3), Value(-3L), Value(kInt64Min), Value(short{7})}) {
    EXPECT_TRUE(v.is_int64());
  }
  for (const Value& v : {Value(3u), Value(3ul), Value(kUint64Max), Value(std::size_t{4})}) {
    EXPECT_TRUE(v.is_uint64());
  }
  EXPECT_TRUE(Value(0.5).is_double());
  EXPECT_EQ(Value(-0x1p63).get_int64(), kInt64Min);
  EXPECT_EQ(Value(0x1p63).get_uint64(), std::uint64_t{1} << 63);
  EXPECT_EQ(Value(std::uint64_t{5}).get_int64(), 5);
  EXPECT_EQ(Value(7).get_uint64(), 7u);
  EXPECT_EQ(Value(kUint64Max).get_double(), 0x1p64);

  const Value null_value;
  const Value pair = Value::list({1, 2});
  const std::pair<std::function<void()>, std::string> errors[] = {
      {[] { Value(2.5).get_int64(); }, "JSON number 2.5 does not fit int64."},
      {[] { Value(-1).get_uint64(); }, "JSON number -1 does not fit uint64."},
      {[] { Value(kUint64Max).get_int64(); },
       "JSON number 18446744073709551615 does not fit int64."},
      {[] { Value(0x1p63).get_int64(); }, "JSON number 9.223372036854776e+18 does not fit int64."},
      {[] { Value(0x1p64).get_uint64(); },
       "JSON number 1.8446744073709552e+19 does not fit uint64."},
      {[] { Value(NAN).get_int64(); }, "JSON number nan does not fit int64."},
      {[] { Value("5").get_int64(); }, "JSON value is string, not number."},
      {[] { Value(1).get_bool(); }, "JSON value is number, not boolean."},
      {[] { Value(true).get_string(); }, "JSON value is boolean, not string."},
      {[&] { null_value.items(); }, "JSON value is null, not list."},
      {[] { Value::list().members(); }, "JSON value is list, not object."},
      {[] { Value::object().push_back(1); }, "JSON value is object, not list."},
      {[&] { pair.at(2); }, "JSON index 2 out of range (2 items)."}};
  for (const auto& [action, message] : errors) EXPECT_EQ(error_of(action), message);
}

TEST(JsonValue, StringsAroundTheInlineLimitKeepEveryByte) {
  for (std::size_t length : {0u, 1u, 13u, 14u, 15u, 16u, 100u}) {
    SCOPED_TRACE(length);
    std::string text;
    for (std::size_t i = 0; i < length; ++i) text += static_cast<char>(i % 3 ? 'a' + i % 26 : 0);
    Value value(text);
    const Value copy = value;
    EXPECT_EQ(copy.get_string(), text);
    const char* data = value.get_string().data();
    EXPECT_EQ(data >= reinterpret_cast<const char*>(&value) &&
                  data < reinterpret_cast<const char*>(&value + 1),
              length <= 14);
    Value moved = std::move(value);
    EXPECT_EQ(moved.get_string(), text);
    EXPECT_TRUE(value.is_null());  // NOLINT(bugprone-use-after-move)
  }
  EXPECT_NE(Value(std::string_view("a\0b", 3)), Value(std::string_view("a\0c", 3)));
  EXPECT_NE(Value("abc"), Value(std::string_view("abc\0", 4)));
}

TEST(JsonValue, ContainersAppendIndexReplaceInPlaceAndConvertNull) {
  Value list;
  list.push_back(1) = "one";
  list.push_back(Value::list({2, 3}));
  EXPECT_EQ(list, Value::list({"one", Value::list({2, 3})}));
  Value empty;
  EXPECT_TRUE(empty.items().empty() && empty.is_list());

  Value object = Value::object({{"b", 1}, {"a", 2}, {"b", 3}, {"c", 4}});
  EXPECT_EQ(keys_of(object), (std::vector<std::string>{"b", "a", "c"}));
  EXPECT_EQ(object.at("b").get_int64(), 3);
  object.set("a", "x");
  EXPECT_TRUE(object["d"].is_null());
  EXPECT_EQ(keys_of(object), (std::vector<std::string>{"b", "a", "c", "d"}));
  EXPECT_EQ(object.members()[1].value().get_string(), "x");
  EXPECT_TRUE(object.erase("a"));
  EXPECT_FALSE(object.erase("a"));
  EXPECT_EQ(keys_of(object), (std::vector<std::string>{"b", "c", "d"}));
  EXPECT_EQ(Value(1).find("a"), nullptr);
  EXPECT_EQ(error_of([&] { object.at("a"); }), "JSON path 'a' not found.");
  Value null_value;
  EXPECT_FALSE(null_value.erase("a"));
  EXPECT_TRUE(null_value.is_null());
  null_value["k"] = 1;
  EXPECT_EQ(null_value, Value::object({{"k", 1}}));
}

// Across the hash-index threshold both ways, then a large object with replacements and
// erasures, every lookup, miss and the member order checked against std::map and a list.
TEST(JsonValue, ObjectLookupsAgreeWithMap) {
  std::mt19937 random(7);
  Value object;
  std::map<std::string, std::int64_t> map;
  std::vector<std::string> order;
  const auto key = [&](unsigned range) { return fmt::format("key{}", random() % range); };
  const auto set = [&](const std::string& k, std::int64_t i) {
    if (!object.contains(k)) order.push_back(k);
    object.set(k, i);
    map[k] = i;
  };
  const auto erase = [&](const std::string& k) {
    EXPECT_EQ(object.erase(k), map.erase(k) == 1) << k;
    std::erase(order, k);
  };
  const auto check = [&] {
    ASSERT_EQ(keys_of(object), order);
    for (const auto& [k, number] : map) ASSERT_EQ(object.at(k).get_int64(), number) << k;
    for (int i = 0; i < 50; ++i) {
      const std::string probe = key(40000);
      ASSERT_EQ(object.contains(probe), map.contains(probe)) << probe;
    }
  };
  for (std::int64_t i = 0; i < 40; ++i) {
    set(fmt::format("key{}", i), i);
    check();
  }
  while (!object.empty()) {
    erase(std::string(object.members()[random() % object.size()].key()));
    check();
  }
  for (std::int64_t i = 0; i < 30000; ++i) set(key(36000), i);
  for (int i = 0; i < 100; ++i) erase(key(36000));
  check();
}

TEST(JsonValue, CopiesAreDeepMovesLeaveNullAndReadingKeepsAddresses) {
  Value original = Value::object(
      {{"list", Value::list({1, Value::object({{"s", "a string of some length"}})})}});
  for (int i = 0; i < 20; ++i) original.set(fmt::format("m{}", i), i);  // past the hash index
  const Member* members = original.members().data();
  const Value* list = original.find("list");
  const std::string_view s = original.at_path("list[1].s").get_string();
  Value copy = std::as_const(original);
  EXPECT_EQ(copy, original);
  EXPECT_EQ(std::as_const(original).at("m19").get_int64(), 19);
  EXPECT_EQ(original.members().data(), members);
  EXPECT_EQ(original.find("list"), list);
  EXPECT_EQ(original.at_path("list[1].s").get_string().data(), s.data());

  copy.at_path("list[1].s") = "changed";
  copy["list"].push_back(2);
  EXPECT_EQ(s, "a string of some length");
  EXPECT_EQ(original["list"].size(), 2u);
  EXPECT_NE(copy, original);
  copy = original;
  EXPECT_EQ(copy, original);

  Value tree = original;
  tree = tree.at("list");  // assigning a value's own child
  EXPECT_EQ(tree, original.at("list"));
  tree = std::move(tree.at(1));
  EXPECT_EQ(tree, Value::object({{"s", "a string of some length"}}));
  tree = std::move(tree);
  EXPECT_TRUE(tree.is_object());
  Value moved(std::move(copy));
  EXPECT_TRUE(copy.is_null());  // NOLINT(bugprone-use-after-move)
  copy = std::move(moved);
  EXPECT_TRUE(moved.is_null());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(copy, original);
}

TEST(JsonValue, EqualityComparesNumbersExactlyAndObjectsInAnyOrder) {
  // The double of kInt64Max rounds to 2^63.
  const std::pair<Value, Value> unequal[] = {{kInt64Max, 0x1p63},
                                             {kUint64Max, 0x1p64},
                                             {(std::int64_t{1} << 53) + 1, 0x1p53},
                                             {-1, kUint64Max},
                                             {-1, -0.5},
                                             {1, 1.5},
                                             {NAN, NAN},
                                             {1, true},
                                             {Value(), false},
                                             {"5", 5},
                                             {Value::list(), Value::object()},
                                             {Value::list({1, 2}), Value::list({2, 1})}};
  const std::pair<Value, Value> equal[] = {
      {5, 5u},  {5u, 5.0}, {-5, -5.0}, {std::uint64_t{1} << 63, 0x1p63}, {kInt64Min, -0x1p63},
      {0, -0.0}};
  for (const auto& [a, b] : equal) EXPECT_TRUE(a == b && b == a) << write_number(a);
  for (const auto& [a, b] : unequal) EXPECT_TRUE(a != b && b != a) << write_number(a);
  EXPECT_EQ(Value::object({{"a", 1}, {"b", Value::list({1, 2})}}),
            Value::object({{"b", Value::list({1.0, 2u})}, {"a", 1}}));
  EXPECT_NE(Value::object({{"a", 1}, {"b", 2}}), Value::object({{"a", 1}, {"c", 2}}));
  EXPECT_NE(Value::object({{"a", 1}}), Value::object({{"a", 1}, {"b", 2}}));
  EXPECT_NE(Value::list({1, Value::list({2})}), Value::list({1, Value::object({{"0", 2}})}));
}

TEST(JsonValue, PathsInBothSyntaxes) {
  Value tree =
      Value::object({{"a", Value::object({{"b", Value::list({10, Value::object({{"c", "x"}})})}})},
                     {"a/b", 1},
                     {"m~n", 2},
                     {"", 3},
                     {"grid", Value::list({Value::list({1, 2}), Value::list({3})})}});
  const Value& t = tree;
  EXPECT_EQ(t.find_path(""), &t);
  EXPECT_EQ(&t.at_path("/a/b/1/c"), &t.at_path("a.b[1].c"));
  EXPECT_EQ(t.at("grid").at_path("[0][1]"), 2);
  const std::pair<const char*, Value> hits[] = {
      {"a.b[1].c", "x"}, {"a.b[0]", 10}, {"grid[1][0]", 3}, {"/a~1b", 1},
      {"/m~0n", 2},      {"/", 3},       {"/grid/0/1", 2}};
  for (const auto& [path, expected] : hits) EXPECT_EQ(t.at_path(path), expected) << path;
  tree.at_path("/grid/1/0") = "changed";
  EXPECT_EQ(t.at_path("grid[1][0]"), "changed");

  for (const char* miss :
       {"x",       "a.x",      "a.b[2]", "a.b[01]", "a.b[-1]",    "a.b[x]",
        "a.b[]",   "a.b[",     "a.b.c",  "a..b",    "a.",         ".a",
        "a.b[0]x", "a.b[0].c", "[0]",    "a[0]",    "/x",         "/a/b/-",
        "/a/b/01", "/a/b/2",   "/m~2n",  "/m~",     "/a/b/1/c/d", "/a/b/99999999999999999999999",
        "//",      "new.key"}) {
    EXPECT_EQ(tree.find_path(miss), nullptr) << miss;
  }
  EXPECT_EQ(error_of([&] { t.at_path("a.b[1].d"); }), "JSON path 'a.b[1].d' not found.");
  EXPECT_EQ(error_of([&] { tree.at_path("/m~2"); }), "JSON path '/m~2' not found.");
  EXPECT_FALSE(t.contains("new"));
}

TEST(JsonValue, DeepTreesCopyCompareAndDestroyWithoutRecursion) {
  Value deep = deep_tree(10000);
  Value copy = deep;
  EXPECT_EQ(copy, deep);
  Value* inner = &copy;
  while (!inner->is_string()) inner = inner->is_list() ? &inner->at(0) : &inner->at("k");
  *inner = "other";
  EXPECT_NE(copy, deep);
  { Value very_deep = deep_tree(1000000); }
}

}  // namespace
}  // namespace JSON
