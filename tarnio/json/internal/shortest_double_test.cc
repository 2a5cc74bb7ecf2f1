#include "tarnio/json/internal/shortest_double.h"

#include <gtest/gtest.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace JSON::internal {
namespace {

std::string fast_text(double value) {
  char buffer[kMaxDoubleText];
  return std::string(buffer, write_shortest_double(buffer, value));
}

std::string reference_text(double value) {
  char buffer[kMaxDoubleText];
  return std::string(buffer, std::to_chars(buffer, buffer + sizeof buffer, value).ptr);
}

// Whatever path a value takes, the text is the one std::to_chars writes: short decimals of
// every scale, the edges of the fast range, and arbitrary bit patterns.
TEST(ShortestDouble, WritesWhatToCharsWrites) {
  std::mt19937_64 random(15);
  std::vector<double> values = {0.0,
                                -0.0,
                                1e-3,
                                -1e-3,
                                9.99e-4,
                                1e5,
                                99999.5,
                                1e5 - 1,
                                0.065,
                                12.5,
                                1.25,
                                0.1 + 0.2,
                                1e-7,
                                123456.7,
                                INFINITY,
                                -INFINITY,
                                NAN,
                                5e-324,
                                1.7976931348623157e308};
  for (int i = 0; i < 200000; ++i) {
    const auto digits = static_cast<int>(random() % 10);
    const auto whole = static_cast<double>(random() % 100000000);
    values.push_back((random() % 2 ? 1 : -1) * whole / std::pow(10.0, digits));
    values.push_back(std::bit_cast<double>(random()));
  }
  for (double value : values) {
    ASSERT_EQ(fast_text(value), reference_text(value)) << reference_text(value);
  }
}

}  // namespace
}  // namespace JSON::internal
