#pragma once

// OME::OME: the root element of a document, holding its lists of images, projects, datasets,
// folders, instruments and ROIs, its structured annotations, its creator and its UUID.

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/annotation.h"
#include "tarnio/ome/image.h"
#include "tarnio/ome/instrument.h"
#include "tarnio/ome/object_of_documents.h"
#include "tarnio/ome/project.h"
#include "tarnio/ome/roi.h"

namespace OME {

class TARNIO_EXPORT OME : public Element<> {
 public:
  using Element<>::Element;

  JSON::Array_of<Project>& projects() noexcept { return projects_; }
  JSON::Array_of<Dataset>& datasets() noexcept { return datasets_; }
  JSON::Array_of<Folder>& folders() noexcept { return folders_; }
  JSON::Array_of<Instrument>& instruments() noexcept { return instruments_; }
  JSON::Array_of<Image>& images() noexcept { return images_; }
  JSON::One_of<Structured_Annotations>& structured_annotations() noexcept {
    return structured_annotations_;
  }
  JSON::Array_of<ROI>& ROIs() noexcept { return rois_; }

  void resolve_references() override;

 private:
  JSON::Array_of<Project> projects_{*this, "Project"};
  JSON::Array_of<Dataset> datasets_{*this, "Dataset"};
  JSON::Array_of<Folder> folders_{*this, "Folder"};
  JSON::Array_of<Instrument> instruments_{*this, "Instrument"};
  JSON::Array_of<Image> images_{*this, "Image"};
  JSON::One_of<Structured_Annotations> structured_annotations_{*this, "StructuredAnnotations"};
  JSON::Array_of<ROI> rois_{*this, "ROI"};
};

}  // namespace OME
