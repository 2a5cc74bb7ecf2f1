#pragma once

// Extension_with<Values>: the base of the extension annotations whose values are one record
// type, held under the annotation's member "extension".
//
// Not thread-safe; lives no longer than its root.

#include "tarnio/json/proxy.h"
#include "tarnio/ome/annotation.h"
#include "tarnio/ome/vendor.h"

namespace OME {

template <typename Values, typename Derived>
class Extension_with : public Annotation {
 public:
  using Annotation::Annotation;

  // The item a new extension annotation starts from: an XMLAnnotation of the namespace.
  static JSON::Value new_item() { return annotation_item(vendor_namespace(Derived::kPath)); }

  // The values, created when absent.
  Values& values() { return values_.provide(); }
  // Null when absent.
  Values* find_values() { return values_.get(); }

  void resolve_references() override {
    if (Values* values = values_.get()) values->resolve_references();
  }

 private:
  JSON::One_of<Values> values_{*this, "extension"};
};

}  // namespace OME
