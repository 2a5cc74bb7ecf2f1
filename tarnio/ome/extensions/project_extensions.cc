#include "tarnio/ome/extensions/project_extensions.h"

#include "tarnio/ome/element_classes.h"
#include "tarnio/ome/internal/extension_access.h"

namespace OME {

template class Extension_Link<Project::Extension>;
template class Extension_Link<Folder::Extension>;

Project::Extension& Project::extension() { return extension_.provide(); }
Project::Extension* Project::find_extension() { return extension_.find(); }
Folder::Extension& Folder::extension() { return extension_.provide(); }
Folder::Extension* Folder::find_extension() { return extension_.find(); }

void Project_Extension_Values::resolve_references() {
  for (Dye& dye : dyes_) dye.resolve_references();
  for (Band& band : bands_) band.resolve_references();
}

void Folder::set_has_bookmark(bool value) { extension().values().set_value("has_bookmark", value); }
void Folder::set_is_overview(bool value) { extension().values().set_value("is_overview", value); }
void Folder::reset_processing_grid() {
  Extension* extension = find_extension();
  Folder_Extension_Values* values = extension == nullptr ? nullptr : extension->find_values();
  Processing* processing = values == nullptr ? nullptr : values->processing().get();
  if (processing != nullptr) processing->grid().reset();
}

}  // namespace OME
