#include "tarnio/ome/extensions/channel_extension.h"

#include "tarnio/ome/internal/extension_access.h"
#include "tarnio/ome/root.h"
#include "tarnio/ome/vendor.h"

namespace OME {
namespace {

const internal::Split_Kind<Acquisition_Mode> kAcquisitionMode{
    "AcquisitionMode", "other_acquisition_mode", acquisition_mode_table(),
    kFirstVendorAcquisitionMode};

// The record that an older annotation's Value holds: its first item when it is a list.
const JSON::Value& older_values(const Annotation& annotation) {
  const JSON::Value& value = annotation.member("Value");
  return value.is_list() ? value.at(0) : value;
}

void copy_members(const JSON::Value& from, Record& to,
                  std::initializer_list<std::string_view> names) {
  for (std::string_view name : names) to.set_value(name, from.at(name));
}

bool is_older(const Annotation& annotation) {
  using Extension = Channel::Extension;
  const std::string_view ns = annotation.annotation_namespace();
  return ns == vendor_namespace(Extension::kLinesPath) ||
         ns == vendor_namespace(Extension::kGatingPath) ||
         ns == vendor_namespace(Extension::kDeactivationPath);
}

// Carries the values of an older annotation into the extension.
void carry_over(const Annotation& older, Channel::Extension::Values& values) {
  using Extension = Channel::Extension;
  const std::string_view ns = older.annotation_namespace();
  if (ns == vendor_namespace(Extension::kLinesPath)) {
    values.line().provide().set_value("accumulation",
                                      older_values(older).at("accumulation").get_int64());
  } else if (ns == vendor_namespace(Extension::kGatingPath)) {
    copy_members(older_values(older), values.gating().provide(),
                 {"delay", "width", "delay_unit", "width_unit"});
  } else if (ns == vendor_namespace(Extension::kDeactivationPath)) {
    const JSON::Value& from = older_values(older);
    Extension::Deactivation& deactivation = values.deactivation().provide();
    copy_members(from, deactivation, {"wavelength", "wavelength_unit", "z_component"});
    const JSON::Value& settings = from.at("LightSourceSettings");
    copy_members(settings.is_list() ? settings.at(0) : settings,
                 deactivation.light_source_settings().provide(),
                 {"Attenuation", "Wavelength", "WavelengthUnit"});
  }
}

}  // namespace

void Channel_Extension_Values::resolve_references() {
  if (Reference<Dye>* dye = dye_.get()) dye->resolve_references();
  if (Reference<Band>* band = band_.get()) band->resolve_references();
}

Channel::Channel(JSON::Proxy& parent, JSON::Value& node)
    : Element_with_ID<Channel>(parent, node),
      extension_(std::make_unique<Reference<Extension>>(annotation_references_)) {}
Channel::~Channel() = default;

Channel::Extension& Channel::extension() { return **extension_; }
Channel::Extension* Channel::find_extension() { return internal::find_extension(*extension_); }

std::optional<Acquisition_Mode> Channel::acquisition_mode() { return kAcquisitionMode.get(*this); }
void Channel::set_acquisition_mode(Acquisition_Mode mode) { kAcquisitionMode.set(*this, mode); }

void Channel::set_signal_level_threshold(double value) {
  extension().values().RESCUE_settings().provide().set_value("signal_level_threshold", value);
}
void Channel::set_interpolation_threshold(double value) {
  extension().values().RESCUE_settings().provide().set_value("interpolation_threshold", value);
}
void Channel::set_RESCUE_significance_level(double value) {
  extension().values().RESCUE_settings().provide().set_value("significance_level", value);
}
void Channel::set_line_accumulation(std::int64_t value) {
  extension().values().line().provide().set_value("accumulation", value);
}
void Channel::set_deactivation_z_component(double value) {
  extension().values().deactivation().provide().set_value("z_component", value);
}
void Channel::set_deactivation_light_source(const Light_Source& source, double attenuation,
                                            const Tarn::units::RuntimeValue& wavelength) {
  Extension::Light_Source_Settings& settings =
      extension().values().deactivation().provide().light_source_settings().provide();
  if (const JSON::Value* id = source.ID().value()) settings.set_value("ID", *id);
  settings.set_value("Attenuation", attenuation);
  settings.set_value("Wavelength", wavelength.value());
  settings.set_value("WavelengthUnit", wavelength.unit().to_string());
}

void Channel::resolve_references() {
  if (Light_Path* path = light_path_.get()) path->resolve_references();
  internal::resolve_extension(annotation_references_, *extension_);
}

bool Channel::update_1() {
  bool changed = false;
  for (std::size_t i = 0; i < annotation_references_.size();) {
    const JSON::Value* id = annotation_references_[i].ID();
    Annotation* older = id == nullptr ? nullptr : internal::find_annotation(root(), *id);
    if (older == nullptr || !is_older(*older)) {
      ++i;
      continue;
    }
    // Creating the extension may move the annotations: the older one is reached anew.
    const JSON::Value older_id = *id;
    Extension::Values& values = extension().values();
    carry_over(*internal::find_annotation(root(), older_id), values);
    // The older annotation goes with its reference unless another element refers to it too.
    annotation_references_.erase(i);
    if (count_ID_holders(document(), older_id) == 1) {
      JSON::Array_of<Annotation>& annotations = root().annotations();
      annotations.erase(*ids().find(*annotations.list(), older_id));
    }
    changed = true;
  }
  return changed;
}

}  // namespace OME
