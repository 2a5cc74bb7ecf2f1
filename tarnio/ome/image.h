#pragma once

// Images with their pixels, channels and planes.

#include <cstdint>
#include <optional>
#include <string_view>

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/abstract_reference.h"
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

class TARNIO_EXPORT Channel : public Element_with_ID<Channel> {
 public:
  static constexpr std::string_view kIDPrefix = "Channel";
  class Extension;  // tarnio/ome/extensions/channel_extension.h

  using Element_with_ID<Channel>::Element_with_ID;

  JSON::One_of<Light_Path>& light_path() noexcept { return light_path_; }
  Abstract_References& annotation_references() noexcept { return annotation_references_; }
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
  Abstract_References annotation_references_{*this};
  Extension_Link<Extension> extension_{annotation_references_};
  JSON::One_of<Light_Path> light_path_{*this, "LightPath"};
};

class TARNIO_EXPORT Plane : public Element<> {
 public:
  using Element<>::Element;
};

class TARNIO_EXPORT Image : public Element_with_ID<Image> {
 public:
  static constexpr std::string_view kIDPrefix = "Image";
  class Extension;  // tarnio/ome/extensions/image_extensions.h
  class Modulo;     // tarnio/ome/extensions/image_extensions.h

  using Element_with_ID<Image>::Element_with_ID;
  static JSON::Array_of<Image>* root_list(Root& root, bool provide);

  Abstract_References& annotation_references() noexcept { return annotation_references_; }
  Extension& extension();
  Extension* find_extension();
  Modulo& modulo();
  Modulo* find_modulo();

  class TARNIO_EXPORT Pixels : public Element_with_ID<Pixels> {
   public:
    static constexpr std::string_view kIDPrefix = "Pixels";
    using Element_with_ID<Pixels>::Element_with_ID;

    JSON::Array_of<Channel>& channels() noexcept { return channels_; }
    JSON::Array_of<Plane>& planes() noexcept { return planes_; }

    // Brings the channel list to SizeC and, when planes are listed, the plane list to
    // SizeZ × SizeC × SizeT in the pixels' dimension order; reports whether anything changed.
    bool update_counts();
    void resolve_references() override;

   private:
    JSON::Array_of<Channel> channels_{*this, "Channel"};
    JSON::Array_of<Plane> planes_{*this, "Plane"};
  };

  JSON::One_of<Pixels>& pixels() noexcept { return pixels_; }
  JSON::One_of<Reference<Instrument>>& instrument_reference() noexcept { return instrument_; }
  JSON::Array_of<Reference<ROI>>& ROI_references() noexcept { return rois_; }

  // Also removes the IDs of the pixels and of each channel.
  void reset_ID() override;
  void resolve_references() override;
  // The image's parts of the document's two-pass update; each reports whether it changed
  // anything.
  virtual bool update_1();
  virtual bool update_2() { return false; }

 private:
  JSON::One_of<Reference<Instrument>> instrument_{*this, "InstrumentRef"};
  JSON::One_of<Pixels> pixels_{*this, "Pixels"};
  JSON::Array_of<Reference<ROI>> rois_{*this, "ROIRef"};
  Abstract_References annotation_references_{*this};
  Extension_Link<Extension> extension_{annotation_references_};
  Extension_Link<Modulo> modulo_{annotation_references_};
};

}  // namespace OME
