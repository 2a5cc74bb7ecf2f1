// Plain stack data of TBF files against the system's own calls, measured in the same run:
//   write: a 4096 x 4096 x 8 uint16 stack (256 MiB) through the library (create_file, add_stack,
//     write in 4 MiB pieces, commit, close) against a write() loop of the same bytes in 4 MiB
//     blocks to a new file in the same directory (open, write, fsync, close). x_write is the
//     library's time over the loop's; its limit is 1 / 0.9 = 1.11.
//   read: the whole stack back into one buffer (open_file, one read, close) against a read()
//     loop of 4 MiB blocks into the same buffer (open, read, close): x_read, limit 1.11.
//   plane: plane 32 of a 2048 x 2048 x 64 uint16 stack (8 MiB of a 512 MiB stack) through the
//     library, against one pread() of the same bytes of the same file: x_pread. read_MiB and
//     read_calls are what the library moved for one plane (from /proc/self/io): the plane's
//     bytes and nothing else, in as few calls as its blocks need.
// heap_MiB is the most heap the library held at once during a call beyond what was held before
// it (the caller's buffer), counted by the operator new below; x_heap relates it to its limit
// of 16 MiB.
//
// Timing is wall-clock time (manual time), not CPU time: waiting for the disk is part of the
// cost. Each iteration times both sides, in alternating order, so that both see the same state
// of the machine; ratios are ratios of the sums. The files go to the directory named by
// $TARNIO_BENCH_DIR (default: the current one), are created anew for each write, and are
// removed at the end. Each write ends with an fsync of the file on both sides: the library's
// close() makes the data durable before the header declares the file complete, so the loop it is
// held against gives the same guarantee. Reads come from the page cache by default, which
// exposes the library's own overhead best; with TARNIO_BENCH_SYNC=1 each read starts with the
// file evicted from the cache (POSIX_FADV_DONTNEED), for both sides alike.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <new>
#include <random>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include "bench/bench_timing.h"
#include "tarnio/arrays/data_type.h"
#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/bf/stack_imp.h"

namespace {

namespace fs = std::filesystem;
namespace dt = Tarn::dt;
using Mode = Tarn::bf::DiskFile::Mode;
using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kBlockBytes = std::uint64_t{4} << 20;
constexpr std::uint64_t kSide = 4096;
constexpr std::uint64_t kDepth = 8;
constexpr std::uint64_t kStackSamples = kSide * kSide * kDepth;
constexpr std::uint64_t kStackBytes = kStackSamples * sizeof(std::uint16_t);
constexpr std::uint64_t kPlaneSide = 2048;
constexpr std::uint64_t kPlaneDepth = 64;
constexpr std::uint64_t kPlane = 32;
constexpr std::uint64_t kPlaneSamples = kPlaneSide * kPlaneSide;
constexpr std::uint64_t kPlaneBytes = kPlaneSamples * sizeof(std::uint16_t);
constexpr double kHeapLimitBytes = 16.0 * 1024 * 1024;
constexpr double kMiB = 1024.0 * 1024.0;

// Heap bytes held now and the most held since the last reset, kept by the operator new below.
std::atomic<std::int64_t> heap_live{0};
std::atomic<std::int64_t> heap_peak{0};

// The most heap bytes held during its life beyond those held at its start.
class HeapWatch {
 public:
  HeapWatch() : base_(heap_live.load()) { heap_peak.store(base_); }
  double extra_bytes() const { return static_cast<double>(heap_peak.load() - base_); }

