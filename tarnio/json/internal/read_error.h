#pragma once

// The reader's error reports: "JSON parse error at line {line}, column {column}: {reason}." with
// the line and column of a byte offset in the text, and the checks the parser library leaves to
// us. Stateless.

#include <cstddef>
#include <string_view>

namespace JSON::internal {

// Throws std::runtime_error for the byte at `offset` (the text's size for its end).
[[noreturn]] void throw_parse_error(std::string_view text, std::size_t offset,
                                    std::string_view reason);

// Throws for an error the parser library reported: `position` is its count of bytes read (the
// failing byte included), `token` the token read last, `id` and `what` its exception's.
[[noreturn]] void throw_library_error(std::string_view text, std::size_t position,
                                      std::string_view token, int id, std::string_view what);

// The offset of the opening quote of the string whose closing quote is at `closing`.
std::size_t string_start(std::string_view text, std::size_t closing);

// Throws for a byte order mark at the start.
void check_text_start(std::string_view text);

// Throws for the first NUL byte, if any.
void check_no_nul(std::string_view text);

}  // namespace JSON::internal
