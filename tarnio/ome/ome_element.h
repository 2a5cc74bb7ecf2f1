#pragma once

// OME::OME: the root element of a document, holding its lists of images, projects, datasets,
// folders, instruments, ROIs, screens, plates, experiments and experimenters, its structured
// annotations, its creator and its UUID. Includes every element class of the model.

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/element_classes.h"
#include "tarnio/ome/element_members.h"
#include "tarnio/ome/object_of_documents.h"

namespace OME {

class TARNIO_EXPORT OME : public OME_Members<Element<>> {
 public:
  using OME_Members<Element<>>::OME_Members;
};

}  // namespace OME
