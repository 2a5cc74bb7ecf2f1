#pragma once

// The light path of a channel: the filters and the dichroic between the light source and the
// detector.

#include "tarnio/export.h"
#include "tarnio/ome/element_members.h"
#include "tarnio/ome/object_of_documents.h"

namespace OME {

class TARNIO_EXPORT Light_Path : public Light_Path_Members<Element<>> {
 public:
  using Light_Path_Members<Element<>>::Light_Path_Members;
};

}  // namespace OME
