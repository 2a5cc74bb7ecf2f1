#pragma once

// JSON::Value: one JSON value (null, boolean, number, string, list or object with string keys),
// the tree under stack tags, the property tree's JSON form and the OME metadata model.
//
// Representation: a Value is 16 bytes. Strings of up to 14 bytes live inside it, longer ones,
// lists and objects in one heap block each, so a parsed tree stays within a few times the size
// of its text. Moves are cheap; copies are deep.
//
// Numbers keep what they were made from: a signed or an unsigned 64-bit integer exactly, or a
// double. Two numbers are equal when they denote the same value (5, 5u and 5.0 are equal).
//
// Objects keep their members in insertion order (the order in which they are written) and find
// a key through a hash index, so lookups stay fast in large objects. Keys are unique: setting
// an existing key replaces its value in place. Two objects are equal when they have the same
// keys with equal values, in any order; lists compare item by item.
//
// Addresses: a member or item keeps its address while its container is not changed, so views
// (string_view, spans, pointers to members) taken from a tree that is only read stay valid.
// Destroying a tree is iterative, whatever its depth.
//
// Threading: const operations may run concurrently on one tree; changes need exclusive access.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "tarnio/export.h"

namespace JSON {

enum class Kind : std::uint8_t { null, boolean, number, string, list, object };

// The tag byte of a Value, here so that kind queries are inlined; not for use outside the
// library. Numbers and heap blocks keep their payload in the first 8 bytes; a long string
// keeps its pointer there and its length in bytes 8 to 14; a short string keeps its bytes in
// the payload and its length in the tag (kInlineStringTag + length).
namespace detail {
inline constexpr std::uint8_t kNullTag = 0;
inline constexpr std::uint8_t kFalseTag = 1;
inline constexpr std::uint8_t kTrueTag = 2;
inline constexpr std::uint8_t kInt64Tag = 3;
inline constexpr std::uint8_t kUint64Tag = 4;
inline constexpr std::uint8_t kDoubleTag = 5;
inline constexpr std::uint8_t kHeapStringTag = 6;
inline constexpr std::uint8_t kListTag = 7;
inline constexpr std::uint8_t kObjectTag = 8;
inline constexpr std::uint8_t kInlineStringTag = 16;
}  // namespace detail

class Member;

class TARNIO_EXPORT Value {
 public:
  Value() noexcept = default;  // null
  Value(std::nullptr_t) noexcept {}
  Value(bool b) noexcept;
  // Signed integers are held as std::int64_t, unsigned ones as std::uint64_t.
  Value(int i) noexcept;
  Value(long i) noexcept;
  Value(long long i) noexcept;
  Value(unsigned u) noexcept;
  Value(unsigned long u) noexcept;
  Value(unsigned long long u) noexcept;
  Value(double d) noexcept;
  // Strings are UTF-8; they are stored as given.
  Value(std::string_view s);
  Value(const std::string& s) : Value(std::string_view(s)) {}
  Value(const char* s) : Value(std::string_view(s)) {}

  static Value list();
  static Value list(std::initializer_list<Value> items);
  static Value object();
  // Members in the given order; a repeated key keeps its last value at its first place.
  static Value object(std::initializer_list<std::pair<std::string_view, Value>> members);

  Value(const Value& other);
  Value(Value&& other) noexcept : tag_(other.tag_) {
    std::memcpy(bytes_, other.bytes_, sizeof bytes_);
    other.tag_ = detail::kNullTag;
  }
  Value& operator=(const Value& other);
  Value& operator=(Value&& other) noexcept;
  // Only long strings, lists and objects own memory.
  ~Value() {
    if (tag_ >= detail::kHeapStringTag && tag_ <= detail::kObjectTag) release();
  }

  Kind kind() const noexcept {
    using namespace detail;
    if (tag_ >= kHeapStringTag) {
      return tag_ == kListTag ? Kind::list : tag_ == kObjectTag ? Kind::object : Kind::string;
    }
    return tag_ == kNullTag ? Kind::null : tag_ <= kTrueTag ? Kind::boolean : Kind::number;
  }
  bool is_null() const noexcept { return kind() == Kind::null; }
  bool is_bool() const noexcept { return kind() == Kind::boolean; }
  bool is_number() const noexcept { return kind() == Kind::number; }
  bool is_string() const noexcept { return kind() == Kind::string; }
  bool is_list() const noexcept { return kind() == Kind::list; }
  bool is_object() const noexcept { return kind() == Kind::object; }
  // How a number is held.
  bool is_int64() const noexcept { return tag_ == detail::kInt64Tag; }
  bool is_uint64() const noexcept { return tag_ == detail::kUint64Tag; }
  bool is_double() const noexcept { return tag_ == detail::kDoubleTag; }

