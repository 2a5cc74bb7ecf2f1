// The --threads option of the commands that compress or decompress stack data.

#include <fmt/format.h>

#include <algorithm>
#include <thread>

#include "tools/tarn/commands.h"

namespace tarn {

std::uint64_t hardware_threads() {
  return std::max<std::uint64_t>(1, std::thread::hardware_concurrency());
}

CLI::Option* add_threads_option(CLI::App& command, std::uint64_t& threads,
                                const std::string& purpose) {
  threads = hardware_threads();
  return command
      .add_option(
          "--threads", threads,
          fmt::format("Threads for {} (default: every hardware thread, {} here)", purpose, threads))
      ->check(CLI::PositiveNumber);
}

}  // namespace tarn
