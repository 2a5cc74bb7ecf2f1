#include "tarnio/json/value.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tarnio/testing/expect_throw_message.h"

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

TEST(JsonValue, ConstructorsPickKindAndNumberRepresentation) {
  static_assert(sizeof(Member) == 32);
  EXPECT_TRUE(Value().is_null());
  EXPECT_TRUE(Value(nullptr).is_null());
  EXPECT_TRUE(Value(false).is_bool());
  EXPECT_TRUE(Value(true).get_bool());
  EXPECT_FALSE(Value(false).get_bool());
  EXPECT_TRUE(Value(-3).is_int64());
  EXPECT_TRUE(Value(-3L).is_int64());
  EXPECT_TRUE(Value(kInt64Min).is_int64());
  EXPECT_TRUE(Value(static_cast<short>(7)).is_int64());
  EXPECT_TRUE(Value(3u).is_uint64());
  EXPECT_TRUE(Value(3ul).is_uint64());
  EXPECT_TRUE(Value(kUint64Max).is_uint64());
  EXPECT_TRUE(Value(std::size_t{4}).is_uint64());
  EXPECT_TRUE(Value(0.5).is_double());
  EXPECT_EQ(Value(kInt64Min).get_int64(), kInt64Min);
  EXPECT_EQ(Value(kUint64Max).get_uint64(), kUint64Max);
  EXPECT_EQ(Value("text").kind(), Kind::string);
  EXPECT_EQ(Value(std::string("text")).get_string(), "text");
  EXPECT_EQ(Value::list().kind(), Kind::list);
  EXPECT_EQ(Value::object().kind(), Kind::object);
  EXPECT_EQ(Value::list({1, "a", nullptr}).size(), 3u);
  EXPECT_EQ(Value("abc").size(), 0u);
  EXPECT_TRUE(Value::object().empty());
  const char* names[] = {"null", "boolean", "number", "string", "list", "object"};
  for (int k = 0; k < 6; ++k) EXPECT_STREQ(kind_name(static_cast<Kind>(k)), names[k]);
}

TEST(JsonValue, GettersConvertExactlyOrSayWhy) {
  EXPECT_EQ(Value(3.0).get_int64(), 3);
  EXPECT_EQ(Value(-0x1p63).get_int64(), kInt64Min);
  EXPECT_EQ(Value(0x1p63).get_uint64(), std::uint64_t{1} << 63);
  EXPECT_EQ(Value(std::uint64_t{5}).get_int64(), 5);
  EXPECT_EQ(Value(7).get_uint64(), 7u);
  EXPECT_EQ(Value(kUint64Max).get_double(), 0x1p64);
  EXPECT_EQ(Value(-2).get_double(), -2.0);
  using std::runtime_error;
  EXPECT_THROW_MESSAGE(Value(2.5).get_int64(), runtime_error,
                       "JSON number 2.5 does not fit int64.");
  EXPECT_THROW_MESSAGE(Value(-1).get_uint64(), runtime_error,
                       "JSON number -1 does not fit uint64.");
  EXPECT_THROW_MESSAGE(Value(kUint64Max).get_int64(), runtime_error,
                       "JSON number 18446744073709551615 does not fit int64.");
  EXPECT_THROW_MESSAGE(Value(0x1p63).get_int64(), runtime_error,
                       "JSON number 9.223372036854776e+18 does not fit int64.");
  EXPECT_THROW_MESSAGE(Value(0x1p64).get_uint64(), runtime_error,
                       "JSON number 1.8446744073709552e+19 does not fit uint64.");
  EXPECT_THROW_MESSAGE(Value(NAN).get_int64(), runtime_error,
                       "JSON number nan does not fit int64.");
  EXPECT_THROW_MESSAGE(Value("5").get_int64(), runtime_error, "JSON value is string, not number.");
  EXPECT_THROW_MESSAGE(Value().get_double(), runtime_error, "JSON value is null, not number.");
  EXPECT_THROW_MESSAGE(Value(1).get_bool(), runtime_error, "JSON value is number, not boolean.");
  EXPECT_THROW_MESSAGE(Value(true).get_string(), runtime_error,
                       "JSON value is boolean, not string.");
  const Value null_value;
  EXPECT_THROW_MESSAGE(null_value.items(), runtime_error, "JSON value is null, not list.");
  EXPECT_THROW_MESSAGE(Value::list().members(), runtime_error, "JSON value is list, not object.");
  EXPECT_THROW_MESSAGE(Value("s")["k"], runtime_error, "JSON value is string, not object.");
  EXPECT_THROW_MESSAGE(Value::object().push_back(1), runtime_error,
                       "JSON value is object, not list.");
}

