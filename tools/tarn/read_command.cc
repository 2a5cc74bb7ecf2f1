// tarn read: one stack's samples as raw little-endian bytes, first index fastest, to standard
// output or a file, in large blocks.

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "tarnio/arrays/data_type.h"
#include "tarnio/bf/file_interface.h"
#include "tools/tarn/commands.h"
#include "tools/tarn/progress_bar.h"

namespace tarn {
namespace {

struct ReadOptions {
  std::string file;
  std::size_t stack = 0;
  std::string output;
};

bool keep_going() { return !interrupted(); }

// Opens `path` for writing, created or truncated. Refuses the file that is being read, which
// truncating would destroy.
int open_output(const std::string& path, const std::string& input) {
  std::error_code ignored;
  if (std::filesystem::equivalent(path, input, ignored)) {
    throw std::runtime_error(fmt::format("Output '{}' is the file being read.", path));
  }
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) {
    throw std::runtime_error(fmt::format("Could not open '{}': {}", path, std::strerror(errno)));
  }
  return fd;
}

void run_read(const ReadOptions& options) {
  const auto file = Tarn::open_file(options.file, Tarn::bf::DiskFile::Mode::read);
  const auto stack = file->stack(options.stack);
  if (options.output.empty()) {
    ProgressBar bar("read");
    stream_stack(*stack, bar, [](const std::byte* data, std::size_t n) { write_stdout(data, n); });
    return;
  }
  watch_interruptions();
  const int fd = open_output(options.output, options.file);
  try {
    ProgressBar bar("read");
    stream_stack(*stack, bar,
                 [fd](const std::byte* data, std::size_t n) { write_all(fd, data, n); });
    if (::close(fd) != 0) {
      throw std::runtime_error(fmt::format("Could not write output: {}", std::strerror(errno)));
    }
  } catch (...) {
    // A partial output would pass for the stack's samples; it goes.
    ::close(fd);
    std::error_code ignored;
    std::filesystem::remove(options.output, ignored);
    throw;
  }
}

}  // namespace

void write_all(int fd, const void* data, std::size_t n) {
  const auto* p = static_cast<const char*>(data);
  while (n > 0) {
    const ssize_t done = ::write(fd, p, n);
    if (done < 0) {
      if (errno == EINTR && !interrupted()) continue;
      throw std::runtime_error(fmt::format("Could not write output: {}", std::strerror(errno)));
    }
    p += done;
    n -= static_cast<std::size_t>(done);
  }
}

void write_stdout(const void* data, std::size_t n) { write_all(STDOUT_FILENO, data, n); }

void stream_stack(Tarn::bf::StackImp& stack, ProgressBar& bar,
                  const std::function<void(const std::byte*, std::size_t)>& sink) {
  if (!stack.has_data()) return;
  const std::uint64_t total = stack.number_of_elements();
  const std::size_t sample = tarn_dt_get_size(stack.type());
  if (sample == 0) {
    throw std::runtime_error(
        fmt::format("Cannot read samples of type '{}'.", tarn_dt_get_name(stack.type())));
  }
  std::uint64_t total_bytes = 0;
  if (__builtin_mul_overflow(total, std::uint64_t{sample}, &total_bytes)) {
    throw std::runtime_error("The product exceeds the maximum size.");
  }
  const std::uint64_t per_block = kTransferBlock / sample;
  std::vector<std::byte> buffer(std::min(per_block, total) * sample);
  std::uint64_t first = 0;
  // The callback must not outlive this frame. It counts either the one read call or the whole
  // stack.
  struct CallbackReset {
    Tarn::bf::StackImp& stack;
    ~CallbackReset() { stack.set_progress_callback(nullptr); }
  } reset{stack};
  stack.set_progress_callback([&](std::uint64_t done, std::uint64_t of) {
    bar.update(of == total_bytes ? done : first * sample + done, total_bytes);
    return keep_going();
  });
  while (first < total) {
    if (interrupted()) throw std::runtime_error("Cancelled by user.");
    const std::uint64_t count = std::min(per_block, total - first);
    stack.read(first, count, buffer.data());
    sink(buffer.data(), count * sample);
    first += count;
    bar.update(first * sample, total_bytes);
  }
  bar.finish();
}

void add_read_command(CLI::App& app) {
  auto options = std::make_shared<ReadOptions>();
  CLI::App* command = app.add_subcommand(
      "read",
      "Write the samples of one stack as raw little-endian bytes, first index fastest, to "
      "standard output or a file.");
  command->add_option("FILE", options->file, "The TBF file")->required();
  command->add_option("--stack", options->stack, "The index of the stack, from 0")
      ->required()
      ->check(CLI::NonNegativeNumber);
  command->add_option("-o,--output", options->output,
                      "Write to this file (created or replaced) instead of standard output.");
  command->callback([options] { run_read(*options); });
}

}  // namespace tarn
