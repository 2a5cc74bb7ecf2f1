#pragma once

// Record: a proxy onto one object of the values of an extension annotation (the maker's own
// data kept beside OME's). Its members are read and written as JSON values; a value with a
// unit is a number member together with the member "{name}_unit", which holds the unit in the
// notation of the units library ("nm", "µs", "deg").
//
// Not thread-safe; lives no longer than its root.

#include <optional>
#include <string_view>

#include "tarnio/export.h"
#include "tarnio/json/enum_table.h"
#include "tarnio/ome/object_of_documents.h"
#include "tarnio/units/runtime_value.h"

namespace OME {

class TARNIO_EXPORT Record : public Element<> {
 public:
  using Element<>::Element;

  // The member, or null when absent.
  const JSON::Value* value(std::string_view name) const noexcept { return find_member(name); }
  void set_value(std::string_view name, JSON::Value value) { set_member(name, std::move(value)); }

  // The number `name` with the unit of "{name}_unit", a plain number when that is absent;
  // nothing when the number is absent. Throws std::runtime_error as the JSON getters and the
  // units library do for a member of another kind or a unit that does not parse.
  std::optional<Tarn::units::RuntimeValue> quantity(std::string_view name) const;
  void set_quantity(std::string_view name, const Tarn::units::RuntimeValue& value);

  // An enumerated member; nothing when absent, std::runtime_error for an unknown keyword.
  template <typename E>
  std::optional<E> enumerator(std::string_view name, const JSON::Enum_Table<E>& table) const {
    const JSON::Value* keyword = value(name);
    if (keyword == nullptr) return std::nullopt;
    return table.enumerator(keyword->get_string());
  }
};

}  // namespace OME
