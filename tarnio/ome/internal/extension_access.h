#pragma once

// How an extended element reaches its extension annotation: through a Reference<E> that
// mirrors the element's AnnotationRef list and takes the first listed annotation of E's
// namespace.

#include <optional>
#include <string_view>

#include "tarnio/json/enum_table.h"
#include "tarnio/ome/abstract_reference.h"
#include "tarnio/ome/annotation.h"
#include "tarnio/ome/reference.h"

namespace OME {
class Root;
}

namespace OME::internal {

// The root's annotation that carries `id`, or null.
Annotation* find_annotation(Root& root, const JSON::Value& id);
// Throws Invalid_Argument "Incomplete data: missing {id}." for an entry whose ID no
// annotation of the root carries.
void check_annotation_references(Abstract_References& references);

// The extension, reached through its current place; null when there is none.
template <typename E>
E* find_extension(Reference<E>& reference) {
  if (reference.referent() == nullptr) reference.resolve_references();
  return reference.referent() == nullptr ? nullptr : &reference.get_referent();
}

template <typename E>
void resolve_extension(Abstract_References& references, Reference<E>& reference) {
  check_annotation_references(references);
  reference.resolve_references();
}

// A kind held in an OME attribute whose vendor-only kinds (those from `first_vendor` on) are
// stored as "Other" there and by name in the extension member `other`.
template <typename E>
struct Split_Kind {
  std::string_view attribute;
  std::string_view other;
  const JSON::Enum_Table<E>& table;
  E first_vendor;

  template <typename Element>
  std::optional<E> get(Element& element) const {
    const JSON::Value* keyword = element.find_member(attribute);
    if (keyword == nullptr) return std::nullopt;
    const E kind = table.enumerator(keyword->get_string());
    auto* extension = kind == E::Other ? element.find_extension() : nullptr;
    auto* values = extension == nullptr ? nullptr : extension->find_values();
    const auto vendor = values == nullptr ? std::nullopt : values->enumerator(other, table);
    return vendor ? *vendor : kind;
  }

  template <typename Element>
  void set(Element& element, E kind) const {
    const bool vendor = kind >= first_vendor;
    element.set_member(attribute, table.keyword(vendor ? E::Other : kind));
    if (vendor) {
      element.extension().values().set_value(other, table.keyword(kind));
    } else if (auto* extension = element.find_extension()) {
      if (auto* values = extension->find_values()) values->erase_member(other);
    }
  }
};

}  // namespace OME::internal
