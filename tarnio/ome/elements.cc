// The lists in which references find their referents, and the reference walks that the
// element classes add by hand.

#include <string>
#include <vector>

#include "tarnio/json/read_write.h"
#include "tarnio/ome/reference.h"
#include "tarnio/ome/root.h"

namespace OME {
namespace {

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

void Project::resolve_references() {
  Project_Members<Element_with_ID<Project>>::resolve_references();
  extension_.resolve_references();
}

void Instrument::resolve_references() {
  Instrument_Members<Element_with_ID<Instrument>>::resolve_references();
  extension_.resolve_references();
}

void Folder::resolve_references() {
  Folder_Members<Element_with_ID<Folder>>::resolve_references();
  extension_.resolve_references();
}

void Image::resolve_references() {
  Image_Members<Element_with_ID<Image>>::resolve_references();
  extension_.resolve_references();
  modulo_.resolve_references();
}

void Image::reset_ID() {
  Element_with_ID<Image>::reset_ID();
  if (Pixels* own_pixels = pixels().get()) {
    own_pixels->reset_ID();
    for (Channel& channel : own_pixels->channels()) channel.reset_ID();
  }
}

}  // namespace OME
