#pragma once

// Extension_Link<E>: how an extended element reaches its extension annotation of class E, a
// Reference<E> that mirrors the element's AnnotationRef list and takes the first listed
// annotation of E's namespace.
//
// Every extended element offers annotation_references(), extension() (the extension,
// created with its annotation and AnnotationRef when missing) and find_extension() (null when
// there is none; creates nothing). Resolving the element's references throws
// Invalid_Argument "Incomplete data: missing {id}." when the element names an annotation that
// the root lacks.
//
// The members are instantiated beside each extension class. Not thread-safe; lives no longer
// than its element.

#include <memory>

#include "tarnio/export.h"
#include "tarnio/ome/abstract_reference.h"
#include "tarnio/ome/reference.h"

namespace OME {

template <typename E>
class TARNIO_EXPORT Extension_Link {
 public:
  explicit Extension_Link(Abstract_References& references);
  Extension_Link(const Extension_Link&) = delete;
  Extension_Link& operator=(const Extension_Link&) = delete;
  ~Extension_Link();

  E& provide();
  E* find();
  void resolve_references();

 private:
  Abstract_References* references_;
  std::unique_ptr<Reference<E>> reference_;
};

}  // namespace OME