  // Typed getters throw std::runtime_error "JSON value is {kind}, not {wanted}." on a kind
  // mismatch, and for integers "JSON number {text} does not fit {type}." when the number has
  // no exact value of the type (a fraction, or out of range).
  bool get_bool() const;
  std::int64_t get_int64() const;
  std::uint64_t get_uint64() const;
  double get_double() const;  // any number, rounded to the nearest double
  // Valid while the value is neither changed nor destroyed.
  std::string_view get_string() const {
    if (tag_ >= detail::kInlineStringTag) {
      return {reinterpret_cast<const char*>(bytes_), std::size_t{tag_} - detail::kInlineStringTag};
    }
    return get_long_string();
  }

  // Lists and objects: the number of items or members; 0 for scalars.
  std::size_t size() const noexcept;
  bool empty() const noexcept { return size() == 0; }
  // Lists and objects: makes room for `count` items or members, so that filling them up to
  // that many moves nothing. Throws as the getters do for other kinds.
  void reserve(std::size_t count);

  // Lists. The non-const forms turn a null value into an empty list first; any other kind
  // throws as the getters do.
  std::span<Value> items();
  std::span<const Value> items() const;
  Value& push_back(Value item);  // returns the appended item
  // Throws std::runtime_error "JSON index {i} out of range ({size} items)." for a bad index.
  Value& at(std::size_t index);
  const Value& at(std::size_t index) const;
  Value& operator[](std::size_t index) { return at(index); }
  // Removes the item; later items move up one place. Throws as at() for a bad index.
  void erase(std::size_t index);
  const Value& operator[](std::size_t index) const { return at(index); }

  // Objects. The non-const forms turn a null value into an empty object first; any other kind
  // throws as the getters do.
  std::span<Member> members();
  std::span<const Member> members() const;
  // Null when the key is absent (or this is not an object).
  Value* find(std::string_view key) noexcept;
  const Value* find(std::string_view key) const noexcept;
  bool contains(std::string_view key) const noexcept { return find(key) != nullptr; }
  // Sets key to value: replaces an existing member's value in place, else appends a member.
  Value& set(std::string_view key, Value value);
  // Appends a member without looking for the key first, for readers that have made sure it
  // is new; a key that is present already would then be found at its first place only.
  Value& append_member(std::string_view key, Value value);
  // The member's value; created as null at the end when absent (non-const).
  Value& operator[](std::string_view key);
  // Throws std::runtime_error "JSON path '{key}' not found." when absent.
  const Value& at(std::string_view key) const;
  Value& at(std::string_view key);
  // Removes the member; later members move up one place. Returns whether it existed.
  bool erase(std::string_view key);

  // Paths: either a member path, keys separated by dots and list indices in brackets
  // ("Image[0].Pixels.SizeX", "[2]", "" is the value itself), or a JSON Pointer (RFC 6901) when
  // the path starts with '/' ("/Image/0/Pixels/SizeX", with "~1" for '/' and "~0" for '~').
  // Null, or std::runtime_error "JSON path '{path}' not found.", when a step does not exist.
  const Value* find_path(std::string_view path) const noexcept;
  Value* find_path(std::string_view path) noexcept;
  const Value& at_path(std::string_view path) const;
  Value& at_path(std::string_view path);

  friend TARNIO_EXPORT bool operator==(const Value& a, const Value& b) noexcept;

  void swap(Value& other) noexcept;

 private:
  std::string_view get_long_string() const;
  void release() noexcept;

  // Implementation state; see value.cc. 15 payload bytes and a tag byte.
  alignas(8) unsigned char bytes_[15] = {};
  std::uint8_t tag_ = 0;
};

static_assert(sizeof(Value) == 16);

// One member of an object: its key and its value.
class TARNIO_EXPORT Member {
 public:
  Member(std::string_view key, Value value);

  std::string_view key() const noexcept { return key_.get_string(); }
  Value& value() noexcept { return value_; }
  const Value& value() const noexcept { return value_; }

 private:
  Value key_;  // always a string
  Value value_;
};

// The name of a kind: "null", "boolean", "number", "string", "list", "object".
TARNIO_EXPORT const char* kind_name(Kind kind) noexcept;

}  // namespace JSON
