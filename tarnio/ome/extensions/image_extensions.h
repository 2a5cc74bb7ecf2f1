#pragma once

// The annotations of images and of their rectangles:
// - Image::Extension, of the namespace "{vendor domain}/ome/image/extension": "type" (keyword
//   of Image_Type), "acquisition_end_date" (xsd:dateTime text), "angle", "angle_unit" (the
//   scan rotation), "frame_step", "line_step", "pixel_step" (how many frames, lines and
//   pixels the scan advances per step), "scan_curve", "scan_direction" (keywords of
//   Scan_Curve and Scan_Direction), "derivation_description", "source_image" (the image a
//   derived image was computed from) and "parameter_images" (the parameter images of a fit),
//   the last two references to images.
// - Image::Modulo: OME's modulo annotation, of the namespace
//   "openmicroscopy.org/omero/dimension/modulo", whose "Modulo" holds "ModuloAlongZ",
//   "ModuloAlongC" and "ModuloAlongT", each with "Type", "TypeDescription", "Unit", "Start",
//   "Step", "End" and a list of "Label" texts.
// - Rectangle::Extension, of the namespace "{vendor domain}/ome/rectangle/extension": the
//   units of the rectangle's position and size ("position_x_unit", "position_y_unit",
//   "size_x_unit", "size_y_unit") and its extent along Z ("position_z", "position_z_unit",
//   "size_z", "size_z_unit").
//
// Not thread-safe; lives no longer than its root.

#include <string_view>

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/annotation.h"
#include "tarnio/ome/extensions/extension_with.h"
#include "tarnio/ome/image.h"
#include "tarnio/ome/record.h"
#include "tarnio/ome/reference.h"
#include "tarnio/ome/roi.h"

namespace OME {

class TARNIO_EXPORT Image_Extension_Values : public Record {
 public:
  using Record::Record;
  JSON::One_of<Reference<const Image>>& source_image() noexcept { return source_; }
  JSON::Array_of<Reference<const Image>>& parameter_images() noexcept { return parameters_; }
  void resolve_references() override;

 private:
  JSON::One_of<Reference<const Image>> source_{*this, "source_image"};
  JSON::Array_of<Reference<const Image>> parameters_{*this, "parameter_images"};
};

class TARNIO_EXPORT Image::Extension
    : public Extension_with<Image_Extension_Values, Image::Extension> {
 public:
  static constexpr std::string_view kPath = "/ome/image/extension";
  using Extension_with::Extension_with;
};

class TARNIO_EXPORT Image::Modulo : public Annotation {
 public:
  static constexpr std::string_view kNamespace = "openmicroscopy.org/omero/dimension/modulo";
  // The namespace of the XML element in the annotation's Value.
  static constexpr std::string_view kElementNamespace =
      "http://www.openmicroscopy.org/Schemas/Additions/2011-09";
  static JSON::Value new_item() { return annotation_item(kNamespace); }
  using Annotation::Annotation;

  // The subdivision of one dimension: "Type", "TypeDescription", "Unit", "Start", "Step",
  // "End", "Label".
  class TARNIO_EXPORT Along : public Record {
   public:
    using Record::Record;
  };
  class TARNIO_EXPORT Values : public Record {
   public:
    using Record::Record;
    JSON::One_of<Along>& along_Z() noexcept { return z_; }
    JSON::One_of<Along>& along_C() noexcept { return c_; }
    JSON::One_of<Along>& along_T() noexcept { return t_; }

   private:
    JSON::One_of<Along> z_{*this, "ModuloAlongZ"};
    JSON::One_of<Along> c_{*this, "ModuloAlongC"};
    JSON::One_of<Along> t_{*this, "ModuloAlongT"};
  };

  // The values under the member "Modulo", created when absent.
  Values& values() { return values_.provide(); }
  // Null when absent.
  Values* find_values() { return values_.get(); }

 private:
  JSON::One_of<Values> values_{*this, "Modulo"};
};

class TARNIO_EXPORT Rectangle::Extension : public Extension_with<Record, Rectangle::Extension> {
 public:
  static constexpr std::string_view kPath = "/ome/rectangle/extension";
  using Extension_with::Extension_with;
};

}  // namespace OME
