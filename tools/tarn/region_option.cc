// The --region of tarn read: a part of a stack given per axis as an index, a half-open range or
// the whole axis.

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tools/tarn/commands.h"

namespace tarn {

namespace {

// The number `text` spells in full, or `empty_value` for no text; none for anything else.
std::optional<std::uint64_t> parse_index(std::string_view text, std::uint64_t empty_value) {
  if (text.empty()) return empty_value;
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

Tarn::arrays::Region parse_region(const std::string& text, std::span<const std::uint64_t> shape) {
  std::vector<std::string_view> axes;
  for (std::string_view rest = text;;) {
    const std::size_t comma = rest.find(',');
    axes.push_back(rest.substr(0, comma));
    if (comma == std::string_view::npos) break;
    rest.remove_prefix(comma + 1);
  }
  if (axes.size() != shape.size()) {
    throw std::runtime_error(fmt::format("Region '{}' gives {} axes; the stack has {}.", text,
                                         axes.size(), shape.size()));
  }
  std::vector<std::uint64_t> start;
  std::vector<std::uint64_t> size;
  bool inside = true;
  for (std::size_t i = 0; i < axes.size(); ++i) {
    const std::string_view axis = axes[i];
    const std::size_t colon = axis.find(':');
    std::optional<std::uint64_t> first;
    std::optional<std::uint64_t> end;
    if (colon == std::string_view::npos) {
      first = axis.empty() ? std::nullopt : parse_index(axis, 0);
      if (first) end = *first + 1;
      inside = inside && first && *first < shape[i];
    } else {
      first = parse_index(axis.substr(0, colon), 0);
      end = parse_index(axis.substr(colon + 1), shape[i]);
      inside = inside && first && end && *first <= *end && *end <= shape[i];
    }
    if (!first || !end) {
      throw std::runtime_error(
          fmt::format("Region '{}': '{}' is no index i, range a:b or whole axis ':'.", text, axis));
    }
    start.push_back(*first);
    size.push_back(*end - std::min(*first, *end));
  }
  if (!inside) {
    throw std::runtime_error(
        fmt::format("Region '{}' lies outside the stack's shape {}.", text, fmt::join(shape, "x")));
  }
  return Tarn::arrays::Region(start, size);
}

}  // namespace tarn
