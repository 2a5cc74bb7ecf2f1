#pragma once

// The process-wide last error: the id and composed text of the error processed last. Writes
// are serialised so that concurrent reports cannot corrupt the text. The text lives in one
// buffer of fixed capacity, allocated once, that every report overwrites, so a pointer handed
// out earlier stays readable and shows the latest text. A longer text is cut at the capacity:
// composed texts are made of pieces of at most 4096 bytes and stay far below it.

#include <cstddef>
#include <string_view>

namespace Tarn::errors::internal {

inline constexpr std::size_t kLastErrorCapacity = 64 * 1024;

void set_last_error(int id, std::string_view text);
int last_error_id();
const char* last_error_text();

}  // namespace Tarn::errors::internal