TEST(JsonValue, StringsAroundTheInlineLimitKeepEveryByte) {
  for (std::size_t length : {0u, 1u, 13u, 14u, 15u, 16u, 100u}) {
    std::string text;
    for (std::size_t i = 0; i < length; ++i)
      text += static_cast<char>(i % 3 == 0 ? '\0' : 'a' + i % 26);
    Value value(text);
    const Value copy = value;
    EXPECT_EQ(copy.get_string(), text) << length;
    EXPECT_EQ(copy, value);
    const char* data = value.get_string().data();
    const bool inside = data >= reinterpret_cast<const char*>(&value) &&
                        data < reinterpret_cast<const char*>(&value + 1);
    EXPECT_EQ(inside, length <= 14) << length;
    Value moved = std::move(value);
    EXPECT_EQ(moved.get_string(), text);
    EXPECT_TRUE(value.is_null());  // NOLINT(bugprone-use-after-move)
  }
  EXPECT_NE(Value(std::string_view("a\0b", 3)), Value(std::string_view("a\0c", 3)));
  EXPECT_NE(Value("abc"), Value(std::string_view("abc\0", 4)));
}

TEST(JsonValue, ListsAppendIndexAndConvertNull) {
  Value list;
  Value& first = list.push_back(1);
  EXPECT_TRUE(list.is_list());
  first = "one";
  list.push_back(Value::list({2, 3}));
  EXPECT_EQ(list[0].get_string(), "one");
  EXPECT_EQ(list.at(1)[1].get_int64(), 3);
  EXPECT_EQ(list.items().size(), 2u);
  EXPECT_THROW_MESSAGE(list.at(2), std::runtime_error, "JSON index 2 out of range (2 items).");
  EXPECT_THROW_MESSAGE(Value(1).at(0), std::runtime_error, "JSON value is number, not list.");
  Value empty;
  EXPECT_TRUE(empty.items().empty());
  EXPECT_TRUE(empty.is_list());
}

TEST(JsonValue, ObjectsKeepInsertionOrderAndReplaceInPlace) {
  Value object = Value::object({{"b", 1}, {"a", 2}, {"b", 3}, {"c", 4}});
  EXPECT_EQ(keys_of(object), (std::vector<std::string>{"b", "a", "c"}));
  EXPECT_EQ(object.at("b").get_int64(), 3);
  object.set("a", "x");
  object["d"];
  EXPECT_EQ(keys_of(object), (std::vector<std::string>{"b", "a", "c", "d"}));
  EXPECT_TRUE(object.at("d").is_null());
  EXPECT_EQ(object.members()[1].value().get_string(), "x");
  EXPECT_TRUE(object.erase("a"));
  EXPECT_FALSE(object.erase("a"));
  EXPECT_EQ(keys_of(object), (std::vector<std::string>{"b", "c", "d"}));
  EXPECT_EQ(object.find("a"), nullptr);
  EXPECT_EQ(Value(1).find("a"), nullptr);
  EXPECT_THROW_MESSAGE(object.at("a"), std::runtime_error, "JSON path 'a' not found.");
  Value null_value;
  EXPECT_FALSE(null_value.erase("a"));
  EXPECT_TRUE(null_value.is_null());
  null_value["k"] = 1;
  EXPECT_EQ(null_value, Value::object({{"k", 1}}));
}

// Across the hash-index threshold both ways, then a large object with replacements and
// erasures, every lookup checked against std::map.
TEST(JsonValue, ObjectLookupsAgreeWithMap) {
  std::mt19937 random(7);
  const auto check_all = [](const Value& object, const std::map<std::string, std::int64_t>& map) {
    ASSERT_EQ(object.size(), map.size());
    for (const auto& [key, number] : map) {
      const Value* found = object.find(key);
      ASSERT_NE(found, nullptr) << key;
      ASSERT_EQ(found->get_int64(), number) << key;
    }
  };
  Value small;
  std::map<std::string, std::int64_t> small_map;
  for (std::int64_t i = 0; i < 40; ++i) {
    small.set(fmt::format("key{}", i), i);
    small_map[fmt::format("key{}", i)] = i;
    check_all(small, small_map);
  }
  while (!small.empty()) {
    const std::string key(small.members()[random() % small.size()].key());
    EXPECT_TRUE(small.erase(key));
    small_map.erase(key);
    check_all(small, small_map);
  }

  Value large;
  std::map<std::string, std::int64_t> large_map;
  std::vector<std::string> order;
  for (std::int64_t i = 0; i < 100000; ++i) {
    const std::string key = fmt::format("key{}", random() % 120000);
    if (!large.contains(key)) order.push_back(key);
    large.set(key, i);
    large_map[key] = i;
  }
  for (int i = 0; i < 100; ++i) {
    const std::string key = fmt::format("key{}", random() % 120000);
    EXPECT_EQ(large.erase(key), large_map.erase(key) == 1);
    std::erase(order, key);
  }
  check_all(large, large_map);
  EXPECT_EQ(keys_of(large), order);
  for (int i = 0; i < 1000; ++i) {
    const std::string key = fmt::format("key{}", random() % 130000);
    EXPECT_EQ(large.contains(key), large_map.count(key) == 1) << key;
  }
}

