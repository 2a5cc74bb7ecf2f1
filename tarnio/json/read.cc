#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tarnio/errors/internal/os_error.h"
#include "tarnio/json/internal/arena.h"
#include "tarnio/json/internal/read_error.h"
#include "tarnio/json/read_write.h"

namespace JSON {
namespace {

using nlohmann::json;

// A pointer into the text that also publishes how far the lexer has read, so that the builder
// can locate keys and brackets: the lexer gives positions only with its own errors.
class TrackedIterator {
 public:
  using iterator_category = std::forward_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  TrackedIterator() = default;
  TrackedIterator(const char* at, const char** read_to) : at_(at), read_to_(read_to) {}

  const char& operator*() const { return *at_; }
  TrackedIterator& operator++() {
    *read_to_ = ++at_;
    return *this;
  }
  TrackedIterator operator++(int) {
    TrackedIterator before = *this;
    ++*this;
    return before;
  }
  bool operator==(const TrackedIterator& other) const { return at_ == other.at_; }

 private:
  const char* at_ = nullptr;
  const char** read_to_ = nullptr;
};

// Builds a Value from the parser's events, one open list or object per stack entry.
class TreeBuilder {
 public:
  using number_integer_t = json::number_integer_t;
  using number_unsigned_t = json::number_unsigned_t;
  using number_float_t = json::number_float_t;
  using string_t = json::string_t;
  using binary_t = json::binary_t;

  explicit TreeBuilder(std::string_view text) : text_(text), read_to_(text.data()) {}

  const char** read_to() { return &read_to_; }
  Value take_root() { return std::move(root_); }

  bool null() {
    place();
    return true;
  }
  bool boolean(bool b) {
    place() = Value(b);
    return true;
  }
  bool number_integer(number_integer_t i) {
    place() = Value(static_cast<std::int64_t>(i));
    return true;
  }
  bool number_unsigned(number_unsigned_t u) {
    if (u <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      place() = Value(static_cast<std::int64_t>(u));
    } else {
      place() = Value(static_cast<std::uint64_t>(u));
    }
    return true;
  }
  bool number_float(number_float_t d, const string_t&) {
    place() = Value(d);
    return true;
  }
  bool string(string_t& s) {
    place() = Value(std::string_view(s));
    return true;
  }
  bool binary(binary_t&) { return true; }  // never sent for JSON text

  bool start_object(std::size_t) { return open(Value::object()); }
  bool start_array(std::size_t) { return open(Value::list()); }
  bool end_object() { return close(); }
  bool end_array() { return close(); }

  // The lexer has just read the key's closing quote.
  bool key(string_t& key) {
    Value& object = *open_.back();
    const std::size_t before = object.size();
    slot_ = &object[std::string_view(key)];
    if (object.size() == before) {
      internal::throw_parse_error(text_, internal::string_start(text_, offset_read() - 1),
                                  fmt::format("duplicate key '{}'", key));
    }
    return true;
  }

  bool parse_error(std::size_t position, const std::string& token, const json::exception& error) {
    internal::throw_library_error(text_, position, token, error.id, error.what());
  }

 private:
  std::size_t offset_read() const { return static_cast<std::size_t>(read_to_ - text_.data()); }

  // Where the next value goes: the root, a new item or the slot of the key just read.
  Value& place() {
    if (open_.empty()) return root_;
    Value& container = *open_.back();
    if (container.is_list()) return container.push_back(Value());
    return *slot_;
  }

  // The lexer has just read the opening bracket.
  bool open(Value container) {
    if (open_.size() == kMaxDepth) {
      internal::throw_parse_error(text_, offset_read() - 1,
                                  fmt::format("nesting deeper than {} levels", kMaxDepth));
    }
    Value& placed = place();
    placed = std::move(container);
    open_.push_back(&placed);
    return true;
  }

  bool close() {
    open_.pop_back();
    return true;
  }

  std::string_view text_;
  const char* read_to_;
  Value root_;
  std::vector<Value*> open_;
  Value* slot_ = nullptr;
};

}  // namespace

Value read(std::string_view text) {
  internal::check_text_start(text);
  const internal::ArenaScope arena;
  TreeBuilder builder(text);
  const char* const begin = text.data();
  const char* const end = begin + text.size();
  json::sax_parse(TrackedIterator(begin, builder.read_to()), TrackedIterator(end, nullptr),
                  &builder, json::input_format_t::json, /*strict=*/true,
                  /*ignore_comments=*/false);
  // The lexer takes a NUL byte for the end of the text; one that ended a valid document is
  // still an error.
  internal::check_no_nul(text);
  return builder.take_root();
}

Value read_file(const std::filesystem::path& path) {
  const auto fail = [&] {
    throw std::runtime_error(fmt::format("Could not read JSON file '{}': {}", path.string(),
                                         Tarn::errors::internal::os_error_text()));
  };
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) fail();
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  struct stat info {};
  if (::fstat(fd, &info) != 0) fail();
  std::string text;
  text.resize(static_cast<std::size_t>(info.st_size) + 1);
  std::size_t filled = 0;
  while (true) {
    if (filled == text.size()) text.resize(2 * text.size());
    const ssize_t got = ::read(fd, text.data() + filled, text.size() - filled);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) fail();
    if (got == 0) break;
    filled += static_cast<std::size_t>(got);
  }
  text.resize(filled);
  return read(text);
}

}  // namespace JSON
