#include "tarnio/json/value.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <type_traits>
#include <variant>
#include <vector>

#include "tarnio/json/internal/arena.h"
#include "tarnio/strings/internal/same_name.h"

namespace JSON {

namespace {

using namespace detail;

constexpr std::size_t kMaxInlineString = 14;
constexpr std::size_t kLengthOffset = 8;
constexpr std::size_t kLengthBytes = 7;
// Objects with more members than this find keys through a hash table, smaller ones by a scan.
constexpr std::size_t kMaxUnindexed = 16;

template <typename T>
T load(const unsigned char* bytes) noexcept {
  T value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

template <typename T>
void store(unsigned char* bytes, T value) noexcept {
  std::memcpy(bytes, &value, sizeof value);
}

std::size_t load_length(const unsigned char* bytes) noexcept {
  std::size_t length = 0;
  for (std::size_t i = 0; i < kLengthBytes; ++i) {
    length |= std::size_t{bytes[kLengthOffset + i]} << (8 * i);
  }
  return length;
}

void store_length(unsigned char* bytes, std::size_t length) noexcept {
  for (std::size_t i = 0; i < kLengthBytes; ++i) {
    bytes[kLengthOffset + i] = static_cast<unsigned char>(length >> (8 * i));
  }
}

// Allocates from the arena the container was read into, or from the heap (arena null). The
// allocator travels with the storage it gave, and copies of a tree start on the heap.
template <typename T>
struct BlockAllocator {
  using value_type = T;
  using propagate_on_container_move_assignment = std::true_type;
  using propagate_on_container_swap = std::true_type;

  internal::Arena* arena = nullptr;

  BlockAllocator() noexcept = default;
  explicit BlockAllocator(internal::Arena* from) noexcept : arena(from) {}
  template <typename U>
  BlockAllocator(const BlockAllocator<U>& other) noexcept : arena(other.arena) {}

  T* allocate(std::size_t count) {
    if (arena == nullptr) return std::allocator<T>().allocate(count);
    return static_cast<T*>(arena->allocate(count * sizeof(T)));
  }
  void deallocate(T* memory, std::size_t count) noexcept {
    if (arena == nullptr) return std::allocator<T>().deallocate(memory, count);
    arena->deallocate(memory, count * sizeof(T));
  }
  BlockAllocator select_on_container_copy_construction() const noexcept { return {}; }
  friend bool operator==(const BlockAllocator& a, const BlockAllocator& b) noexcept {
    return a.arena == b.arena;
  }
};

// A list's items; `arena` is where the block itself lies (null: the heap).
struct ListBlock : std::vector<Value, BlockAllocator<Value>> {
  explicit ListBlock(internal::Arena* from) : vector(BlockAllocator<Value>(from)), arena(from) {}
  internal::Arena* arena;
};

using Tarn::strings::internal::same_name;

std::size_t hash_key(std::string_view key) noexcept { return std::hash<std::string_view>{}(key); }

// The members in insertion order and, above kMaxUnindexed members, an open-addressing table of
// their positions: a slot holds position + 1, or 0 when free; its size is a power of two at
// least twice the member count.
struct ObjectBlock {
  using Slots = std::vector<std::uint32_t, BlockAllocator<std::uint32_t>>;

  explicit ObjectBlock(internal::Arena* from)
      : members(BlockAllocator<Member>(from)),
        slots(BlockAllocator<std::uint32_t>(from)),
        arena(from) {}

  std::vector<Member, BlockAllocator<Member>> members;
  Slots slots;
  internal::Arena* arena;  // where the block itself lies (null: the heap)

  // The member's position, or members.size() when absent.
  std::size_t find(std::string_view key) const noexcept {
    if (slots.empty()) {
      const auto it = std::find_if(members.begin(), members.end(),
                                   [key](const Member& m) { return same_name(m.key(), key); });
      return static_cast<std::size_t>(it - members.begin());
    }
    const std::size_t mask = slots.size() - 1;
    for (std::size_t slot = hash_key(key) & mask;; slot = (slot + 1) & mask) {
      const std::uint32_t entry = slots[slot];
      if (entry == 0) return members.size();
      if (same_name(members[entry - 1].key(), key)) return entry - 1;
    }
  }

  void reserve(std::size_t count) {
    members.reserve(count);
    if (count > kMaxUnindexed && 2 * count > slots.size()) {
      slots.assign(std::bit_ceil(2 * count), 0);
      index_all();
    }
  }

  // The key must be absent. Allocates before changing anything, so a failure changes nothing.
  void append(Member member) {
    const std::size_t count = members.size() + 1;
    Slots grown(slots.get_allocator());
    if (count > kMaxUnindexed && 2 * count > slots.size()) {
      grown.assign(std::bit_ceil(2 * count), 0);
    }
    members.push_back(std::move(member));
    if (!grown.empty()) {
      slots.swap(grown);
      index_all();
    } else if (!slots.empty()) {
      index(count - 1);
    }
  }

  // Takes the position out of the table without rehashing the other keys: linear probing
  // allows a backward-shift deletion, and later positions move down by one.
  void erase(std::size_t position) noexcept {
    if (members.size() - 1 <= kMaxUnindexed) {
      Slots().swap(slots);
    } else if (!slots.empty()) {
      const std::size_t mask = slots.size() - 1;
      const auto entry = static_cast<std::uint32_t>(position + 1);
      std::size_t hole = hash_key(members[position].key()) & mask;
      while (slots[hole] != entry) hole = (hole + 1) & mask;
      for (std::size_t next = (hole + 1) & mask; slots[next] != 0; next = (next + 1) & mask) {
        const std::size_t home = hash_key(members[slots[next] - 1].key()) & mask;
        // The entry may fill the hole unless its home lies cyclically in (hole, next].
        if (((next - home) & mask) >= ((next - hole) & mask)) {
          slots[hole] = slots[next];
          hole = next;
        }
      }
      slots[hole] = 0;
      for (std::uint32_t& slot : slots) slot -= static_cast<std::uint32_t>(slot > entry);
    }
    members.erase(members.begin() + static_cast<std::ptrdiff_t>(position));
  }

  void index_all() noexcept {
    for (std::size_t i = 0; i < members.size(); ++i) index(i);
  }

  void index(std::size_t position) noexcept {
    const std::size_t mask = slots.size() - 1;
    std::size_t slot = hash_key(members[position].key()) & mask;
    while (slots[slot] != 0) slot = (slot + 1) & mask;
    slots[slot] = static_cast<std::uint32_t>(position + 1);
  }
};

// A new block, in the arena of the scope open on this thread if there is one.
template <typename Block>
Block* new_block() {
  internal::Arena* arena = internal::Arena::current();
  if (arena == nullptr) return std::make_unique<Block>(nullptr).release();
  void* memory = arena->allocate(sizeof(Block));
  Block* block = std::construct_at(static_cast<Block*>(memory), arena);
  arena->acquire_block();
  return block;
}

template <typename Block>
void delete_block(Block* block) noexcept {
  internal::Arena* arena = block->arena;
  if (arena == nullptr) {
    std::unique_ptr<Block> owned(block);
    return;
  }
  std::destroy_at(block);
  arena->release_block();
}

ListBlock& list_in(const unsigned char* bytes) noexcept { return *load<ListBlock*>(bytes); }
ObjectBlock& object_in(const unsigned char* bytes) noexcept { return *load<ObjectBlock*>(bytes); }

bool is_container(const Value& value) noexcept { return value.is_list() || value.is_object(); }

[[noreturn]] void throw_kind(Kind kind, Kind wanted) {
  throw std::runtime_error(
      fmt::format("JSON value is {}, not {}.", kind_name(kind), kind_name(wanted)));
}

void require_kind(const Value& value, Kind wanted) {
  if (value.kind() != wanted) throw_kind(value.kind(), wanted);
}

[[noreturn]] void throw_path(std::string_view path) {
  throw std::runtime_error(fmt::format("JSON path '{}' not found.", path));
}

using Number = std::variant<std::int64_t, std::uint64_t, double>;

// Each getter reads its own representation directly, so this does not recurse.
Number number_of(const Value& value) {
  if (value.is_int64()) return value.get_int64();
  if (value.is_uint64()) return value.get_uint64();
  return value.get_double();
}

std::optional<std::int64_t> exact_int64(const Number& number) noexcept {
  if (const auto* i = std::get_if<std::int64_t>(&number)) return *i;
  if (const auto* u = std::get_if<std::uint64_t>(&number)) {
    if (*u > std::uint64_t{std::numeric_limits<std::int64_t>::max()}) return std::nullopt;
    return static_cast<std::int64_t>(*u);
  }
  const double d = std::get<double>(number);
  if (!(d >= -0x1p63 && d < 0x1p63) || std::trunc(d) != d) return std::nullopt;
  return static_cast<std::int64_t>(d);
}

std::optional<std::uint64_t> exact_uint64(const Number& number) noexcept {
  if (const auto* u = std::get_if<std::uint64_t>(&number)) return *u;
  if (const auto* i = std::get_if<std::int64_t>(&number)) {
    if (*i < 0) return std::nullopt;
    return static_cast<std::uint64_t>(*i);
  }
  const double d = std::get<double>(number);
  if (!(d >= 0 && d < 0x1p64) || std::trunc(d) != d) return std::nullopt;
  return static_cast<std::uint64_t>(d);
}

[[noreturn]] void throw_does_not_fit(const Number& number, std::string_view type) {
  const std::string text = std::visit([](auto n) { return fmt::format("{}", n); }, number);
  throw std::runtime_error(fmt::format("JSON number {} does not fit {}.", text, type));
}

// Exact: an integer equals a double only when the double holds that very integer.
bool numbers_equal(const Number& x, const Number& y) noexcept {
  if (std::holds_alternative<double>(x) && std::holds_alternative<double>(y)) {
    return std::get<double>(x) == std::get<double>(y);
  }
  const auto xi = exact_int64(x);
  const auto yi = exact_int64(y);
  if (xi || yi) return xi == yi;
  return exact_uint64(x) == exact_uint64(y);
}

using ConstPair = std::pair<const Value*, const Value*>;

// Compares x and y except for the children of lists and objects that are lists or objects
// themselves: those pairs go to `pending`.
bool shallow_equal(const Value& x, const Value& y, std::vector<ConstPair>& pending) {
  if (x.kind() != y.kind()) return false;
  switch (x.kind()) {
    case Kind::null:
      return true;
    case Kind::boolean:
      return x.get_bool() == y.get_bool();
    case Kind::number:
      return numbers_equal(number_of(x), number_of(y));
    case Kind::string:
      return x.get_string() == y.get_string();
    case Kind::list: {
      if (x.size() != y.size()) return false;
      const auto xs = x.items();
      const auto ys = y.items();
      for (std::size_t i = 0; i < xs.size(); ++i) {
        if (is_container(xs[i]) && xs[i].kind() == ys[i].kind()) {
          pending.emplace_back(&xs[i], &ys[i]);
        } else if (!shallow_equal(xs[i], ys[i], pending)) {
          return false;
        }
      }
      return true;
    }
    case Kind::object:
      if (x.size() != y.size()) return false;
      for (const Member& member : x.members()) {
        const Value* other = y.find(member.key());
        if (other == nullptr) return false;
        if (is_container(member.value()) && member.value().kind() == other->kind()) {
          pending.emplace_back(&member.value(), other);
        } else if (!shallow_equal(member.value(), *other, pending)) {
          return false;
        }
      }
      return true;
  }
  return false;
}

// Moves every non-empty list or object among the value's children to `out`.
void take_nested(Value& value, std::vector<Value>& out) {
  const auto take = [&out](Value& child) {
    if (is_container(child) && !child.empty()) out.push_back(std::move(child));
  };
  if (value.is_list()) {
    for (Value& item : value.items()) take(item);
  } else if (value.is_object()) {
    for (Member& member : value.members()) take(member.value());
  }
}

// A list index in a path: decimal digits without a leading zero.
std::optional<std::size_t> parse_index(std::string_view text) noexcept {
  if (text.empty() || (text[0] == '0' && text.size() > 1)) return std::nullopt;
  std::size_t index = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, index);
  if (error != std::errc() || stop != end) return std::nullopt;
  return index;
}

const Value* item_of(const Value& value, std::string_view index_text) noexcept {
  if (!value.is_list()) return nullptr;
  const auto index = parse_index(index_text);
  if (!index || *index >= value.size()) return nullptr;
  return &value.items()[*index];
}

// Decodes "~0" and "~1"; false for any other '~'.
bool unescape_token(std::string_view token, std::string& out) {
  out.clear();
  for (std::size_t i = 0; i < token.size(); ++i) {
    if (token[i] != '~') {
      out += token[i];
    } else if (i + 1 < token.size() && (token[i + 1] == '0' || token[i + 1] == '1')) {
      out += token[++i] == '0' ? '~' : '/';
    } else {
      return false;
    }
  }
  return true;
}

// `path` starts with '/'.
const Value* find_pointer(const Value& root, std::string_view path) {
  const Value* value = &root;
  std::string unescaped;
  std::size_t start = 0;
  while (value != nullptr && start < path.size()) {
    const std::size_t end = std::min(path.find('/', start + 1), path.size());
    std::string_view token = path.substr(start + 1, end - start - 1);
    if (token.find('~') != std::string_view::npos) {
      if (!unescape_token(token, unescaped)) return nullptr;
      token = unescaped;
    }
    value = value->is_list() ? item_of(*value, token) : value->find(token);
    start = end;
  }
  return value;
}

// Keys separated by '.', list indices in brackets: "a.b[2].c", "[0][1]".
const Value* find_member_path(const Value& root, std::string_view path) noexcept {
  const Value* value = &root;
  std::size_t i = 0;
  while (value != nullptr && i < path.size()) {
    if (path[i] == '[') {
      const std::size_t close = path.find(']', i);
      if (close == std::string_view::npos) return nullptr;
      value = item_of(*value, path.substr(i + 1, close - i - 1));
      i = close + 1;
      continue;
    }
    if (i > 0) {
      if (path[i] != '.') return nullptr;
      ++i;
    }
    const std::size_t end = std::min(path.find_first_of(".[", i), path.size());
    if (end == i) return nullptr;
    value = value->find(path.substr(i, end - i));
    i = end;
  }
  return value;
}

}  // namespace

Value::Value(bool b) noexcept : tag_(b ? kTrueTag : kFalseTag) {}
Value::Value(int i) noexcept : Value(static_cast<long long>(i)) {}
Value::Value(long i) noexcept : Value(static_cast<long long>(i)) {}
Value::Value(long long i) noexcept : tag_(kInt64Tag) { store(bytes_, std::int64_t{i}); }
Value::Value(unsigned u) noexcept : Value(static_cast<unsigned long long>(u)) {}
Value::Value(unsigned long u) noexcept : Value(static_cast<unsigned long long>(u)) {}
Value::Value(unsigned long long u) noexcept : tag_(kUint64Tag) { store(bytes_, std::uint64_t{u}); }
Value::Value(double d) noexcept : tag_(kDoubleTag) { store(bytes_, d); }

Value::Value(std::string_view s) {
  if (s.size() <= kMaxInlineString) {
    if (!s.empty()) std::memcpy(bytes_, s.data(), s.size());
    tag_ = static_cast<std::uint8_t>(kInlineStringTag + s.size());
    return;
  }
  char* chars = std::allocator<char>().allocate(s.size());
  std::memcpy(chars, s.data(), s.size());
  store(bytes_, chars);
  store_length(bytes_, s.size());
  tag_ = kHeapStringTag;
}

Value Value::list() {
  Value value;
  store(value.bytes_, new_block<ListBlock>());
  value.tag_ = kListTag;
  return value;
}

Value Value::list(std::initializer_list<Value> items) {
  Value value = list();
  list_in(value.bytes_).assign(items.begin(), items.end());
  return value;
}

Value Value::object() {
  Value value;
  store(value.bytes_, new_block<ObjectBlock>());
  value.tag_ = kObjectTag;
  return value;
}

Value Value::object(std::initializer_list<std::pair<std::string_view, Value>> members) {
  Value value = object();
  for (const auto& [key, member_value] : members) value.set(key, member_value);
  return value;
}

// Iterative: containers get their shape at once and their nested containers are filled from a
// work list, so the depth of the tree does not matter.
Value::Value(const Value& other) {
  Value result;
  std::vector<std::pair<const Value*, Value*>> pending;
  const auto copy_node = [&pending](const Value& from, Value& to) {
    const auto copy_child = [&pending](const Value& child_from, Value& child_to) {
      if (is_container(child_from)) {
        pending.emplace_back(&child_from, &child_to);
      } else if (child_from.tag_ == kHeapStringTag) {
        child_to = Value(child_from.get_string());
      } else {
        std::memcpy(child_to.bytes_, child_from.bytes_, sizeof child_to.bytes_);
        child_to.tag_ = child_from.tag_;
      }
    };
    if (from.tag_ == kListTag) {
      to = list();
      const ListBlock& source = list_in(from.bytes_);
      ListBlock& target = list_in(to.bytes_);
      target.resize(source.size());
      for (std::size_t i = 0; i < source.size(); ++i) copy_child(source[i], target[i]);
    } else if (from.tag_ == kObjectTag) {
      to = object();
      const ObjectBlock& source = object_in(from.bytes_);
      ObjectBlock& target = object_in(to.bytes_);
      target.members.reserve(source.members.size());
      for (const Member& member : source.members) {
        target.members.emplace_back(member.key(), Value());
        copy_child(member.value(), target.members.back().value());
      }
      target.slots = source.slots;
    } else {
      copy_child(from, to);
    }
  };
  copy_node(other, result);
  while (!pending.empty()) {
    const auto [from, to] = pending.back();
    pending.pop_back();
    copy_node(*from, *to);
  }
  swap(result);
}

// Through a temporary, so that assigning a value's own child works.
Value& Value::operator=(const Value& other) {
  Value copy(other);
  swap(copy);
  return *this;
}

// The old content goes last, so that assigning a value's own child works.
Value& Value::operator=(Value&& other) noexcept {
  if (this == &other) return *this;
  Value old(std::move(*this));
  std::memcpy(bytes_, other.bytes_, sizeof bytes_);
  tag_ = std::exchange(other.tag_, kNullTag);
  return *this;
}

// Iterative: nested lists and objects move to a work list before their parent is freed, so
// each destructor below frees only children without nested content.
void Value::release() noexcept {
  if (tag_ == kHeapStringTag) {
    std::allocator<char>().deallocate(load<char*>(bytes_), load_length(bytes_));
    return;
  }
  if (tag_ != kListTag && tag_ != kObjectTag) return;
  std::vector<Value> nested;
  take_nested(*this, nested);
  while (!nested.empty()) {
    Value last = std::move(nested.back());
    nested.pop_back();
    take_nested(last, nested);
  }
  if (tag_ == kListTag) {
    delete_block(load<ListBlock*>(bytes_));
  } else {
    delete_block(load<ObjectBlock*>(bytes_));
  }
}

bool Value::get_bool() const {
  require_kind(*this, Kind::boolean);
  return tag_ == kTrueTag;
}

std::int64_t Value::get_int64() const {
  if (tag_ == kInt64Tag) return load<std::int64_t>(bytes_);
  require_kind(*this, Kind::number);
  const Number number = number_of(*this);
  if (const auto exact = exact_int64(number)) return *exact;
  throw_does_not_fit(number, "int64");
}

std::uint64_t Value::get_uint64() const {
  if (tag_ == kUint64Tag) return load<std::uint64_t>(bytes_);
  require_kind(*this, Kind::number);
  const Number number = number_of(*this);
  if (const auto exact = exact_uint64(number)) return *exact;
  throw_does_not_fit(number, "uint64");
}

double Value::get_double() const {
  if (tag_ == kDoubleTag) return load<double>(bytes_);
  if (tag_ == kInt64Tag) return static_cast<double>(load<std::int64_t>(bytes_));
  if (tag_ == kUint64Tag) return static_cast<double>(load<std::uint64_t>(bytes_));
  throw_kind(kind(), Kind::number);
}

std::string_view Value::get_long_string() const {
  if (tag_ == kHeapStringTag) return {load<const char*>(bytes_), load_length(bytes_)};
  throw_kind(kind(), Kind::string);
}

void Value::reserve(std::size_t count) {
  if (tag_ == kListTag) return list_in(bytes_).reserve(count);
  require_kind(*this, Kind::object);
  object_in(bytes_).reserve(count);
}

std::size_t Value::size() const noexcept {
  if (tag_ == kListTag) return list_in(bytes_).size();
  if (tag_ == kObjectTag) return object_in(bytes_).members.size();
  return 0;
}

std::span<Value> Value::items() {
  if (tag_ == kNullTag) *this = list();
  require_kind(*this, Kind::list);
  return list_in(bytes_);
}

std::span<const Value> Value::items() const {
  require_kind(*this, Kind::list);
  return list_in(bytes_);
}

Value& Value::push_back(Value item) {
  items();
  ListBlock& block = list_in(bytes_);
  block.push_back(std::move(item));
  return block.back();
}

const Value& Value::at(std::size_t index) const {
  const auto all = items();
  if (index >= all.size()) {
    throw std::runtime_error(
        fmt::format("JSON index {} out of range ({} items).", index, all.size()));
  }
  return all[index];
}

Value& Value::at(std::size_t index) { return const_cast<Value&>(std::as_const(*this).at(index)); }

void Value::erase(std::size_t index) {
  at(index);
  ListBlock& block = list_in(bytes_);
  block.erase(block.begin() + static_cast<std::ptrdiff_t>(index));
}

std::span<Member> Value::members() {
  if (tag_ == kNullTag) *this = object();
  require_kind(*this, Kind::object);
  return object_in(bytes_).members;
}

std::span<const Member> Value::members() const {
  require_kind(*this, Kind::object);
  return object_in(bytes_).members;
}

const Value* Value::find(std::string_view key) const noexcept {
  if (tag_ != kObjectTag) return nullptr;
  const ObjectBlock& block = object_in(bytes_);
  const std::size_t position = block.find(key);
  return position < block.members.size() ? &block.members[position].value() : nullptr;
}

Value* Value::find(std::string_view key) noexcept {
  return const_cast<Value*>(std::as_const(*this).find(key));
}

Value& Value::set(std::string_view key, Value value) {
  members();
  ObjectBlock& block = object_in(bytes_);
  const std::size_t position = block.find(key);
  if (position < block.members.size()) return block.members[position].value() = std::move(value);
  return append_member(key, std::move(value));
}

Value& Value::append_member(std::string_view key, Value value) {
  members();
  ObjectBlock& block = object_in(bytes_);
  block.append(Member(key, std::move(value)));
  return block.members.back().value();
}

Value& Value::operator[](std::string_view key) {
  members();
  if (Value* value = find(key)) return *value;
  return set(key, Value());
}

const Value& Value::at(std::string_view key) const {
  require_kind(*this, Kind::object);
  const Value* value = find(key);
  if (value == nullptr) throw_path(key);
  return *value;
}

Value& Value::at(std::string_view key) { return const_cast<Value&>(std::as_const(*this).at(key)); }

bool Value::erase(std::string_view key) {
  if (tag_ == kNullTag) return false;
  require_kind(*this, Kind::object);
  ObjectBlock& block = object_in(bytes_);
  const std::size_t position = block.find(key);
  if (position == block.members.size()) return false;
  block.erase(position);
  return true;
}

const Value* Value::find_path(std::string_view path) const noexcept {
  if (!path.empty() && path.front() == '/') return find_pointer(*this, path);
  return find_member_path(*this, path);
}

Value* Value::find_path(std::string_view path) noexcept {
  return const_cast<Value*>(std::as_const(*this).find_path(path));
}

const Value& Value::at_path(std::string_view path) const {
  const Value* value = find_path(path);
  if (value == nullptr) throw_path(path);
  return *value;
}

Value& Value::at_path(std::string_view path) {
  return const_cast<Value&>(std::as_const(*this).at_path(path));
}

// Iterative, like copying.
bool operator==(const Value& a, const Value& b) noexcept {
  std::vector<ConstPair> pending;
  if (!shallow_equal(a, b, pending)) return false;
  while (!pending.empty()) {
    const auto [x, y] = pending.back();
    pending.pop_back();
    if (!shallow_equal(*x, *y, pending)) return false;
  }
  return true;
}

void Value::swap(Value& other) noexcept {
  unsigned char bytes[sizeof bytes_];
  std::memcpy(bytes, bytes_, sizeof bytes_);
  std::memcpy(bytes_, other.bytes_, sizeof bytes_);
  std::memcpy(other.bytes_, bytes, sizeof bytes_);
  std::swap(tag_, other.tag_);
}

Member::Member(std::string_view key, Value value) : key_(key), value_(std::move(value)) {}

const char* kind_name(Kind kind) noexcept {
  switch (kind) {
    case Kind::null:
      return "null";
    case Kind::boolean:
      return "boolean";
    case Kind::number:
      return "number";
    case Kind::string:
      return "string";
    case Kind::list:
      return "list";
    case Kind::object:
      return "object";
  }
  return "unknown";
}

}  // namespace JSON
