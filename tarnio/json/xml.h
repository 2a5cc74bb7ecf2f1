#pragma once

// The XML form of a JSON tree, as used for OME-XML: JSON::from_xml reads an XML document into
// a tree, JSON::to_xml writes such a tree back as an equivalent document.
//
// Conventions (from_xml):
// - The document becomes an object with one member, named after the root element, holding a
//   list with the root element's value: {"OME": [{...}]}.
// - An element becomes an object. Each attribute becomes a string member named by its
//   qualified name ("ID", "xmlns", "xsi:schemaLocation"); values stay text, as written.
// - Child elements become members named by their qualified name, each a list of the children
//   of that name in document order, also when there is only one: lists of elements and
//   optional single children look alike. Members follow the order in which attributes and
//   then child names first appear.
// - An element that has neither attributes nor child elements becomes its text as a JSON
//   string (<Description>text</Description> → "text"; <Foo/> → ""). Otherwise text content
//   that is not only white space becomes the member "#text".
// - When children of different names interleave (<A/><B/><A/>), the member "#order" lists the
//   names of all children in document order, so that to_xml restores it.
// - Comments and processing instructions are dropped; the XML declaration is implied. Text
//   and CDATA pieces of an element are joined; where text stood among child elements (mixed
//   content) is not kept.
// Malformed XML is a std::runtime_error "XML parse error at offset {offset}: {reason}.", also
// for what the tree cannot hold: no or several root elements, text outside the root, a
// repeated attribute, a child element named like an attribute, nesting deeper than
// JSON::kMaxDepth elements.
//
// to_xml is the inverse: a member whose value is a list becomes child elements (a string,
// number or boolean item becomes a text-only element, an object item an element), a string,
// number or boolean member becomes an attribute, "#text" the element's text, written before
// the child elements; "#order" restores the order of the children. Null members are left out.
// Numbers are written in the shortest form that reads back to the same value ("1" for 1.0),
// NaN and infinities as the XML Schema writes them ("NaN", "INF", "-INF"), booleans as "true"
// and "false". The document starts with an XML declaration for UTF-8 and is indented by
// `indent` spaces (line breaks without indentation for 0, neither for indent < 0). A tree that
// does not have this shape (for instance an object as a member's value, a key that is not an
// XML name, control characters in text) is a std::runtime_error
// "JSON value cannot be written as XML: {reason}.".
//
// Thread-safe: no shared state.

#include <string>
#include <string_view>

#include "tarnio/export.h"
#include "tarnio/json/value.h"

namespace JSON {

TARNIO_EXPORT Value from_xml(std::string_view xml);
TARNIO_EXPORT std::string to_xml(const Value& document, int indent = 2);

}  // namespace JSON
