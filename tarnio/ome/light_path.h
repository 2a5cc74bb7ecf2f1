#pragma once

// The light path of a channel: the filters and the dichroic between the light source and the
// detector.

#include "tarnio/export.h"
#include "tarnio/ome/element_members.h"
#include "tarnio/ome/extension_link.h"
#include "tarnio/ome/object_of_documents.h"

namespace OME {

class TARNIO_EXPORT Light_Path : public Light_Path_Members<Element<>> {
 public:
  class Extension;  // tarnio/ome/extensions/instrument_extensions.h

  using Light_Path_Members<Element<>>::Light_Path_Members;

  Extension& extension();
  Extension* find_extension();

  void set_primary_spherical_aberration(double value);
  void set_primary_spherical_aberration_slope_z(double value);

  void resolve_references() override;

 private:
  Extension_Link<Extension> extension_{annotation_references()};
};

}  // namespace OME
