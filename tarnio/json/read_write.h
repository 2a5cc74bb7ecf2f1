#pragma once

// Reading JSON text into a JSON::Value and writing a value as JSON text.
//
// Reading is strict RFC 8259: one value with optional white space around it; the text must be
// valid UTF-8; no comments, trailing commas, NaN, Infinity or leading zeros; escapes and
// surrogate pairs are decoded, a lone surrogate escape is an error; a key repeated within one
// object is an error; nesting deeper than kMaxDepth levels is an error. Integers that fit a
// signed 64-bit integer are held as one, larger positive ones as an unsigned 64-bit integer, and
// all other numbers as doubles (a number beyond the range of a double is an error).
// Every error is a std::runtime_error
//   "JSON parse error at line {line}, column {column}: {reason}."
// where lines and columns count from 1 and columns count bytes.
//
// Writing gives valid UTF-8: control characters, '"' and '\' are escaped, the rest of the text
// is copied. A string or key that is not valid UTF-8 is refused, not escaped (no escape would
// read back as the same bytes): std::runtime_error
//   "JSON write error: a string or key is not valid UTF-8."
// So what write returns, read accepts. Doubles are written as the shortest text that reads back to
// the same double; NaN and infinities, which JSON cannot express, are written as null.
//
// Thread-safe: no shared state.

#include <filesystem>
#include <string>
#include <string_view>

#include "tarnio/export.h"
#include "tarnio/json/value.h"

namespace JSON {

inline constexpr int kMaxDepth = 10000;

TARNIO_EXPORT Value read(std::string_view text);
// Reads a whole file; a file that cannot be read is a std::runtime_error
// "Could not read JSON file '{path}': {system text}".
TARNIO_EXPORT Value read_file(const std::filesystem::path& path);

// Compact with indent < 0; otherwise one member or item per line, indented by `indent` spaces
// per level, with ": " between key and value.
TARNIO_EXPORT std::string write(const Value& value, int indent = -1);

}  // namespace JSON
