#pragma once

// Abstract_Reference: an untyped reference (an AnnotationRef), an object that holds the ID of
// an annotation; Abstract_References: an element's list of them, which typed references to
// annotations mirror (Reference<T>).

#include "tarnio/json/proxy.h"
#include "tarnio/ome/object_of_documents.h"

namespace OME {

class Abstract_Reference : public Element<> {
 public:
  using Element<>::Element;

  // The referenced ID, or null when absent.
  const JSON::Value* ID() const noexcept { return find_member("ID"); }
  void set_ID(JSON::Value id) { set_member("ID", std::move(id)); }
};

class Abstract_References : public JSON::Array_of<Abstract_Reference> {
 public:
  explicit Abstract_References(Object_of_Documents& owner)
      : JSON::Array_of<Abstract_Reference>(owner, "AnnotationRef"), owner_(&owner) {}

  Object_of_Documents& owner() const noexcept { return *owner_; }

 private:
  Object_of_Documents* owner_;
};

}  // namespace OME
