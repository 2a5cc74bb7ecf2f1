#pragma once

// throw_tarn formats a message with "{}" placeholders and throws it as a TarnError raised with
// the default constructor, as the library raises all of its errors.

#include <fmt/format.h>

#include <string>
#include <utility>

#include "tarnio/errors/tarn_error.h"

namespace Tarn::errors::internal {

template <typename... Args>
[[noreturn]] void throw_tarn(fmt::format_string<Args...> format, Args&&... args) {
  throw TarnError()(fmt::format(format, std::forward<Args>(args)...));
}

}  // namespace Tarn::errors::internal
