// The lists in which references find their referents, and the reference walks of the elements.

#include <string>
#include <vector>

#include "tarnio/json/read_write.h"
#include "tarnio/ome/reference.h"
#include "tarnio/ome/root.h"

namespace OME {
namespace {

template <typename T>
void resolve_all(JSON::Array_of<T>& list) {
  for (T& element : list) element.resolve_references();
}

template <typename T>
void resolve_all(JSON::One_of<T>& slot) {
  if (T* element = slot.get()) element->resolve_references();
}

OME* ome_of(Root& root, bool provide) { return provide ? &root.provide_ome() : root.ome(); }

}  // namespace

std::size_t count_ID_holders(const JSON::Value& document, const JSON::Value& id) {
  std::size_t count = 0;
  std::vector<const JSON::Value*> pending{&document};
  while (!pending.empty()) {
    const JSON::Value* value = pending.back();
    pending.pop_back();
    if (value->is_list()) {
      for (const JSON::Value& item : value->items()) pending.push_back(&item);
    } else if (value->is_object()) {
      for (const JSON::Member& member : value->members()) {
        if (member.key() == "ID" && member.value() == id) ++count;
        pending.push_back(&member.value());
      }
    }
  }
  return count;
}

std::string ID_text(const JSON::Value& id) {
  return id.is_string() ? std::string(id.get_string()) : JSON::write(id);
}

JSON::Array_of<Image>* Image::root_list(Root& root, bool provide) {
  OME* ome = ome_of(root, provide);
  return ome == nullptr ? nullptr : &ome->images();
}
JSON::Array_of<Project>* Project::root_list(Root& root, bool provide) {
  OME* ome = ome_of(root, provide);
  return ome == nullptr ? nullptr : &ome->projects();
}
JSON::Array_of<Dataset>* Dataset::root_list(Root& root, bool provide) {
  OME* ome = ome_of(root, provide);
  return ome == nullptr ? nullptr : &ome->datasets();
}
JSON::Array_of<Folder>* Folder::root_list(Root& root, bool provide) {
  OME* ome = ome_of(root, provide);
  return ome == nullptr ? nullptr : &ome->folders();
}
JSON::Array_of<Instrument>* Instrument::root_list(Root& root, bool provide) {
  OME* ome = ome_of(root, provide);
  return ome == nullptr ? nullptr : &ome->instruments();
}
JSON::Array_of<ROI>* ROI::root_list(Root& root, bool provide) {
  OME* ome = ome_of(root, provide);
  return ome == nullptr ? nullptr : &ome->ROIs();
}
JSON::Array_of<Annotation>* Annotation::root_list(Root& root, bool provide) {
  if (provide) return &root.annotations();
  OME* ome = root.ome();
  Structured_Annotations* block = ome == nullptr ? nullptr : ome->structured_annotations().get();
  return block == nullptr ? nullptr : &block->annotations();
}
JSON::Array_of<Objective>* Objective::root_list(Root& root, bool provide) {
  return provide ? &root.provide_objectives() : root.objectives();
}
JSON::Array_of<Detector>* Detector::root_list(Root& root, bool provide) {
  return provide ? &root.provide_detectors() : root.detectors();
}
JSON::Array_of<Filter>* Filter::root_list(Root& root, bool provide) {
  return provide ? &root.provide_filters() : root.filters();
}
JSON::Array_of<Light_Source>* Light_Source::root_list(Root& root, bool provide) {
  return provide ? &root.provide_light_sources() : root.light_sources();
}
JSON::Array_of<Dye>* Dye::root_list(Root& root, bool provide) {
  return provide ? &root.provide_dyes() : root.dyes();
}
JSON::Array_of<Band>* Band::root_list(Root& root, bool provide) {
  return provide ? &root.provide_bands() : root.bands();
}

void OME::resolve_references() {
  resolve_all(projects_);
  resolve_all(datasets_);
  resolve_all(folders_);
  resolve_all(instruments_);
  resolve_all(images_);
  resolve_all(structured_annotations_);
  resolve_all(rois_);
}

void Structured_Annotations::resolve_references() { resolve_all(annotations_); }

void Project::resolve_references() {
  resolve_all(datasets_);
  extension_.resolve_references();
}

void Instrument::resolve_references() {
  resolve_all(light_sources_);
  resolve_all(detectors_);
  resolve_all(objectives_);
  resolve_all(filters_);
  extension_.resolve_references();
}

void Image::Pixels::resolve_references() { resolve_all(channels_); }

void Dataset::resolve_references() { resolve_all(images_); }

void Folder::resolve_references() {
  resolve_all(folders_);
  resolve_all(images_);
  resolve_all(rois_);
  extension_.resolve_references();
}

void Image::resolve_references() {
  resolve_all(pixels_);
  resolve_all(instrument_);
  resolve_all(rois_);
  extension_.resolve_references();
  modulo_.resolve_references();
}

void ROI::resolve_references() { resolve_all(union_); }

void ROI::Union::resolve_references() { resolve_all(shapes_); }

void Image::reset_ID() {
  Element_with_ID<Image>::reset_ID();
  if (Pixels* pixels = pixels_.get()) {
    pixels->reset_ID();
    for (Channel& channel : pixels->channels()) channel.reset_ID();
  }
}

}  // namespace OME
