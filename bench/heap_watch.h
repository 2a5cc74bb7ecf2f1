#pragma once

// The most heap that the library holds at once during a call: HeapWatch reads two process-wide
// counters that the benchmark's own replacements of the allocation functions keep, calling
// count_allocation() on every block they hand out and count_release() on every block they take
// back. A benchmark that watches the heap defines those replacements once, outside any
// namespace: the operator new family, or the malloc family to see C allocations as well. Blocks
// are counted at their usable size. The counters are atomic; a HeapWatch belongs to one thread.

#include <malloc.h>

#include <atomic>
#include <cstdint>

namespace tarnio_bench {

// Heap bytes held now, and the most held since the last HeapWatch began.
inline std::atomic<std::int64_t> heap_live{0};
inline std::atomic<std::int64_t> heap_peak{0};

// Adds block `p` (null: nothing) to the heap held; returns `p`.
inline void* count_allocation(void* p) {
  if (p == nullptr) return p;
  const auto usable = static_cast<std::int64_t>(::malloc_usable_size(p));
  const std::int64_t now = heap_live.fetch_add(usable, std::memory_order_relaxed) + usable;
  std::int64_t peak = heap_peak.load(std::memory_order_relaxed);
  while (now > peak && !heap_peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
  }
  return p;
}

// Takes block `p` (null: nothing) away from the heap held; call it before the block is freed.
inline void count_release(void* p) {
  if (p != nullptr) {
    heap_live.fetch_sub(static_cast<std::int64_t>(::malloc_usable_size(p)),
                        std::memory_order_relaxed);
  }
}

// The most heap bytes held during its life beyond those held at its start.
class HeapWatch {
 public:
  HeapWatch() : base_(heap_live.load()) { heap_peak.store(base_); }
  double extra_bytes() const { return static_cast<double>(heap_peak.load() - base_); }

 private:
  std::int64_t base_;
};

}  // namespace tarnio_bench
