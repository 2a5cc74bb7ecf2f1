#pragma once

// The extensions of the instrument and its parts, each an annotation of the namespace
// "{vendor domain}{kPath}":
// - Detector::Extension: "other_type" (a vendor detector kind, keyword of Detector_Type),
//   "dead_time", "dead_time_unit".
// - Instrument::Extension: "pinhole" (record Pinhole: "reference_wavelength",
//   "reference_wavelength_unit", the wavelength at which the pinhole is given in Airy units).
// - Objective::Extension: "other_immersion" (an immersion that OME's keywords lack).
// - Light_Path::Extension: "excitation_filter_settings", "emission_filter_settings" (lists of
//   Filter_Settings) and "aberrations" (record Aberrations: "primary_spherical",
//   "primary_spherical_slope_z").
//
// Not thread-safe; lives no longer than its root.

#include <string_view>

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/extensions/extension_with.h"
#include "tarnio/ome/instrument.h"
#include "tarnio/ome/light_path.h"
#include "tarnio/ome/record.h"
#include "tarnio/ome/reference.h"

namespace OME {

class TARNIO_EXPORT Detector::Extension : public Extension_with<Record, Detector::Extension> {
 public:
  static constexpr std::string_view kPath = "/ome/detector/extension";
  using Extension_with::Extension_with;
};

class TARNIO_EXPORT Objective::Extension : public Extension_with<Record, Objective::Extension> {
 public:
  static constexpr std::string_view kPath = "/ome/objective/extension";
  using Extension_with::Extension_with;
};

class Instrument_Extension_Values;

class TARNIO_EXPORT Instrument::Extension
    : public Extension_with<Instrument_Extension_Values, Instrument::Extension> {
 public:
  static constexpr std::string_view kPath = "/ome/instrument/extension";
  using Extension_with::Extension_with;

  class TARNIO_EXPORT Pinhole : public Record {
   public:
    using Record::Record;
  };
};

class TARNIO_EXPORT Instrument_Extension_Values : public Record {
 public:
  using Record::Record;
  JSON::One_of<Instrument::Extension::Pinhole>& pinhole() noexcept { return pinhole_; }

 private:
  JSON::One_of<Instrument::Extension::Pinhole> pinhole_{*this, "pinhole"};
};

class Light_Path_Extension_Values;

class TARNIO_EXPORT Light_Path::Extension
    : public Extension_with<Light_Path_Extension_Values, Light_Path::Extension> {
 public:
  static constexpr std::string_view kPath = "/ome/light_path/extension";
  using Extension_with::Extension_with;

  // The setting of one filter of the path: "filter_reference" (the filter's ID) and the band it
  // was tuned to, "cut_in", "cut_in_unit", "cut_out", "cut_out_unit".
  class TARNIO_EXPORT Filter_Settings : public Record {
   public:
    using Record::Record;
    JSON::One_of<Reference<const Filter>>& filter_reference() noexcept { return filter_; }
    void resolve_references() override;

   private:
    JSON::One_of<Reference<const Filter>> filter_{*this, "filter_reference"};
  };
  class TARNIO_EXPORT Aberrations : public Record {
   public:
    using Record::Record;
  };
};

class TARNIO_EXPORT Light_Path_Extension_Values : public Record {
 public:
  using Record::Record;
  using Filter_Settings = Light_Path::Extension::Filter_Settings;
  JSON::Array_of<Filter_Settings>& excitation_filter_settings() noexcept { return excitation_; }
  JSON::Array_of<Filter_Settings>& emission_filter_settings() noexcept { return emission_; }
  JSON::One_of<Light_Path::Extension::Aberrations>& aberrations() noexcept { return aberrations_; }
  void resolve_references() override;

 private:
  JSON::Array_of<Filter_Settings> excitation_{*this, "excitation_filter_settings"};
  JSON::Array_of<Filter_Settings> emission_{*this, "emission_filter_settings"};
  JSON::One_of<Light_Path::Extension::Aberrations> aberrations_{*this, "aberrations"};
};

}  // namespace OME
