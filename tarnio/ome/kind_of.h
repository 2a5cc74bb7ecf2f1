#pragma once

// Kind_of<Group>: the base of the element kinds that share the list of a substitution group
// (Laser in the LightSource list, Rectangle in the Shape list, XMLAnnotation in the Annotation
// list). The list holds Group objects; a kind views the same item with the members of its own
// element type: Laser(light_source). The member "#kind" names the kind of an item (Group's
// kind() and set_kind()).
//
// A kind view carries no ID registration of its own (the Group object holds it) and lives no
// longer than its item stays in place in the list. Not thread-safe.

#include "tarnio/ome/object_of_documents.h"

namespace OME {

template <typename Group>
class Kind_of : public Element<> {
 public:
  using Element<>::Element;
  explicit Kind_of(Group& item) : Element<>(item.parent(), item.node()) {}
};

}  // namespace OME
