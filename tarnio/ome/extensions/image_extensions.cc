#include "tarnio/ome/extensions/image_extensions.h"

#include "tarnio/ome/element_classes.h"
#include "tarnio/ome/internal/extension_access.h"

namespace OME {

template class Extension_Link<Image::Extension>;
template class Extension_Link<Image::Modulo>;
template class Extension_Link<Rectangle::Extension>;

Image::Extension& Image::extension() { return extension_.provide(); }
Image::Extension* Image::find_extension() { return extension_.find(); }
Image::Modulo& Image::modulo() { return modulo_.provide(); }
Image::Modulo* Image::find_modulo() { return modulo_.find(); }
Rectangle::Extension& Rectangle::extension() { return extension_.provide(); }
Rectangle::Extension* Rectangle::find_extension() { return extension_.find(); }

void Image_Extension_Values::resolve_references() {
  if (Reference<const Image>* source = source_.get()) source->resolve_references();
  for (Reference<const Image>& parameter : parameters_) parameter.resolve_references();
}

std::unique_ptr<Shape> Shape::create(JSON::Proxy& parent, JSON::Value& item) {
  const JSON::Value* kind = item.find("#kind");
  if (kind == nullptr || (kind->is_string() && kind->get_string() == "Rectangle")) {
    return std::make_unique<Rectangle>(parent, item);
  }
  return std::make_unique<Shape>(parent, item);
}

void Rectangle::resolve_references() {
  Rectangle_Members<Shape>::resolve_references();
  extension_.resolve_references();
}

}  // namespace OME
