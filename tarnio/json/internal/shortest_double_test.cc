#include "tarnio/json/internal/shortest_double.h"

#include <gtest/gtest.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <random>
#include <string_view>
#include <vector>

namespace JSON::internal {
namespace {

// Whatever path a value takes, the text is the one std::to_chars writes: short decimals of
// every scale, the edges of the fast range, and arbitrary bit patterns.
TEST(ShortestDouble, WritesWhatToCharsWrites) {
  std::mt19937_64 random(15);
  std::vector<double> values = {0.0, -0.0, 1e-3, 9.99e-4, 1e5, 99999.5, 0.1 + 0.2, NAN, 5e-324};
  for (int i = 0; i < 200000; ++i) {
    const auto whole = static_cast<double>(random() % 100000000);
    values.push_back((random() % 2 ? 1 : -1) * whole / std::pow(10.0, random() % 10));
    values.push_back(std::bit_cast<double>(random()));
  }
  for (double value : values) {
    char fast[kMaxDoubleText];
    char reference[kMaxDoubleText];
    const char* reference_end = std::to_chars(reference, reference + kMaxDoubleText, value).ptr;
    ASSERT_EQ(std::string_view(fast, write_shortest_double(fast, value)),
              std::string_view(reference, reference_end));
  }
}

}  // namespace
}  // namespace JSON::internal
