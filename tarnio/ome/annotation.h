#pragma once

// Annotation: an element of the document's structured annotations (ID prefix "Annotation");
// Structured_Annotations: the block that holds them.

#include <memory>
#include <string_view>

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/element_members.h"
#include "tarnio/ome/element_with_id.h"

namespace OME {

class Root;

// Any kind of annotation; XML_Annotation(annotation) and the other kinds view it with the
// members of their own element type.
class TARNIO_EXPORT Annotation : public Annotation_Members<Element_with_ID<Annotation>> {
 public:
  using Annotation_Members<Element_with_ID<Annotation>>::Annotation_Members;

  // The root's list of annotations; created when `provide`, else null when absent.
  static JSON::Array_of<Annotation>* root_list(Root& root, bool provide);
  // The element object of an annotation item: of the extension class that its Namespace names
  // (Channel::Extension, Image::Modulo, ...), else an Annotation.
  static std::unique_ptr<Annotation> create(JSON::Proxy& parent, JSON::Value& item);

  // The Namespace; empty when absent.
  std::string_view annotation_namespace() const;
};

// A new XMLAnnotation item of the namespace, the item an extension annotation starts from.
TARNIO_EXPORT JSON::Value annotation_item(std::string_view annotation_namespace);

// Holds the annotations of every kind, in document order (annotations()).
class TARNIO_EXPORT Structured_Annotations : public Structured_Annotations_Members<Element<>> {
 public:
  using Structured_Annotations_Members<Element<>>::Structured_Annotations_Members;
};

}  // namespace OME
