#pragma once

// The extensions of projects and folders, each an annotation of the namespace
// "{vendor domain}{kPath}":
// - Project::Extension: "dye" and "band", the project's lists of Dye and Band. A dye holds
//   "ID", "name", "color_map", "overlay_color_map", "excitation_wavelength",
//   "excitation_wavelength_unit", "emission_wavelength", "emission_wavelength_unit"; a band
//   holds "ID", "name", "color_map", "overlay_color_map", "lower_wavelength",
//   "lower_wavelength_unit", "upper_wavelength", "upper_wavelength_unit".
// - Folder::Extension: "creation_date" (xsd:dateTime text), "has_bookmark", "is_overview" and
//   "Processing" (record Folder::Processing holding "Grid", the grid of tiles the folder's
//   images were taken in: "columns", "rows", "spacing_x", "spacing_x_unit", "spacing_y",
//   "spacing_y_unit").
//
// Not thread-safe; lives no longer than its root.

#include <string_view>

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/extensions/extension_with.h"
#include "tarnio/ome/project.h"
#include "tarnio/ome/record.h"

namespace OME {

class TARNIO_EXPORT Project_Extension_Values : public Record {
 public:
  using Record::Record;
  JSON::Array_of<Dye>& dyes() noexcept { return dyes_; }
  JSON::Array_of<Band>& bands() noexcept { return bands_; }
  void resolve_references() override;

 private:
  JSON::Array_of<Dye> dyes_{*this, "dye"};
  JSON::Array_of<Band> bands_{*this, "band"};
};

class TARNIO_EXPORT Project::Extension
    : public Extension_with<Project_Extension_Values, Project::Extension> {
 public:
  static constexpr std::string_view kPath = "/ome/project/extension";
  using Extension_with::Extension_with;
};

class TARNIO_EXPORT Folder::Processing : public Record {
 public:
  using Record::Record;
  class TARNIO_EXPORT Grid : public Record {
   public:
    using Record::Record;
  };
  JSON::One_of<Grid>& grid() noexcept { return grid_; }

 private:
  JSON::One_of<Grid> grid_{*this, "Grid"};
};

class TARNIO_EXPORT Folder_Extension_Values : public Record {
 public:
  using Record::Record;
  JSON::One_of<Folder::Processing>& processing() noexcept { return processing_; }

 private:
  JSON::One_of<Folder::Processing> processing_{*this, "Processing"};
};

class TARNIO_EXPORT Folder::Extension
    : public Extension_with<Folder_Extension_Values, Folder::Extension> {
 public:
  static constexpr std::string_view kPath = "/ome/folder/extension";
  using Extension_with::Extension_with;
};

}  // namespace OME
