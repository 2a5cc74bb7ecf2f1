#pragma once

// Values with units in OME elements: a number attribute such as PhysicalSizeX with its unit in
// the attribute "{name}Unit" as OME's unit keyword ("µm", "s", "°C", "mW"), which the units
// library reads as it stands. A missing unit is the schema's default for the attribute.
//
// Thread-safe as the element they read; writing needs exclusive access.

#include <optional>
#include <string_view>

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/units/runtime_value.h"

namespace OME {

// The attribute `name` of `element`, an element of the OME type `element_name` ("Pixels"),
// with its unit; nothing when the attribute is absent. Throws Invalid_Argument "{type}.{name}
// has no unit." for an attribute without a unit, std::runtime_error as the JSON getters for a
// value that is not a number.
TARNIO_EXPORT std::optional<Tarn::units::RuntimeValue> quantity(const JSON::Proxy& element,
                                                                std::string_view element_name,
                                                                std::string_view name);
// Stores the number and its unit. Throws Invalid_Argument as quantity() does, and "'{unit}' is
// not a unit of {type}.{name}." for a unit that the attribute's keywords lack.
TARNIO_EXPORT void set_quantity(JSON::Proxy& element, std::string_view element_name,
                                std::string_view name, const Tarn::units::RuntimeValue& value);

}  // namespace OME
