#pragma once

// Reference<T>: a pointer-like link to an element of type T, viewing an object that holds the
// referent's ID ({"ID": "Image:0"}, an ImageRef). The referent is found in the root's list of
// T (T::root_list) and cached after the first resolution.
//
// A reference may instead mirror an entry of its owner's untyped reference list
// (Abstract_References, the AnnotationRef list): it is then bound to the first entry whose ID
// names an element of the root's list of T, and views that entry, which it follows by its ID
// when entries before it are erased. The cached referent is reached anew through its list on
// each dereference, so that it views its item also after the list has grown.
//
// The root's list of T may hold elements of a base of T (the annotation list holds every kind
// of annotation): an item counts as a T only when its element object is one. Such a T names
// the item a new referent starts from as T::new_item().
//
// Not thread-safe; lives no longer than its root.

#include <fmt/format.h>

#include <cstddef>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "tarnio/json/read_write.h"
#include "tarnio/ome/abstract_reference.h"
#include "tarnio/ome/errors.h"
#include "tarnio/ome/object_of_documents.h"

namespace OME {

// How many objects in `document` hold `id` as their "ID" member.
TARNIO_EXPORT std::size_t count_ID_holders(const JSON::Value& document, const JSON::Value& id);
// The ID as message text: a string as it stands, another value as JSON.
TARNIO_EXPORT std::string ID_text(const JSON::Value& id);

template <typename T>
class Reference : public Element<> {
  using Target = std::remove_const_t<T>;

 public:
  // A reference held as an item of a list or an optional slot of its parent.
  Reference(JSON::Proxy& parent, JSON::Value& node) : Element<>(parent, node) {}
  // A reference that mirrors an entry of the untyped list; unbound until resolved or assigned.
  explicit Reference(Abstract_References& mirror)
      : Element<>(mirror.owner(), unbound_), mirror_(&mirror) {}

  T* referent() const noexcept { return referent_; }
  // The ID held, or null.
  const JSON::Value* ID() {
    sync();
    return find_member("ID");
  }

  // The referent; when none can be resolved, a new element of type T with a fresh ID is
  // appended to the root's list of T and becomes the referent.
  T& get_referent() {
    if (referent_ == nullptr) resolve_references();
    if (referent_ == nullptr) {
      Target& created = append_new(*Target::root_list(root(), true));
      const auto largest = ids().largest(Target::kIDPrefix);
      created.ID().set_actual(largest ? *largest + 1 : 0);
      assign(created);
    }
    return *current();
  }
  T& operator*() { return get_referent(); }
  T* operator->() { return &get_referent(); }

  // Caches the referent and copies its ID into the reference (into the mirrored entry, which
  // is appended to the untyped list when the reference is unbound).
  void assign(T& referent) {
    sync();
    if (mirror_ != nullptr && !position_) {
      mirror_->append();
      bind(mirror_->size() - 1);
    }
    referent_ = &referent;
    if (const JSON::Value* id = referent.ID().value()) {
      set_member("ID", *id);
      if (position_) bound_id_ = *id;
    } else {
      erase_member("ID");
    }
  }
  void set_referent(T& referent) { assign(referent); }

  // Clears the ID and the cached referent. A mirrored entry whose ID nothing else holds but
  // the referent is erased from the untyped list.
  void reset() {
    referent_ = nullptr;
    sync();
    if (mirror_ == nullptr) {
      erase_member("ID");
      return;
    }
    if (!position_) return;
    const JSON::Value* id = find_member("ID");
    if (id != nullptr && count_ID_holders(document(), *id) == 2) mirror_->erase(*position_);
    unbind();
  }

