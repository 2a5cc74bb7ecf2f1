#include "tarnio/props/path.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarnio/props/internal/path_parser.h"
#include "tarnio/props/prop.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/random_prop.h"

namespace {

namespace dt = Tarn::dt;
using Tarn::props::ignore_errors;
using Tarn::props::internal::parse_index_segment;
using Tarn::props::internal::PathSegment;
using Tarn::props::internal::SegmentKind;
using Tarn::props::internal::split_first_segment;

std::string wrapped(std::string_view path, std::string_view inner) {
  return fmt::format("Invalid property path '{}': {}", path, inner);
}

TEST(PathParser, SplitsOffTheFirstSegment) {
  struct Row {
    std::string_view path;
    SegmentKind kind;
    std::string_view text;
    TPropSize indices;
    std::string_view rest;
  };
  const Row rows[] = {
      {"a/b", SegmentKind::name, "a", {}, "b"},
      {"a/2", SegmentKind::name, "a", {}, "/2"},
      {"a{2}.c", SegmentKind::name, "a", {}, "{2}.c"},
      {"a.", SegmentKind::name, "a", {}, ""},
      {"/12/3", SegmentKind::slash_index, "/12", {12}, "/3"},
      {"( 3,  4)(5)", SegmentKind::array_index, "( 3,  4)", {3, 4}, "(5)"},
      {"{007}/b", SegmentKind::cell_index, "{007}", {7}, "b"},
      {"(18446744073709551614)",
       SegmentKind::array_index,
       "(18446744073709551614)",
       {TProparrayBase::npos - 1},
       ""},
  };
  for (const Row& row : rows) {
    PathSegment segment;
    segment.indices = {9, 9, 9};  // a reused vector holds only the new indices
    std::string_view rest;
    ASSERT_TRUE(split_first_segment(row.path, segment, rest, nullptr)) << row.path;
    EXPECT_EQ(segment.kind, row.kind) << row.path;
    EXPECT_EQ(segment.text, row.text) << row.path;
    EXPECT_EQ(segment.indices, row.indices) << row.path;
    EXPECT_EQ(rest, row.rest) << row.path;
  }
  TPropSize indices;
  EXPECT_THROW_MESSAGE(parse_index_segment("", indices, nullptr), std::runtime_error,
                       "Empty path segment.");
}

TEST(PathNames, FollowTheNameRule) {
  for (const std::string_view name : {"a", "_x", "a-1", "Z9_-"}) {
    EXPECT_TRUE(tarn_prop_is_valid_name(name)) << name;
  }
  for (const std::string_view name : {"", "1abc", "-a", "a.b", "a b", "\xC3\xA9"}) {
    EXPECT_FALSE(tarn_prop_is_valid_name(name)) << name;
  }
}

TEST(PathValidity, TestsSyntaxAndStructureNotExistence) {
  const std::pair<std::string_view, bool> rows[] = {
      {"a.b", true},      {"a{2}.c(1,3)", true}, {"x(1).y{0}(3).z", true}, {"{0}{1}", true},
      {"a(x)", false},    {"", false},           {"a..b", false},          {"a/2", false},
      {"x(1)(2)", false}, {"a(1){2}", false},    {"x.y(1)/2", false},
  };
  for (const auto& [path, valid] : rows) EXPECT_EQ(tarn_prop_is_valid_path(path), valid) << path;
}

// s: {x: 7}, c: 2x3 cells with c{1,2} = "deep" and c{0,1} = {x: 7, y: 1.5}, v: 3x2 doubles,
// w: 4 doubles, r: 2 structs with r(1).y = 5, one: a single cell holding {x: 7, y: 1.5}, none,
// num: 3.0, str: "text", e: "empty".
TProp sample_tree() {
  TPropstruct inner;
  inner.set("x", TProp(7));
  TPropstruct root;
  root.set("s", TProp(inner));
  TProp cells = TProp::cell({2, 3});
  cells(1, 2) = TProp("deep");
  inner.set("y", TProp(1.5));
  cells(0, 1) = TProp(inner);
  root.set("c", std::move(cells));
  root.set("v", TProp::array(dt::double_, {3, 2}));
  root.set("w", TProp::array(dt::double_, {4}));
  TProparray<TPropstruct> records(TPropSize{2});
  records[1].set("y", TProp(5));
  root.set("r", TProp(std::move(records)));
  TProp single = TProp::cell({});
  single(0) = TProp(inner);
  root.set("one", std::move(single));
  root.set("none", TProp());
  root.set("num", TProp(3.0));
  root.set("str", TProp("text"));
  root.set("e", TProp(TPropempty{}));
  return TProp(std::move(root));
}

// Every failure through every form: the throwing forms wrap the message, the pointer forms
// report it as it is, and a failure without creation changes nothing.
TEST(PathResolution, ReportsEveryFailure) {
  struct Row {
    std::string_view path;
    bool create;
    std::string_view message;
  };
  const Row rows[] = {
      {"", false, "Path unexpectedly empty."},
      {".s", true, "Path starts with empty segment."},
      {"s..x", true, "Path starts with empty segment."},
      {"/s", true, "Path starts with empty segment."},
      {"s.1x", true, "Path contains invalid struct member name '1x'."},
      {"s.a b", true, "Path contains invalid struct member name 'a b'."},
      {"w(1", true, "Brackets not matched."},
      {"w(1}", true, "Brackets not matched."},
      {"w(1.2)", true, "Brackets not matched."},
      {"w(x)", true, "Invalid character specified in index segment '(x)'."},
      {"w(1 ,2)", true, "Invalid character specified in index segment '(1 ,2)'."},
      {"w{-1}", true, "Invalid character specified in index segment '{-1}'."},
      {"w/2x", true, "Invalid character specified in index segment '/2x'."},
      {"w()", true, "Invalid index '' specified in segment '()'."},
      {"w(1,)", true, "Invalid index '' specified in segment '(1,)'."},
      {"w(18446744073709551616)", true,
       "Invalid index '18446744073709551616' specified in segment '(18446744073709551616)'."},
      {"w(18446744073709551615)", true,
       "Invalid index '18446744073709551615' specified in segment '(18446744073709551615)'."},
      {"c{0, 18446744073709551615}", true,
       "Invalid index '18446744073709551615' specified in segment '{0, 18446744073709551615}'."},
      {"num.x", true, "Expected a struct."},
      {"e.x", true, "Expected a struct."},
      {"none.x", false, "Expected a struct."},
      {"r.y", true, "Expected a struct."},
      {"s.nope", false, "Struct member 'nope' does not exist."},
      {"r(0).y", false, "Struct member 'y' does not exist."},
      {"s(0)", true, "Encountered array index '(0)' instead of struct member name."},
      {"s{0}", true, "Encountered array index '{0}' instead of struct member name."},
      {"s/0", true, "Encountered array index '/0' instead of struct member name."},
      {"r(1)(0)", true, "Encountered array index '(0)' instead of struct member name."},
      {"w{0}", true, "Not a cell array but encountered cell array index {...}."},
      {"r{0}", true, "Not a cell array but encountered cell array index {...}."},
      {"none{0}", false, "Not a cell array but encountered cell array index {...}."},
      {"c(0,0)", true, "Expected a value or struct array."},
      {"num(0)", true, "Expected a value or struct array."},
      {"one(0)", true, "Expected a value or struct array."},
      {"none(0)", false, "Expected a value or struct array."},
      {"w(1).x", true, "Additional path elements after ending in value array."},
      {"v(9,9)/1", false, "Additional path elements after ending in value array."},
      {"num/0", true, "Expected an array as '/' is followed by a number."},
      {"none/0", false, "Expected an array as '/' is followed by a number."},
      {"none/0", true,
       "Path leads to empty entry but array type to create is unknown in '/' notation."},
      {"r", false, "Path ends in struct array."},
      {"c/0", false, "Input rank '1' too low (< '2')."},
      {"c{0,0,0}", false, "Input rank '3' too high (> '2')."},
      {"one{1}", false, "Input rank '1' too high (> '0')."},
      {"v(0,2)", false, "Index 1 out of bounds. (2 >= 2)"},
      {"c{2,0}", true, "Index 0 out of bounds. (2 >= 2)"},  // grows only in the last dimension
      {"v(2,1)", false, "Path ended at value array element."},
      {"w/3", true, "Path ended at value array element."},
      {"r(1)", false, "Path ended at value array element."},
  };
  const TProp before = sample_tree();
  for (const Row& row : rows) {
    TProp tree = sample_tree();
    std::string error;
    EXPECT_EQ(tree.getp(row.path, &error, row.create), nullptr) << row.path;
    EXPECT_EQ(error, row.message) << row.path;
    EXPECT_EQ(tree.getp(row.path, ignore_errors, row.create), nullptr) << row.path;
    EXPECT_THROW_MESSAGE(tree.getp(row.path, nullptr, row.create), std::runtime_error, row.message);
    EXPECT_THROW_MESSAGE(tree.getp(row.path, row.create), std::runtime_error,
                         wrapped(row.path, row.message));
    EXPECT_THROW_MESSAGE(tree.get<TPropstruct>().getp(row.path, row.create), std::runtime_error,
                         wrapped(row.path, row.message));
    if (!row.create) {
      EXPECT_THROW_MESSAGE(std::as_const(tree).getp(row.path), std::runtime_error,
                           wrapped(row.path, row.message));
      EXPECT_EQ(tree, before) << row.path;
    }
  }
}

TEST(PathCreation, MakesStructsCellsAndArraysFromNone) {
  TProp tree;
  TProp& b = tree.getp("a/b", true);
  EXPECT_EQ(&tree.get<TPropstruct>().find("a")->second.get<TPropstruct>().find("b")->second, &b);
  // A cell array of as many dimensions as indices, just large enough.
  TProp& cell = tree.getp("c{1,2}", true);
  const TProp& c = tree.getp("c");
  EXPECT_EQ(c.type_code(), dt::cell | dt::array_flag);
  EXPECT_EQ(c.get_arr()->shape(), (TPropSize{2, 3}));
  EXPECT_EQ(&c(1, 2), &cell);
  // "(...)" ending the path makes doubles; going on, structs.
  const auto [numbers, position] = tarn_prop_getp_ex(&tree, "d(2)", nullptr, true);
  EXPECT_EQ(position, TPropSize{2});
  EXPECT_EQ(*numbers, TProp::array(dt::double_, {3}));
  TProp& y = tree.getp("r(1,0).y", true);
  const TProp& r = tree.get<TPropstruct>().find("r")->second;
  EXPECT_EQ(r.type_code(), dt::struct_ | dt::array_flag);
  EXPECT_EQ(r.get_arr()->shape(), (TPropSize{2, 1}));
  EXPECT_EQ(&r.s(1, 0).find("y")->second, &y);
  EXPECT_TRUE(r.s(0, 0).empty());
  // What creation made is found without it, and nothing is made twice.
  const TProp made = tree;
  for (const std::string_view path : {"a.b", "c{1,2}", "r(1,0).y"}) {
    EXPECT_EQ(tree.getp(path, nullptr), &tree.getp(path, true)) << path;
  }
  EXPECT_EQ(tarn_prop_getp_ex(&tree, "d(2)", nullptr, false).first, numbers);
  EXPECT_EQ(tree, made);
}

TEST(PathCreation, GrowsArraysInTheirLastDimension) {
  TProp tree = sample_tree();
  TPropstruct& root = tree.get<TPropstruct>();
  TProp& grown = tree.getp("c{1,4}", true);
  EXPECT_EQ(&grown, &root.find("c")->second(1, 4));
  EXPECT_EQ(root.find("c")->second.get_arr()->shape(), (TPropSize{2, 5}));
  EXPECT_EQ(root.find("c")->second(1, 2), TProp("deep"));
  TProp& y = tree.getp("r/3/y", true);
  EXPECT_EQ(&y, &root.find("r")->second.s(3).find("y")->second);
  EXPECT_EQ(root.find("r")->second.s(1).find("y")->second, TProp(5));
  EXPECT_EQ(tarn_prop_getp_ex(&tree, "w(6)", nullptr, true).second, TPropSize{6});
  EXPECT_EQ(root.find("w")->second.get_arr()->shape(), TPropSize{7});
  // Growth is bounded for the whole path, not only for each array.
  TProp none;
  std::string error;
  EXPECT_EQ(none.getp("x{600000}{600000}", &error, true), nullptr);
  EXPECT_EQ(error, "Creating the path exceeds the limit of 1048576 new elements.");
}

TEST(PathCreation, RespectsLocks) {
  TProp tree = sample_tree();
  tree.lock();
  EXPECT_NE(tree.getp("s.x", nullptr, true), nullptr);  // nothing to create
  EXPECT_THROW_MESSAGE(tree.getp("fresh", true), std::runtime_error,
                       wrapped("fresh", "Property is locked."));
  TPropstruct& root = tree.get<TPropstruct>();
  root.find("c")->second.lock();
  root.find("none")->second.lock();
  EXPECT_NE(tree.getp("c{1,2}", nullptr, true), nullptr);
  for (const std::string_view path : {"c{1,3}", "none.a", "none{0}", "none(0)", "none(0).a"}) {
    std::string error;
    EXPECT_EQ(tree.getp(path, &error, true), nullptr) << path;
    EXPECT_EQ(error, "Property is locked.") << path;
  }
  EXPECT_EQ(tree, sample_tree());
}

TEST(PathRelative, StartsAtTheStruct) {
  TPropstruct record;
  TProp& b = record.getp("a.b{1}", true);
  EXPECT_EQ(&record.getp("a").getp("b{1}"), &b);
  EXPECT_EQ(&std::as_const(record)["a/b/1"], &b);
  EXPECT_EQ(std::as_const(record).getp("a.c", ignore_errors), nullptr);
  EXPECT_EQ(record.size(), 1u);
}

struct Entry {
  std::string path;     // members after '.', indices in brackets
  std::string slashed;  // members after '/', indices of rank 1 as "/i"
  const TProp* value;
  TPropSize position;
};

// Every entry below `value` with its paths; elements of value and struct arrays as the array
// and a position.
void collect(TProp& value, const std::string& path, const std::string& slashed,
             std::vector<Entry>& entries) {
  const DataType code = value.type_code();
  if (!path.empty() && code != (dt::struct_ | dt::array_flag)) {
    entries.push_back({path, slashed, &value, {}});
  }
  const auto members = [&](TPropstruct& record, const std::string& at, const std::string& at2) {
    for (auto& [name, member] : record) {
      collect(member, at.empty() ? name : at + "." + name, at2.empty() ? name : at2 + "/" + name,
              entries);
    }
  };
  if (auto* record = value.get_if<TPropstruct>()) return members(*record, path, slashed);
  const bool is_cell = (code & dt::name_mask) == dt::cell;
  if (!is_cell && (code & dt::array_flag) == 0) return;
  const TProparrayBase& array = *value.content()->array();
  for (std::uint64_t k = 0; k < array.element_count(); ++k) {
    const TPropSize position = array.get_rank() == 0 ? TPropSize{0} : array.get_pos(k);
    const std::string index =
        fmt::format("{}{}{}", is_cell ? '{' : '(', fmt::join(position, ","), is_cell ? '}' : ')');
    const std::string at = path + index;
    const std::string at2 = slashed + (position.size() == 1 ? fmt::format("/{}", k) : index);
    if (is_cell) {
      collect(value.get<TProparray<TProp>>()[k], at, at2, entries);
      continue;
    }
    entries.push_back({at, at2, &value, position});
    if ((code & dt::name_mask) == dt::struct_) {
      members(value.get<TProparray<TPropstruct>>()[k], at, at2);
    }
  }
}

// Every entry of random trees is reached by both spellings of its path, through every form,
// with and without creation, and all this changes nothing.
TEST(PathResolution, ReachesEveryEntryOfRandomTrees) {
  std::size_t checked = 0;
  for (std::uint64_t seed = 1; seed <= 200; ++seed) {
    TProp tree = Tarn::testing::RandomProp(seed)();
    const TProp before = tree;
    std::vector<Entry> entries;
    collect(tree, "", "", entries);
    for (const Entry& entry : entries) {
      for (const std::string& path : {entry.path, entry.slashed}) {
        for (const bool create : {false, true}) {
          std::string error;
          const auto [found, position] = tarn_prop_getp_ex(&tree, path, &error, create);
          EXPECT_EQ(found, entry.value) << "seed " << seed << ": " << path << ": " << error;
          EXPECT_EQ(position, entry.position) << "seed " << seed << ": " << path;
        }
        if (!entry.position.empty()) continue;
        EXPECT_EQ(&std::as_const(tree).getp(path), entry.value) << path;
        if (auto* record = tree.get_if<TPropstruct>()) {
          EXPECT_EQ(&record->getp(path, true), entry.value) << path;
        }
      }
      ++checked;
    }
    EXPECT_EQ(tree, before) << "seed " << seed;
  }
  EXPECT_GT(checked, 1000u);
}

}  // namespace
