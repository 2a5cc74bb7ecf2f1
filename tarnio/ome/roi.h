#pragma once

// Regions of interest and their shapes.

#include <memory>

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/abstract_reference.h"
#include "tarnio/ome/element_with_id.h"
#include "tarnio/ome/extension_link.h"
#include "tarnio/ome/reference.h"

namespace OME {

class Root;

class TARNIO_EXPORT Shape : public Element_with_ID<Shape> {
 public:
  static constexpr std::string_view kIDPrefix = "Shape";
  using Element_with_ID<Shape>::Element_with_ID;

  // The element object of a shape item: a Rectangle for a rectangle (the kind of an item that
  // names none), a Shape for the other kinds.
  static std::unique_ptr<Shape> create(JSON::Proxy& parent, JSON::Value& item);
};

class TARNIO_EXPORT Rectangle : public Shape {
 public:
  class Extension;  // tarnio/ome/extensions/image_extensions.h

  using Shape::Shape;

  Abstract_References& annotation_references() noexcept { return annotation_references_; }
  Extension& extension();
  Extension* find_extension();

  void resolve_references() override;

 private:
  Abstract_References annotation_references_{*this};
  Extension_Link<Extension> extension_{annotation_references_};
};

class TARNIO_EXPORT ROI : public Element_with_ID<ROI> {
 public:
  static constexpr std::string_view kIDPrefix = "ROI";
  using Element_with_ID<ROI>::Element_with_ID;
  static JSON::Array_of<ROI>* root_list(Root& root, bool provide);

  // The shapes of the region, which together form it.
  class TARNIO_EXPORT Union : public Element<> {
   public:
    using Element<>::Element;
    JSON::Array_of<Shape>& shapes() noexcept { return shapes_; }
    void resolve_references() override;

   private:
    JSON::Array_of<Shape> shapes_{*this, "Shape"};
  };

  JSON::One_of<Union>& shape_union() noexcept { return union_; }
  void resolve_references() override;

 private:
  JSON::One_of<Union> union_{*this, "Union"};
};

}  // namespace OME
