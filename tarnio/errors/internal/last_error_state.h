#pragma once

// The process-wide last error: the id and composed text of the error processed last. Writes
// are serialised so that concurrent reports cannot corrupt the text. The text lives in one
// buffer that every report overwrites, so a pointer handed out earlier shows the latest text;
// when a longer text needs a larger buffer, the old one is kept, never freed, so such a
// pointer stays readable.

#include <string_view>

namespace Tarn::errors::internal {

void set_last_error(int id, std::string_view text);
int last_error_id();
const char* last_error_text();

}  // namespace Tarn::errors::internal
