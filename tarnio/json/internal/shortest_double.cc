#include "tarnio/json/internal/shortest_double.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace JSON::internal {
namespace {

// In this range the fixed form is never longer than the exponent form, and with at most
// kMaxFraction fraction digits the scaled value stays far inside a double's exact integers.
constexpr double kFastMinimum = 1e-3;
constexpr double kFastLimit = 1e5;
constexpr int kMaxFraction = 6;

// The digits of `whole` with a decimal point `fraction` digits from the right.
char* write_fixed(char* out, std::uint64_t whole, int fraction) noexcept {
  char digits[24];
  const char* const end = std::to_chars(digits, digits + sizeof digits, whole).ptr;
  auto count = static_cast<int>(end - digits);
  if (count <= fraction) {  // 0.00ddd
    *out++ = '0';
    *out++ = '.';
    for (int i = count; i < fraction; ++i) *out++ = '0';
    std::memcpy(out, digits, static_cast<std::size_t>(count));
    return out + count;
  }
  const int integer = count - fraction;
  std::memcpy(out, digits, static_cast<std::size_t>(integer));
  out += integer;
  if (fraction == 0) return out;
  *out++ = '.';
  std::memcpy(out, digits + integer, static_cast<std::size_t>(fraction));
  return out + fraction;
}

}  // namespace

// The fast path looks for the fewest fraction digits f for which the decimal n / 10^f reads
// back as the value. Reading that text gives n / 10^f correctly rounded, which is exactly the
// double division below (n and 10^f are exact doubles), so the test is exact. Within the
// range, a different n at the same f lies at least 0.5 / 10^f away, far beyond half a unit
// of the value's last place, so the digits found are the shortest ones std::to_chars picks.
char* write_shortest_double(char* out, double value) noexcept {
  const double magnitude = std::fabs(value);
  if (magnitude >= kFastMinimum && magnitude < kFastLimit) {
    double scale = 1;
    for (int fraction = 0; fraction <= kMaxFraction; ++fraction, scale *= 10) {
      const auto whole = static_cast<std::uint64_t>(magnitude * scale + 0.5);
      if (static_cast<double>(whole) / scale == magnitude) {
        if (value < 0) *out++ = '-';
        return write_fixed(out, whole, fraction);
      }
    }
  }
  return std::to_chars(out, out + kMaxDoubleText, value).ptr;
}

}  // namespace JSON::internal
