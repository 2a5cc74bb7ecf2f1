#pragma once

// Arena: one memory pool for the lists and objects of a tree read from text, so that reading
// and freeing a large tree cost a few big allocations instead of one per node.
//
// While an ArenaScope is open on a thread, the lists and objects that JSON::Value creates on
// that thread take their blocks and their item storage from the scope's arena. Once the scope
// closes, the arena hands out no more memory: containers of the tree that grow later move
// their items to the heap, and new nodes live on the heap as any other. Memory given back to
// the arena serves later requests of the same size while the scope is open and stays unused
// after; the arena itself is freed when the scope has closed and the last block taken from it
// is destroyed, so subtrees moved out of the tree stay valid.
//
// Threading: a scope belongs to its thread; blocks of one arena may be destroyed on
// different threads.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace JSON::internal {

class Arena {
 public:
  Arena(const Arena&) = delete;
  Arena& operator=(const Arena&) = delete;

  // The arena of the scope open on this thread, or null.
  static Arena* current() noexcept;

  Arena();

  // Memory for `bytes` bytes aligned for any Value: from the arena while its scope is open,
  // else from the heap.
  void* allocate(std::size_t bytes);
  // Frees memory that allocate() gave: nothing for arena memory, the heap block otherwise.
  void deallocate(void* memory, std::size_t bytes) noexcept;

  // A block taken from the arena keeps it alive until release_block().
  void acquire_block() noexcept { blocks_.fetch_add(1, std::memory_order_relaxed); }
  void release_block() noexcept;

 private:
  friend class ArenaScope;

  bool owns(const void* memory) const noexcept;
  std::byte* new_chunk(std::size_t bytes);

  // The address ranges of the chunks, sorted.
  using Range = std::pair<std::uintptr_t, std::uintptr_t>;

  // A request larger than a quarter chunk gets one of its own.
  std::vector<std::unique_ptr<std::byte[]>> chunks_;
  // Per size, a list of freed blocks linked through their first bytes.
  std::vector<std::pair<std::size_t, void*>> free_;
  std::vector<Range> ranges_;
  std::byte* next_ = nullptr;
  std::byte* end_ = nullptr;
  bool open_ = true;
  // The scope counts as one block.
  std::atomic<std::size_t> blocks_{1};
};

// Opens a new arena on this thread for the scope's lifetime. Scopes do not nest: an inner
// scope leaves the outer arena in place.
class ArenaScope {
 public:
  ArenaScope();
  ~ArenaScope();
  ArenaScope(const ArenaScope&) = delete;
  ArenaScope& operator=(const ArenaScope&) = delete;

 private:
  Arena* arena_ = nullptr;  // null for a nested scope
};

}  // namespace JSON::internal
