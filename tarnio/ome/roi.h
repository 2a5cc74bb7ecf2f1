#pragma once

// Regions of interest and their shapes.

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/element_members.h"
#include "tarnio/ome/element_with_id.h"
#include "tarnio/ome/kind_of.h"

namespace OME {

class Root;

// Any kind of shape; Rectangle(shape) and the other kinds view it with the members of their
// own element type.
class TARNIO_EXPORT Shape : public Shape_Members<Element_with_ID<Shape>> {
 public:
  using Shape_Members<Element_with_ID<Shape>>::Shape_Members;
};

class TARNIO_EXPORT Rectangle : public Rectangle_Members<Kind_of<Shape>> {
 public:
  using Rectangle_Members<Kind_of<Shape>>::Rectangle_Members;
};

class TARNIO_EXPORT ROI : public ROI_Members<Element_with_ID<ROI>> {
 public:
  using ROI_Members<Element_with_ID<ROI>>::ROI_Members;
  static JSON::Array_of<ROI>* root_list(Root& root, bool provide);
};

}  // namespace OME
