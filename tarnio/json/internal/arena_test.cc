#include "tarnio/json/internal/arena.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tarnio/json/read_write.h"
#include "tarnio/json/value.h"

namespace JSON {
namespace {

// A document of `count` records, each an object of 20 members (above the size from which
// objects keep a key index) with a list and a nested object.
std::string records(int count) {
  std::string text = "[";
  for (int r = 0; r < count; ++r) {
    text += r == 0 ? "{" : ",{";
    for (int m = 0; m < 20; ++m) text += fmt::format("\"member {}\":{},", m, r);
    text += R"("list":[1,"a string longer than fourteen bytes",[]],"nested":{"x":{"y":[null]}}})";
  }
  return text + "]";
}

// A tree read into an arena is edited after reading exactly as its heap copy is: items and
// members added (containers grow out of the arena), replaced, erased and moved out.
TEST(JsonArena, ReadTreesTakeEveryEditLikeHeapTrees) {
  Value arena_tree = read(records(300));
  Value heap_tree = arena_tree;  // copies live on the heap
  std::mt19937 random(15);
  for (int step = 0; step < 3000; ++step) {
    const std::size_t record = random() % 300;
    const auto action = random() % 6;
    for (Value* tree : {&arena_tree, &heap_tree}) {
      Value& item = tree->at(record);
      switch (action) {
        case 0:
          item.at("list").push_back(Value::list({step, "another string past the inline limit"}));
          break;
        case 1:
          item.set(fmt::format("new {}", step), step);
          break;
        case 2:
          item.erase(fmt::format("member {}", step % 20));
          break;
        case 3:
          item["nested"] = Value(item.at("list"));
          break;
        case 4:
          tree->push_back(std::move(item["nested"]));
          break;
        case 5:
          if (item.at("list").size() > 1) item.at("list").erase(1);
          break;
      }
    }
    ASSERT_EQ(arena_tree.at(record), heap_tree.at(record));
  }
  EXPECT_EQ(arena_tree, heap_tree);
  EXPECT_EQ(write(arena_tree), write(heap_tree));
}

// Subtrees moved out of a tree outlive it, also on another thread, and a read that fails
// half-way frees what it had built (the sanitizers check both).
TEST(JsonArena, SubtreesOutliveTheirTreeAndFailedReadsFreeEverything) {
  std::vector<Value> kept;
  {
    Value tree = read(records(50));
    for (Value& record : tree.items()) kept.push_back(std::move(record.at("nested")));
  }
  std::thread other([moved = std::move(kept.back())]() mutable { moved.at("x").set("z", 1); });
  kept.pop_back();
  other.join();
  for (const Value& nested : kept) EXPECT_EQ(nested, read(R"({"x":{"y":[null]}})"));
  const std::string whole = records(50);
  EXPECT_THROW(read(std::string_view(whole).substr(0, whole.size() / 2)), std::runtime_error);
}

}  // namespace
}  // namespace JSON
