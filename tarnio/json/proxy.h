#pragma once

// Schema-bound proxies: typed views onto the nodes of one JSON::Value tree.
//
// A Proxy views one node (usually an object) and reads and writes its named members. Typed
// classes derive from it and keep no data of their own: every value lives in the tree.
// Array_of<T> views the list under one member of its owner as a sequence of T; One_of<T> views
// such a list that holds at most one item (an optional child). The T objects are created when
// an item is first reached, kept beside the list in the same order, owned by the Array_of and
// destroyed with their items, so their addresses stay stable while their items exist.
//
// A member list is looked up anew on each access, so an owner may gain members freely. Item
// nodes move when their list grows; Array_of rebinds its element objects whenever it reaches
// them and after every change it makes, which is why lists under a proxy are changed only
// through their Array_of.
//
// Not thread-safe; a proxy lives no longer than the tree it views.

#include <concepts>
#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

#include "tarnio/json/enum_table.h"
#include "tarnio/json/value.h"

namespace JSON {

class Proxy {
 public:
  explicit Proxy(Value& node) noexcept : node_(&node) {}
  Proxy(const Proxy&) = delete;
  Proxy& operator=(const Proxy&) = delete;
  virtual ~Proxy() = default;

  Value& node() noexcept { return *node_; }
  const Value& node() const noexcept { return *node_; }
  // Points the proxy at the node's new place after its container moved it.
  void rebind(Value& node) noexcept { node_ = &node; }

  // A member of the viewed object; throws std::runtime_error "JSON path '{key}' not found."
  // when it is absent.
  const Value& member(std::string_view key) const { return node_->at(key); }
  // Null when absent.
  const Value* find_member(std::string_view key) const noexcept { return node_->find(key); }
  bool has_member(std::string_view key) const noexcept { return node_->contains(key); }
  void set_member(std::string_view key, Value value) { node_->set(key, std::move(value)); }
  bool erase_member(std::string_view key) { return node_->erase(key); }

  // An enumerated member, held as its keyword; a missing member throws as member() does, an
  // unknown keyword as the table does.
  template <typename E>
  E enum_member(std::string_view key, const Enum_Table<E>& table) const {
    return table.enumerator(member(key).get_string());
  }
  template <typename E>
  void set_enum_member(std::string_view key, const Enum_Table<E>& table, E enumerator) {
    set_member(key, table.keyword(enumerator));
  }

 private:
  Value* node_;
};

// T is constructed as T(owner, item) with the owner proxy and the item's node, or, when T has a
// static create(owner, item) returning std::unique_ptr<T>, by that function, which may choose a
// class derived from T by the item's content. The key must outlive the Array_of (the member
// names are string literals).
template <typename T>
class Array_of {
 public:
  Array_of(Proxy& owner, std::string_view key) noexcept : owner_(&owner), key_(key) {}
  Array_of(const Array_of&) = delete;
  Array_of& operator=(const Array_of&) = delete;

  std::string_view key() const noexcept { return key_; }
  // The viewed list, or null when the member is absent.
  const Value* list() const noexcept { return owner_->find_member(key_); }

  std::size_t size() const noexcept {
    const Value* items = list();
    return items != nullptr && items->is_list() ? items->size() : 0;
  }
  bool empty() const noexcept { return size() == 0; }

  // Throws std::runtime_error "JSON index {i} out of range ({size} items)." for a bad index.
  T& operator[](std::size_t index) { return element(index); }
  const T& operator[](std::size_t index) const { return element(index); }
  T& front() { return element(0); }
  T& back() { return element(size() - 1); }

  // Appends an item (an empty object unless given) and returns its element object.
  T& append(Value item = Value::object()) {
    Value& items = owner_->node()[key_];
    items.push_back(std::move(item));
    return element(items.size() - 1);
  }
  // Removes the item and destroys its element object.
  void erase(std::size_t index) {
    Value& items = owner_->node().at(key_);
    items.at(index);
    sync(items);
    if (index < elements_.size()) {
      elements_.erase(elements_.begin() + static_cast<std::ptrdiff_t>(index));
    }
    items.erase(index);
    rebind_all(items);
  }
  // Removes the member and every element object.
  void clear() {
    elements_.clear();
    owner_->erase_member(key_);
  }

  // The element object of an item if it has been created, else null; creates nothing.
  T* existing(std::size_t index) const noexcept {
    return index < elements_.size() ? elements_[index].get() : nullptr;
  }

  template <typename Self, typename Item>
  class Iterator {
   public:
    Iterator(Self* array, std::size_t index) : array_(array), index_(index) {}
    Item& operator*() const { return (*array_)[index_]; }
    Item* operator->() const { return &(*array_)[index_]; }
    Iterator& operator++() {
      ++index_;
      return *this;
    }
    bool operator==(const Iterator& other) const { return index_ == other.index_; }

   private:
    Self* array_;
    std::size_t index_;
  };
  auto begin() { return Iterator<Array_of, T>(this, 0); }
  auto end() { return Iterator<Array_of, T>(this, size()); }
  auto begin() const { return Iterator<const Array_of, const T>(this, 0); }
  auto end() const { return Iterator<const Array_of, const T>(this, size()); }

 private:
  T& element(std::size_t index) const {
    Value& items = owner_->node().at(key_);
    Value& item = items.at(index);
    sync(items);
    std::unique_ptr<T>& slot = elements_[index];
    if (slot == nullptr) {
      if constexpr (requires {
                      { T::create(*owner_, item) } -> std::convertible_to<std::unique_ptr<T>>;
                    }) {
        slot = T::create(*owner_, item);
      } else {
        slot = std::make_unique<T>(*owner_, item);
      }
    } else {
      slot->rebind(item);
    }
    return *slot;
  }

  // Drops the element objects of items that are gone and makes room for new ones.
  void sync(const Value& items) const { elements_.resize(items.size()); }

  void rebind_all(Value& items) {
    const auto all = items.items();
    for (std::size_t i = 0; i < elements_.size(); ++i) {
      if (elements_[i] != nullptr) elements_[i]->rebind(all[i]);
    }
  }

  Proxy* owner_;
  std::string_view key_;
  mutable std::vector<std::unique_ptr<T>> elements_;
};

// An optional child: a list under one member with at most one item.
template <typename T>
class One_of {
 public:
  One_of(Proxy& owner, std::string_view key) noexcept : items_(owner, key) {}

  bool has_value() const noexcept { return !items_.empty(); }
  // Null when absent.
  T* get() { return has_value() ? &items_[0] : nullptr; }
  const T* get() const { return has_value() ? &items_[0] : nullptr; }
  // The child, created when absent.
  T& provide() { return has_value() ? items_[0] : items_.append(); }
  void reset() { items_.clear(); }

 private:
  Array_of<T> items_;
};

}  // namespace JSON
