#pragma once

// The stack info beyond the fixed stack header, as the JSON object stored in the stack record:
// axis labels and units, column labels and positions, data unit, stack position, timestamp and
// tags (property values in their JSON form, JSON values as they are). Only what differs from
// the defaults is stored. Stateless.

#include "tarnio/arrays/stack_info_imp.h"
#include "tarnio/json/value.h"

namespace Tarn::bf::internal {

JSON::Value stack_info_to_json(const arrays::StackInfoInterface& info);
// Applies `json` to `info`, whose shape is already set; call before locking it. Throws
// TarnError "Damaged stack info: {}" for members of the wrong kind or count.
void apply_stack_info_json(const JSON::Value& json, arrays::StackInfoImp& info);

}  // namespace Tarn::bf::internal
