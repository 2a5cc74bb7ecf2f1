#pragma once

// The operating system's side of error reports: error texts and thread identity.

#include <cstdint>
#include <string>

namespace Tarn::errors::internal {

// The system's English text for an errno value; "Unknown system error." when it has none.
std::string os_error_text(int code);

// The text for the calling thread's current errno.
std::string os_error_text();

// The kernel's id of the calling thread.
std::uint32_t current_thread_id();

}  // namespace Tarn::errors::internal
