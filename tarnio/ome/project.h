#pragma once

// Projects, datasets and folders, which group images, and the dyes and bands of a project, the
// maker's own element types, which a project keeps in its extension.

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/abstract_reference.h"
#include "tarnio/ome/element_with_id.h"
#include "tarnio/ome/extension_link.h"
#include "tarnio/ome/image.h"
#include "tarnio/ome/reference.h"
#include "tarnio/ome/roi.h"

namespace OME {

class Root;

class TARNIO_EXPORT Dye : public Element_with_ID<Dye> {
 public:
  static constexpr std::string_view kIDPrefix = "Dye";
  using Element_with_ID<Dye>::Element_with_ID;
  static JSON::Array_of<Dye>* root_list(Root& root, bool provide);
};

class TARNIO_EXPORT Band : public Element_with_ID<Band> {
 public:
  static constexpr std::string_view kIDPrefix = "Band";
  using Element_with_ID<Band>::Element_with_ID;
  static JSON::Array_of<Band>* root_list(Root& root, bool provide);
};

class TARNIO_EXPORT Dataset : public Element_with_ID<Dataset> {
 public:
  static constexpr std::string_view kIDPrefix = "Dataset";
  using Element_with_ID<Dataset>::Element_with_ID;
  static JSON::Array_of<Dataset>* root_list(Root& root, bool provide);

  JSON::Array_of<Reference<Image>>& image_references() noexcept { return images_; }
  void resolve_references() override;

 private:
  JSON::Array_of<Reference<Image>> images_{*this, "ImageRef"};
};

class TARNIO_EXPORT Project : public Element_with_ID<Project> {
 public:
  static constexpr std::string_view kIDPrefix = "Project";
  // Holds the project's dyes and bands; tarnio/ome/extensions/project_extensions.h.
  class Extension;

  using Element_with_ID<Project>::Element_with_ID;
  static JSON::Array_of<Project>* root_list(Root& root, bool provide);

  JSON::Array_of<Reference<Dataset>>& dataset_references() noexcept { return datasets_; }
  Abstract_References& annotation_references() noexcept { return annotation_references_; }
  Extension& extension();
  Extension* find_extension();

  void resolve_references() override;
  // The project's parts of the document's two-pass update; each reports whether it changed
  // anything.
  virtual bool update_1() { return false; }
  virtual bool update_2() { return false; }

 private:
  JSON::Array_of<Reference<Dataset>> datasets_{*this, "DatasetRef"};
  Abstract_References annotation_references_{*this};
  Extension_Link<Extension> extension_{annotation_references_};
};

class TARNIO_EXPORT Folder : public Element_with_ID<Folder> {
 public:
  static constexpr std::string_view kIDPrefix = "Folder";
  class Extension;   // tarnio/ome/extensions/project_extensions.h
  class Processing;  // the extension's record of how the folder's images are processed

  using Element_with_ID<Folder>::Element_with_ID;
  static JSON::Array_of<Folder>* root_list(Root& root, bool provide);

  JSON::Array_of<Reference<Folder>>& folder_references() noexcept { return folders_; }
  JSON::Array_of<Reference<Image>>& image_references() noexcept { return images_; }
  JSON::Array_of<Reference<ROI>>& ROI_references() noexcept { return rois_; }
  Abstract_References& annotation_references() noexcept { return annotation_references_; }
  Extension& extension();
  Extension* find_extension();

  void set_has_bookmark(bool value);
  void set_is_overview(bool value);
  // Removes the grid of the extension's processing record.
  void reset_processing_grid();

  void resolve_references() override;

 private:
  JSON::Array_of<Reference<Folder>> folders_{*this, "FolderRef"};
  JSON::Array_of<Reference<Image>> images_{*this, "ImageRef"};
  JSON::Array_of<Reference<ROI>> rois_{*this, "ROIRef"};
  Abstract_References annotation_references_{*this};
  Extension_Link<Extension> extension_{annotation_references_};
};

}  // namespace OME
