#include <fmt/format.h>

#include <array>
#include <cmath>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tarnio/json/read_write.h"

namespace JSON {
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

void append_string(std::string& out, std::string_view s) {
  constexpr std::string_view kHex = "0123456789abcdef";
  out.push_back('"');
  std::size_t copied = 0;
  for (std::size_t at = 0; at < s.size(); ++at) {
    const auto byte = static_cast<unsigned char>(s[at]);
    const char escape = kEscapes[byte];
    if (escape == 0) continue;
    out.append(s.data() + copied, at - copied);
    copied = at + 1;
    out.push_back('\\');
    out.push_back(escape);
    if (escape == 'u') {
      out.append("00");
      out.push_back(kHex[byte >> 4]);
      out.push_back(kHex[byte & 0xF]);
    }
  }
  out.append(s.data() + copied, s.size() - copied);
  out.push_back('"');
}

// Doubles keep a '.' or an exponent, so that they read back as doubles: 1.0 is "1.0".
void append_double(std::string& out, double d) {
  if (!std::isfinite(d)) {
    out.append("null");
    return;
  }
  std::array<char, 40> text;
  const char* const end = fmt::format_to(text.data(), "{}", d);
  const std::string_view shortest(text.data(), static_cast<std::size_t>(end - text.data()));
  out.append(shortest);
  if (shortest.find_first_of(".e") == std::string_view::npos) out.append(".0");
}

void append_number(std::string& out, const Value& number) {
  if (number.is_int64()) {
    const fmt::format_int text(number.get_int64());
    out.append(text.data(), text.size());
  } else if (number.is_uint64()) {
    const fmt::format_int text(number.get_uint64());
    out.append(text.data(), text.size());
  } else {
    append_double(out, number.get_double());
  }
}

// Writes depth-first with its own stack of open lists and objects, so that the depth of a tree
// costs heap, not call stack.
class Writer {
 public:
  explicit Writer(int indent) : indent_(indent) {}

  std::string write(const Value& root) {
    begin(root);
    while (!open_.empty()) {
      Open& top = open_.back();
      if (top.next == top.size) {
        const bool is_object = top.members != nullptr;
        open_.pop_back();
        new_line();
        out_.push_back(is_object ? '}' : ']');
        continue;
      }
      if (top.next > 0) out_.push_back(',');
      const std::size_t at = top.next++;
      new_line();
      if (top.members != nullptr) {
        const Member& member = top.members[at];
        append_string(out_, member.key());
        out_.append(indent_ < 0 ? ":" : ": ");
        begin(member.value());
      } else {
        begin(top.items[at]);
      }
    }
    return std::move(out_);
  }

 private:
  // A list (items) or an object (members) being written.
  struct Open {
    const Value* items;
    const Member* members;
    std::size_t size;
    std::size_t next;
  };

  // Writes a scalar or an empty container whole, else opens the container.
  void begin(const Value& value) {
    switch (value.kind()) {
      case Kind::null:
        out_.append("null");
        return;
      case Kind::boolean:
        out_.append(value.get_bool() ? "true" : "false");
        return;
      case Kind::number:
        append_number(out_, value);
        return;
      case Kind::string:
        append_string(out_, value.get_string());
        return;
      case Kind::list: {
        const auto items = value.items();
        out_.append(items.empty() ? "[]" : "[");
        if (!items.empty()) open_.push_back({items.data(), nullptr, items.size(), 0});
        return;
      }
      case Kind::object: {
        const auto members = value.members();
        out_.append(members.empty() ? "{}" : "{");
        if (!members.empty()) open_.push_back({nullptr, members.data(), members.size(), 0});
        return;
      }
    }
  }

  // In indented form, a line break and the indent of the innermost open container's contents.
  void new_line() {
    if (indent_ < 0) return;
    out_.push_back('\n');
    out_.append(open_.size() * static_cast<std::size_t>(indent_), ' ');
  }

  int indent_;
  std::vector<Open> open_;
  std::string out_;
};

}  // namespace

std::string write(const Value& value, int indent) { return Writer(indent).write(value); }

}  // namespace JSON
