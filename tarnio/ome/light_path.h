#pragma once

// Light_Path: the light path of a channel, the filters and dichroic the light passes.

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/abstract_reference.h"
#include "tarnio/ome/extension_link.h"
#include "tarnio/ome/object_of_documents.h"

namespace OME {

class TARNIO_EXPORT Light_Path : public Element<> {
 public:
  class Extension;  // tarnio/ome/extensions/instrument_extensions.h

  using Element<>::Element;

  Abstract_References& annotation_references() noexcept { return annotation_references_; }
  Extension& extension();
  Extension* find_extension();

  void set_primary_spherical_aberration(double value);
  void set_primary_spherical_aberration_slope_z(double value);

  void resolve_references() override;

 private:
  Abstract_References annotation_references_{*this};
  Extension_Link<Extension> extension_{annotation_references_};
};

}  // namespace OME
