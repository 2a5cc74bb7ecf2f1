#pragma once

// Channel::Extension: the channel's values that OME has no place for, kept in the annotation of
// the namespace "{vendor domain}/ome/channel/extension": the vendor's acquisition mode, the dye
// and band, colour maps, excitation and deactivation light, gating, line accumulation, RESCUE
// thresholds and the settings of the detector's elements.
//
// Not thread-safe; lives no longer than its root.

#include <string_view>

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/extensions/extension_with.h"
#include "tarnio/ome/image.h"
#include "tarnio/ome/project.h"
#include "tarnio/ome/record.h"
#include "tarnio/ome/reference.h"

namespace OME {

class Channel_Extension_Values;

class TARNIO_EXPORT Channel::Extension
    : public Extension_with<Channel_Extension_Values, Channel::Extension> {
 public:
  static constexpr std::string_view kPath = "/ome/channel/extension";
  // The older separate annotations that the channel's update carries over.
  static constexpr std::string_view kLinesPath = "/ome/channel/lines";
  static constexpr std::string_view kGatingPath = "/ome/channel/gating";
  static constexpr std::string_view kDeactivationPath = "/ome/channel/deactivation";
  using Values = Channel_Extension_Values;
  using Extension_with::Extension_with;

  // OME's settings of a light source: its ID, "Attenuation", "Wavelength", "WavelengthUnit".
  class TARNIO_EXPORT Light_Source_Settings : public Record {
   public:
    using Record::Record;
  };
  // "power", "power_unit": the power at the sample, which OME's settings lack.
  class TARNIO_EXPORT Other_Light_Source_Settings : public Record {
   public:
    using Record::Record;
  };
  class TARNIO_EXPORT Excitation : public Record {
   public:
    using Record::Record;
    JSON::One_of<Other_Light_Source_Settings>& other_light_source_settings() noexcept {
      return other_;
    }

   private:
    JSON::One_of<Other_Light_Source_Settings> other_{*this, "other_light_source_settings"};
  };
  // "wavelength", "wavelength_unit", "z_component" and the light source's settings.
  class TARNIO_EXPORT Deactivation : public Record {
   public:
    using Record::Record;
    JSON::One_of<Light_Source_Settings>& light_source_settings() noexcept { return settings_; }
    JSON::One_of<Other_Light_Source_Settings>& other_light_source_settings() noexcept {
      return other_;
    }

   private:
    JSON::One_of<Light_Source_Settings> settings_{*this, "LightSourceSettings"};
    JSON::One_of<Other_Light_Source_Settings> other_{*this, "other_light_source_settings"};
  };
  // "delay", "delay_unit", "width", "width_unit".
  class TARNIO_EXPORT Gating : public Record {
   public:
    using Record::Record;
  };
  // "accumulation": how many scans of a line are summed.
  class TARNIO_EXPORT Line : public Record {
   public:
    using Record::Record;
  };
  // "significance_level", "signal_level_threshold", "interpolation_threshold".
  class TARNIO_EXPORT RESCUE : public Record {
   public:
    using Record::Record;
  };
  // "offset_x", "offset_x_unit", "offset_y", "offset_y_unit": where one element of a detector
  // array sits.
  class TARNIO_EXPORT Detector_Element : public Record {
   public:
    using Record::Record;
  };
  class TARNIO_EXPORT Other_Detector_Settings : public Record {
   public:
    using Record::Record;
    JSON::Array_of<Detector_Element>& detector_elements() noexcept { return elements_; }

   private:
    JSON::Array_of<Detector_Element> elements_{*this, "detector_elements"};
  };
};

// The values of Channel::Extension; "other_acquisition_mode", "color_map" and
// "overlay_color_map" are keywords.
class TARNIO_EXPORT Channel_Extension_Values : public Record {
 public:
  using Record::Record;
  using Extension = Channel::Extension;
  JSON::One_of<Reference<Dye>>& dye_reference() noexcept { return dye_; }
  JSON::One_of<Reference<Band>>& band_reference() noexcept { return band_; }
  JSON::One_of<Extension::Excitation>& excitation() noexcept { return excitation_; }
  JSON::One_of<Extension::Deactivation>& deactivation() noexcept { return deactivation_; }
  JSON::One_of<Extension::Gating>& gating() noexcept { return gating_; }
  JSON::One_of<Extension::Line>& line() noexcept { return line_; }
  JSON::One_of<Extension::RESCUE>& RESCUE_settings() noexcept { return rescue_; }
  JSON::One_of<Extension::Other_Detector_Settings>& other_detector_settings() noexcept {
    return detector_;
  }
  void resolve_references() override;

 private:
  JSON::One_of<Reference<Dye>> dye_{*this, "dye_reference"};
  JSON::One_of<Reference<Band>> band_{*this, "band_reference"};
  JSON::One_of<Extension::Excitation> excitation_{*this, "excitation"};
  JSON::One_of<Extension::Deactivation> deactivation_{*this, "deactivation"};
  JSON::One_of<Extension::Gating> gating_{*this, "gating"};
  JSON::One_of<Extension::Line> line_{*this, "line"};
  JSON::One_of<Extension::RESCUE> rescue_{*this, "RESCUE"};
  JSON::One_of<Extension::Other_Detector_Settings> detector_{*this, "other_detector_settings"};
};

}  // namespace OME
