#include "tarnio/json/internal/text_writer.h"

#include <fmt/format.h>

#include <array>
#include <cmath>
#include <stdexcept>

#include "tarnio/strings/internal/encoding.h"

namespace JSON::internal {
namespace {

// For each byte: 0 when a string holds it as it is, else the letter of its escape ('u' for
// \u00XX).
constexpr std::array<char, 256> kEscapes = [] {
  std::array<char, 256> escapes{};
  for (int byte = 0; byte < 0x20; ++byte) escapes[static_cast<std::size_t>(byte)] = 'u';
  escapes['"'] = '"';
  escapes['\\'] = '\\';
  escapes['\b'] = 'b';
  escapes['\f'] = 'f';
  escapes['\n'] = 'n';
  escapes['\r'] = 'r';
  escapes['\t'] = 't';
  return escapes;
}();

}  // namespace

void TextWriter::key(std::string_view key) {
  next_item();
  append_string(key);
  out_.append(indent_ < 0 ? ":" : ": ");
  after_key_ = true;
}

void TextWriter::null() {
  before_value();
  out_.append("null");
}

void TextWriter::boolean(bool value) {
  before_value();
  out_.append(value ? "true" : "false");
}

void TextWriter::number(std::int64_t value) {
  before_value();
  const fmt::format_int text(value);
  out_.append(text.data(), text.size());
}

void TextWriter::number(std::uint64_t value) {
  before_value();
  const fmt::format_int text(value);
  out_.append(text.data(), text.size());
}

void TextWriter::number(double value) {
  if (!std::isfinite(value)) {
    null();
    return;
  }
  before_value();
  std::array<char, 40> text;
  const char* const end = fmt::format_to(text.data(), "{}", value);
  const std::string_view shortest(text.data(), static_cast<std::size_t>(end - text.data()));
  out_.append(shortest);
  if (shortest.find_first_of(".e") == std::string_view::npos) out_.append(".0");
}

void TextWriter::string(std::string_view value) {
  before_value();
  append_string(value);
}

void TextWriter::before_value() {
  if (after_key_) {
    after_key_ = false;
  } else if (!counts_.empty()) {
    next_item();
  }
}

void TextWriter::next_item() {
  if (counts_.back()++ > 0) out_.push_back(',');
  new_line();
}

void TextWriter::open(char bracket) {
  before_value();
  out_.push_back(bracket);
  counts_.push_back(0);
}

void TextWriter::close(char bracket) {
  const bool has_items = counts_.back() > 0;
  counts_.pop_back();
  if (has_items) new_line();
  out_.push_back(bracket);
}

void TextWriter::new_line() {
  if (indent_ < 0) return;
  out_.push_back('\n');
  out_.append(counts_.size() * static_cast<std::size_t>(indent_), ' ');
}

void TextWriter::append_string(std::string_view text) {
  constexpr std::string_view kHex = "0123456789abcdef";
  // JSON text is Unicode: bytes that are no UTF-8 have no escape that would bring them back.
  if (!Tarn::strings::internal::is_valid_utf8(text)) {
    throw std::runtime_error("JSON write error: a string or key is not valid UTF-8.");
  }
  out_.push_back('"');
  std::size_t copied = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    const char escape = kEscapes[byte];
    if (escape == 0) continue;
    out_.append(text.data() + copied, at - copied);
    copied = at + 1;
    out_.push_back('\\');
    out_.push_back(escape);
    if (escape == 'u') {
      out_.append("00");
      out_.push_back(kHex[byte >> 4]);
      out_.push_back(kHex[byte & 0xF]);
    }
  }
  out_.append(text.data() + copied, text.size() - copied);
  out_.push_back('"');
}

}  // namespace JSON::internal
