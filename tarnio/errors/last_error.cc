#include "tarnio/errors/last_error.h"

#include "tarnio/errors/internal/last_error_state.h"
#include "tarnio/errors/tarn_error.h"

namespace {

// The message is deliberately the format: callers double their percent signs.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
TarnError make_error(const char* message, const char* function, const char* file, int line) {
  TarnError error(function, file, line);
  error(message);
  return error;
}
#pragma GCC diagnostic pop

}  // namespace

void tarn_err(const char* message, const char* function, const char* file, int line) {
  throw make_error(message, function, file, line);
}

void tarn_lasterr(const char* message, const char* function, const char* file, int line) {
  TarnError error = make_error(message, function, file, line);
  throw error(1);
}

void tarn_warn(const char* message, const char* function, const char* file, int line) {
  make_error(message, function, file, line).do_warn();
}

int tarn_get_last_error() { return Tarn::errors::internal::last_error_id(); }

const char* tarn_get_last_error_string() { return Tarn::errors::internal::last_error_text(); }
