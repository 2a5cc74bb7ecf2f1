#pragma once

// OME-XML and its JSON form, the tree under OME::Root.
//
// The mapping, element by element, follows the OME-XML 2016-06 element tables:
// - The document is {"OME": [{...}]}: an object with one member, named after the root
//   element, holding a list with the root element's value.
// - An element with attributes or child elements becomes an object. Each attribute becomes a
//   member of its name, converted by its schema type: integers and floats become JSON numbers,
//   booleans JSON booleans, enumerations (units among them) stay strings and are checked
//   against their keywords; all other types stay strings as written.
// - Child elements become members named after the element, each a list in document order,
//   also for a single or optional child.
// - An element that has only text content (Description, AcquisitionDate, the Value of a
//   LongAnnotation) becomes its text, converted by its type. Text beside attributes (BinData,
//   the M of a map) becomes the member "#text".
// - Elements that may stand for one another share one list named after their base type:
//   "LightSource" (Laser, Arc, Filament, LightEmittingDiode, GenericExcitationSource), "Shape"
//   (Rectangle, Mask, Point, Ellipse, Line, Polyline, Polygon, Label) and, in
//   StructuredAnnotations, "Annotation" (every annotation kind). Each item names its element
//   in the member "#kind"; an item without one is written as the first kind of its list
//   (Laser, Rectangle, XMLAnnotation).
// - The Value of an XMLAnnotation holds foreign XML: {"#xml": "..."} keeps its content as text
//   and it is written back as it stands. The extension annotations of the vendor domain and
//   OME's modulo annotation are read into typed JSON members instead ("extension", "Modulo");
//   tarnio/ome/internal/typed_annotations.h gives their mapping.
// - What the tables do not know (content of a newer minor schema) is kept: an unknown
//   attribute as a string member, an unknown child element as its XML text in the list
//   "#any", written after the known children. The root's namespace declarations and
//   xsi:schemaLocation are kept as string members too.
//
// Writing is the inverse in the schema's element order: attributes in schema order, numbers
// in the shortest form that reads back to the same value ("1" for 1.0; NaN, INF and -INF as
// the schema writes them), booleans as "true" and "false". A document without namespace gets
// the OME 2016-06 namespace and its schema location.
//
// Errors are OME::Invalid_Data: "OME-XML parse error at offset {offset}: {reason}." for text
// that is not well-formed XML; "Unsupported OME-XML namespace '{ns}'." for an older OME
// namespace or another root element; "Invalid {type} '{text}' in {path}." for a value that
// does not parse as its schema type or an unknown keyword; "JSON value cannot be written as
// OME-XML: {reason}." for a tree of another shape.
//
// Thread-safe: no shared state.

#include <string>
#include <string_view>

#include "tarnio/export.h"
#include "tarnio/json/value.h"

namespace OME {

inline constexpr std::string_view kNamespace = "http://www.openmicroscopy.org/Schemas/OME/2016-06";

TARNIO_EXPORT JSON::Value read_OME_XML(std::string_view xml);
TARNIO_EXPORT std::string write_OME_XML(const JSON::Value& document);

}  // namespace OME
