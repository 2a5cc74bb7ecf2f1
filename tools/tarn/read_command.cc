// tarn read: one stack's samples, or those of a region of it, as raw little-endian bytes,
// first index fastest, to standard output or a file, in large blocks.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "tarnio/arrays/data_type.h"
#include "tarnio/arrays/region.h"
#include "tarnio/bf/file_interface.h"
#include "tools/tarn/commands.h"
#include "tools/tarn/progress_bar.h"

namespace tarn {
namespace {

struct ReadOptions {
  std::string file;
  std::size_t stack = 0;
  std::string output;
  std::string region;
  std::uint64_t threads = 0;
};

// The most bytes one region read of the stream hands on: enough to keep every thread busy with
// 4 MiB flush blocks, little enough that the output flows while the stack is read.
constexpr std::uint64_t kRegionPiece = std::uint64_t{32} << 20;

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

// The bytes of `count` samples of `sample` bytes; throws when they exceed 64 bits.
std::uint64_t checked_bytes(std::uint64_t count, std::size_t sample) {
  std::uint64_t bytes = 0;
  if (__builtin_mul_overflow(count, std::uint64_t{sample}, &bytes)) {
    throw std::runtime_error("The product exceeds the maximum size.");
  }
  return bytes;
}

// The bytes of one sample of the stack; throws for a type without a size.
std::size_t sample_size(const Tarn::bf::StackImp& stack) {
  const std::size_t sample = tarn_dt_get_size(stack.type());
  if (sample == 0) {
    throw std::runtime_error(
        fmt::format("Cannot read samples of type '{}'.", tarn_dt_get_name(stack.type())));
  }
  return sample;
}

// Shows the progress of the stack's reads on `bar` while it lives: `base()` bytes were done
// before the current call, of `total`.
class ReadProgress {
 public:
  ReadProgress(Tarn::bf::StackImp& stack, ProgressBar& bar, std::uint64_t total,
               const std::function<std::uint64_t(std::uint64_t call_total)>& base)
      : stack_(stack) {
    stack.set_progress_callback([&bar, total, base](std::uint64_t done, std::uint64_t of) {
      bar.update(base(of) + done, total);
      return keep_going();
    });
  }
  ReadProgress(const ReadProgress&) = delete;
  ReadProgress& operator=(const ReadProgress&) = delete;
  ~ReadProgress() { stack_.set_progress_callback(nullptr); }

 private:
  Tarn::bf::StackImp& stack_;
};

// Hands the samples of `region` to `sink` in region order, read as sub-regions of at most
// kRegionPiece bytes: whole leading axes and a range of the next one, one index of each axis
// behind it.
void stream_region(Tarn::bf::StackImp& stack, const Tarn::arrays::Region& region, ProgressBar& bar,
                   const std::function<void(const std::byte*, std::size_t)>& sink) {
  if (!stack.has_data() || region.number_of_elements() == 0) return;
  const std::size_t sample = sample_size(stack);
  const std::uint64_t total = checked_bytes(region.number_of_elements(), sample);
  const std::vector<std::uint64_t>& size = region.size();
  const std::size_t rank = size.size();
  std::size_t axis = 0;
  std::uint64_t inner = sample;
  while (axis < rank && inner * size[axis] <= kRegionPiece) inner *= size[axis++];
  const std::uint64_t per_piece =
      axis == rank ? 1 : std::max<std::uint64_t>(1, kRegionPiece / inner);
  std::vector<std::byte> buffer(std::min(total, inner * per_piece));

  std::uint64_t done = 0;
  const ReadProgress progress(stack, bar, total, [&done](std::uint64_t) { return done; });
  // An odometer over the indices of axis `axis` (in steps of per_piece) and the axes behind.
  std::vector<std::uint64_t> index(rank, 0);
  for (;;) {
    if (interrupted()) throw std::runtime_error("Cancelled by user.");
    std::vector<std::uint64_t> start = region.start();
    std::vector<std::uint64_t> piece = size;
    for (std::size_t i = axis; i < rank; ++i) {
      start[i] += index[i] * region.step()[i];
      piece[i] = i == axis ? std::min(per_piece, size[i] - index[i]) : 1;
    }
    const Tarn::arrays::Region part(start, piece, region.step());
    const std::uint64_t bytes = part.number_of_elements() * sample;
    stack.read_region(part, buffer.data());
    sink(buffer.data(), bytes);
    done += bytes;
    bar.update(done, total);
    std::size_t i = axis;
    for (; i < rank; ++i) {
      index[i] += i == axis ? per_piece : 1;
      if (index[i] < size[i]) break;
      index[i] = 0;
    }
    if (i == rank) break;
  }
  bar.finish();
}

void run_read(const ReadOptions& options) {
  const auto file = Tarn::open_file(options.file, Tarn::bf::DiskFile::Mode::read);
  file->set_threading_support({options.threads, {}});
  const auto stack = file->stack(options.stack);
  const Tarn::arrays::Region region = options.region.empty()
                                          ? Tarn::arrays::Region::whole(stack->shape())
                                          : parse_region(options.region, stack->shape());
  if (options.output.empty()) {
    ProgressBar bar("read");
    stream_region(*stack, region, bar,
                  [](const std::byte* data, std::size_t n) { write_stdout(data, n); });
    return;
  }
  watch_interruptions();
  const int fd = open_output(options.output, options.file);
  try {
    ProgressBar bar("read");
    stream_region(*stack, region, bar,
                  [fd](const std::byte* data, std::size_t n) { write_all(fd, data, n); });
    if (::close(fd) != 0) {
      throw std::runtime_error(fmt::format("Could not write output: {}", std::strerror(errno)));
    }
  } catch (...) {
    // A partial output would pass for the stack's samples; it goes, unless it is a device or a
    // pipe (-o /dev/null), which must stay.
    struct stat output {};
    const bool regular = ::fstat(fd, &output) == 0 && S_ISREG(output.st_mode);
    ::close(fd);
    std::error_code ignored;
    if (regular) std::filesystem::remove(options.output, ignored);
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
  const std::size_t sample = sample_size(stack);
  const std::uint64_t total_bytes = checked_bytes(total, sample);
  const std::uint64_t per_block = kTransferBlock / sample;
  std::vector<std::byte> buffer(std::min(per_block, total) * sample);
  std::uint64_t first = 0;
  // The callback counts either the one read call or the whole stack.
  const ReadProgress progress(stack, bar, total_bytes, [&](std::uint64_t of) {
    return of == total_bytes ? 0 : first * sample;
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
      "Write the samples of one stack (or of a region of it) as raw little-endian bytes, first "
      "index fastest, to standard output or a file.");
  command->add_option("FILE", options->file, "The TBF file")->required();
  command->add_option("--stack", options->stack, "The index of the stack, from 0")
      ->required()
      ->check(CLI::NonNegativeNumber);
  command->add_option("-o,--output", options->output,
                      "Write to this file (created or replaced) instead of standard output.");
  command->add_option("--region", options->region,
                      "Only this part of the stack, each axis in --shape order as an index i, a "
                      "half-open range a:b or ':' for all of it; e.g. 0:512,0:512,17 is the top "
                      "left corner of plane 17.");
  add_threads_option(*command, options->threads, "inflating compressed data");
  command->callback([options] { run_read(*options); });
}

}  // namespace tarn
