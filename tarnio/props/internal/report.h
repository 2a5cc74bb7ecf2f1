#pragma once

// report(): hands a message to an error sink (see error_sink.h) and returns the failure value.

#include <fmt/format.h>

#include <stdexcept>
#include <string>
#include <utility>

#include "tarnio/props/error_sink.h"

namespace Tarn::props::internal {

template <typename Failure>
Failure report(std::string* sink, std::string message, Failure failure) {
  if (sink == nullptr) throw std::runtime_error(message);
  if (sink != ignore_errors) *sink = std::move(message);
  return failure;
}

// Formats the message first; nothing is formatted for an ignoring sink.
template <typename Failure, typename... Args>
Failure report(std::string* sink, Failure failure, fmt::format_string<Args...> format,
               Args&&... args) {
  if (sink == ignore_errors) return failure;
  return report(sink, fmt::format(format, std::forward<Args>(args)...), std::move(failure));
}

}  // namespace Tarn::props::internal
