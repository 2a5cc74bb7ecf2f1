#pragma once

// Tarn::get_kalix: the description of a localization-data archive that a stack carries in its
// tag "kalix" (see tarnio/archive/archive.h), as stored there.

#include "tarnio/arrays/stack_info_interface.h"
#include "tarnio/export.h"
#include "tarnio/json/value.h"

namespace Tarn {

// A copy of the JSON value of the tag "kalix"; null when the stack has no such tag or the tag
// holds a property value. Reads the tag under its lock.
TARNIO_EXPORT JSON::Value get_kalix(arrays::StackInfoInterface& info);

}  // namespace Tarn
