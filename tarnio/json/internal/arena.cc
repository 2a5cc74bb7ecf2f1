#include "tarnio/json/internal/arena.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <new>

namespace JSON::internal {
namespace {

constexpr std::size_t kAlignment = alignof(std::max_align_t);
// Below the size from which the C library maps memory from the system afresh for each
// request, so that chunks are reused like any other freed memory.
constexpr std::size_t kChunk = std::size_t{64} << 10;

thread_local Arena* current_arena = nullptr;

std::size_t aligned(std::size_t bytes) noexcept {
  return (bytes + kAlignment - 1) & ~(kAlignment - 1);
}

}  // namespace

Arena* Arena::current() noexcept { return current_arena; }

void* Arena::allocate(std::size_t bytes) {
  if (!open_) return ::operator new(bytes);
  bytes = aligned(bytes);
  if (static_cast<std::size_t>(end_ - next_) < bytes) {
    const std::size_t size = std::max(kChunk, bytes);
    ranges_.reserve(ranges_.size() + 1);
    chunks_.push_back(std::make_unique_for_overwrite<std::byte[]>(size));
    next_ = chunks_.back().get();
    end_ = next_ + size;
    const Range range{reinterpret_cast<std::uintptr_t>(next_),
                      reinterpret_cast<std::uintptr_t>(end_)};
    ranges_.insert(std::upper_bound(ranges_.begin(), ranges_.end(), range), range);
  }
  void* memory = next_;
  next_ += bytes;
  return memory;
}

void Arena::deallocate(void* memory, std::size_t bytes) noexcept {
  if (!owns(memory)) ::operator delete(memory, bytes);
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
