#pragma once

// Tarn::units::BaseUnit: a physical unit known at run time, such as "µm", "°C", "m/s" or
// "cm-1". A unit is a vector of exponents over the base dimensions, a scale factor to the
// coherent SI unit of that dimension, an offset (only for temperatures on a shifted scale, °C
// and °F), and the text it was written in, kept for formatting back.
//
// Base dimensions are the seven of SI plus four that SI folds into "dimensionless" but which
// metadata must keep apart: plane angle (rad, deg, gon; sr is angle squared), pixel, reference
// frame and counts. Percent and ppm are plain dimensionless numbers.
//
// Text: a unit is a product of factors joined by '*', '·', a space or '/' (left to right, so
// "J/kg*K" is (J/kg)*K; write "J/(kg*K)" for the other reading), each factor a symbol with an
// optional SI prefix and an optional integer exponent ("m^2", "um^-1", "cm-1"), or "1" (as in
// "1/s"), or a parenthesised unit. Prefixes run from y (1e-24) to Y (1e24); micro is written
// "µ", "μ" or "u" and formatted as "µ". Every unit keyword of the OME 2016-06 schema parses and
// formats back to the same keyword. Symbols are formatted in their canonical spelling
// ("inch" -> "in", "um" -> "µm", "mmHg" -> "mm Hg"); the prefix chosen by the writer is kept.
//
// The offset of °C and °F applies only to the unit alone: in a product, quotient or power
// such a unit stands for its temperature difference (°C/s is K/s).
//
// The scale is held as a factor times a power of ten, so that conversions between prefixed
// units multiply by exact powers of ten (1.5 µm is exactly 1500 nm). Factors and offsets are
// held in extended precision and a conversion rounds to double once, so that conversions
// between shifted scales give the decimal result where there is one (20 °C is 68 °F).
//
// Values are immutable and cheap to copy; const operations are thread-safe.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tarnio/export.h"

namespace Tarn::units {

enum class Dimension : std::uint8_t {
  length,
  mass,
  time,
  current,
  temperature,
  amount,
  luminous_intensity,
  angle,
  pixel,
  reference_frame,
  counts,
};

class TARNIO_EXPORT BaseUnit {
 public:
  static constexpr std::size_t kDimensions = 11;
  using Exponents = std::array<std::int8_t, kDimensions>;

  // The dimensionless unit 1, formatted as "".
  BaseUnit() = default;
  // A unit of scale `factor` × 10^`exp10` to SI, and `offset` (in SI units) added after
  // scaling; `symbol` is what to_string() returns. Throws std::invalid_argument "Unit exponent
  // out of range." when |exp10| > 4096.
  BaseUnit(const Exponents& exponents, long double factor, int exp10, long double offset,
           std::string symbol);

  // Parses a unit text (see above); leading and trailing blanks are ignored and an empty text
  // is the dimensionless unit. Throws std::runtime_error "Unknown unit 'X' at position N of
  // 'TEXT'." or "Invalid unit 'TEXT' at position N." (bad syntax, an exponent beyond ±64,
  // parentheses nested deeper than 32), N counting bytes of TEXT from 1.
  static BaseUnit parse(std::string_view text);

  const Exponents& exponents() const { return exponents_; }
  int exponent(Dimension d) const { return exponents_[static_cast<std::size_t>(d)]; }
  // Multiply by scale() and add offset() to get the value in SI units.
  double scale() const;
  double offset() const { return static_cast<double>(offset_); }
  // A temperature scale whose zero is not absolute zero (°C, °F).
  bool is_shifted() const { return offset_ != 0; }
  // The unit of differences between values of this unit: itself, or for a shifted scale the
  // unit of the same step from absolute zero (K for °C, °R for °F).
  BaseUnit difference_unit() const;
  const std::string& to_string() const { return symbol_; }

  bool is_dimensionless() const;
  // Same dimension: values of one unit can be converted to the other.
  bool is_compatible(const BaseUnit& other) const { return exponents_ == other.exponents_; }

  // `value` in this unit expressed in `target`. Throws std::invalid_argument
  // "Cannot convert 'FROM' to 'TO': incompatible units." when the dimensions differ.
  double convert(double value, const BaseUnit& target) const;
  // A difference of `value` in this unit expressed in `target`: offsets play no part (1 K is
  // a step of 1 °C). Throws as convert does.
  double convert_difference(double value, const BaseUnit& target) const;

  // Products, quotients and integer powers. Throws std::invalid_argument "Unit exponent out of
  // range." when an exponent would leave ±64.
  friend TARNIO_EXPORT BaseUnit operator*(const BaseUnit& a, const BaseUnit& b);
  friend TARNIO_EXPORT BaseUnit operator/(const BaseUnit& a, const BaseUnit& b);
  BaseUnit pow(int n) const;

  // Equal when they denote the same unit, however written ("um" and "µm", "m/s" and "1/s*m",
  // "Hz" and "1/s").
  friend TARNIO_EXPORT bool operator==(const BaseUnit& a, const BaseUnit& b);

 private:
  friend class UnitParser;

  void check_compatible(const BaseUnit& target) const;

  Exponents exponents_{};
  long double factor_ = 1.0L;
  int exp10_ = 0;
  long double offset_ = 0.0L;
  std::string symbol_;
};

}  // namespace Tarn::units
