#include "tarnio/ome/extensions/image_extensions.h"

#include "tarnio/ome/internal/extension_access.h"

namespace OME {

Image::Image(JSON::Proxy& parent, JSON::Value& node) : Element_with_ID<Image>(parent, node),
      extension_(std::make_unique<Reference<Extension>>(annotation_references_)),
      modulo_(std::make_unique<Reference<Modulo>>(annotation_references_)) {}
Image::~Image() = default;
Image::Extension& Image::extension() { return **extension_; }
Image::Modulo& Image::modulo() { return **modulo_; }
Image::Extension* Image::find_extension() { return internal::find_extension(*extension_); }
Image::Modulo* Image::find_modulo() { return internal::find_extension(*modulo_); }
void Image::resolve_extension() {
  internal::resolve_extension(annotation_references_, *extension_);
  modulo_->resolve_references();
}

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

Rectangle::Rectangle(JSON::Proxy& parent, JSON::Value& node) : Shape(parent, node),
      extension_(std::make_unique<Reference<Extension>>(annotation_references_)) {}
Rectangle::~Rectangle() = default;
Rectangle::Extension& Rectangle::extension() { return **extension_; }
Rectangle::Extension* Rectangle::find_extension() { return internal::find_extension(*extension_); }
void Rectangle::resolve_references() {
  internal::resolve_extension(annotation_references_, *extension_);
}

}  // namespace OME