  void resolve_references() override {
    if (resolving_) return;  // a cycle of references
    resolving_ = true;
    struct Done {
      bool& flag;
      ~Done() { flag = false; }
    } done{resolving_};
    // A constant reference only reads its referent; resolving the referent's own references
    // is the root's upkeep all the same.
    if (referent_ != nullptr) {
      // A constant referent is resolved by the walk of its own list.
      if constexpr (!std::is_const_v<T>) current()->resolve_references();
      return;
    }
    sync();
    auto* list = Target::root_list(root(), false);
    Target* found = nullptr;
    if (const JSON::Value* id = find_member("ID")) {
      found = find(list, *id);
      if (!found) throw Invalid_Argument(fmt::format("Incomplete data: missing {}.", ID_text(*id)));
    } else if (mirror_ != nullptr) {
      for (std::size_t i = 0; i < mirror_->size() && !found; ++i) {
        if (const JSON::Value* entry_id = (*mirror_)[i].ID()) {
          found = find(list, *entry_id);
          if (found) bind(i);
        }
      }
    }
    if (!found) return;
    referent_ = found;
    found->resolve_references();
  }

 private:
  // The element object as a T, or null when the item is of another kind.
  template <typename Element_Object>
  static Target* as_target(Element_Object& element) noexcept {
    if constexpr (std::is_same_v<Element_Object, Target>) {
      return &element;
    } else {
      return dynamic_cast<Target*>(&element);
    }
  }

  template <typename List>
  static Target& append_new(List& list) {
    if constexpr (requires { Target::new_item(); }) {
      return *as_target(list.append(Target::new_item()));
    } else {
      return list.append();
    }
  }

  template <typename List>
  Target* find(List* list, const JSON::Value& id) {
    if (list == nullptr || list->list() == nullptr || !list->list()->is_list()) return nullptr;
    const auto items = list->list()->items();
    const JSON::Value* hint_id =
        referent_position_ < items.size() ? items[referent_position_].find("ID") : nullptr;
    const std::optional<std::size_t> position =
        hint_id != nullptr && *hint_id == id ? referent_position_ : ids().find(*list->list(), id);
    if (!position) return nullptr;
    referent_position_ = *position;
    return as_target((*list)[*position]);
  }

  // The cached referent, reached anew through the root's list: items move when their list
  // grows, and reaching an item points its element object at the item's current place.
  T* current() {
    const JSON::Value* id = ID();
    if (referent_ == nullptr || id == nullptr) return referent_;
    const JSON::Value held = *id;
    if (Target* found = find(Target::root_list(root(), false), held)) referent_ = found;
    return referent_;
  }

  // Follows the mirrored entry to its current place: its position, or, when entries before it
  // were erased, the entry that holds the bound ID.
  void sync() {
    if (mirror_ == nullptr || !position_) return;
    const auto holds_bound_id = [&](std::size_t i) {
      const JSON::Value* entry_id = (*mirror_)[i].ID();
      return bound_id_.is_null() || (entry_id != nullptr && *entry_id == bound_id_);
    };
    if (*position_ < mirror_->size() && holds_bound_id(*position_)) {
      rebind((*mirror_)[*position_].node());
      return;
    }
    for (std::size_t i = 0; !bound_id_.is_null() && i < mirror_->size(); ++i) {
      if (holds_bound_id(i)) {
        bind(i);
        return;
      }
    }
    unbind();
  }
  void bind(std::size_t position) {
    position_ = position;
    rebind((*mirror_)[position].node());
    const JSON::Value* id = find_member("ID");
    bound_id_ = id == nullptr ? JSON::Value() : *id;
  }
  void unbind() {
    position_.reset();
    bound_id_ = JSON::Value();
    unbound_ = JSON::Value();
    rebind(unbound_);
  }

  // What an unbound mirrored reference views: an empty value of its own.
  JSON::Value unbound_;
  T* referent_ = nullptr;
  std::size_t referent_position_ = 0;  // where the referent was last found in its list
  Abstract_References* mirror_ = nullptr;
  std::optional<std::size_t> position_;  // of the mirrored entry
  JSON::Value bound_id_;                 // the ID the mirrored entry held when bound
  bool resolving_ = false;
};

}  // namespace OME
