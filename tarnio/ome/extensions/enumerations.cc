#include "tarnio/ome/extensions/enumerations.h"

namespace OME {

const JSON::Enum_Table<Acquisition_Mode>& acquisition_mode_table() {
  using enum Acquisition_Mode;
  static const JSON::Enum_Table<Acquisition_Mode> table{
      {WideField, "WideField"},
      {LaserScanningConfocalMicroscopy, "LaserScanningConfocalMicroscopy"},
      {SpinningDiskConfocal, "SpinningDiskConfocal"},
      {SlitScanConfocal, "SlitScanConfocal"},
      {MultiPhotonMicroscopy, "MultiPhotonMicroscopy"},
      {StructuredIllumination, "StructuredIllumination"},
      {SingleMoleculeImaging, "SingleMoleculeImaging"},
      {TotalInternalReflection, "TotalInternalReflection"},
      {FluorescenceLifetime, "FluorescenceLifetime"},
      {SpectralImaging, "SpectralImaging"},
      {FluorescenceCorrelationSpectroscopy, "FluorescenceCorrelationSpectroscopy"},
      {NearFieldScanningOpticalMicroscopy, "NearFieldScanningOpticalMicroscopy"},
      {SecondHarmonicGenerationImaging, "SecondHarmonicGenerationImaging"},
      {PALM, "PALM"},
      {STORM, "STORM"},
      {STED, "STED"},
      {TIRF, "TIRF"},
      {FSM, "FSM"},
      {LCM, "LCM"},
      {Other, "Other"},
      {BrightField, "BrightField"},
      {SweptFieldConfocal, "SweptFieldConfocal"},
      {SPIM, "SPIM"},
      {Confocal_RESCUE, "Confocal_RESCUE"},
      {STED_RESCUE, "STED_RESCUE"},
      {Confocal_Probing, "Confocal_Probing"},
      {STED_Probing, "STED_Probing"},
      {STED_with_Confocal_Probing, "STED_with_Confocal_Probing"},
      {STED_with_STED_Probing, "STED_with_STED_Probing"},
      {STED_RESCUE_with_Confocal_Probing, "STED_RESCUE_with_Confocal_Probing"},
      {STED_RESCUE_with_STED_Probing, "STED_RESCUE_with_STED_Probing"},
      {STED_Probing_with_Confocal_Probing, "STED_Probing_with_Confocal_Probing"},
      {STED_Probing_with_STED_Probing, "STED_Probing_with_STED_Probing"},
  };
  return table;
}

const JSON::Enum_Table<Detector_Type>& detector_type_table() {
  using enum Detector_Type;
  static const JSON::Enum_Table<Detector_Type> table{
      {CCD, "CCD"},
      {IntensifiedCCD, "IntensifiedCCD"},
      {AnalogVideo, "AnalogVideo"},
      {PMT, "PMT"},
      {Photodiode, "Photodiode"},
      {Spectroscopy, "Spectroscopy"},
      {LifetimeImaging, "LifetimeImaging"},
      {CorrelationSpectroscopy, "CorrelationSpectroscopy"},
      {FTIR, "FTIR"},
      {EMCCD, "EMCCD"},
      {APD, "APD"},
      {CMOS, "CMOS"},
      {EBCCD, "EBCCD"},
      {Other, "Other"},
      {Hybrid_PMT, "Hybrid_PMT"},
      {SPAD_Array, "SPAD_Array"},
  };
  return table;
}

const JSON::Enum_Table<Color_Map>& color_map_table() {
  using enum Color_Map;
  static const JSON::Enum_Table<Color_Map> table{
      {unknown, "unknown"}, {white, "white"}, {red, "red"},         {green, "green"},
      {blue, "blue"},       {cyan, "cyan"},   {magenta, "magenta"}, {yellow, "yellow"},
      {orange, "orange"},   {fire, "fire"},   {rainbow, "rainbow"},
  };
  return table;
}

const JSON::Enum_Table<Scan_Curve>& scan_curve_table() {
  static const JSON::Enum_Table<Scan_Curve> table{{Scan_Curve::linear, "linear"},
                                                  {Scan_Curve::sinusoidal, "sinusoidal"}};
  return table;
}

const JSON::Enum_Table<Scan_Direction>& scan_direction_table() {
  static const JSON::Enum_Table<Scan_Direction> table{
      {Scan_Direction::unidirectional, "unidirectional"},
      {Scan_Direction::bidirectional, "bidirectional"}};
  return table;
}

const JSON::Enum_Table<Image_Type>& image_type_table() {
  using enum Image_Type;
  static const JSON::Enum_Table<Image_Type> table{
      {raw, "raw"}, {derived, "derived"}, {parameter, "parameter"}, {overview, "overview"}};
  return table;
}

}  // namespace OME
