#pragma once

// Tarn::units::RuntimeValue: a number with a physical unit ("1.5 µm", "20 °C", "0.3 1/s"),
// the per-axis scale and the data unit of a stack info. A default value is 1 in the
// dimensionless unit.
//
// Text form: the number, a blank, the unit text (see base_unit.h); "1.5um" and "um" (read as
// 1 µm) parse too, and a dimensionless value is just its number. A text without number and
// unit ("", blanks) is no value. Numbers are formatted in the
// shortest form that reads back to the same double.
//
// Arithmetic: * and / combine the units; + and - convert the right operand into the unit of
// the left one; pow() raises to an integer power. On temperature scales the right operand of +
// and - is a difference (10 °C + 1 K is 11 °C, 20 °C - 5 K is 15 °C), except that subtracting
// a temperature on a shifted scale gives the difference of the two temperatures in the steps of
// the left one's scale (20 °C - 10 °C is 10 K, 300 K - 20 °C is 6.85 K, 68 °F - 20 °C is 0 °R).
// Comparisons compare the quantities, across units of one dimension, with a relative tolerance of
// 1e-12 for ==; == between different dimensions is false and ordering between them throws.
//
// Values are cheap to copy; const operations are thread-safe.

#include <compare>
#include <string>
#include <string_view>

#include "tarnio/export.h"
#include "tarnio/units/base_unit.h"

namespace Tarn::units {

class TARNIO_EXPORT RuntimeValue {
 public:
  RuntimeValue() = default;
  RuntimeValue(double value, BaseUnit unit);
  // Throws std::runtime_error as BaseUnit::parse does.
  RuntimeValue(double value, std::string_view unit);

  // Throws std::runtime_error "Invalid value 'TEXT'." for a malformed number or a text of
  // nothing but blanks, else as BaseUnit::parse does.
  static RuntimeValue parse(std::string_view text);

  double value() const { return value_; }
  const BaseUnit& unit() const { return unit_; }

  // This value expressed in `unit`. Throws std::invalid_argument
  // "Cannot convert 'FROM' to 'TO': incompatible units." when the dimensions differ.
  RuntimeValue in(const BaseUnit& unit) const;
  RuntimeValue in(std::string_view unit) const { return in(BaseUnit::parse(unit)); }
  double value_in(const BaseUnit& unit) const { return unit_.convert(value_, unit); }

  std::string to_string() const;

  RuntimeValue pow(int n) const;
  friend TARNIO_EXPORT RuntimeValue operator*(const RuntimeValue& a, const RuntimeValue& b);
  friend TARNIO_EXPORT RuntimeValue operator/(const RuntimeValue& a, const RuntimeValue& b);
  friend TARNIO_EXPORT RuntimeValue operator+(const RuntimeValue& a, const RuntimeValue& b);
  friend TARNIO_EXPORT RuntimeValue operator-(const RuntimeValue& a, const RuntimeValue& b);
  friend RuntimeValue operator*(const RuntimeValue& a, double b) { return {a.value_ * b, a.unit_}; }
  friend RuntimeValue operator*(double a, const RuntimeValue& b) { return {a * b.value_, b.unit_}; }
  friend RuntimeValue operator/(const RuntimeValue& a, double b) { return {a.value_ / b, a.unit_}; }

  friend TARNIO_EXPORT bool operator==(const RuntimeValue& a, const RuntimeValue& b);
  // Throws std::invalid_argument as in() does when the dimensions differ.
  friend TARNIO_EXPORT std::partial_ordering operator<=>(const RuntimeValue& a,
                                                         const RuntimeValue& b);

 private:
  double value_ = 1.0;
  BaseUnit unit_;
};

}  // namespace Tarn::units
