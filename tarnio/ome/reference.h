#pragma once

// Reference<T>: a pointer-like link to an element of type T, viewing an object that holds the
// referent's ID ({"ID": "Image:0"}, an ImageRef). The referent is found in the root's list of
// T (T::root_list) and cached after the first resolution.
//
// A reference may instead mirror an entry of its owner's untyped reference list
// (Abstract_References, the AnnotationRef list): it is then bound to the first entry whose ID
// names an element of the root's list of T, and views that entry.
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
      Target& created = Target::root_list(root(), true)->append();
      const auto largest = ids().largest(Target::kIDPrefix);
      created.ID().set_actual(largest ? *largest + 1 : 0);
      assign(created);
    }
    return *referent_;
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
    if (referent_ != nullptr) {
      // A constant referent is resolved by the walk of its own list.
      if constexpr (!std::is_const_v<T>) referent_->resolve_references();
      return;
    }
    sync();
    JSON::Array_of<Target>* list = Target::root_list(root(), false);
    std::optional<std::size_t> found;
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
    Target& target = (*list)[*found];
    referent_ = &target;
    target.resolve_references();
  }

 private:
  std::optional<std::size_t> find(JSON::Array_of<Target>* list, const JSON::Value& id) {
    if (list == nullptr || list->list() == nullptr || !list->list()->is_list()) return {};
    return ids().find(*list->list(), id);
  }

  // Follows the mirrored entry to its current place.
  void sync() {
    if (mirror_ == nullptr || !position_) return;
    if (*position_ < mirror_->size()) {
      rebind((*mirror_)[*position_].node());
    } else {
      unbind();
    }
  }
  void bind(std::size_t position) {
    position_ = position;
    rebind((*mirror_)[position].node());
  }
  void unbind() {
    position_.reset();
    unbound_ = JSON::Value();
    rebind(unbound_);
  }

  // What an unbound mirrored reference views: an empty value of its own.
  JSON::Value unbound_;
  T* referent_ = nullptr;
  Abstract_References* mirror_ = nullptr;
  std::optional<std::size_t> position_;  // of the mirrored entry
  bool resolving_ = false;
};

}  // namespace OME
