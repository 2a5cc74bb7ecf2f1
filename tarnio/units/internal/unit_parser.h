#pragma once

// The unit part of a value text ("1.5 um", "2/s"), parsed so that its errors name the whole
// value text and count positions in it.

#include <cstddef>
#include <string_view>

#include "tarnio/units/base_unit.h"

namespace Tarn::units::internal {

// Parses `value_text` from `unit_start` on as BaseUnit::parse does, except that a leading '/'
// divides the number in front ("2/s" is 2 1/s). Throws as BaseUnit::parse does.
BaseUnit parse_unit_of_value(std::string_view value_text, std::size_t unit_start);

}  // namespace Tarn::units::internal
