#pragma once

// Regions of interest and their shapes.

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/element_with_id.h"

namespace OME {

class Root;

class TARNIO_EXPORT Shape : public Element_with_ID<Shape> {
 public:
  static constexpr std::string_view kIDPrefix = "Shape";
  using Element_with_ID<Shape>::Element_with_ID;
};

class TARNIO_EXPORT ROI : public Element_with_ID<ROI> {
 public:
  static constexpr std::string_view kIDPrefix = "ROI";
  using Element_with_ID<ROI>::Element_with_ID;
  static JSON::Array_of<ROI>* root_list(Root& root, bool provide);
};

}  // namespace OME
