#pragma once

// Light_Path: the light path of a channel, the filters and dichroic the light passes.

#include <memory>

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/abstract_reference.h"
#include "tarnio/ome/object_of_documents.h"
#include "tarnio/ome/reference.h"

namespace OME {

class TARNIO_EXPORT Light_Path : public Element<> {
 public:
  class Extension;  // tarnio/ome/extensions/instrument_extensions.h

  Light_Path(JSON::Proxy& parent, JSON::Value& node);
  ~Light_Path() override;

  Abstract_References& annotation_references() noexcept { return annotation_references_; }
  // The extension annotation, created with its AnnotationRef when missing.
  Extension& extension();
  // Null when there is none; creates nothing.
  Extension* find_extension();

  void set_primary_spherical_aberration(double value);
  void set_primary_spherical_aberration_slope_z(double value);

  void resolve_references() override;

 private:
  Abstract_References annotation_references_{*this};
  std::unique_ptr<Reference<Extension>> extension_;  // created with the element
};

}  // namespace OME
