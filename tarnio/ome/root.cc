#include "tarnio/ome/root.h"

#include <fmt/format.h>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <stdexcept>

#include "tarnio/ome/errors.h"
#include "tarnio/ome/extensions/project_extensions.h"
#include "tarnio/ome/ome_xml.h"

namespace OME {
namespace {

constexpr std::string_view kUUIDPrefix = "urn:uuid:";

// The first element of `list` whose ID equals `id`, or Invalid_Argument with `message`.
template <typename T>
T& find_in(JSON::Array_of<T>* list, const JSON::Value& id, std::string_view message) {
  if (list != nullptr && list->list() != nullptr && list->list()->is_list()) {
    if (const auto position = find_ID(*list->list(), id)) return (*list)[*position];
  }
  throw Invalid_Argument(fmt::format(fmt::runtime(message), ID_text(id)));
}

template <typename T>
T* first_of(JSON::Array_of<T>* list) {
  return list == nullptr || list->empty() ? nullptr : &list->front();
}

template <typename T>
T& provide_first_of(JSON::Array_of<T>& list) {
  return list.empty() ? list.append() : list.front();
}

}  // namespace

Root& Object_of_Documents::root() const noexcept { return static_cast<Root&>(*root_); }

Root::Root() : Object_of_Documents(*this, ids_, tree_), tree_(JSON::Value::object()) {}

Root::~Root() = default;

void Root::clear() {
  ome_.reset();
  ids_.clear();
  tree_ = JSON::Value::object();
}

void Root::assign(JSON::Value tree) {
  clear();
  tree_ = std::move(tree);
}

void Root::read_XML(std::string_view xml) {
  assign(read_OME_XML(xml));
  resolve_references();
}

std::string Root::XML() const { return write_OME_XML(tree_); }

void Root::write_XML(std::ostream& out) const { out << XML(); }

std::optional<Root::UUID_Bytes> Root::UUID() const {
  const OME* element = const_cast<Root*>(this)->ome_.get();
  const JSON::Value* text = element == nullptr ? nullptr : element->find_member("UUID");
  if (text == nullptr) return std::nullopt;
  std::string_view uuid = text->is_string() ? text->get_string() : std::string_view();
  if (uuid.starts_with(kUUIDPrefix)) uuid.remove_prefix(kUUIDPrefix.size());
  try {
    const boost::uuids::uuid parsed = boost::uuids::string_generator()(uuid.begin(), uuid.end());
    UUID_Bytes bytes;
    std::copy(parsed.begin(), parsed.end(), bytes.begin());
    return bytes;
  } catch (const std::runtime_error& error) {
    throw Invalid_UUID(error.what());
  }
}

void Root::reset_UUID() {
  const boost::uuids::uuid uuid = boost::uuids::random_generator()();
  provide_ome().set_member("UUID", fmt::format("{}{}", kUUIDPrefix, boost::uuids::to_string(uuid)));
}

std::string_view Root::creator() const {
  const OME* element = const_cast<Root*>(this)->ome_.get();
  const JSON::Value* text = element == nullptr ? nullptr : element->find_member("Creator");
  return text != nullptr && text->is_string() ? text->get_string() : std::string_view();
}

void Root::set_creator(std::string_view creator) { provide_ome().set_member("Creator", creator); }

JSON::Array_of<Annotation>& Root::annotations() {
  return provide_ome().structured_annotations().provide().annotations();
}

// The first_* functions create nothing, so that lookups leave the document unchanged.
Folder* Root::first_folder() { return first_of(ome() ? &ome()->folders() : nullptr); }
Instrument* Root::first_instrument() { return first_of(ome() ? &ome()->instruments() : nullptr); }
Project* Root::first_project() { return first_of(ome() ? &ome()->projects() : nullptr); }
Folder& Root::provide_first_folder() { return provide_first_of(folders()); }
Instrument& Root::provide_first_instrument() { return provide_first_of(instruments()); }
Project& Root::provide_first_project() { return provide_first_of(projects()); }

JSON::Array_of<Objective>* Root::objectives() {
  Instrument* instrument = first_instrument();
  return instrument == nullptr ? nullptr : &instrument->objectives();
}
JSON::Array_of<Detector>* Root::detectors() {
  Instrument* instrument = first_instrument();
  return instrument == nullptr ? nullptr : &instrument->detectors();
}
JSON::Array_of<Filter>* Root::filters() {
  Instrument* instrument = first_instrument();
  return instrument == nullptr ? nullptr : &instrument->filters();
}
JSON::Array_of<Light_Source>* Root::light_sources() {
  Instrument* instrument = first_instrument();
  return instrument == nullptr ? nullptr : &instrument->light_sources();
}
// The values of the first project's extension; created nothing.
Project_Extension_Values* project_values(Root& root) {
  Project* project = root.first_project();
  Project::Extension* extension = project == nullptr ? nullptr : project->find_extension();
  return extension == nullptr ? nullptr : extension->find_values();
}
JSON::Array_of<Dye>* Root::dyes() {
  Project_Extension_Values* values = project_values(*this);
  return values == nullptr ? nullptr : &values->dyes();
}
JSON::Array_of<Band>* Root::bands() {
  Project_Extension_Values* values = project_values(*this);
  return values == nullptr ? nullptr : &values->bands();
}
JSON::Array_of<Dye>& Root::provide_dyes() {
  return provide_first_project().extension().values().dyes();
}
JSON::Array_of<Band>& Root::provide_bands() {
  return provide_first_project().extension().values().bands();
}

Band& Root::find_band(const JSON::Value& id) { return find_in(bands(), id, "Unknown band '{}'."); }
Detector& Root::find_detector(const JSON::Value& id) {
  return find_in(detectors(), id, "Unknown detector '{}'.");
}
Dye& Root::find_dye(const JSON::Value& id) { return find_in(dyes(), id, "Unknown dye '{}'."); }
Filter& Root::find_filter(const JSON::Value& id) {
  return find_in(filters(), id, "Unknown filter '{}'.");
}
Light_Source& Root::find_light_source(const JSON::Value& id) {
  return find_in(light_sources(), id, "Unknown light source '{}'.");
}
Objective& Root::find_objective(const JSON::Value& id) {
  return find_in(objectives(), id, "Unknown objective '{}'.");
}
// The const lookups create nothing: the lists they reach exist already or the lookup fails.
const Band& Root::find_band(const JSON::Value& id) const {
  return const_cast<Root*>(this)->find_band(id);
}
const Detector& Root::find_detector(const JSON::Value& id) const {
  return const_cast<Root*>(this)->find_detector(id);
}
const Dye& Root::find_dye(const JSON::Value& id) const {
  return const_cast<Root*>(this)->find_dye(id);
}
const Filter& Root::find_filter(const JSON::Value& id) const {
  return const_cast<Root*>(this)->find_filter(id);
}
const Light_Source& Root::find_light_source(const JSON::Value& id) const {
  return const_cast<Root*>(this)->find_light_source(id);
}
const Objective& Root::find_objective(const JSON::Value& id) const {
  return const_cast<Root*>(this)->find_objective(id);
}

void Root::resolve_references() {
  OME* element = ome_.get();
  if (element == nullptr) return;
  ids_.start_indexing();
  struct Stop {
    ID_Registry& ids;
    ~Stop() { ids.stop_indexing(); }
  } stop{ids_};
  element->resolve_references();
}

void Root::update() {
  update_1();
  update_2();
}

void Root::update_1() {
  Project* project = first_project();
  const bool project_changed = project != nullptr && project->update_1();
  if (ome() == nullptr) return;
  for (Image& image : ome()->images()) {
    if (!image.update_1() && !project_changed) break;
  }
}

void Root::update_2() {
  Project* project = first_project();
  if (project == nullptr || !project->update_2()) return;
  for (Image& image : ome()->images()) image.update_2();
}

}  // namespace OME
