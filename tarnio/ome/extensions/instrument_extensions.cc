#include "tarnio/ome/extensions/instrument_extensions.h"

#include "tarnio/ome/element_classes.h"
#include "tarnio/ome/internal/extension_access.h"

namespace OME {
namespace {

const internal::Split_Kind<Detector_Type> kDetectorType{"Type", "other_type", detector_type_table(),
                                                        kFirstVendorDetectorType};

}  // namespace

template class Extension_Link<Objective::Extension>;
template class Extension_Link<Detector::Extension>;
template class Extension_Link<Instrument::Extension>;
template class Extension_Link<Light_Path::Extension>;

Objective::Extension& Objective::extension() { return extension_.provide(); }
Objective::Extension* Objective::find_extension() { return extension_.find(); }
Detector::Extension& Detector::extension() { return extension_.provide(); }
Detector::Extension* Detector::find_extension() { return extension_.find(); }
Instrument::Extension& Instrument::extension() { return extension_.provide(); }
Instrument::Extension* Instrument::find_extension() { return extension_.find(); }
Light_Path::Extension& Light_Path::extension() { return extension_.provide(); }
Light_Path::Extension* Light_Path::find_extension() { return extension_.find(); }

void Objective::resolve_references() {
  Objective_Members<Element_with_ID<Objective>>::resolve_references();
  extension_.resolve_references();
}

void Detector::resolve_references() {
  Detector_Members<Element_with_ID<Detector>>::resolve_references();
  extension_.resolve_references();
}
std::optional<Detector_Type> Detector::type() { return kDetectorType.get(*this); }
void Detector::set_type(Detector_Type type) { kDetectorType.set(*this, type); }

void Light_Path::resolve_references() {
  Light_Path_Members<Element<>>::resolve_references();
  extension_.resolve_references();
}
void Light_Path::set_primary_spherical_aberration(double value) {
  extension().values().aberrations().provide().set_value("primary_spherical", value);
}
void Light_Path::set_primary_spherical_aberration_slope_z(double value) {
  extension().values().aberrations().provide().set_value("primary_spherical_slope_z", value);
}

void Light_Path::Extension::Filter_Settings::resolve_references() {
  if (Reference<const Filter>* filter = filter_.get()) filter->resolve_references();
}

void Light_Path_Extension_Values::resolve_references() {
  for (Filter_Settings& settings : excitation_) settings.resolve_references();
  for (Filter_Settings& settings : emission_) settings.resolve_references();
}

}  // namespace OME
