#pragma once

// The IDs present in one document: per ID prefix ("Image", "Channel", ...) a sorted multiset of
// the integer parts of the IDs that element objects hold. IDs subscribe and unsubscribe
// themselves (ID_of); the registry only counts.
//
// While the root resolves all references at once, the registry also keeps an index from ID to
// position per list, so that resolving stays linear in the document; the index lives only for
// that call, as nothing changes the lists meanwhile. Not thread-safe.

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>

#include "tarnio/json/value.h"

namespace OME {

// The position of the first item of `list` (a JSON list of objects) whose "ID" equals `id`.
inline std::optional<std::size_t> find_ID(const JSON::Value& list, const JSON::Value& id) {
  const auto items = list.items();
  for (std::size_t i = 0; i < items.size(); ++i) {
    const JSON::Value* item_id = items[i].find("ID");
    if (item_id != nullptr && *item_id == id) return i;
  }
  return std::nullopt;
}

class ID_Registry {
 public:
  void subscribe(std::string_view prefix, std::int64_t number) { ids_[prefix].insert(number); }
  void unsubscribe(std::string_view prefix, std::int64_t number) {
    const auto set = ids_.find(prefix);
    if (set == ids_.end()) return;
    const auto it = set->second.find(number);
    if (it != set->second.end()) set->second.erase(it);
  }
  std::size_t count(std::string_view prefix, std::int64_t number) const {
    const auto set = ids_.find(prefix);
    return set == ids_.end() ? 0 : set->second.count(number);
  }
  // The largest registered number of the prefix, if any.
  std::optional<std::int64_t> largest(std::string_view prefix) const {
    const auto set = ids_.find(prefix);
    if (set == ids_.end() || set->second.empty()) return std::nullopt;
    return *set->second.rbegin();
  }
  void clear() { ids_.clear(); }

  // find_ID, through the index while indexing.
  std::optional<std::size_t> find(const JSON::Value& list, const JSON::Value& id) {
    if (indexing_ && id.is_string()) {
      auto [index, created] = indexes_.try_emplace(&list);
      if (created) build(list, index->second);
      const auto it = index->second.find(std::string(id.get_string()));
      if (it == index->second.end()) return std::nullopt;
      return it->second;
    }
    return find_ID(list, id);
  }
  // Indexes lists between these calls.
  void start_indexing() { indexing_ = true; }
  void stop_indexing() noexcept {
    indexing_ = false;
    indexes_.clear();
  }

 private:
  using Index = std::unordered_map<std::string, std::size_t>;

  static void build(const JSON::Value& list, Index& index) {
    const auto items = list.items();
    for (std::size_t i = 0; i < items.size(); ++i) {
      const JSON::Value* id = items[i].find("ID");
      if (id != nullptr && id->is_string()) index.try_emplace(std::string(id->get_string()), i);
    }
  }

  bool indexing_ = false;
  std::unordered_map<const JSON::Value*, Index> indexes_;
  // Prefixes are string literals of the element classes.
  std::map<std::string_view, std::multiset<std::int64_t>> ids_;
};

}  // namespace OME
