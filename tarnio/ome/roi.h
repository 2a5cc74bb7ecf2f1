#pragma once

// Regions of interest and their shapes.

#include <memory>

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/element_members.h"
#include "tarnio/ome/element_with_id.h"
#include "tarnio/ome/extension_link.h"
#include "tarnio/ome/kind_of.h"

namespace OME {

class Root;

// Any kind of shape; Ellipse(shape) and the other kinds view it with the members of their
// own element type.
class TARNIO_EXPORT Shape : public Shape_Members<Element_with_ID<Shape>> {
 public:
  using Shape_Members<Element_with_ID<Shape>>::Shape_Members;

  // The element object of a shape item: a Rectangle for a rectangle (the kind of an item that
  // names none), a Shape for the other kinds.
  static std::unique_ptr<Shape> create(JSON::Proxy& parent, JSON::Value& item);
};

// The element object of a rectangle item of the Shape list, so that its extension link lives
// as long as the item. The other kinds view an item with their own members: Ellipse(shape).
class TARNIO_EXPORT Rectangle : public Rectangle_Members<Shape> {
 public:
  class Extension;  // tarnio/ome/extensions/image_extensions.h

  using Rectangle_Members<Shape>::Rectangle_Members;

  Extension& extension();
  Extension* find_extension();

  void resolve_references() override;

 private:
  Extension_Link<Extension> extension_{annotation_references()};
};

class TARNIO_EXPORT ROI : public ROI_Members<Element_with_ID<ROI>> {
 public:
  using ROI_Members<Element_with_ID<ROI>>::ROI_Members;
  static JSON::Array_of<ROI>* root_list(Root& root, bool provide);
};

}  // namespace OME
