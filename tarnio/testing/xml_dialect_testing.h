#pragma once

// Helpers for the tests of the XML dialects: sample files, values built from lists, deeply
// nested structs, reading a document with one dialect's reader, comparing values with both
// shown in a dialect's text, and the round trip of random trees through a dialect.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "tarnio/props/internal/xml_support.h"
#include "tarnio/props/prop.h"
#include "tarnio/testing/random_prop.h"

namespace Tarn::testing {

using DialectReader = TProp (*)(const pugi::xml_document&);
using DialectWriter = std::string (*)(const TProp&);

inline std::string read_file(const char* path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file) << "cannot open " << path;
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// An array of `shape` with `values` in column-major order.
template <typename T>
TProp array_of(const TPropSize& shape, std::initializer_list<T> values) {
  TProparray<T> array(shape);
  std::size_t i = 0;
  for (const T& value : values) array[i++] = value;
  return TProp(std::move(array));
}

inline TProp struct_of(std::initializer_list<std::pair<const char*, TProp>> members) {
  TPropstruct result;
  for (const auto& [name, value] : members) result.set(name, value);
  return TProp(std::move(result));
}

inline TProp cell_of(const TPropSize& shape, std::initializer_list<TProp> items) {
  TProparray<TProp> cells(shape);
  std::size_t i = 0;
  for (const TProp& item : items) cells[i++] = item;
  return TProp(std::move(cells));
}

// A struct array of `shape` whose elements are the structs `elements` hold.
inline TProp struct_array_of(const TPropSize& shape, std::initializer_list<TProp> elements) {
  TProparray<TPropstruct> structs(shape);
  std::size_t i = 0;
  for (const TProp& element : elements) structs[i++] = element.get<TPropstruct>();
  return TProp(std::move(structs));
}

// The double 1 inside `levels` structs, each holding the next as its member "a".
inline TProp nested_structs(int levels) {
  TProp value(1.0);
  for (int i = 0; i < levels; ++i) {
    TPropstruct outer;
    outer.set("a", std::move(value));
    value = TProp(std::move(outer));
  }
  return value;
}

// One dialect's reader and writer.
struct XmlDialect {
  DialectReader reader;
  DialectWriter writer;

  // Parses `text` as the library does and reads it with the dialect's reader.
  TProp read(std::string_view text) const {
    pugi::xml_document document;
    props::internal::parse_document(document, text);
    return reader(document);
  }

  // Expects equal values; on failure both are shown as the dialect writes them.
  void expect_same(const TProp& expected, const TProp& actual) const {
    EXPECT_TRUE(expected == actual) << "expected\n"
                                    << writer(expected) << "got\n"
                                    << writer(actual);
  }
};

// Writes `count` random trees in `dialect` and expects each to read back as
// `after(tree)`, what the dialect keeps of it. With `same_text`, the value read back must also
// write the same document again.
template <typename After>
void expect_random_round_trips(const XmlDialect& dialect, std::uint64_t count, After after,
                               bool same_text) {
  for (std::uint64_t seed = 1; seed <= count; ++seed) {
    const TProp value = RandomProp(seed)();
    const std::string xml = dialect.writer(value);
    TProp back;
    try {
      back = dialect.read(xml);
    } catch (const std::runtime_error& error) {
      ADD_FAILURE() << "seed " << seed << ": " << error.what() << "\n" << xml;
      continue;
    }
    EXPECT_TRUE(after(value) == back) << "seed " << seed << "\n"
                                      << xml << "read back as\n"
                                      << dialect.writer(back);
    if (same_text) {
      EXPECT_EQ(dialect.writer(back), xml) << "seed " << seed;
    }
  }
}

}  // namespace Tarn::testing
