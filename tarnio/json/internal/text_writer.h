#pragma once

// TextWriter: JSON text written event by event (open and close lists and objects, keys,
// scalars), as JSON::write writes a tree and as other forms (the property tree's) write straight
// to text without building a tree first. One layout for all: compact for indent < 0, else one
// member or item per line indented by `indent` spaces per level with ": " after keys; strings
// escaped as JSON requires, and refused when they are not valid UTF-8 (std::runtime_error
// "JSON write error: a string or key is not valid UTF-8."); doubles in the shortest form that reads
// back, keeping a '.' or an exponent (1.0 is "1.0"), and null for NaN and infinities, which JSON
// cannot express.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace JSON::internal {

class TextWriter {
 public:
  explicit TextWriter(int indent) : indent_(indent) {}

  void begin_object() { open('{'); }
  void end_object() { close('}'); }
  void begin_list() { open('['); }
  void end_list() { close(']'); }
  // A member's key; its value's event follows.
  void key(std::string_view key);
  void null();
  void boolean(bool value);
  void number(std::int64_t value);
  void number(std::uint64_t value);
  void number(double value);
  void string(std::string_view value);

  std::string take() { return std::move(out_); }

 private:
  void before_value();
  void next_item();
  void open(char bracket);
  void close(char bracket);
  void new_line();
  void append_string(std::string_view text);

  int indent_;
  std::vector<std::size_t> counts_;  // items written so far in each open container
  bool after_key_ = false;
  std::string out_;
};

}  // namespace JSON::internal
