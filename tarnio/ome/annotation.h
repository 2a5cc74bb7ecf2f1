#pragma once

// Annotation: an element of the document's structured annotations (ID prefix "Annotation");
// Structured_Annotations: the block that holds them.

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
};

// Holds the annotations of every kind, in document order (annotations()).
class TARNIO_EXPORT Structured_Annotations : public Structured_Annotations_Members<Element<>> {
 public:
  using Structured_Annotations_Members<Element<>>::Structured_Annotations_Members;
};

}  // namespace OME
