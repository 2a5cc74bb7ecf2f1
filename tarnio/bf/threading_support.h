#pragma once

// ThreadingSupport: how many threads the segments that compress and decompress stack data may
// use, and how they start their tasks. A plain value; copies share only what the launcher
// captures. The disk file stores one and hands it to the layers above.

#include <cstdint>
#include <functional>

namespace Tarn::bf {

struct ThreadingSupport {
  // Runs one task somewhere and returns at once, without waiting for it.
  using TaskLauncher = std::function<void(std::function<void()>)>;

  std::uint64_t thread_count = 1;
  // Empty when there is no launcher.
  TaskLauncher task_launcher;
};

}  // namespace Tarn::bf
