#include "tarnio/props/prop_struct.h"

#include <algorithm>
#include <bit>
#include <functional>

namespace {

std::uint64_t hash_of(std::string_view name) noexcept {
  return std::hash<std::string_view>{}(name);
}

// The hash bits kept in a slot of a table of `mask` + 1 slots: the upper half of the hash,
// cleared where the position goes.
std::uint32_t fragment_of(std::uint64_t hash, std::size_t mask) noexcept {
  return static_cast<std::uint32_t>(hash >> 32) & ~static_cast<std::uint32_t>(mask);
}

std::uint32_t entry_of(std::uint64_t hash, std::size_t mask, std::size_t position) noexcept {
  return fragment_of(hash, mask) | static_cast<std::uint32_t>(position + 1);
}

std::size_t position_of(std::uint32_t entry, std::size_t mask) noexcept {
  return (entry & static_cast<std::uint32_t>(mask)) - 1;
}

}  // namespace

void TPropstruct::reserve(std::size_t count) {
  members_.reserve(count);
  if (count >= kIndexedFrom && slots_.size() < 2 * count) rebuild_index(2 * count);
}

std::size_t TPropstruct::slot_of(std::string_view name, std::uint64_t hash) const noexcept {
  const std::size_t mask = slots_.size() - 1;
  const std::uint32_t fragment = fragment_of(hash, mask);
  std::size_t slot = static_cast<std::size_t>(hash) & mask;
  while (true) {
    const std::uint32_t entry = slots_[slot];
    if (entry == 0) return slot;
    if ((entry & ~static_cast<std::uint32_t>(mask)) == fragment &&
        members_[position_of(entry, mask)].first == name) {
      return slot;
    }
    slot = (slot + 1) & mask;
  }
}

void TPropstruct::rebuild_index(std::size_t capacity) {
  slots_.assign(std::bit_ceil(std::max<std::size_t>(capacity, 2 * kIndexedFrom)), 0);
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t position = 0; position < members_.size(); ++position) {
    const std::uint64_t hash = hash_of(members_[position].first);
    std::size_t slot = static_cast<std::size_t>(hash) & mask;
    while (slots_[slot] != 0) slot = (slot + 1) & mask;
    slots_[slot] = entry_of(hash, mask, position);
  }
}

void TPropstruct::index_last_member() {
  if (slots_.empty()) {
    if (members_.size() >= kIndexedFrom) rebuild_index(2 * members_.size());
    return;
  }
  if (2 * members_.size() > slots_.size()) {
    rebuild_index(2 * slots_.size());
    return;
  }
  const std::uint64_t hash = hash_of(members_.back().first);
  slots_[slot_of(members_.back().first, hash)] =
      entry_of(hash, slots_.size() - 1, members_.size() - 1);
}

TPropstruct::iterator TPropstruct::find(std::string_view name) noexcept {
  if (slots_.empty()) {
    return std::find_if(members_.begin(), members_.end(),
                        [name](const Member& member) { return member.first == name; });
  }
  const std::uint32_t entry = slots_[slot_of(name, hash_of(name))];
  return entry != 0
             ? members_.begin() + static_cast<std::ptrdiff_t>(position_of(entry, slots_.size() - 1))
             : members_.end();
}

TPropstruct::const_iterator TPropstruct::find(std::string_view name) const noexcept {
  return const_cast<TPropstruct*>(this)->find(name);
}

bool TPropstruct::erase(std::string_view name) {
  const auto member = find(name);
  if (member == members_.end()) return false;
  members_.erase(member);
  if (!slots_.empty()) rebuild_index(slots_.size());
  return true;
}

TProp& TPropstruct::set(std::string_view name, TProp value) {
  if (slots_.empty()) {
    const auto member = find(name);
    if (member != members_.end()) return member->second = std::move(value);
    members_.emplace_back(std::string(name), std::move(value));
    index_last_member();
    return members_.back().second;
  }
  // One probe finds the member or the free slot where its name belongs.
  const std::uint64_t hash = hash_of(name);
  const std::size_t slot = slot_of(name, hash);
  const std::size_t mask = slots_.size() - 1;
  if (slots_[slot] != 0) return members_[position_of(slots_[slot], mask)].second = std::move(value);
  members_.emplace_back(std::string(name), std::move(value));
  if (2 * members_.size() > slots_.size()) {
    rebuild_index(2 * slots_.size());
  } else {
    slots_[slot] = entry_of(hash, mask, members_.size() - 1);
  }
  return members_.back().second;
}

bool TPropstruct::operator==(const TPropstruct& other) const {
  return members_.size() == other.members_.size() &&
         std::equal(members_.begin(), members_.end(), other.members_.begin(),
                    [](const Member& a, const Member& b) {
                      return a.first == b.first && a.second == b.second;
                    });
}
