#include "tarnio/errors/internal/os_error.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Tarn::errors::internal {

std::string os_error_text(int code) {
  // strerrordesc_np is thread-safe, never translated and null for codes the C library does not
  // know, where strerror_r would invent "Unknown error N".
  const char* text = code > 0 ? ::strerrordesc_np(code) : nullptr;
  return text != nullptr ? std::string(text) : std::string("Unknown system error.");
}

std::string os_error_text() { return os_error_text(errno); }

std::uint32_t current_thread_id() { return static_cast<std::uint32_t>(::gettid()); }

}  // namespace Tarn::errors::internal
