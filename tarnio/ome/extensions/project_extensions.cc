#include "tarnio/ome/extensions/project_extensions.h"

#include "tarnio/ome/internal/extension_access.h"

namespace OME {

Project::Project(JSON::Proxy& parent, JSON::Value& node) : Element_with_ID<Project>(parent, node),
      extension_(std::make_unique<Reference<Extension>>(annotation_references_)) {}
Project::~Project() = default;
Project::Extension& Project::extension() { return **extension_; }
Project::Extension* Project::find_extension() { return internal::find_extension(*extension_); }
void Project::resolve_extension() {
  internal::resolve_extension(annotation_references_, *extension_);
}

void Project_Extension_Values::resolve_references() {
  for (Dye& dye : dyes_) dye.resolve_references();
  for (Band& band : bands_) band.resolve_references();
}

Folder::Folder(JSON::Proxy& parent, JSON::Value& node) : Element_with_ID<Folder>(parent, node),
      extension_(std::make_unique<Reference<Extension>>(annotation_references_)) {}
Folder::~Folder() = default;
Folder::Extension& Folder::extension() { return **extension_; }
Folder::Extension* Folder::find_extension() { return internal::find_extension(*extension_); }
void Folder::resolve_extension() {
  internal::resolve_extension(annotation_references_, *extension_);
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