TEST(JsonValue, ReadingKeepsAddresses) {
  Value tree = Value::object(
      {{"name", "a long string of more than fourteen bytes"}, {"list", Value::list({1, 2, 3})}});
  for (int i = 0; i < 20; ++i) tree.set(fmt::format("m{}", i), i);
  const std::string_view name = tree.at("name").get_string();
  const Value* list = tree.find("list");
  const Member* members = tree.members().data();
  const Value& read = tree;
  const Value copy = read;
  EXPECT_EQ(copy, read);
  EXPECT_EQ(read.find_path("list[2]")->get_int64(), 3);
  EXPECT_EQ(read.at("m19").get_int64(), 19);
  EXPECT_EQ(tree.find("list"), list);
  EXPECT_EQ(tree.members().data(), members);
  EXPECT_EQ(tree.at("name").get_string().data(), name.data());
  EXPECT_EQ(&tree.at_path("/list/0"), &list->at(0));
}

TEST(JsonValue, CopiesAreDeepAndMovesLeaveNull) {
  Value original = Value::object(
      {{"list", Value::list({1, Value::object({{"s", "a string of some length"}})})}});
  Value copy = original;
  copy.at_path("list[1].s") = "changed";
  copy["list"].push_back(2);
  EXPECT_EQ(original.at_path("list[1].s").get_string(), "a string of some length");
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

  for (Value value : {Value("long enough to live on the heap"), Value::list({1}),
                      Value::object({{"a", 1}}), Value(2.5)}) {
    const Value before = value;
    Value moved(std::move(value));
    EXPECT_TRUE(value.is_null());  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(moved, before);
    value = std::move(moved);
    EXPECT_TRUE(moved.is_null());  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(value, before);
  }
}

TEST(JsonValue, EqualityComparesNumbersExactlyAndObjectsInAnyOrder) {
  EXPECT_EQ(Value(5), Value(5u));
  EXPECT_EQ(Value(5u), Value(5.0));
  EXPECT_EQ(Value(-5), Value(-5.0));
  EXPECT_EQ(Value(std::uint64_t{1} << 63), Value(0x1p63));
  EXPECT_EQ(Value(kInt64Min), Value(-0x1p63));
  EXPECT_EQ(Value(0), Value(-0.0));
  EXPECT_NE(Value(kInt64Max), Value(0x1p63));  // the double of kInt64Max rounds to 2^63
  EXPECT_NE(Value(kUint64Max), Value(0x1p64));
  EXPECT_NE(Value((std::int64_t{1} << 53) + 1), Value(0x1p53));
  EXPECT_NE(Value(-1), Value(kUint64Max));
  EXPECT_NE(Value(1), Value(1.5));
  EXPECT_NE(Value(NAN), Value(NAN));
  EXPECT_NE(Value(1), Value(true));
  EXPECT_NE(Value(), Value(false));
  EXPECT_NE(Value("5"), Value(5));
  EXPECT_NE(Value::list(), Value::object());
  EXPECT_EQ(Value::object({{"a", 1}, {"b", Value::list({1, 2})}}),
            Value::object({{"b", Value::list({1.0, 2u})}, {"a", 1}}));
  EXPECT_NE(Value::object({{"a", 1}, {"b", 2}}), Value::object({{"a", 1}, {"c", 2}}));
  EXPECT_NE(Value::object({{"a", 1}}), Value::object({{"a", 1}, {"b", 2}}));
  EXPECT_NE(Value::list({1, 2}), Value::list({2, 1}));
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
  EXPECT_EQ(t.at_path("a.b[1].c").get_string(), "x");
  EXPECT_EQ(t.at_path("a.b[0]").get_int64(), 10);
  EXPECT_EQ(t.at_path("grid[1][0]").get_int64(), 3);
  EXPECT_EQ(t.at("grid").at_path("[0][1]").get_int64(), 2);
  EXPECT_EQ(&t.at_path("/a/b/1/c"), &t.at_path("a.b[1].c"));
  EXPECT_EQ(t.at_path("/a~1b").get_int64(), 1);
  EXPECT_EQ(t.at_path("/m~0n").get_int64(), 2);
  EXPECT_EQ(t.at_path("/").get_int64(), 3);
  EXPECT_EQ(t.at_path("/grid/0/1").get_int64(), 2);
  tree.at_path("/grid/1/0") = "changed";
  EXPECT_EQ(t.at_path("grid[1][0]").get_string(), "changed");

  for (const char* miss :
       {"x",       "a.x",      "a.b[2]", "a.b[01]", "a.b[-1]",    "a.b[x]",
        "a.b[]",   "a.b[",     "a.b.c",  "a..b",    "a.",         ".a",
        "a.b[0]x", "a.b[0].c", "[0]",    "a[0]",    "/x",         "/a/b/-",
        "/a/b/01", "/a/b/2",   "/m~2n",  "/m~",     "/a/b/1/c/d", "/a/b/99999999999999999999999",
        "//"}) {
    EXPECT_EQ(t.find_path(miss), nullptr) << miss;
  }
  EXPECT_THROW_MESSAGE(t.at_path("a.b[1].d"), std::runtime_error,
                       "JSON path 'a.b[1].d' not found.");
  EXPECT_THROW_MESSAGE(tree.at_path("/m~2"), std::runtime_error, "JSON path '/m~2' not found.");
  const Value before = tree;
  EXPECT_EQ(tree.find_path("new.key"), nullptr);
  EXPECT_EQ(tree, before);
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
