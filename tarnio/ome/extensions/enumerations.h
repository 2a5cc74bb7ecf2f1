#pragma once

// The enumerations of the extensions, each with its two-way keyword table.
//
// Acquisition modes and detector types list OME's keywords first and the vendor's after them.
// A vendor-only kind (Acquisition_Mode::Confocal_RESCUE, Detector_Type::Hybrid_PMT) is stored
// as the OME attribute "Other" together with the extension member that names it
// ("other_acquisition_mode", "other_type"), so that other OME software still reads a valid
// document; an OME kind is stored in the OME attribute alone.
//
// The tables are built on first use and immutable afterwards; thread-safe.

#include <cstdint>
#include <string_view>

#include "tarnio/export.h"
#include "tarnio/json/enum_table.h"

namespace OME {

enum class Acquisition_Mode : std::uint8_t {
  WideField,
  LaserScanningConfocalMicroscopy,
  SpinningDiskConfocal,
  SlitScanConfocal,
  MultiPhotonMicroscopy,
  StructuredIllumination,
  SingleMoleculeImaging,
  TotalInternalReflection,
  FluorescenceLifetime,
  SpectralImaging,
  FluorescenceCorrelationSpectroscopy,
  NearFieldScanningOpticalMicroscopy,
  SecondHarmonicGenerationImaging,
  PALM,
  STORM,
  STED,
  TIRF,
  FSM,
  LCM,
  Other,
  BrightField,
  SweptFieldConfocal,
  SPIM,
  Confocal_RESCUE,  // the vendor's modes from here on
  STED_RESCUE,
  Confocal_Probing,
  STED_Probing,
  STED_with_Confocal_Probing,
  STED_with_STED_Probing,
  STED_RESCUE_with_Confocal_Probing,
  STED_RESCUE_with_STED_Probing,
  STED_Probing_with_Confocal_Probing,
  STED_Probing_with_STED_Probing,
};
inline constexpr Acquisition_Mode kFirstVendorAcquisitionMode = Acquisition_Mode::Confocal_RESCUE;

enum class Detector_Type : std::uint8_t {
  CCD,
  IntensifiedCCD,
  AnalogVideo,
  PMT,
  Photodiode,
  Spectroscopy,
  LifetimeImaging,
  CorrelationSpectroscopy,
  FTIR,
  EMCCD,
  APD,
  CMOS,
  EBCCD,
  Other,
  Hybrid_PMT,  // the vendor's kinds from here on
  SPAD_Array,
};
inline constexpr Detector_Type kFirstVendorDetectorType = Detector_Type::Hybrid_PMT;

// Colour maps of channels, dyes and bands; "white" is the grey scale.
enum class Color_Map : std::uint8_t {
  unknown,
  white,
  red,
  green,
  blue,
  cyan,
  magenta,
  yellow,
  orange,
  fire,
  rainbow,
};

enum class Scan_Curve : std::uint8_t { linear, sinusoidal };
enum class Scan_Direction : std::uint8_t { unidirectional, bidirectional };

// What an image holds: acquired data, data computed from a source image, a parameter image of
// a fit (a lifetime map), or an overview of a sample.
enum class Image_Type : std::uint8_t { raw, derived, parameter, overview };

TARNIO_EXPORT const JSON::Enum_Table<Acquisition_Mode>& acquisition_mode_table();
TARNIO_EXPORT const JSON::Enum_Table<Detector_Type>& detector_type_table();
TARNIO_EXPORT const JSON::Enum_Table<Color_Map>& color_map_table();
TARNIO_EXPORT const JSON::Enum_Table<Scan_Curve>& scan_curve_table();
TARNIO_EXPORT const JSON::Enum_Table<Scan_Direction>& scan_direction_table();
TARNIO_EXPORT const JSON::Enum_Table<Image_Type>& image_type_table();

// The names under which the generated element members reach the two tables that OME shares.
inline const JSON::Enum_Table<Acquisition_Mode>& enum_table(Acquisition_Mode) {
  return acquisition_mode_table();
}
constexpr std::string_view keyword_type_name(Acquisition_Mode) { return "AcquisitionMode"; }
inline const JSON::Enum_Table<Detector_Type>& enum_table(Detector_Type) {
  return detector_type_table();
}
constexpr std::string_view keyword_type_name(Detector_Type) { return "Type"; }

}  // namespace OME
