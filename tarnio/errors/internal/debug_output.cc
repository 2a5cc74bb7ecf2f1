#include "tarnio/errors/internal/debug_output.h"

#include <cstdio>
#include <cstdlib>

namespace Tarn::errors::internal {

void debug_output(std::string_view text) {
  static const bool enabled = std::getenv("TARN_DEBUG") != nullptr;
  if (!enabled) return;
  // One call, so that lines of different threads do not interleave.
  std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace Tarn::errors::internal
