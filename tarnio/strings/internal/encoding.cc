#include "tarnio/strings/internal/encoding.h"

#include <boost/locale/encoding_utf.hpp>
#include <boost/locale/utf.hpp>

namespace Tarn::strings::internal {

std::string to_utf8(std::wstring_view text) {
  return boost::locale::conv::utf_to_utf<char>(text.data(), text.data() + text.size());
}

std::wstring to_wide(std::string_view utf8) {
  return boost::locale::conv::utf_to_utf<wchar_t>(utf8.data(), utf8.data() + utf8.size());
}

bool is_valid_utf8(std::string_view text) noexcept {
  using utf = boost::locale::utf::utf_traits<char>;
  const char* position = text.data();
  const char* const end = position + text.size();
  while (position != end) {
    if (static_cast<unsigned char>(*position) < 0x80) {
      ++position;
      continue;
    }
    const boost::locale::utf::code_point c = utf::decode(position, end);
    if (c == boost::locale::utf::illegal || c == boost::locale::utf::incomplete) return false;
  }
  return true;
}

}  // namespace Tarn::strings::internal
