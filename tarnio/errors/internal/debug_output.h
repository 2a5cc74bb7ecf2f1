#pragma once

// The debugger output of composed errors: silent unless the environment variable TARN_DEBUG
// is set when the library first writes to it, then standard error. Thread-safe.

#include <string_view>

namespace Tarn::errors::internal {

void debug_output(std::string_view text);

}  // namespace Tarn::errors::internal
