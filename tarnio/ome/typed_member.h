#pragma once

// Typed access to the members of an OME element, through which the generated element classes
// (element_members.h) read and write their attributes and text-only children: integers as
// std::int64_t, floats as double, booleans as bool, texts as std::string_view and
// enumerations as their enum class, converted through the keyword table that
// enum_table(E) returns. A text-only child (a Description) is a list with one item.
//
// A stored keyword that the table lacks raises OME::Invalid_Data "Invalid {type} '{keyword}'
// in {element}.{member}."; a required member that is missing std::runtime_error "JSON path
// '{member}' not found."; a member of another JSON kind std::runtime_error as the JSON
// getters.
//
// Thread-safe as the element it reads; writing needs exclusive access.

#include <fmt/format.h>

#include <cstdint>
#include <optional>
#include <string_view>
#include <type_traits>

#include "tarnio/json/proxy.h"
#include "tarnio/json/value.h"
#include "tarnio/ome/errors.h"

namespace OME {

// Resolves the references of every element in a list or optional slot.
template <typename T>
void resolve_all(JSON::Array_of<T>& list) {
  for (T& element : list) element.resolve_references();
}
template <typename T>
void resolve_all(JSON::One_of<T>& slot) {
  if (T* element = slot.get()) element->resolve_references();
}

namespace typed {

template <typename T>
T from_JSON(const JSON::Value& value, std::string_view element, std::string_view member) {
  if constexpr (std::is_enum_v<T>) {
    const std::string_view keyword = value.get_string();
    if (const auto enumerator = enum_table(T{}).find(keyword)) return *enumerator;
    throw Invalid_Data(
        fmt::format("Invalid {} '{}' in {}.{}.", keyword_type_name(T{}), keyword, element, member));
  } else if constexpr (std::is_same_v<T, bool>) {
    return value.get_bool();
  } else if constexpr (std::is_same_v<T, std::int64_t>) {
    return value.get_int64();
  } else if constexpr (std::is_same_v<T, double>) {
    return value.get_double();
  } else {
    return value.get_string();
  }
}

template <typename T>
JSON::Value to_JSON(T value) {
  if constexpr (std::is_enum_v<T>) {
    return enum_table(T{}).keyword(value);
  } else {
    return value;
  }
}

template <typename T>
T get(const JSON::Proxy& element, std::string_view member, std::string_view element_name) {
  return from_JSON<T>(element.member(member), element_name, member);
}

template <typename T>
std::optional<T> find(const JSON::Proxy& element, std::string_view member,
                      std::string_view element_name) {
  const JSON::Value* value = element.find_member(member);
  if (value == nullptr) return std::nullopt;
  return from_JSON<T>(*value, element_name, member);
}

template <typename T>
void set(JSON::Proxy& element, std::string_view member, T value) {
  element.set_member(member, to_JSON(value));
}

// The text of the child `member`; nothing when it is absent or empty.
template <typename T>
std::optional<T> find_text(const JSON::Proxy& element, std::string_view member,
                           std::string_view element_name) {
  const JSON::Value* list = element.find_member(member);
  if (list == nullptr || !list->is_list() || list->empty()) return std::nullopt;
  return from_JSON<T>(list->at(0), element_name, member);
}

template <typename T>
void set_text(JSON::Proxy& element, std::string_view member, T value) {
  element.set_member(member, JSON::Value::list({to_JSON(value)}));
}

}  // namespace typed
}  // namespace OME
