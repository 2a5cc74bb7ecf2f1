#pragma once

// The members of Extension_Link, instantiated beside each extension class, and what the
// extended elements share: finding annotations by ID and the split of a kind between an OME
// attribute and an extension member.

#include <optional>
#include <string_view>

#include "tarnio/json/enum_table.h"
#include "tarnio/ome/abstract_reference.h"
#include "tarnio/ome/annotation.h"
#include "tarnio/ome/extension_link.h"
#include "tarnio/ome/image.h"
#include "tarnio/ome/instrument.h"
#include "tarnio/ome/light_path.h"
#include "tarnio/ome/project.h"
#include "tarnio/ome/reference.h"
#include "tarnio/ome/roi.h"

namespace OME {
class Root;
}

namespace OME::internal {

// The root's annotation that carries `id`, or null.
Annotation* find_annotation(Root& root, const JSON::Value& id);
// Throws Invalid_Argument "Incomplete data: missing {id}." for an entry whose ID no
// annotation of the root carries.
void check_annotation_references(Abstract_References& references);

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

namespace OME {

// Each link is instantiated once, beside its extension class; the other extension classes
// are incomplete where one is.
extern template class Extension_Link<Channel::Extension>;
extern template class Extension_Link<Detector::Extension>;
extern template class Extension_Link<Folder::Extension>;
extern template class Extension_Link<Image::Extension>;
extern template class Extension_Link<Image::Modulo>;
extern template class Extension_Link<Instrument::Extension>;
extern template class Extension_Link<Light_Path::Extension>;
extern template class Extension_Link<Objective::Extension>;
extern template class Extension_Link<Project::Extension>;
extern template class Extension_Link<Rectangle::Extension>;

template <typename E>
Extension_Link<E>::Extension_Link(Abstract_References& references)
    : references_(&references), reference_(std::make_unique<Reference<E>>(references)) {}

template <typename E>
Extension_Link<E>::~Extension_Link() = default;

template <typename E>
E& Extension_Link<E>::provide() {
  return reference_->get_referent();
}

// Reached through get_referent, which finds the extension at its current place.
template <typename E>
E* Extension_Link<E>::find() {
  if (reference_->referent() == nullptr) reference_->resolve_references();
  return reference_->referent() == nullptr ? nullptr : &reference_->get_referent();
}

template <typename E>
void Extension_Link<E>::resolve_references() {
  internal::check_annotation_references(*references_);
  reference_->resolve_references();
}

}  // namespace OME
