#pragma once

// Annotation: an element of the document's structured annotations (ID prefix "Annotation");
// Structured_Annotations: the block that holds them.

#include <memory>
#include <string_view>

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/element_with_id.h"

namespace OME {

class Root;

class TARNIO_EXPORT Annotation : public Element_with_ID<Annotation> {
 public:
  static constexpr std::string_view kIDPrefix = "Annotation";
  using Element_with_ID<Annotation>::Element_with_ID;

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

class TARNIO_EXPORT Structured_Annotations : public Element<> {
 public:
  using Element<>::Element;

  // Annotations of every kind, in document order.
  JSON::Array_of<Annotation>& annotations() noexcept { return annotations_; }

  void resolve_references() override;

 private:
  JSON::Array_of<Annotation> annotations_{*this, "Annotation"};
};

}  // namespace OME
