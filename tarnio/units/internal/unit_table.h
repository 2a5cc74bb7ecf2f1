#pragma once

// The symbol and prefix tables behind unit parsing: every unit symbol the parser knows with
// its dimension, scale and whether it takes an SI prefix, and the SI prefixes. The tables are
// constant and allocation-free to search.

#include <optional>
#include <string_view>

#include "tarnio/units/base_unit.h"

namespace Tarn::units::internal {

struct UnitSymbol {
  std::string_view text;       // as written ("inch", "mmHg")
  std::string_view canonical;  // as formatted ("in", "mm Hg")
  BaseUnit::Exponents exponents;
  long double factor;  // scale to SI is factor × 10^exp10
  int exp10;
  long double offset;  // SI value of the zero of a shifted scale
  bool prefixable;
};

struct Prefix {
  std::string_view text;       // "u", "µ" (U+00B5), "μ" (U+03BC), "da", ...
  std::string_view canonical;  // "µ" for all three spellings of micro
  int exp10;
};

// A symbol, possibly with a prefix, resolved from one word of a unit text.
struct ResolvedSymbol {
  const UnitSymbol* symbol;
  const Prefix* prefix;  // null when written without a prefix
};

// Looks `word` up as a symbol, then as a prefix followed by a prefixable symbol; the whole
// symbol wins ("min" is the minute, "cd" the candela, "mi" the mile).
std::optional<ResolvedSymbol> resolve_symbol(std::string_view word);

// The canonical text of the unshifted symbol of these exponents and this scale (K for the step
// of °C, °R for that of °F), if there is one.
std::optional<std::string_view> find_unshifted_symbol(const BaseUnit::Exponents& exponents,
                                                      long double factor, int exp10);

}  // namespace Tarn::units::internal
