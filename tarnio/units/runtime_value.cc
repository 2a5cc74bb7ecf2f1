#include "tarnio/units/runtime_value.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "tarnio/units/internal/unit_parser.h"

namespace Tarn::units {

RuntimeValue::RuntimeValue(double value, BaseUnit unit) : value_(value), unit_(std::move(unit)) {}

RuntimeValue::RuntimeValue(double value, std::string_view unit)
    : value_(value), unit_(BaseUnit::parse(unit)) {}

RuntimeValue RuntimeValue::parse(std::string_view text) {
  std::string_view rest = text;
  while (!rest.empty() && (rest.front() == ' ' || rest.front() == '\t')) rest.remove_prefix(1);
  if (rest.empty()) throw std::runtime_error("Invalid value '" + std::string(text) + "'.");
  const bool plus = rest.front() == '+';
  if (plus) rest.remove_prefix(1);
  double value = 1.0;
  const char* first = rest.data();
  const auto [end, ec] = std::from_chars(first, first + rest.size(), value);
  if (ec == std::errc::result_out_of_range) {
    throw std::runtime_error("Invalid value '" + std::string(text) + "'.");
  }
  if (ec == std::errc()) {
    rest.remove_prefix(static_cast<std::size_t>(end - first));
  } else if (plus) {
    throw std::runtime_error("Invalid value '" + std::string(text) + "'.");
  }
  return RuntimeValue(value, internal::parse_unit_of_value(
                                 text, static_cast<std::size_t>(rest.data() - text.data())));
}

RuntimeValue RuntimeValue::in(const BaseUnit& unit) const {
  return RuntimeValue(unit_.convert(value_, unit), unit);
}

std::string RuntimeValue::to_string() const {
  if (unit_.to_string().empty()) return fmt::format("{}", value_);
  return fmt::format("{} {}", value_, unit_.to_string());
}

RuntimeValue RuntimeValue::pow(int n) const { return {std::pow(value_, n), unit_.pow(n)}; }

RuntimeValue operator*(const RuntimeValue& a, const RuntimeValue& b) {
  return {a.value_ * b.value_, a.unit_ * b.unit_};
}

RuntimeValue operator/(const RuntimeValue& a, const RuntimeValue& b) {
  return {a.value_ / b.value_, a.unit_ / b.unit_};
}

RuntimeValue operator+(const RuntimeValue& a, const RuntimeValue& b) {
  return {a.value_ + b.unit_.convert_difference(b.value_, a.unit_), a.unit_};
}

RuntimeValue operator-(const RuntimeValue& a, const RuntimeValue& b) {
  if (b.unit_.is_shifted()) return {a.value_ - b.value_in(a.unit_), a.unit_.difference_unit()};
  return {a.value_ - b.unit_.convert_difference(b.value_, a.unit_), a.unit_};
}

bool operator==(const RuntimeValue& a, const RuntimeValue& b) {
  if (!a.unit_.is_compatible(b.unit_)) return false;
  const double x = a.value_;
  const double y = b.value_in(a.unit_);
  return x == y || std::abs(x - y) <= 1e-12 * std::max(std::abs(x), std::abs(y));
}

std::partial_ordering operator<=>(const RuntimeValue& a, const RuntimeValue& b) {
  if (a == b) return std::partial_ordering::equivalent;
  return a.value_ <=> b.value_in(a.unit_);
}

}  // namespace Tarn::units
