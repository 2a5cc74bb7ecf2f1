#pragma once

// Instrument and the components the model looks up by ID: objectives, detectors, filters and
// light sources.

#include <optional>

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/abstract_reference.h"
#include "tarnio/ome/element_with_id.h"
#include "tarnio/ome/extension_link.h"
#include "tarnio/ome/extensions/enumerations.h"
#include "tarnio/ome/reference.h"

namespace OME {

class Root;

class TARNIO_EXPORT Objective : public Element_with_ID<Objective> {
 public:
  static constexpr std::string_view kIDPrefix = "Objective";
  class Extension;  // tarnio/ome/extensions/instrument_extensions.h

  using Element_with_ID<Objective>::Element_with_ID;
  static JSON::Array_of<Objective>* root_list(Root& root, bool provide);

  Abstract_References& annotation_references() noexcept { return annotation_references_; }
  Extension& extension();
  Extension* find_extension();

  void resolve_references() override;

 private:
  Abstract_References annotation_references_{*this};
  Extension_Link<Extension> extension_{annotation_references_};
};

class TARNIO_EXPORT Detector : public Element_with_ID<Detector> {
 public:
  static constexpr std::string_view kIDPrefix = "Detector";
  class Extension;  // tarnio/ome/extensions/instrument_extensions.h

  using Element_with_ID<Detector>::Element_with_ID;
  static JSON::Array_of<Detector>* root_list(Root& root, bool provide);

  Abstract_References& annotation_references() noexcept { return annotation_references_; }
  Extension& extension();
  Extension* find_extension();

  // The OME attribute Type, or for "Other" the extension's vendor kind when it names one;
  // nothing when absent.
  std::optional<Detector_Type> type();
  void set_type(Detector_Type type);

  void resolve_references() override;

 private:
  Abstract_References annotation_references_{*this};
  Extension_Link<Extension> extension_{annotation_references_};
};

class TARNIO_EXPORT Filter : public Element_with_ID<Filter> {
 public:
  static constexpr std::string_view kIDPrefix = "Filter";
  using Element_with_ID<Filter>::Element_with_ID;
  static JSON::Array_of<Filter>* root_list(Root& root, bool provide);
};

class TARNIO_EXPORT Light_Source : public Element_with_ID<Light_Source> {
 public:
  static constexpr std::string_view kIDPrefix = "LightSource";
  using Element_with_ID<Light_Source>::Element_with_ID;
  static JSON::Array_of<Light_Source>* root_list(Root& root, bool provide);
};

class TARNIO_EXPORT Instrument : public Element_with_ID<Instrument> {
 public:
  static constexpr std::string_view kIDPrefix = "Instrument";
  class Extension;  // tarnio/ome/extensions/instrument_extensions.h

  using Element_with_ID<Instrument>::Element_with_ID;
  static JSON::Array_of<Instrument>* root_list(Root& root, bool provide);

  JSON::Array_of<Objective>& objectives() noexcept { return objectives_; }
  JSON::Array_of<Detector>& detectors() noexcept { return detectors_; }
  JSON::Array_of<Filter>& filters() noexcept { return filters_; }
  JSON::Array_of<Light_Source>& light_sources() noexcept { return light_sources_; }

  Abstract_References& annotation_references() noexcept { return annotation_references_; }
  Extension& extension();
  Extension* find_extension();

  void resolve_references() override;

 private:
  Abstract_References annotation_references_{*this};
  Extension_Link<Extension> extension_{annotation_references_};
  JSON::Array_of<Light_Source> light_sources_{*this, "LightSource"};
  JSON::Array_of<Detector> detectors_{*this, "Detector"};
  JSON::Array_of<Objective> objectives_{*this, "Objective"};
  JSON::Array_of<Filter> filters_{*this, "Filter"};
};

}  // namespace OME
