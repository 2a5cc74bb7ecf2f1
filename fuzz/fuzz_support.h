#pragma once

// Helpers shared by the fuzz targets: the input as text, and the report of a broken property
// that stops the run.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace tarnio_fuzz {

// The fuzz input as a string of bytes.
inline std::string input_text(const std::uint8_t* data, std::size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

// Prints "<target>: <what>", the details below it, and aborts, which the engine reports as a
// crash with the input that caused it.
[[noreturn]] inline void fail(std::string_view target, std::string_view what,
                              std::string_view detail) {
  std::fprintf(stderr, "%.*s: %.*s\n%.*s\n", static_cast<int>(target.size()), target.data(),
               static_cast<int>(what.size()), what.data(), static_cast<int>(detail.size()),
               detail.data());
  std::abort();
}

}  // namespace tarnio_fuzz
