#pragma once

// Property paths: one string addressing an entry of a TProp tree. Segments are struct member
// names ("a.b", "a/b"), cell indices ("{1,2}"), array indices ("(0,3)") and slash indices
// ("a/2"); indices are zero-based. TProp::getp, TPropstruct::getp and operator[] resolve them.
//
// Creation (create = true) makes missing entries on the way: a "none" value reached by a name
// becomes a struct, by "{...}" a cell array, by "(...)" a double array (when the path ends there)
// or a struct array (when it goes on); arrays of every kind grow through indices beyond their
// size, in their last dimension while they hold elements, by at most 2^20 new elements for one
// path. Locked values are neither changed nor grown ("Property is locked."). A path that fails
// keeps what it made before the failure.
//
// A single cell is reached by the index 0 ("c{0}", "c/0"). A path that ends at an element of a
// value array or of a struct array resolves to the array and the element's position; getp then
// fails with "Path ended at value array element.".

#include <string>
#include <string_view>
#include <utility>

#include "tarnio/export.h"
#include "tarnio/props/prop.h"

// The entry at `path` below `root`, and the position inside it when the path ends at an element
// of a value array (empty otherwise). Failures go to the error sink (error_sink.h) and give a
// null pointer.
TARNIO_EXPORT std::pair<TProp*, TPropSize> tarn_prop_getp_ex(TProp* root, std::string_view path,
                                                             std::string* error, bool create);
// A non-empty name of letters, digits, '_' and '-' that starts with a letter or '_'.
TARNIO_EXPORT bool tarn_prop_is_valid_name(std::string_view name) noexcept;
// Whether `path` resolves, with creation, against a "none" value: its syntax and structural
// consistency, not the existence of anything.
TARNIO_EXPORT bool tarn_prop_is_valid_path(std::string_view path) noexcept;