 private:
  std::int64_t base_;
};

fs::path bench_dir() {
  const char* dir = std::getenv("TARNIO_BENCH_DIR");
  return dir != nullptr && *dir != '\0' ? fs::path(dir) : fs::current_path();
}

bool sync_mode() {
  const char* sync = std::getenv("TARNIO_BENCH_SYNC");
  return sync != nullptr && std::string(sync) == "1";
}

fs::path bench_file(const char* name) {
  return bench_dir() /
         (std::string("tarnio_tbf_plain_benchmark.") + std::to_string(::getpid()) + "." + name);
}

void remove_file(const fs::path& path) {
  std::error_code ignored;
  fs::remove(path, ignored);
}

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Counts of the process's read and write calls and their bytes, from /proc/self/io.
struct IoCounts {
  double rchar = 0, wchar = 0, syscr = 0, syscw = 0;
};

IoCounts io_counts() {
  IoCounts counts;
  char text[1024] = {};
  const int fd = ::open("/proc/self/io", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return counts;
  const ssize_t n = ::read(fd, text, sizeof text - 1);
  ::close(fd);
  if (n <= 0) return counts;
  for (const char* line = text; line != nullptr && *line != '\0';) {
    double* field = std::strncmp(line, "rchar:", 6) == 0   ? &counts.rchar
                    : std::strncmp(line, "wchar:", 6) == 0 ? &counts.wchar
                    : std::strncmp(line, "syscr:", 6) == 0 ? &counts.syscr
                    : std::strncmp(line, "syscw:", 6) == 0 ? &counts.syscw
                                                           : nullptr;
    if (field != nullptr) *field = std::strtod(line + 6, nullptr);
    line = std::strchr(line, '\n');
    if (line != nullptr) ++line;
  }
  return counts;
}

// The /proc/self/io counts that `body` causes, less those of reading the counts themselves.
template <class Body>
IoCounts io_of(Body body) {
  const IoCounts idle_start = io_counts();
  const IoCounts idle_end = io_counts();
  const IoCounts start = io_counts();
  body();
  const IoCounts end = io_counts();
  const auto delta = [&](double IoCounts::*f) {
    return (end.*f - start.*f) - (idle_end.*f - idle_start.*f);
  };
  return {delta(&IoCounts::rchar), delta(&IoCounts::wchar), delta(&IoCounts::syscr),
          delta(&IoCounts::syscw)};
}

int open_or_throw(const fs::path& path, int flags) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC, 0644);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), path.string());
  return fd;
}

// Makes the file's data durable (timed, as part of a write); evict_file also drops it from the
// page cache (untimed, before a read with TARNIO_BENCH_SYNC=1).
void sync_file(const fs::path& path) {
  const int fd = open_or_throw(path, O_RDONLY);
  ::fsync(fd);
  ::close(fd);
}

void evict_file(const fs::path& path) {
  const int fd = open_or_throw(path, O_RDONLY);
  ::fsync(fd);
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  ::close(fd);
}

const std::vector<std::uint16_t>& samples() {
  static const std::vector<std::uint16_t> values = [] {
    std::vector<std::uint16_t> v(kStackSamples);
    std::mt19937_64 generator(20240611);
    for (std::uint16_t& x : v) x = static_cast<std::uint16_t>(generator() & 0x0FFF);
    return v;
  }();
  return values;
}

// The destination of the reads, its pages touched once before any timing.
std::vector<std::uint16_t>& destination() {
  static std::vector<std::uint16_t> values(kStackSamples, 1);
  return values;
}

void plain_write(const fs::path& path, std::span<const std::uint16_t> data) {
  const int fd = open_or_throw(path, O_WRONLY | O_CREAT | O_TRUNC);
  const auto* bytes = reinterpret_cast<const char*>(data.data());
  for (std::uint64_t at = 0; at < data.size_bytes();) {
    const ssize_t n = ::write(fd, bytes + at, std::min(kBlockBytes, data.size_bytes() - at));
    if (n <= 0) throw std::system_error(errno, std::generic_category(), "write");
    at += static_cast<std::uint64_t>(n);
  }
  if (::close(fd) != 0) throw std::system_error(errno, std::generic_category(), "close");
}

void plain_read(const fs::path& path, std::span<std::uint16_t> data) {
  const int fd = open_or_throw(path, O_RDONLY);
  auto* bytes = reinterpret_cast<char*>(data.data());
  for (std::uint64_t at = 0; at < data.size_bytes();) {
    const ssize_t n = ::read(fd, bytes + at, std::min(kBlockBytes, data.size_bytes() - at));
    if (n <= 0) throw std::system_error(errno, std::generic_category(), "read");
    at += static_cast<std::uint64_t>(n);
  }
  ::close(fd);
}

void library_write(const fs::path& path, std::span<const std::uint16_t> data,
                   std::initializer_list<std::uint64_t> shape) {
  auto file = Tarn::create_file();
  file->open(path, Mode::write);
  auto stack = file->add_stack(dt::uint16, shape);
  constexpr std::uint64_t piece = kBlockBytes / sizeof(std::uint16_t);
  for (std::uint64_t at = 0; at < data.size(); at += piece) {
    stack->write(data.subspan(at, std::min(piece, data.size() - at)));
  }
  stack->commit();
  file->close();
}

