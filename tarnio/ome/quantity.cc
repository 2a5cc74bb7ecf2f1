#include "tarnio/ome/quantity.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>

#include "tarnio/ome/errors.h"
#include "tarnio/ome/internal/schema.h"

namespace OME {
namespace {

// The attribute that holds the unit of `name`.
const internal::Attribute_Type& unit_attribute(std::string_view element_name,
                                               std::string_view name) {
  const std::string unit_name = fmt::format("{}Unit", name);
  const internal::Element_Type* type = internal::find_element_type(element_name, unit_name);
  if (type == nullptr)
    throw Invalid_Argument(fmt::format("{}.{} has no unit.", element_name, name));
  return *std::find_if(type->attributes.begin(), type->attributes.end(),
                       [&](const auto& a) { return a.name == unit_name; });
}

}  // namespace

std::optional<Tarn::units::RuntimeValue> quantity(const JSON::Proxy& element,
                                                  std::string_view element_name,
                                                  std::string_view name) {
  const internal::Attribute_Type& unit = unit_attribute(element_name, name);
  const JSON::Value* number = element.find_member(name);
  if (number == nullptr) return std::nullopt;
  const JSON::Value* keyword = element.find_member(unit.name);
  return Tarn::units::RuntimeValue(number->get_double(),
                                   keyword == nullptr ? unit.default_value : keyword->get_string());
}

void set_quantity(JSON::Proxy& element, std::string_view element_name, std::string_view name,
                  const Tarn::units::RuntimeValue& value) {
  const internal::Attribute_Type& unit = unit_attribute(element_name, name);
  const std::string& keyword = value.unit().to_string();
  const auto& keywords = unit.value.keywords;
  if (std::find(keywords.begin(), keywords.end(), keyword) == keywords.end()) {
    throw Invalid_Argument(
        fmt::format("'{}' is not a unit of {}.{}.", keyword, element_name, name));
  }
  element.set_member(name, value.value());
  element.set_member(unit.name, keyword);
}

}  // namespace OME
