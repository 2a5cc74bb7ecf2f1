#include "tarnio/json/internal/arena.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "tarnio/json/read_write.h"
#include "tarnio/json/value.h"

namespace JSON {
namespace {

// `count` records of 20 members (past the size from which objects index their keys), a list
// and a nested object.
std::string records(int count) {
  std::string text = "[";
  for (int r = 0; r < count; ++r) {
    text += r == 0 ? "{" : ",{";
    for (int m = 0; m < 20; ++m) text += fmt::format("\"member {}\":{},", m, r);
    text += R"("list":[1,"a string longer than fourteen bytes"],"nested":{"x":[null]}})";
  }
  return text + "]";
}

// A tree read into an arena takes edits as its heap copy does (containers grow out of the
// arena); subtrees moved out outlive the tree, also on another thread; a read that fails
// half-way frees what it built (the sanitizers check the last two).
TEST(JsonArena, ReadTreesTakeEditsAndOutliveTheirArena) {
  Value arena_tree = read(records(300));
  Value heap_tree = arena_tree;
  std::mt19937 random(15);
  for (int step = 0; step < 3000; ++step) {
    const auto record = random() % 300;
    const auto action = random() % 4;
    for (Value* tree : {&arena_tree, &heap_tree}) {
      Value& item = tree->at(record);
      if (action == 0) item.at("list").push_back(Value::list({step, "past the inline limit"}));
      if (action == 1) item.set(fmt::format("new {}", step), step);
      if (action == 2) item.erase(fmt::format("member {}", step % 20));
      if (action == 3) item["nested"] = Value(item.at("list"));
    }
  }
  EXPECT_EQ(write(arena_tree), write(heap_tree));
  Value kept = std::move(arena_tree.at(0));
  arena_tree = Value();
  std::thread([moved = std::move(kept)]() mutable { moved.set("z", 1); }).join();
  const std::string whole = records(50);
  EXPECT_THROW(read(std::string_view(whole).substr(0, whole.size() / 2)), std::runtime_error);
}

}  // namespace
}  // namespace JSON
