#pragma once

// Enum_Table<E>: the two-way table between the enumerators of E and their keywords, through
// which an enumerated member is held in the tree as its keyword string.
//
// Building a table rejects a keyword given twice with std::runtime_error
// "Duplicate enumeration key '{enumerator}' for string value '{keyword}'." and an enumerator
// given twice with "Duplicate string key '{keyword}' for enumeration value '{enumerator}'.",
// where an enumerator is written as its underlying number.
//
// Immutable after construction, so one table may be shared by threads.

#include <fmt/format.h>

#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace JSON {

template <typename E>
class Enum_Table {
 public:
  Enum_Table(std::initializer_list<std::pair<E, std::string_view>> entries) {
    entries_.reserve(entries.size());
    for (const auto& [enumerator, keyword] : entries) {
      if (by_keyword_.contains(keyword)) {
        throw std::runtime_error(fmt::format(
            "Duplicate enumeration key '{}' for string value '{}'.", number(enumerator), keyword));
      }
      if (find_keyword(enumerator)) {
        throw std::runtime_error(fmt::format(
            "Duplicate string key '{}' for enumeration value '{}'.", keyword, number(enumerator)));
      }
      entries_.emplace_back(enumerator, std::string(keyword));
      by_keyword_.emplace(entries_.back().second, enumerator);
    }
  }
  Enum_Table(const Enum_Table&) = delete;
  Enum_Table& operator=(const Enum_Table&) = delete;

  std::optional<E> find(std::string_view keyword) const {
    const auto it = by_keyword_.find(keyword);
    if (it == by_keyword_.end()) return std::nullopt;
    return it->second;
  }
  std::optional<std::string_view> find_keyword(E enumerator) const {
    for (const auto& [e, keyword] : entries_) {
      if (e == enumerator) return std::string_view(keyword);
    }
    return std::nullopt;
  }
  // Throw std::runtime_error "Unknown enumeration keyword '{}'." / "Unknown enumeration value
  // '{}'." when absent.
  E enumerator(std::string_view keyword) const {
    if (const auto e = find(keyword)) return *e;
    throw std::runtime_error(fmt::format("Unknown enumeration keyword '{}'.", keyword));
  }
  std::string_view keyword(E enumerator) const {
    if (const auto k = find_keyword(enumerator)) return *k;
    throw std::runtime_error(fmt::format("Unknown enumeration value '{}'.", number(enumerator)));
  }

  // The keywords in table order.
  std::vector<std::string_view> keywords() const {
    std::vector<std::string_view> all;
    for (const auto& entry : entries_) all.push_back(entry.second);
    return all;
  }

 private:
  static auto number(E enumerator) { return static_cast<std::underlying_type_t<E>>(enumerator); }

  // Keywords are owned here; entries_ is reserved up front, so the views in by_keyword_ stay
  // valid.
  std::vector<std::pair<E, std::string>> entries_;
  std::unordered_map<std::string_view, E> by_keyword_;
};

}  // namespace JSON
