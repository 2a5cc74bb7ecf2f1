// Which class views an annotation item, and how extended elements find their annotations.

#include <fmt/format.h>

#include <string>
#include <unordered_map>

#include "tarnio/ome/errors.h"
#include "tarnio/ome/extensions/channel_extension.h"
#include "tarnio/ome/extensions/image_extensions.h"
#include "tarnio/ome/extensions/instrument_extensions.h"
#include "tarnio/ome/extensions/project_extensions.h"
#include "tarnio/ome/internal/extension_access.h"
#include "tarnio/ome/root.h"
#include "tarnio/ome/vendor.h"

namespace OME {
namespace {

using Factory = std::unique_ptr<Annotation> (*)(JSON::Proxy&, JSON::Value&);

template <typename E>
std::unique_ptr<Annotation> make(JSON::Proxy& parent, JSON::Value& item) {
  return std::make_unique<E>(parent, item);
}

template <typename E>
std::pair<const std::string, Factory> extension_kind() {
  return {vendor_namespace(E::kPath), &make<E>};
}

constexpr std::string_view kXMLAnnotation = "XMLAnnotation";

}  // namespace

std::unique_ptr<Annotation> Annotation::create(JSON::Proxy& parent, JSON::Value& item) {
  static const std::unordered_map<std::string, Factory> kinds{
      extension_kind<Channel::Extension>(),
      extension_kind<Detector::Extension>(),
      extension_kind<Folder::Extension>(),
      extension_kind<Image::Extension>(),
      extension_kind<Instrument::Extension>(),
      extension_kind<Light_Path::Extension>(),
      extension_kind<Objective::Extension>(),
      extension_kind<Project::Extension>(),
      extension_kind<Rectangle::Extension>(),
      {std::string(Image::Modulo::kNamespace), &make<Image::Modulo>}};
  const JSON::Value* kind = item.find("#kind");
  const JSON::Value* ns = item.find("Namespace");
  if ((kind == nullptr || (kind->is_string() && kind->get_string() == kXMLAnnotation)) &&
      ns != nullptr && ns->is_string()) {
    const auto found = kinds.find(std::string(ns->get_string()));
    if (found != kinds.end()) return found->second(parent, item);
  }
  return std::make_unique<Annotation>(parent, item);
}

std::string_view Annotation::annotation_namespace() const {
  const JSON::Value* ns = find_member("Namespace");
  return ns != nullptr && ns->is_string() ? ns->get_string() : std::string_view();
}

JSON::Value annotation_item(std::string_view annotation_namespace) {
  return JSON::Value::object({{"Namespace", annotation_namespace}, {"#kind", kXMLAnnotation}});
}

namespace internal {

Annotation* find_annotation(Root& root, const JSON::Value& id) {
  JSON::Array_of<Annotation>* annotations = Annotation::root_list(root, false);
  if (annotations == nullptr || annotations->list() == nullptr || !annotations->list()->is_list()) {
    return nullptr;
  }
  const auto position = root.ids().find(*annotations->list(), id);
  return position ? &(*annotations)[*position] : nullptr;
}

void check_annotation_references(Abstract_References& references) {
  for (Abstract_Reference& entry : references) {
    const JSON::Value* id = entry.ID();
    if (id != nullptr && find_annotation(references.owner().root(), *id) == nullptr) {
      throw Invalid_Argument(fmt::format("Incomplete data: missing {}.", ID_text(*id)));
    }
  }
}

}  // namespace internal
}  // namespace OME
