#include "tarnio/units/internal/unit_table.h"

#include <array>
#include <numbers>

namespace Tarn::units::internal {
namespace {

struct Dims {
  int length = 0, mass = 0, time = 0, current = 0, temperature = 0, amount = 0, luminous = 0,
      angle = 0, pixel = 0, reference_frame = 0, counts = 0;
};

constexpr BaseUnit::Exponents exps(Dims d) {
  return {static_cast<std::int8_t>(d.length),      static_cast<std::int8_t>(d.mass),
          static_cast<std::int8_t>(d.time),        static_cast<std::int8_t>(d.current),
          static_cast<std::int8_t>(d.temperature), static_cast<std::int8_t>(d.amount),
          static_cast<std::int8_t>(d.luminous),    static_cast<std::int8_t>(d.angle),
          static_cast<std::int8_t>(d.pixel),       static_cast<std::int8_t>(d.reference_frame),
          static_cast<std::int8_t>(d.counts)};
}

constexpr BaseUnit::Exponents kNone = exps({});
constexpr BaseUnit::Exponents kLength = exps({.length = 1});
constexpr BaseUnit::Exponents kMass = exps({.mass = 1});
constexpr BaseUnit::Exponents kTime = exps({.time = 1});
constexpr BaseUnit::Exponents kFrequency = exps({.time = -1});
constexpr BaseUnit::Exponents kTemperature = exps({.temperature = 1});
constexpr BaseUnit::Exponents kVolume = exps({.length = 3});
constexpr BaseUnit::Exponents kForce = exps({.length = 1, .mass = 1, .time = -2});
constexpr BaseUnit::Exponents kPressure = exps({.length = -1, .mass = 1, .time = -2});
constexpr BaseUnit::Exponents kEnergy = exps({.length = 2, .mass = 1, .time = -2});
constexpr BaseUnit::Exponents kPower = exps({.length = 2, .mass = 1, .time = -3});
constexpr BaseUnit::Exponents kPotential =
    exps({.length = 2, .mass = 1, .time = -3, .current = -1});
constexpr BaseUnit::Exponents kAngle = exps({.angle = 1});

constexpr long double kInch = 0.0254L;
constexpr long double kPi = std::numbers::pi_v<long double>;
constexpr long double kCelsiusZero = 273.15;

// clang-format off
constexpr std::array kSymbols = {
    // SI base and derived units.
    UnitSymbol{"m", "m", kLength, 1, 0, 0, true},
    UnitSymbol{"g", "g", kMass, 1, -3, 0, true},
    UnitSymbol{"s", "s", kTime, 1, 0, 0, true},
    UnitSymbol{"A", "A", exps({.current = 1}), 1, 0, 0, true},
    UnitSymbol{"K", "K", kTemperature, 1, 0, 0, true},
    UnitSymbol{"mol", "mol", exps({.amount = 1}), 1, 0, 0, true},
    UnitSymbol{"cd", "cd", exps({.luminous = 1}), 1, 0, 0, true},
    UnitSymbol{"Hz", "Hz", kFrequency, 1, 0, 0, true},
    UnitSymbol{"N", "N", kForce, 1, 0, 0, true},
    UnitSymbol{"Pa", "Pa", kPressure, 1, 0, 0, true},
    UnitSymbol{"J", "J", kEnergy, 1, 0, 0, true},
    UnitSymbol{"eV", "eV", kEnergy, 1.602176634L, -19, 0, true},
    UnitSymbol{"W", "W", kPower, 1, 0, 0, true},
    UnitSymbol{"V", "V", kPotential, 1, 0, 0, true},
    UnitSymbol{"l", "l", kVolume, 1, -3, 0, true},
    UnitSymbol{"L", "L", kVolume, 1, -3, 0, true},
    // Time.
    UnitSymbol{"min", "min", kTime, 60, 0, 0, false},
    UnitSymbol{"h", "h", kTime, 3600, 0, 0, false},
    UnitSymbol{"d", "d", kTime, 86400, 0, 0, false},
    // Temperature scales; the offset is the SI value of their zero. The zero of °C is the
    // double that "273.15 K" reads as, so that kelvins and °C convert exactly both ways.
    UnitSymbol{"°C", "°C", kTemperature, 1, 0, kCelsiusZero, false},
    UnitSymbol{"°F", "°F", kTemperature, 5.0L / 9, 0, kCelsiusZero - 32.0L * 5 / 9, false},
    UnitSymbol{"°R", "°R", kTemperature, 5.0L / 9, 0, 0, false},
    // Pressure.
    UnitSymbol{"bar", "bar", kPressure, 1, 5, 0, true},
    UnitSymbol{"atm", "atm", kPressure, 101325, 0, 0, false},
    UnitSymbol{"psi", "psi", kPressure, 6894.757293168361L, 0, 0, false},
    UnitSymbol{"Torr", "Torr", kPressure, 101325.0L / 760, 0, 0, true},
    UnitSymbol{"mm Hg", "mm Hg", kPressure, 133.322387415L, 0, 0, false},
    UnitSymbol{"mmHg", "mm Hg", kPressure, 133.322387415L, 0, 0, false},
    // Angles.
    UnitSymbol{"rad", "rad", kAngle, 1, 0, 0, true},
    UnitSymbol{"deg", "deg", kAngle, kPi / 180, 0, 0, false},
    UnitSymbol{"°", "deg", kAngle, kPi / 180, 0, 0, false},
    UnitSymbol{"gon", "gon", kAngle, kPi / 200, 0, 0, false},
    UnitSymbol{"sr", "sr", exps({.angle = 2}), 1, 0, 0, false},
    // Lengths outside SI.
    UnitSymbol{"Å", "Å", kLength, 1, -10, 0, false},          // U+00C5
    UnitSymbol{"\u212B", "Å", kLength, 1, -10, 0, false},     // ANGSTROM SIGN
    UnitSymbol{"thou", "thou", kLength, kInch, -3, 0, false},
    UnitSymbol{"mil", "thou", kLength, kInch, -3, 0, false},
    UnitSymbol{"li", "li", kLength, kInch / 12, 0, 0, false},
    UnitSymbol{"in", "in", kLength, kInch, 0, 0, false},
    UnitSymbol{"inch", "in", kLength, kInch, 0, 0, false},
    UnitSymbol{"ft", "ft", kLength, 0.3048L, 0, 0, false},
    UnitSymbol{"yd", "yd", kLength, 0.9144L, 0, 0, false},
    UnitSymbol{"mi", "mi", kLength, 1609.344L, 0, 0, false},
    UnitSymbol{"ua", "ua", kLength, 149597870700, 0, 0, false},
    UnitSymbol{"ly", "ly", kLength, 9460730472580800, 0, 0, false},
    UnitSymbol{"pc", "pc", kLength, 3.0856775814913673e16L, 0, 0, false},
    UnitSymbol{"pt", "pt", kLength, kInch / 72, 0, 0, false},
    // Dimensions of their own and plain numbers.
    UnitSymbol{"pixel", "pixel", exps({.pixel = 1}), 1, 0, 0, false},
    UnitSymbol{"px", "pixel", exps({.pixel = 1}), 1, 0, 0, false},
    UnitSymbol{"reference frame", "reference frame", exps({.reference_frame = 1}), 1, 0, 0, false},
    UnitSymbol{"counts", "counts", exps({.counts = 1}), 1, 0, 0, false},
    UnitSymbol{"count", "counts", exps({.counts = 1}), 1, 0, 0, false},
    UnitSymbol{"%", "%", kNone, 1, -2, 0, false},
    UnitSymbol{"ppm", "ppm", kNone, 1, -6, 0, false},
};

constexpr std::array kPrefixes = {
    Prefix{"Y", "Y", 24},  Prefix{"Z", "Z", 21},   Prefix{"E", "E", 18},  Prefix{"P", "P", 15},
    Prefix{"T", "T", 12},  Prefix{"G", "G", 9},    Prefix{"M", "M", 6},   Prefix{"k", "k", 3},
    Prefix{"h", "h", 2},   Prefix{"da", "da", 1},  Prefix{"d", "d", -1},  Prefix{"c", "c", -2},
    Prefix{"m", "m", -3},  Prefix{"\u00B5", "\u00B5", -6}, Prefix{"\u03BC", "\u00B5", -6},
    Prefix{"u", "\u00B5", -6}, Prefix{"n", "n", -9}, Prefix{"p", "p", -12}, Prefix{"f", "f", -15},
    Prefix{"a", "a", -18}, Prefix{"z", "z", -21},  Prefix{"y", "y", -24},
};
// clang-format on

const UnitSymbol* find_symbol(std::string_view word) {
  for (const UnitSymbol& s : kSymbols) {
    if (s.text == word) return &s;
  }
  return nullptr;
}

}  // namespace

std::optional<ResolvedSymbol> resolve_symbol(std::string_view word) {
  if (const UnitSymbol* s = find_symbol(word)) return ResolvedSymbol{s, nullptr};
  for (const Prefix& p : kPrefixes) {
    if (word.size() <= p.text.size() || !word.starts_with(p.text)) continue;
    const UnitSymbol* s = find_symbol(word.substr(p.text.size()));
    if (s != nullptr && s->prefixable) return ResolvedSymbol{s, &p};
  }
  return std::nullopt;
}

std::optional<std::string_view> find_unshifted_symbol(const BaseUnit::Exponents& exponents,
                                                      long double factor, int exp10) {
  for (const UnitSymbol& s : kSymbols) {
    if (s.offset == 0 && s.exponents == exponents && s.factor == factor && s.exp10 == exp10) {
      return s.canonical;
    }
  }
  return std::nullopt;
}

}  // namespace Tarn::units::internal
