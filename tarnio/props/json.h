#pragma once

// The JSON form of property values. A tree survives tree -> JSON -> tree exactly (kinds, shapes,
// NaN, infinities, -0.0, 64-bit extremes, ids and user bits; its text must be UTF-8 and its
// member names valid), and a JSON document without the key "#type" imports as the natural tree
// and survives JSON -> tree -> JSON as an equal JSON value.
//
// Plain JSON, both ways:
//   null                 "empty"
//   true, false          a logical scalar
//   a number             a double scalar; an integer that no double holds exactly (2^53 + 1) is
//                        an int64 scalar, or a uint64 scalar beyond the int64 range
//   a string             a char value
//   an object            a single struct, members in the order of the keys
//   []                   a double array of shape [0]
//   a list of numbers    a double array of rank 1 (when every number imports as a double)
//   a list of booleans   a logical array of rank 1
//   a list of strings    a char array (TProparray<TPropstring>) of rank 1
//   a list of objects    a struct array of rank 1 (when none of them is tagged)
//   any other list       a cell array of rank 1 ([[1, 2], [3]] is a cell of two double arrays)
// Object keys that are valid member names (tarn_prop_is_valid_name) and do not start with "_-"
// are the member names. Every other key is escaped: "_-" followed by the key with each byte
// other than a letter, digit or '_' written as '-' and two upper-case hex digits ("my key" is
// "_-my-20key", "1abc" is "_-1abc", "" is "_-", "_-x" is "_-_-2Dx"); export reverses it.
//
// Everything else is a tagged object, marked by the key "#type" (keys starting with '#' are no
// member names, so no struct is mistaken for one):
//   {"#type": KIND, "#size": [SIZES], "#id": ID, "#bits": BITS, "#data": DATA}
// KIND: "double", "single", "int8", "uint8", "int16", "uint16", "int32", "uint32", "int64",
// "uint64", "logical", "cplx_single", "cplx_double", "rgb", "rgb32", "char", "struct", "cell",
// "empty" or "none". "#size", the shape in dimension order, is present exactly for arrays (rank
// 1 and more); without it the value is a scalar, a single string, struct or cell. "#id" (the
// value's id) and "#bits" (the user bits of an array or scalar) are written when not 0. DATA is
// one element, or for arrays the list of all elements in column-major order (the first index
// varies fastest), each element as:
//   integer kinds, rgb32   a JSON integer
//   double, single         a number, or "NaN", "Inf", "-Inf"; a single as the shortest number
//                          that reads back to it (0.1f is 0.1)
//   logical                true or false
//   cplx_single/_double    [real, imaginary]
//   rgb                    [red, green, blue]
//   char                   a string
//   struct                 an object keyed by the member names themselves, not escaped
//   cell                   any value of this form, plain or tagged
// "empty" and "none" have no "#size" and no "#data". A value is tagged exactly when its plain
// form would import as something else, e.g. {"#type": "none"}, {"#type": "double", "#data":
// "NaN"}, {"#type": "int16", "#data": 5}, a double array of rank 2, a cell that holds only
// numbers, a value with an id, or a struct with a name that starts with "_-" but is not one
// that escaping makes.
//
// Errors are std::runtime_error: text that is not JSON gives the JSON reader's message
// ("JSON parse error at line ..."); a malformed tagged value gives "Invalid property JSON at
// '{JSON Pointer}': {reason}" (no location for the root), and nothing is allocated for a
// "#size" that "#data" does not fill. Values nested deeper than Tarn::props::kMaxXmlDepth
// levels fail both ways with "Property JSON nested deeper than 1000 levels.". Export fails with
// "Cannot write the property value at '{path}' as JSON: {reason}" for text that is not valid
// UTF-8 and member names that are not valid names. The info record is not part of the form.
// Thread-safe: no shared state.

#include <string>

#include "tarnio/export.h"
#include "tarnio/json/value.h"
#include "tarnio/props/prop.h"

// JSON text of a value; compact for indent < 0, else indented by `indent` spaces per level.
TARNIO_EXPORT std::string tarn_export_json(const TProp& value, int indent = -1);
// The value of JSON text; std::runtime_error for text that is not JSON (the JSON reader's
// message) or a tagged object that is malformed.
TARNIO_EXPORT TProp tarn_import_json(const std::string& text);

namespace JSON {

// Reads the property value that `json` describes into `value`.
TARNIO_EXPORT void get_value(const Value& json, TProp& value);
// Sets `json` to the JSON form of `value`.
TARNIO_EXPORT void set_value(Value& json, const TProp& value);

}  // namespace JSON
