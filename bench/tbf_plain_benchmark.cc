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
// it (the caller's buffer), counted by the operator new below (heap_watch.h); x_heap relates it
// to its limit of 16 MiB.
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
#include <vector>

#include "bench/bench_files.h"
#include "bench/bench_timing.h"
#include "bench/heap_watch.h"
#include "tarnio/arrays/data_type.h"
#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/bf/stack_imp.h"

namespace tarnio_bench {
namespace {

namespace fs = std::filesystem;
namespace dt = Tarn::dt;
using Mode = Tarn::bf::DiskFile::Mode;

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

bool sync_mode() {
  const char* sync = std::getenv("TARNIO_BENCH_SYNC");
  return sync != nullptr && std::string(sync) == "1";
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

const std::vector<std::uint16_t>& samples() {
  static const std::vector<std::uint16_t> values = [] {
    std::vector<std::uint16_t> v(kStackSamples);
    std::mt19937_64 generator(20240611);
    for (std::uint16_t& x : v) x = static_cast<std::uint16_t>(generator() & 0x0FFF);
    return v;
  }();
  return values;
}

// The loop the library is held against: 4 MiB blocks, the write made durable by the caller.
void plain_write(const fs::path& path, std::span<const std::uint16_t> data) {
  write_file(path, std::as_bytes(data), kBlockBytes);
}

void plain_read(const fs::path& path, std::span<std::uint16_t> data) {
  read_file(path, std::as_writable_bytes(data), kBlockBytes);
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

  // Runs one library call `body`: sets `seconds` to its wall-clock time, keeps its heap if that is
  // the most yet, and returns the /proc/self/io counts it caused.
  template <class Body>
  IoCounts library_call(double& seconds, Body body) {
    const HeapWatch heap;
    const IoCounts io = io_of([&] { seconds = wall_seconds(body); });
    heap_bytes = std::max(heap_bytes, heap.extra_bytes());
    return io;
  }

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
      tally.plain_seconds += wall_seconds([&] {
        plain_write(plain_path, data);
        sync_file(plain_path);
      });
    };
    const auto library_side = [&] {
      const IoCounts io = tally.library_call(library_seconds, [&] {
        library_write(library_path, data, {kSide, kSide, kDepth});
      });
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
  const std::span<std::uint16_t> out(destination<kStackSamples>());
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
      tally.plain_seconds += wall_seconds([&] { plain_read(plain_path, out); });
    };
    const auto library_side = [&] {
      if (sync) evict_file(library_path);
      const IoCounts io =
          tally.library_call(library_seconds, [&] { library_read(library_path, out); });
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
  const std::span<std::uint16_t> out = destination<kStackSamples>().first(kPlaneSamples);
  std::vector<std::uint16_t> expected(kPlaneSamples);
  Tally tally;
  tally.bytes = static_cast<double>(kPlaneBytes);
  double read_bytes = 0;
  bool plain_first = true;
  for (auto _ : state) {
    double library_seconds = 0;
    const auto plain_side = [&] {
      if (sync) evict_file(path);
      tally.plain_seconds += wall_seconds([&] {
        if (::pread(fd, expected.data(), kPlaneBytes, plane_offset) !=
            static_cast<ssize_t>(kPlaneBytes)) {
          state.SkipWithError("pread failed");
        }
      });
    };
    const auto library_side = [&] {
      if (sync) evict_file(path);
      const IoCounts io =
          tally.library_call(library_seconds, [&] { stack->read(kPlane * kPlaneSamples, out); });
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

// Registers the benchmarks, the data and the buffers filled before the first timing.
void register_benchmarks() {
  (void)samples();
  (void)destination<kStackSamples>();
  register_manual_time("write/uint16_4096x4096x8", BM_Write, 6);
  register_manual_time("read/uint16_4096x4096x8", BM_Read, 6);
  register_manual_time("read_plane_32/uint16_2048x2048x64", BM_Plane, 40);
}

}  // namespace
}  // namespace tarnio_bench

// Counting replacements of the global allocation functions (heap_watch.h). g++ sees free() meet
// a pointer that an operator new returned and warns, not knowing that this operator new is malloc.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  return tarnio_bench::count_allocation(p);
}
void operator delete(void* p) noexcept {
  tarnio_bench::count_release(p);
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept { operator delete(p); }

int main(int argc, char** argv) {
  tarnio_bench::register_benchmarks();
  return tarnio_bench::run_benchmarks(argc, argv);
}
