#include "tarnio/ome/record.h"

#include <string>

namespace OME {
namespace {

std::string unit_name(std::string_view name) { return std::string(name).append("_unit"); }

}  // namespace

std::optional<Tarn::units::RuntimeValue> Record::quantity(std::string_view name) const {
  const JSON::Value* number = value(name);
  if (number == nullptr) return std::nullopt;
  const JSON::Value* unit = value(unit_name(name));
  if (unit == nullptr)
    return Tarn::units::RuntimeValue(number->get_double(), Tarn::units::BaseUnit());
  return Tarn::units::RuntimeValue(number->get_double(), unit->get_string());
}

void Record::set_quantity(std::string_view name, const Tarn::units::RuntimeValue& value) {
  set_value(name, value.value());
  if (value.unit().is_dimensionless()) {
    erase_member(unit_name(name));
  } else {
    set_value(unit_name(name), value.unit().to_string());
  }
}

}  // namespace OME
