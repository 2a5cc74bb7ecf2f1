#pragma once

// Projects, datasets and folders, which group images, and the dyes and bands of a project, the
// maker's own element types, which a project keeps in its extension.

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/element_members.h"
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

class TARNIO_EXPORT Dataset : public Dataset_Members<Element_with_ID<Dataset>> {
 public:
  using Dataset_Members<Element_with_ID<Dataset>>::Dataset_Members;
  static JSON::Array_of<Dataset>* root_list(Root& root, bool provide);
};

class TARNIO_EXPORT Project : public Project_Members<Element_with_ID<Project>> {
 public:
  // Holds the project's dyes and bands; tarnio/ome/extensions/project_extensions.h.
  class Extension;

  using Project_Members<Element_with_ID<Project>>::Project_Members;
  static JSON::Array_of<Project>* root_list(Root& root, bool provide);

  Extension& extension();
  Extension* find_extension();

  void resolve_references() override;
  // The project's parts of the document's two-pass update; each reports whether it changed
  // anything.
  virtual bool update_1() { return false; }
  virtual bool update_2() { return false; }

 private:
  Extension_Link<Extension> extension_{annotation_references()};
};

class TARNIO_EXPORT Folder : public Folder_Members<Element_with_ID<Folder>> {
 public:
  class Extension;   // tarnio/ome/extensions/project_extensions.h
  class Processing;  // the extension's record of how the folder's images are processed

  using Folder_Members<Element_with_ID<Folder>>::Folder_Members;
  static JSON::Array_of<Folder>* root_list(Root& root, bool provide);

  Extension& extension();
  Extension* find_extension();

  void set_has_bookmark(bool value);
  void set_is_overview(bool value);
  // Removes the grid of the extension's processing record.
  void reset_processing_grid();

  void resolve_references() override;

 private:
  Extension_Link<Extension> extension_{annotation_references()};
};

}  // namespace OME
