#include "tarnio/json/proxy.h"

#include <gtest/gtest.h>

#include "tarnio/testing/expect_throw_message.h"

namespace JSON {
namespace {

// An element that counts its live objects, so that the tests see creation and destruction.
struct Counted : Proxy {
  Counted(Proxy&, Value& node) : Proxy(node) { ++alive; }
  ~Counted() override { --alive; }
  static inline int alive = 0;
};

struct Owner : Proxy {
  explicit Owner(Value& node) : Proxy(node) {}
  Array_of<Counted> items{*this, "Item"};
  One_of<Counted> single{*this, "Single"};
};

TEST(ProxyTest, ElementObjectsAreLazyStableAndDieWithTheirItems) {
  Value tree = Value::object({{"Item", Value::list()}});
  for (int i = 0; i < 10; ++i) tree.at("Item").push_back(Value::object({{"n", i}}));
  {
    Owner owner(tree);
    EXPECT_EQ(owner.items.size(), 10u);
    Counted& first = owner.items.front();
    EXPECT_EQ(Counted::alive, 1);  // only the first was reached
    EXPECT_EQ(owner.items.existing(5), nullptr);
    for (int i = 10; i < 100; ++i) owner.items.append(Value::object({{"n", i}}));
    EXPECT_EQ(Counted::alive, 91);
    // The list grew 90 times: the object is the same and sees its own item.
    EXPECT_EQ(&owner.items[0], &first);
    first.set_member("n", "first");
    EXPECT_EQ(tree.at_path("Item[0].n"), Value("first"));

    Counted& seventh = owner.items[7];
    owner.items.erase(3);
    EXPECT_EQ(owner.items.size(), 99u);
    EXPECT_EQ(&owner.items[6], &seventh);
    EXPECT_EQ(seventh.member("n"), Value(7));
    owner.items.erase(6);
    EXPECT_EQ(Counted::alive, 91);  // the seventh is gone
    EXPECT_EQ(owner.items[6].member("n"), Value(8));

    int sum = 0;
    for (const Counted& c : std::as_const(owner.items)) sum += static_cast<int>(c.has_member("n"));
    EXPECT_EQ(sum, 98);
    owner.items.clear();
    EXPECT_EQ(Counted::alive, 0);
    EXPECT_FALSE(tree.contains("Item"));
    EXPECT_THROW_MESSAGE(owner.items[0], std::runtime_error, "JSON path 'Item' not found.");

    EXPECT_EQ(owner.single.get(), nullptr);
    Counted& only = owner.single.provide();
    EXPECT_EQ(&owner.single.provide(), &only);
    EXPECT_EQ(tree.at("Single").size(), 1u);
    owner.single.reset();
    EXPECT_FALSE(owner.single.has_value());
    owner.single.provide();
  }
  EXPECT_EQ(Counted::alive, 0);
}

enum class Color { red, green, blue };

TEST(ProxyTest, MembersAndEnumerationsThroughTables) {
  const Enum_Table<Color> colors{{Color::red, "Red"}, {Color::green, "Green"}};
  Value tree = Value::object();
  Owner owner(tree);
  EXPECT_THROW_MESSAGE(owner.member("Color"), std::runtime_error, "JSON path 'Color' not found.");
  owner.set_enum_member("Color", colors, Color::green);
  EXPECT_EQ(tree.at("Color"), Value("Green"));
  EXPECT_EQ(owner.enum_member("Color", colors), Color::green);
  EXPECT_THROW_MESSAGE(owner.set_enum_member("Color", colors, Color::blue), std::runtime_error,
                       "Unknown enumeration value '2'.");
  owner.set_member("Color", "Purple");
  EXPECT_THROW_MESSAGE(owner.enum_member("Color", colors), std::runtime_error,
                       "Unknown enumeration keyword 'Purple'.");

  using Table = Enum_Table<Color>;
  EXPECT_THROW_MESSAGE(Table({{Color::red, "Red"}, {Color::green, "Red"}}), std::runtime_error,
                       "Duplicate enumeration key '1' for string value 'Red'.");
  EXPECT_THROW_MESSAGE(Table({{Color::red, "Red"}, {Color::red, "Crimson"}}), std::runtime_error,
                       "Duplicate string key 'Crimson' for enumeration value '0'.");
}

TEST(ProxyTest, ValueListItemsAreErasedInPlace) {
  Value list = Value::list({1, 2, 3});
  list.erase(std::size_t{1});
  EXPECT_EQ(list, Value::list({1, 3}));
  EXPECT_THROW_MESSAGE(list.erase(std::size_t{2}), std::runtime_error,
                       "JSON index 2 out of range (2 items).");
}

}  // namespace
}  // namespace JSON
