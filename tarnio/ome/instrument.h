#pragma once

// Instrument and the components the model looks up by ID: objectives, detectors, filters and
// light sources.

#include <optional>

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/element_members.h"
#include "tarnio/ome/element_with_id.h"
#include "tarnio/ome/extension_link.h"
#include "tarnio/ome/extensions/enumerations.h"
#include "tarnio/ome/reference.h"

namespace OME {

class Root;

class TARNIO_EXPORT Objective : public Objective_Members<Element_with_ID<Objective>> {
 public:
  class Extension;  // tarnio/ome/extensions/instrument_extensions.h

  using Objective_Members<Element_with_ID<Objective>>::Objective_Members;
  static JSON::Array_of<Objective>* root_list(Root& root, bool provide);

  Extension& extension();
  Extension* find_extension();

  void resolve_references() override;

 private:
  Extension_Link<Extension> extension_{annotation_references()};
};

class TARNIO_EXPORT Detector : public Detector_Members<Element_with_ID<Detector>> {
 public:
  class Extension;  // tarnio/ome/extensions/instrument_extensions.h

  using Detector_Members<Element_with_ID<Detector>>::Detector_Members;
  static JSON::Array_of<Detector>* root_list(Root& root, bool provide);

  Extension& extension();
  Extension* find_extension();

  // The OME attribute Type, or for "Other" the extension's vendor kind when it names one;
  // nothing when absent.
  std::optional<Detector_Type> type();
  void set_type(Detector_Type type);

  void resolve_references() override;

 private:
  Extension_Link<Extension> extension_{annotation_references()};
};

class TARNIO_EXPORT Filter : public Filter_Members<Element_with_ID<Filter>> {
 public:
  using Filter_Members<Element_with_ID<Filter>>::Filter_Members;
  static JSON::Array_of<Filter>* root_list(Root& root, bool provide);
};

// Any kind of light source; Laser(light_source) and the other kinds view it with the members
// of their own element type.
class TARNIO_EXPORT Light_Source : public Light_Source_Members<Element_with_ID<Light_Source>> {
 public:
  using Light_Source_Members<Element_with_ID<Light_Source>>::Light_Source_Members;
  static JSON::Array_of<Light_Source>* root_list(Root& root, bool provide);
};

class TARNIO_EXPORT Instrument : public Instrument_Members<Element_with_ID<Instrument>> {
 public:
  using Instrument_Members<Element_with_ID<Instrument>>::Instrument_Members;
  class Extension;  // tarnio/ome/extensions/instrument_extensions.h

  static JSON::Array_of<Instrument>* root_list(Root& root, bool provide);

  Extension& extension();
  Extension* find_extension();

  void resolve_references() override;

 private:
  Extension_Link<Extension> extension_{annotation_references()};
};

}  // namespace OME
