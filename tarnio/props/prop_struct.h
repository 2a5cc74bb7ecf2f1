#pragma once

// TPropstruct, the "struct" value of the property tree: named members in insertion order.
// Names are unique within a struct. Small structs find a member by a linear search; from
// kIndexedFrom members on, a hash index over the names keeps find, has_key and set at constant
// time, so that paths into large structs stay in the microseconds and reading one stays linear.
// Member names must not be changed through iterators (the index would miss them).

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarnio/export.h"
#include "tarnio/props/prop.h"

class TARNIO_EXPORT TPropstruct {
 public:
  using Member = std::pair<std::string, TProp>;
  using iterator = std::vector<Member>::iterator;
  using const_iterator = std::vector<Member>::const_iterator;

  // The member count from which names are hashed.
  static constexpr std::size_t kIndexedFrom = 16;

  TPropstruct() = default;

  iterator begin() noexcept { return members_.begin(); }
  iterator end() noexcept { return members_.end(); }
  const_iterator begin() const noexcept { return members_.begin(); }
  const_iterator end() const noexcept { return members_.end(); }
  std::size_t size() const noexcept { return members_.size(); }
  bool empty() const noexcept { return members_.empty(); }
  void reserve(std::size_t count);

  // The member named exactly `name`, or end().
  iterator find(std::string_view name) noexcept;
  const_iterator find(std::string_view name) const noexcept;
  bool has_key(std::string_view name) const noexcept { return find(name) != end(); }
  // Removes the member; later members move up (linear in the member count). Returns whether it
  // existed.
  bool erase(std::string_view name);
  // Sets a member: replaces the value of an existing one in place, else appends it. The name is
  // not checked; the path functions and the readers check names they are given.
  TProp& set(std::string_view name, TProp value);

  // Paths relative to this struct (path.h); throws std::runtime_error
  // "Invalid property path '{}': {}".
  TProp& getp(std::string_view path, bool create = false);
  const TProp& getp(std::string_view path) const;
  TProp* getp(std::string_view path, std::string* error, bool create = false);
  const TProp* getp(std::string_view path, std::string* error) const;
  // getp with creation; the const form does not create.
  TProp& operator[](std::string_view path) { return getp(path, true); }
  const TProp& operator[](std::string_view path) const { return getp(path); }

  // Members compared in order (see compare.h for other comparisons).
  bool operator==(const TPropstruct& other) const;

 private:
  // Open addressing over member positions: a slot holds position + 1 in its low bits (as many
  // as the table has slots, which is more than twice the member count) and upper bits of the
  // name's hash in the bits above, or 0 when free; a probe reads a member's name only when the
  // hash bits match. `hash` is the hash of `name`; the slot holding it or the free slot where
  // it belongs is returned.
  std::size_t slot_of(std::string_view name, std::uint64_t hash) const noexcept;
  void rebuild_index(std::size_t capacity);
  void index_last_member();

  std::vector<Member> members_;
  std::vector<std::uint32_t> slots_;
};