void library_read(const fs::path& path, std::span<std::uint16_t> data) {
  auto file = Tarn::open_file(path, Mode::read);
  file->stack(0)->read(0, data);
  file->close();
}

// Sums of both sides' seconds and the library's heap and calls over the iterations.
struct Tally {
  double plain_seconds = 0;
  double library_seconds = 0;
  double heap_bytes = 0;
  double calls = 0;
  double bytes = 0;

  void report(benchmark::State& state, const char* ratio_name) const {
    const auto n = static_cast<double>(state.iterations());
    state.counters[ratio_name] = library_seconds / plain_seconds;
    state.counters["plain_GBps"] = n * bytes / plain_seconds / 1e9;
    state.counters["library_GBps"] = n * bytes / library_seconds / 1e9;
    state.counters["heap_MiB"] = heap_bytes / kMiB;
    state.counters["x_heap"] = heap_bytes / kHeapLimitBytes;
    state.counters["library_calls"] = calls / n;
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
  }
};

// Runs both sides of one iteration, the one that went first last time second, so that neither
// always meets the state the other left behind.
template <class Plain, class Library>
void run_both(bool& plain_first, Plain plain_side, Library library_side) {
  if (plain_first) {
    plain_side();
    library_side();
  } else {
    library_side();
    plain_side();
  }
  plain_first = !plain_first;
}

void BM_Write(benchmark::State& state) {
  const fs::path plain_path = bench_file("plain_write.raw");
  const fs::path library_path = bench_file("library_write.tbf");
  const std::span<const std::uint16_t> data(samples());
  Tally tally;
  tally.bytes = static_cast<double>(kStackBytes);
  bool plain_first = true;
  for (auto _ : state) {
    remove_file(plain_path);
    remove_file(library_path);
    double library_seconds = 0;
    const auto plain_side = [&] {
      const auto start = Clock::now();
      plain_write(plain_path, data);
      sync_file(plain_path);
      tally.plain_seconds += seconds_since(start);
    };
    const auto library_side = [&] {
      const HeapWatch heap;
      const IoCounts io = io_of([&] {
        const auto start = Clock::now();
        library_write(library_path, data, {kSide, kSide, kDepth});
        library_seconds = seconds_since(start);
      });
      tally.heap_bytes = std::max(tally.heap_bytes, heap.extra_bytes());
      tally.calls += io.syscw;
    };
    run_both(plain_first, plain_side, library_side);
    tally.library_seconds += library_seconds;
    state.SetIterationTime(library_seconds);
  }
  tally.report(state, "x_write");
  remove_file(plain_path);
  remove_file(library_path);
}

void BM_Read(benchmark::State& state) {
  const fs::path plain_path = bench_file("plain_read.raw");
  const fs::path library_path = bench_file("library_read.tbf");
  const std::span<const std::uint16_t> data(samples());
  const std::span<std::uint16_t> out(destination());
  plain_write(plain_path, data);
  library_write(library_path, data, {kSide, kSide, kDepth});
  const bool sync = sync_mode();
  Tally tally;
  tally.bytes = static_cast<double>(kStackBytes);
  bool plain_first = true;
  bool checked = false;
  for (auto _ : state) {
    double library_seconds = 0;
    const auto plain_side = [&] {
      if (sync) evict_file(plain_path);
      const auto start = Clock::now();
      plain_read(plain_path, out);
      tally.plain_seconds += seconds_since(start);
    };
    const auto library_side = [&] {
      if (sync) evict_file(library_path);
      const HeapWatch heap;
      const IoCounts io = io_of([&] {
        const auto start = Clock::now();
        library_read(library_path, out);
        library_seconds = seconds_since(start);
      });
      tally.heap_bytes = std::max(tally.heap_bytes, heap.extra_bytes());
      tally.calls += io.syscr;
    };
    run_both(plain_first, plain_side, library_side);
    if (!checked) {
      // The library side ran last or first; either way, check it once.
      std::fill(out.begin(), out.end(), 0);
      library_read(library_path, out);
      if (!std::equal(out.begin(), out.end(), data.begin())) {
        state.SkipWithError("the library read back other samples");
        break;
      }
      checked = true;
    }
    tally.library_seconds += library_seconds;
    state.SetIterationTime(library_seconds);
  }
  tally.report(state, "x_read");
  remove_file(plain_path);
  remove_file(library_path);
}

