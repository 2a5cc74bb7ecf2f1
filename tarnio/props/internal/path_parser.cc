#include "tarnio/props/internal/path_parser.h"

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <system_error>

#include "tarnio/props/internal/report.h"
#include "tarnio/props/path.h"

namespace Tarn::props::internal {

namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Whether `text` has a decimal digit at `at`.
bool digit_at(std::string_view text, std::size_t at) {
  return at < text.size() && is_digit(text[at]);
}

// A '/' followed by a digit starts a slash index; any other '/' separates members.
bool starts_slash_index(std::string_view text) {
  return text.starts_with('/') && digit_at(text, 1);
}

bool starts_index(std::string_view text) {
  return text.starts_with('{') || text.starts_with('(') || starts_slash_index(text);
}

}  // namespace

bool split_first_segment(std::string_view path, PathSegment& segment, std::string_view& rest,
                         std::string* error) {
  if (path.empty()) return report(error, false, "Path unexpectedly empty.");
  const bool index = starts_index(path);
  const std::size_t separator = path.find_first_of(".{(/", index ? 1 : 0);
  const std::string_view first = path.substr(0, separator);
  if (first.empty()) return report(error, false, "Path starts with empty segment.");
  std::string_view after =
      separator == std::string_view::npos ? std::string_view{} : path.substr(separator);
  if (after.starts_with('.') || (after.starts_with('/') && !digit_at(after, 1))) {
    after.remove_prefix(1);
  }
  segment.text = first;
  segment.indices.clear();
  if (index) {
    segment.kind = first.front() == '{'   ? SegmentKind::cell_index
                   : first.front() == '(' ? SegmentKind::array_index
                                          : SegmentKind::slash_index;
    if (!parse_index_segment(first, segment.indices, error)) return false;
  } else {
    segment.kind = SegmentKind::name;
    if (!tarn_prop_is_valid_name(first)) {
      return report(error, false, "Path contains invalid struct member name '{}'.", first);
    }
  }
  rest = after;
  return true;
}

bool parse_index_segment(std::string_view segment, TPropSize& indices, std::string* error) {
  if (segment.empty()) return report(error, false, "Empty path segment.");
  std::string_view inside = segment.substr(1);
  const char opening = segment.front();
  if (opening != '(' && opening != '{' && opening != '/') {
    return report(error, false, "Invalid character specified in index segment '{}'.", segment);
  }
  if (opening == '(' || opening == '{') {
    const char closing = opening == '(' ? ')' : '}';
    if (segment.size() < 2 || segment.back() != closing) {
      return report(error, false, "Brackets not matched.");
    }
    inside.remove_suffix(1);
  }
  indices.clear();
  std::size_t at = 0;
  while (true) {
    while (at < inside.size() && inside[at] == ' ') ++at;
    const std::size_t start = at;
    while (at < inside.size() && is_digit(inside[at])) ++at;
    if (at < inside.size() && inside[at] != ',') {
      return report(error, false, "Invalid character specified in index segment '{}'.", segment);
    }
    const std::string_view number = inside.substr(start, at - start);
    std::uint64_t value = 0;
    const auto [end, status] = std::from_chars(number.data(), number.data() + number.size(), value);
    // The all-ones value is the failure value of an index, never an index.
    if (number.empty() || status != std::errc{} || end != number.data() + number.size() ||
        value == TProparrayBase::npos) {
      return report(error, false, "Invalid index '{}' specified in segment '{}'.", number, segment);
    }
    indices.push_back(value);
    if (at == inside.size()) return true;
    ++at;
  }
}

}  // namespace Tarn::props::internal
