#include "tarnio/strings/internal/encoding.h"

#include <boost/locale/encoding_utf.hpp>

namespace Tarn::strings::internal {

std::string to_utf8(std::wstring_view text) {
  return boost::locale::conv::utf_to_utf<char>(text.data(), text.data() + text.size());
}

std::wstring to_wide(std::string_view utf8) {
  return boost::locale::conv::utf_to_utf<wchar_t>(utf8.data(), utf8.data() + utf8.size());
}

}  // namespace Tarn::strings::internal