void BM_Plane(benchmark::State& state) {
  const fs::path path = bench_file("planes.tbf");
  {
    // 64 planes, each the first 8 MiB of the samples with its plane number added.
    std::vector<std::uint16_t> planes(kPlaneSamples * kPlaneDepth);
    for (std::uint64_t z = 0; z < kPlaneDepth; ++z) {
      for (std::uint64_t i = 0; i < kPlaneSamples; ++i) {
        planes[z * kPlaneSamples + i] = static_cast<std::uint16_t>(samples()[i] + z);
      }
    }
    library_write(path, planes, {kPlaneSide, kPlaneSide, kPlaneDepth});
  }
  const bool sync = sync_mode();
  auto file = Tarn::open_file(path, Mode::read);
  const auto stack = file->stack(0);
  const int fd = open_or_throw(path, O_RDONLY);
  const auto plane_offset = static_cast<off_t>(stack->data_position() + kPlane * kPlaneBytes);
  const std::span<std::uint16_t> out = std::span<std::uint16_t>(destination()).first(kPlaneSamples);
  std::vector<std::uint16_t> expected(kPlaneSamples);
  Tally tally;
  tally.bytes = static_cast<double>(kPlaneBytes);
  double read_bytes = 0;
  bool plain_first = true;
  for (auto _ : state) {
    double library_seconds = 0;
    const auto plain_side = [&] {
      if (sync) evict_file(path);
      const auto start = Clock::now();
      if (::pread(fd, expected.data(), kPlaneBytes, plane_offset) !=
          static_cast<ssize_t>(kPlaneBytes)) {
        state.SkipWithError("pread failed");
      }
      tally.plain_seconds += seconds_since(start);
    };
    const auto library_side = [&] {
      if (sync) evict_file(path);
      const HeapWatch heap;
      const IoCounts io = io_of([&] {
        const auto start = Clock::now();
        stack->read(kPlane * kPlaneSamples, out);
        library_seconds = seconds_since(start);
      });
      tally.heap_bytes = std::max(tally.heap_bytes, heap.extra_bytes());
      tally.calls += io.syscr;
      read_bytes += io.rchar;
    };
    run_both(plain_first, plain_side, library_side);
    tally.library_seconds += library_seconds;
    state.SetIterationTime(library_seconds);
  }
  if (!std::equal(out.begin(), out.end(), expected.begin())) {
    state.SkipWithError("the library read another plane");
  }
  tally.report(state, "x_pread");
  state.counters["read_MiB"] = read_bytes / static_cast<double>(state.iterations()) / kMiB;
  state.counters["x_bytes"] =
      read_bytes / static_cast<double>(state.iterations()) / static_cast<double>(kPlaneBytes);
  state.counters.erase("library_calls");
  state.counters["read_calls"] = tally.calls / static_cast<double>(state.iterations());
  ::close(fd);
  file->close();
  remove_file(path);
}

}  // namespace

// Counting replacements of the global allocation functions: the usable size of each block is
// added on allocation and taken away on release. g++ sees free() meet a pointer that an operator
// new returned and warns, not knowing that this operator new is malloc.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  const auto usable = static_cast<std::int64_t>(::malloc_usable_size(p));
  const std::int64_t now = heap_live.fetch_add(usable, std::memory_order_relaxed) + usable;
  std::int64_t peak = heap_peak.load(std::memory_order_relaxed);
  while (now > peak && !heap_peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
  }
  return p;
}
void operator delete(void* p) noexcept {
  if (p == nullptr) return;
  heap_live.fetch_sub(static_cast<std::int64_t>(::malloc_usable_size(p)),
                      std::memory_order_relaxed);
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept { operator delete(p); }

int main(int argc, char** argv) {
  // The buffers are filled before the first timing.
  (void)samples();
  (void)destination();
  benchmark::RegisterBenchmark("write/uint16_4096x4096x8", BM_Write)
      ->UseManualTime()
      ->Iterations(6)
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("read/uint16_4096x4096x8", BM_Read)
      ->UseManualTime()
      ->Iterations(6)
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("read_plane_32/uint16_2048x2048x64", BM_Plane)
      ->UseManualTime()
      ->Iterations(40)
      ->Unit(benchmark::kMillisecond);
  return tarnio_bench::run_benchmarks(argc, argv);
}
