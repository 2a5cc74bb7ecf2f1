#pragma once

// ID_of<T>: the ID of an element of type T, the member "ID" of the element's object, held as
// the text "{prefix}:{number}" (Image:0) with the prefix T::kIDPrefix.
//
// An ID whose tail is a base-10 integer is entered in the root's ID registry while the element
// object exists; any other ID is kept and written as it stands but not registered. Every
// change first takes the old ID out of the registry and then enters the new one. Not
// thread-safe.

#include <fmt/format.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "tarnio/json/read_write.h"
#include "tarnio/json/value.h"
#include "tarnio/ome/object_of_documents.h"

namespace OME {

template <typename T>
class ID_of {
 public:
  static constexpr std::string_view prefix() noexcept { return T::kIDPrefix; }

  explicit ID_of(Object_of_Documents& element) : element_(&element) { subscribe(); }
  ID_of(const ID_of&) = delete;
  ID_of& operator=(const ID_of&) = delete;
  ~ID_of() { unsubscribe(); }

  // The stored ID, or null when absent.
  const JSON::Value* value() const noexcept { return element_->find_member("ID"); }
  bool has_value() const noexcept { return value() != nullptr; }

  // The text after the prefix and colon; empty when the ID is not a string of this prefix.
  std::string_view string() const noexcept {
    const JSON::Value* id = value();
    if (id == nullptr || !id->is_string()) return {};
    const std::string_view text = id->get_string();
    if (text.size() <= prefix().size() || !text.starts_with(prefix()) ||
        text[prefix().size()] != ':') {
      return {};
    }
    return text.substr(prefix().size() + 1);
  }
  // The number after the prefix when the whole tail is a base-10 integer, else the tail as a
  // string.
  JSON::Value actual() const {
    const std::string_view tail = string();
    if (const auto number = parse(tail)) return *number;
    return tail;
  }
  // Stores "{prefix}:{value}".
  void set_actual(const JSON::Value& value) {
    set(fmt::format("{}:{}", prefix(),
                    value.is_string() ? std::string(value.get_string()) : JSON::write(value)));
  }
  // Replaces the ID; with `subscribe_new` false the new ID is not entered in the registry.
  void set(JSON::Value id, bool subscribe_new = true) {
    unsubscribe();
    element_->set_member("ID", std::move(id));
    if (subscribe_new) subscribe();
  }
  void reset() {
    unsubscribe();
    element_->erase_member("ID");
  }

  // How many element objects of type T in the root carry an ID with the same number: 1 for a
  // unique ID, 0 for an ID that is absent or not registered.
  std::size_t count() const {
    return registered_ ? element_->ids().count(prefix(), *registered_) : 0;
  }
  Root& root() const noexcept { return element_->root(); }

 private:
  static std::optional<std::int64_t> parse(std::string_view tail) noexcept {
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(tail.data(), tail.data() + tail.size(), number);
    if (tail.empty() || error != std::errc() || end != tail.data() + tail.size()) {
      return std::nullopt;
    }
    return number;
  }
  void subscribe() {
    registered_ = parse(string());
    if (registered_) element_->ids().subscribe(prefix(), *registered_);
  }
  void unsubscribe() noexcept {
    if (registered_) element_->ids().unsubscribe(prefix(), *registered_);
    registered_.reset();
  }

  Object_of_Documents* element_;
  std::optional<std::int64_t> registered_;  // the number in the registry, if any
};

}  // namespace OME
