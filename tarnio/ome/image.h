#pragma once

// Images with their pixels, channels and planes.

#include <string_view>

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/element_with_id.h"
#include "tarnio/ome/instrument.h"
#include "tarnio/ome/reference.h"
#include "tarnio/ome/roi.h"

namespace OME {

class Root;

class TARNIO_EXPORT Channel : public Element_with_ID<Channel> {
 public:
  static constexpr std::string_view kIDPrefix = "Channel";
  using Element_with_ID<Channel>::Element_with_ID;
};

class TARNIO_EXPORT Plane : public Element<> {
 public:
  using Element<>::Element;
};

class TARNIO_EXPORT Image : public Element_with_ID<Image> {
 public:
  static constexpr std::string_view kIDPrefix = "Image";
  using Element_with_ID<Image>::Element_with_ID;
  static JSON::Array_of<Image>* root_list(Root& root, bool provide);

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
};

}  // namespace OME
