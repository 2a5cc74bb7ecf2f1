#include "tarnio/json/internal/read_error.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace JSON::internal {
namespace {

// A phrase of the library's messages, and ours.
struct Phrase {
  std::string_view theirs;
  std::string_view ours;
};

// The failures the library's lexer finds.
constexpr Phrase kLexerPhrases[] = {
    {"invalid string: ill-formed UTF-8", "invalid UTF-8 in string"},
    {"invalid string: surrogate U+D800..U+DBFF",
     "high surrogate escape without a low one after it"},
    {"invalid string: surrogate U+DC00..U+DFFF",
     "low surrogate escape without a high one before it"},
    {"invalid string: '\\u' must be followed", "\\u escape without four hex digits"},
    {"invalid string: forbidden character after backslash", "invalid escape sequence"},
    {"invalid string: missing closing quote", "unterminated string"},
    {"invalid number", "invalid number"},
};

// What the parser expected, in the library's words and ours.
constexpr Phrase kExpectations[] = {
    {"'[', '{', or a literal", "a value"},
    {"']'", "',' or ']'"},
    {"'}'", "',' or '}'"},
    {"':'", "':'"},
    {"string literal", "a key string"},
};

// Where the token read last starts: the lexer keeps the text of strings, numbers and literals
// only.
std::size_t last_token_start(std::size_t offset, std::string_view token) {
  return token.empty() || token.size() > offset + 1 ? offset : offset + 1 - token.size();
}

// A byte the lexer could not start or continue a token with.
std::string unexpected_byte(std::string_view text, std::size_t offset) {
  if (offset >= text.size()) return "unexpected end of text";
  const auto byte = static_cast<unsigned char>(text[offset]);
  if (byte == '/') return "comments are not allowed";
  if (byte > 0x20 && byte < 0x7F) return fmt::format("unexpected character '{}'", text[offset]);
  return fmt::format("unexpected byte 0x{:02X}", byte);
}

// The library's name of a token kind ("number literal", "']'") in our words.
std::string describe_token(std::string_view kind) {
  if (kind.starts_with('\'')) return std::string(kind);
  if (kind == "number literal") return "number";
  if (kind == "string literal") return "string";
  return fmt::format("'{}'", kind.substr(0, kind.find(' ')));  // "true literal"
}

std::size_t previous_non_space(std::string_view text, std::size_t offset) {
  while (offset > 0) {
    const char c = text[--offset];
    if (c != ' ' && c != '\t' && c != '\n' && c != '\r') return offset;
  }
  return std::string_view::npos;
}

// A well-formed token where the grammar does not allow it; `rest` is "unexpected {kind}; expected
// {kinds}" in the library's words.
[[noreturn]] void throw_unexpected_token(std::string_view text, std::size_t offset,
                                         std::string_view token, std::string_view rest) {
  const std::size_t separator = rest.find("; expected ");
  const std::string_view kind = rest.substr(11, separator - 11);
  const std::string_view expected =
      separator == std::string_view::npos ? "" : rest.substr(separator + 11);
  if (kind == "end of input") throw_parse_error(text, text.size(), "unexpected end of text");
  const bool punctuation = kind.starts_with('\'');
  const std::size_t start = punctuation ? offset : last_token_start(offset, token);
  if (kind == "number literal" && start > 0 && text[start - 1] == '0') {
    // The lexer ends a number after a leading 0 and starts a new one.
    throw_parse_error(text, start - 1, "leading zero in number");
  }
  const std::size_t before = previous_non_space(text, start);
  if ((kind == "']'" || kind == "'}'") && before != std::string_view::npos && text[before] == ',') {
    throw_parse_error(text, before, fmt::format("trailing comma before {}", kind));
  }
  if (expected == "end of input") {
    throw_parse_error(text, start,
                      fmt::format("unexpected {} after the value", describe_token(kind)));
  }
  for (const Phrase& phrase : kExpectations) {
    if (expected == phrase.theirs) {
      throw_parse_error(
          text, start,
          fmt::format("unexpected {}; expected {}", describe_token(kind), phrase.ours));
    }
  }
  throw_parse_error(text, start, fmt::format("unexpected {}", describe_token(kind)));
}

}  // namespace

void throw_parse_error(std::string_view text, std::size_t offset, std::string_view reason) {
  offset = std::min(offset, text.size());
  const std::string_view before = text.substr(0, offset);
  const auto line = std::count(before.begin(), before.end(), '\n') + 1;
  const std::size_t line_start = before.rfind('\n') + 1;  // npos + 1 == 0
  throw std::runtime_error(fmt::format("JSON parse error at line {}, column {}: {}.", line,
                                       offset - line_start + 1, reason));
}

void throw_library_error(std::string_view text, std::size_t position, std::string_view token,
                         int id, std::string_view what) {
  const std::size_t offset = position == 0 ? 0 : std::min(position - 1, text.size());
  // The lexer takes a NUL byte for the end of the text; the NUL is then the first fault.
  const std::size_t nul = text.find('\0');
  if (nul <= offset) throw_parse_error(text, nul, "unexpected NUL byte");
  constexpr int kNumberOverflow = 406;
  if (id == kNumberOverflow) {
    throw_parse_error(text, last_token_start(offset, token), "number out of range");
  }
  // "... syntax error while parsing {context} - {detail}"
  const std::size_t detail_at = what.find("syntax error ");
  const std::size_t dash = what.find("- ", detail_at);
  const std::string_view rest =
      dash == std::string_view::npos ? std::string_view() : what.substr(dash + 2);
  if (rest.starts_with("unexpected ")) throw_unexpected_token(text, offset, token, rest);
  if (rest.starts_with("invalid string: control character")) {
    throw_parse_error(text, offset,
                      fmt::format("unescaped control character U+{:04X} in string",
                                  static_cast<unsigned char>(text[offset])));
  }
  for (const Phrase& phrase : kLexerPhrases) {
    if (rest.starts_with(phrase.theirs)) throw_parse_error(text, offset, phrase.ours);
  }
  throw_parse_error(text, offset, unexpected_byte(text, offset));
}

std::size_t string_start(std::string_view text, std::size_t closing) {
  std::size_t at = closing;
  while (at > 0) {
    --at;
    if (text[at] != '"') continue;
    std::size_t backslashes = 0;
    while (backslashes < at && text[at - 1 - backslashes] == '\\') ++backslashes;
    if (backslashes % 2 == 0) return at;
  }
  return 0;
}

void check_text_start(std::string_view text) {
  if (text.starts_with("\xEF\xBB\xBF")) {
    throw_parse_error(text, 0, "byte order mark before the value");
  }
}

void check_no_nul(std::string_view text) {
  const std::size_t nul = text.find('\0');
  if (nul != std::string_view::npos) throw_parse_error(text, nul, "unexpected NUL byte");
}

}  // namespace JSON::internal
