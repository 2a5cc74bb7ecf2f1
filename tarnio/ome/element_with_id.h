#pragma once

// Element_with_ID<T>: the base of every element type that carries an OME ID (ID_of<T>); T is
// the element class itself and names its prefix as T::kIDPrefix.

#include "tarnio/ome/id_of.h"
#include "tarnio/ome/object_of_documents.h"

namespace OME {

template <typename T>
class Element_with_ID : public Element<> {
 public:
  Element_with_ID(JSON::Proxy& parent, JSON::Value& node) : Element<>(parent, node), id_(*this) {}

  ID_of<T>& ID() noexcept { return id_; }
  const ID_of<T>& ID() const noexcept { return id_; }
  // Removes the element's ID.
  virtual void reset_ID() { id_.reset(); }

 private:
  ID_of<T> id_;
};

}  // namespace OME
