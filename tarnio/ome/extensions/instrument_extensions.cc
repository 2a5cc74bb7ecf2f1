#include "tarnio/ome/extensions/instrument_extensions.h"

#include "tarnio/ome/internal/extension_access.h"

namespace OME {
namespace {

const internal::Split_Kind<Detector_Type> kDetectorType{"Type", "other_type", detector_type_table(),
                                                        kFirstVendorDetectorType};

}  // namespace

Objective::Objective(JSON::Proxy& parent, JSON::Value& node)
    : Element_with_ID<Objective>(parent, node),
      extension_(std::make_unique<Reference<Extension>>(annotation_references_)) {}
Objective::~Objective() = default;
Objective::Extension& Objective::extension() { return **extension_; }
Objective::Extension* Objective::find_extension() { return internal::find_extension(*extension_); }
void Objective::resolve_references() {
  internal::resolve_extension(annotation_references_, *extension_);
}

Detector::Detector(JSON::Proxy& parent, JSON::Value& node)
    : Element_with_ID<Detector>(parent, node),
      extension_(std::make_unique<Reference<Extension>>(annotation_references_)) {}
Detector::~Detector() = default;
Detector::Extension& Detector::extension() { return **extension_; }
Detector::Extension* Detector::find_extension() { return internal::find_extension(*extension_); }
void Detector::resolve_references() {
  internal::resolve_extension(annotation_references_, *extension_);
}
std::optional<Detector_Type> Detector::type() { return kDetectorType.get(*this); }
void Detector::set_type(Detector_Type type) { kDetectorType.set(*this, type); }

Instrument::Instrument(JSON::Proxy& parent, JSON::Value& node)
    : Element_with_ID<Instrument>(parent, node),
      extension_(std::make_unique<Reference<Extension>>(annotation_references_)) {}
Instrument::~Instrument() = default;
Instrument::Extension& Instrument::extension() { return **extension_; }
Instrument::Extension* Instrument::find_extension() {
  return internal::find_extension(*extension_);
}
void Instrument::resolve_extension() {
  internal::resolve_extension(annotation_references_, *extension_);
}

Light_Path::Light_Path(JSON::Proxy& parent, JSON::Value& node) : Element<>(parent, node),
      extension_(std::make_unique<Reference<Extension>>(annotation_references_)) {}
Light_Path::~Light_Path() = default;
Light_Path::Extension& Light_Path::extension() { return **extension_; }
Light_Path::Extension* Light_Path::find_extension() {
  return internal::find_extension(*extension_);
}
void Light_Path::resolve_references() {
  internal::resolve_extension(annotation_references_, *extension_);
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
