#pragma once

// Images with their pixels, channels and planes.

#include <cstdint>
#include <optional>
#include <string_view>

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/element_members.h"
#include "tarnio/ome/element_with_id.h"
#include "tarnio/ome/extension_link.h"
#include "tarnio/ome/extensions/enumerations.h"
#include "tarnio/ome/instrument.h"
#include "tarnio/ome/light_path.h"
#include "tarnio/ome/reference.h"
#include "tarnio/ome/roi.h"
#include "tarnio/units/runtime_value.h"

namespace OME {

class Root;

class TARNIO_EXPORT Channel : public Channel_Members<Element_with_ID<Channel>> {
 public:
  class Extension;  // tarnio/ome/extensions/channel_extension.h

  using Channel_Members<Element_with_ID<Channel>>::Channel_Members;

  Extension& extension();
  Extension* find_extension();

  // The OME attribute AcquisitionMode, or for "Other" the extension's vendor mode when it
  // names one; nothing when absent.
  std::optional<Acquisition_Mode> acquisition_mode();
  void set_acquisition_mode(Acquisition_Mode mode);
  void set_signal_level_threshold(double value);
  void set_interpolation_threshold(double value);
  void set_RESCUE_significance_level(double value);
  void set_line_accumulation(std::int64_t value);
  void set_deactivation_z_component(double value);
  // The light source of the deactivation light, with its attenuation (a fraction) and
  // wavelength.
  void set_deactivation_light_source(const Light_Source& source, double attenuation,
                                     const Tarn::units::RuntimeValue& wavelength);

  void resolve_references() override;
  // Carries the values of the older separate line, gating and deactivation annotations into
  // the extension and removes those annotations; reports whether it changed anything. Throws
  // std::runtime_error "JSON path '{member}' not found." for a value that lacks a member.
  bool update_1();

 private:
  Extension_Link<Extension> extension_{annotation_references()};
};

class TARNIO_EXPORT Plane : public Plane_Members<Element<>> {
 public:
  using Plane_Members<Element<>>::Plane_Members;
};

class TARNIO_EXPORT Pixels : public Pixels_Members<Element_with_ID<Pixels>> {
 public:
  using Pixels_Members<Element_with_ID<Pixels>>::Pixels_Members;

  // Brings the channel list to SizeC and, when planes are listed, the plane list to
  // SizeZ × SizeC × SizeT in the pixels' dimension order; reports whether anything changed.
  bool update_counts();
};

class TARNIO_EXPORT Image : public Image_Members<Element_with_ID<Image>> {
 public:
  using Pixels = ::OME::Pixels;
  using Image_Members<Element_with_ID<Image>>::Image_Members;
  static JSON::Array_of<Image>* root_list(Root& root, bool provide);

  class Extension;  // tarnio/ome/extensions/image_extensions.h
  class Modulo;     // tarnio/ome/extensions/image_extensions.h

  Extension& extension();
  Extension* find_extension();
  Modulo& modulo();
  Modulo* find_modulo();

  // Also removes the IDs of the pixels and of each channel.
  void reset_ID() override;
  // The image's parts of the document's two-pass update; each reports whether it changed
  // anything.
  virtual bool update_1();
  virtual bool update_2() { return false; }
  void resolve_references() override;

 private:
  Extension_Link<Extension> extension_{annotation_references()};
  Extension_Link<Modulo> modulo_{annotation_references()};
};

}  // namespace OME
