#pragma once

// The error sink of the property tree. Operations that can fail (array indexing, paths) take an
// optional std::string* for the message: null throws it as std::runtime_error,
// Tarn::props::ignore_errors drops it, any other string receives it and the operation returns
// its failure value (npos, an empty vector or a null pointer).

#include <string>

#include "tarnio/export.h"

namespace Tarn::props {

// The distinguished sink that drops messages. Never dereference it.
TARNIO_EXPORT extern std::string* const ignore_errors;

}  // namespace Tarn::props
