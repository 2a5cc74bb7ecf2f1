#pragma once

// Object_of_Documents: the base of every OME element and of the document root, a proxy onto
// one JSON object of the root's tree. Element<Base>: the base of every element that sits in a
// list or optional slot of a parent element.
//
// Objects are created by the lists that hold them (JSON::Array_of) and never copied; they live
// no longer than their root. Not thread-safe.

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/id_registry.h"

namespace OME {

class Root;

class TARNIO_EXPORT Object_of_Documents : public JSON::Proxy {
 public:
  Object_of_Documents(Object_of_Documents& root, ID_Registry& ids, JSON::Value& node) noexcept
      : JSON::Proxy(node), root_(&root), ids_(&ids) {}

  Root& root() const noexcept;
  Object_of_Documents& root_object() const noexcept { return *root_; }
  // The whole document tree of the root.
  const JSON::Value& document() const noexcept { return root_->node(); }
  ID_Registry& ids() const noexcept { return *ids_; }

  // Resolves the references inside this object and its children, creating the element
  // objects of the children and so registering their IDs; nothing by default.
  virtual void resolve_references() {}

 private:
  Object_of_Documents* root_;
  ID_Registry* ids_;
};

template <typename Base = Object_of_Documents>
class Element : public Base {
 public:
  // `parent` is the object that holds the list of this element.
  Element(JSON::Proxy& parent, JSON::Value& node) noexcept
      : Base(as_object(parent).root_object(), as_object(parent).ids(), node),
        parent_(&as_object(parent)) {}

  Object_of_Documents& parent() const noexcept { return *parent_; }

 private:
  static Object_of_Documents& as_object(JSON::Proxy& proxy) noexcept {
    return static_cast<Object_of_Documents&>(proxy);
  }

  Object_of_Documents* parent_;
};

}  // namespace OME
