#include "tarnio/json/internal/arena.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <new>

namespace JSON::internal {
namespace {

constexpr std::size_t kAlignment = alignof(std::max_align_t);
// Below the size from which the C library maps memory from the system afresh for each
// request, so that chunks are reused like any other freed memory.
constexpr std::size_t kChunk = std::size_t{64} << 10;
// Block sizes whose freed blocks are kept for reuse; containers grow through a few dozen.
constexpr std::size_t kFreeSizes = 64;

thread_local Arena* current_arena = nullptr;

std::size_t aligned(std::size_t bytes) noexcept {
  return (bytes + kAlignment - 1) & ~(kAlignment - 1);
}

}  // namespace

Arena::Arena() { free_.reserve(kFreeSizes); }

Arena* Arena::current() noexcept { return current_arena; }

void* Arena::allocate(std::size_t bytes) {
  if (!open_) return ::operator new(bytes);
  bytes = aligned(bytes);
  for (auto& [size, head] : free_) {
    if (size == bytes && head != nullptr) {
      void* memory = head;
      std::memcpy(&head, memory, sizeof head);
      return memory;
    }
  }
  if (bytes > kChunk / 4) return new_chunk(bytes);
  if (static_cast<std::size_t>(end_ - next_) < bytes) {
    next_ = new_chunk(kChunk);
    end_ = next_ + kChunk;
  }
  void* memory = next_;
  next_ += bytes;
  return memory;
}

// Containers that grow while the tree is read give their old storage back; it serves the next
// request of the same size, as containers grow through the same sizes.
void Arena::deallocate(void* memory, std::size_t bytes) noexcept {
  if (!owns(memory)) return ::operator delete(memory, bytes);
  if (!open_) return;
  bytes = aligned(bytes);
  auto list =
      std::find_if(free_.begin(), free_.end(), [bytes](const auto& f) { return f.first == bytes; });
  if (list == free_.end()) {
    if (free_.size() == free_.capacity()) return;  // no room without allocating: left unused
    list = free_.emplace(free_.end(), bytes, nullptr);
  }
  std::memcpy(memory, &list->second, sizeof list->second);
  list->second = memory;
}

std::byte* Arena::new_chunk(std::size_t bytes) {
  ranges_.reserve(ranges_.size() + 1);
  chunks_.push_back(std::make_unique_for_overwrite<std::byte[]>(bytes));
  std::byte* chunk = chunks_.back().get();
  const Range range{reinterpret_cast<std::uintptr_t>(chunk),
                    reinterpret_cast<std::uintptr_t>(chunk + bytes)};
  ranges_.insert(std::upper_bound(ranges_.begin(), ranges_.end(), range), range);
  return chunk;
}

bool Arena::owns(const void* memory) const noexcept {
  const auto address = reinterpret_cast<std::uintptr_t>(memory);
  const auto after = std::upper_bound(ranges_.begin(), ranges_.end(), Range{address, UINTPTR_MAX});
  return after != ranges_.begin() && address < std::prev(after)->second;
}

void Arena::release_block() noexcept {
  if (blocks_.fetch_sub(1, std::memory_order_acq_rel) == 1) std::unique_ptr<Arena> last(this);
}

ArenaScope::ArenaScope() {
  if (current_arena != nullptr) return;
  arena_ = std::make_unique<Arena>().release();
  current_arena = arena_;
}

ArenaScope::~ArenaScope() {
  if (arena_ == nullptr) return;
  current_arena = nullptr;
  arena_->open_ = false;
  arena_->release_block();
}

}  // namespace JSON::internal
