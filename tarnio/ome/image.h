#pragma once

// Images with their pixels, channels and planes.

#include <string_view>

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/element_members.h"
#include "tarnio/ome/element_with_id.h"
#include "tarnio/ome/instrument.h"
#include "tarnio/ome/light_path.h"
#include "tarnio/ome/reference.h"
#include "tarnio/ome/roi.h"

namespace OME {

class Root;

class TARNIO_EXPORT Channel : public Channel_Members<Element_with_ID<Channel>> {
 public:
  using Channel_Members<Element_with_ID<Channel>>::Channel_Members;
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

  // Also removes the IDs of the pixels and of each channel.
  void reset_ID() override;
  // The image's parts of the document's two-pass update; each reports whether it changed
  // anything.
  virtual bool update_1();
  virtual bool update_2() { return false; }
};

}  // namespace OME
