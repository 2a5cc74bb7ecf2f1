#pragma once

// Conversions between the platform's wide strings (UTF-32 on Linux) and UTF-8, the encoding of
// every narrow string in the library. Invalid code points are dropped.

#include <string>
#include <string_view>

namespace Tarn::strings::internal {

std::string to_utf8(std::wstring_view text);
std::wstring to_wide(std::string_view utf8);

// Whether `text` is valid UTF-8: no stray or missing continuation bytes, no overlong forms, no
// surrogates, nothing above U+10FFFF.
bool is_valid_utf8(std::string_view text) noexcept;

}  // namespace Tarn::strings::internal
