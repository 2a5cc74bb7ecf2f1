#pragma once

// Plain functions over TarnError for callers that cannot use its class interface. The message
// is a printf format without arguments: a literal percent sign must be written "%%".
// tarn_err and tarn_lasterr throw by design; the two queries never throw.

#include "tarnio/export.h"

extern "C" {

// Throws a TarnError raised at (function, file, line) with the given message.
[[noreturn]] TARNIO_EXPORT void tarn_err(const char* message, const char* function,
                                         const char* file, int line);
// As tarn_err, with the error id set to 1.
[[noreturn]] TARNIO_EXPORT void tarn_lasterr(const char* message, const char* function,
                                             const char* file, int line);
// Delivers the message as a warning to the warning callback and returns.
TARNIO_EXPORT void tarn_warn(const char* message, const char* function, const char* file, int line);

// The id and the composed text of the error processed last in this process.
TARNIO_EXPORT int tarn_get_last_error();
TARNIO_EXPORT const char* tarn_get_last_error_string();
}
