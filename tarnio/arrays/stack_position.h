#pragma once

// Tarn::arrays::StackPosition: where a stack sits in the acquisition it belongs to, and
// Tarn::arrays::Timestamp, when it was taken.
//
// A position holds the stack's index along the acquisition's own axes (time point, channel,
// focal plane, tile of a multi-position scan) and the stage coordinates of its first pixel in
// micrometres. An index of -1 and a NaN coordinate mean "not part of such a series" and
// "unknown"; the default position knows nothing. Two positions are equal when every index is
// equal and every coordinate is equal or both are NaN.

#include <array>
#include <chrono>
#include <cstdint>
#include <limits>
#include <ratio>

namespace Tarn::arrays {

// A system-clock time point in ticks of 100 nanoseconds; zero is the clock's epoch.
using Timestamp =
    std::chrono::time_point<std::chrono::system_clock,
                            std::chrono::duration<std::int64_t, std::ratio<1, 10000000>>>;

struct StackPosition {
  std::int64_t time_point = -1;
  std::int64_t channel = -1;
  std::int64_t plane = -1;
  std::int64_t tile = -1;
  // Stage x, y and z of the stack's first pixel, in micrometres.
  std::array<double, 3> stage_um{std::numeric_limits<double>::quiet_NaN(),
                                 std::numeric_limits<double>::quiet_NaN(),
                                 std::numeric_limits<double>::quiet_NaN()};

  friend bool operator==(const StackPosition& a, const StackPosition& b) {
    for (std::size_t i = 0; i < a.stage_um.size(); ++i) {
      const double x = a.stage_um[i];
      const double y = b.stage_um[i];
      if (x != y && !(x != x && y != y)) return false;
    }
    return a.time_point == b.time_point && a.channel == b.channel && a.plane == b.plane &&
           a.tile == b.tile;
  }
};

}  // namespace Tarn::arrays
