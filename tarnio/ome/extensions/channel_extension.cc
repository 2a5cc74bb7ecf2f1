#include "tarnio/ome/extensions/channel_extension.h"

#include <optional>

#include "tarnio/ome/internal/extension_access.h"
#include "tarnio/ome/root.h"
#include "tarnio/ome/vendor.h"

namespace OME {
namespace {

const internal::Split_Kind<Acquisition_Mode> kAcquisitionMode{
    "AcquisitionMode", "other_acquisition_mode", acquisition_mode_table(),
    kFirstVendorAcquisitionMode};

// The record that an older annotation's Value holds: its first item when it is a list.
const JSON::Value& older_values(const JSON::Value& value) {
  return value.is_list() ? value.at(0) : value;
}

// The named members of `from`; throws std::runtime_error "JSON path '{name}' not found." for a
// missing one.
JSON::Value pick(const JSON::Value& from, std::initializer_list<std::string_view> names) {
  JSON::Value picked = JSON::Value::object();
  for (std::string_view name : names) picked.set(name, from.at(name));
  return picked;
}

// What an older annotation carries, read in full before the document changes.
struct Carried {
  std::string_view record;  // "line", "gating" or "deactivation"
  JSON::Value values;
  JSON::Value light_source_settings;  // of the deactivation
};

std::optional<Carried> read_older(const Annotation& annotation) {
  using Extension = Channel::Extension;
  const std::string_view ns = annotation.annotation_namespace();
  if (ns == vendor_namespace(Extension::kLinesPath)) {
    const JSON::Value& from = older_values(annotation.member("Value"));
    return Carried{
        "line", JSON::Value::object({{"accumulation", from.at("accumulation").get_int64()}}), {}};
  }
  if (ns == vendor_namespace(Extension::kGatingPath)) {
    return Carried{"gating",
                   pick(older_values(annotation.member("Value")),
                        {"delay", "width", "delay_unit", "width_unit"}),
                   {}};
  }
  if (ns == vendor_namespace(Extension::kDeactivationPath)) {
    const JSON::Value& from = older_values(annotation.member("Value"));
    return Carried{"deactivation", pick(from, {"wavelength", "wavelength_unit", "z_component"}),
                   pick(older_values(from.at("LightSourceSettings")),
                        {"Attenuation", "Wavelength", "WavelengthUnit"})};
  }
  return std::nullopt;
}

void set_all(Record& record, const JSON::Value& values) {
  for (const JSON::Member& member : values.members())
    record.set_value(member.key(), member.value());
}

void carry_over(const Carried& carried, Channel::Extension::Values& values) {
  if (carried.record == "line") {
    set_all(values.line().provide(), carried.values);
  } else if (carried.record == "gating") {
    set_all(values.gating().provide(), carried.values);
  } else {
    Channel::Extension::Deactivation& deactivation = values.deactivation().provide();
    set_all(deactivation, carried.values);
    set_all(deactivation.light_source_settings().provide(), carried.light_source_settings);
  }
}

}  // namespace

template class Extension_Link<Channel::Extension>;

Channel::Extension& Channel::extension() { return extension_.provide(); }
Channel::Extension* Channel::find_extension() { return extension_.find(); }

void Channel_Extension_Values::resolve_references() {
  if (Reference<Dye>* dye = dye_.get()) dye->resolve_references();
  if (Reference<Band>* band = band_.get()) band->resolve_references();
}

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
  Channel_Members<Element_with_ID<Channel>>::resolve_references();
  extension_.resolve_references();
}

bool Channel::update_1() {
  bool changed = false;
  for (std::size_t i = 0; i < annotation_references().size();) {
    const JSON::Value* id = annotation_references()[i].ID();
    const Annotation* older = id == nullptr ? nullptr : internal::find_annotation(root(), *id);
    const std::optional<Carried> carried = older == nullptr ? std::nullopt : read_older(*older);
    if (!carried) {
      ++i;
      continue;
    }
    const JSON::Value older_id = *id;  // the entry moves when the extension is created
    carry_over(*carried, extension().values());
    // The older annotation goes with its reference unless another element refers to it too.
    annotation_references().erase(i);
    if (count_ID_holders(document(), older_id) == 1) {
      JSON::Array_of<Annotation>& annotations = root().annotations();
      annotations.erase(*ids().find(*annotations.list(), older_id));
    }
    changed = true;
  }
  return changed;
}

}  // namespace OME
