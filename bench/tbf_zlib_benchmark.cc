// Compressed (zlib) stack data of TBF files on realistic 16-bit microscopy planes of 2048 x 2048
// (microscopy_data.h), against Debian's pigz and gzip on the same bytes, measured in the same
// run. The library runs on 2 threads with flush blocks of 4 MiB (compressed_stack.h). Level 1 is
// measured on three kinds of data (kind:0 the 12-bit camera, kind:1 sparse 8-bit, kind:2 dense
// 16-bit; the label names it), level 6 on the first.
//   write/level:N  16 planes (128 MiB) through the library (create_file, add_stack,
//     set_compression(zlib, N), one write per plane, commit, close) against `pigz -p 2 -N`
//     compressing the same bytes from a file to a file in the same directory.
//       x_pigzN     throughput of the library over pigz's; limit >= 2 (level 1), >= 3 (level 6).
//       size_pigzN  the library's compressed size over pigz's; limit <= 1.02 (1), <= 1.00 (6).
//   read/level:N  the stack written as above, read whole (open, one read, close) against one
//     `gzip -dc` of the same compressed bytes, made a gzip member (a gzip header, the stored
//     bytes without the zlib header and adler32, the crc32 and length of the plain bytes), to
//     /dev/null. gzip checks the crc32, so its success also proves the stored stream standard.
//       x_gunzip    throughput of the library over gzip's; limit >= 4.
//   read_plane_32  plane 32 of a 2048 x 2048 x 64 stack (level 1, 512 MiB plain) through the
//     open stack, against reading the whole stack through it.
//       x_whole     the plane's time over the whole stack's; limit <= 0.03.
//       blocks      flush blocks inflated for the plane, counted by a reader segment over the same
//                   file; overlapping: those that overlap the plane; x_blocks their ratio,
//                   limit <= 1.
//   read_region/N  region reads of the same stack (read_region): 0 plane 32, 1 the line x = 1000
//     through every plane, 2 the block of 512 x 512 x 8 at (512, 512, 24), against reading the
//     whole stack through it.
//       x_whole     the region's time over the whole stack's; limit <= 0.03 (plane), 1.2 (line,
//                   which touches every block), 0.1 (block, 8 of the 128 blocks).
//       blocks, touched, x_blocks  as above; limit <= 1.
// Every benchmark prints heap_MiB, the most heap the library held at once during a call beyond
// what was held before it (the caller's buffer), and x_heap, that over its limit of
// (threads + 1) x flush block + 16 MiB = 28 MiB. The heap is counted by the malloc family
// below (heap_watch.h), which sees the deflate engines' own allocations as well as operator new's;
// builds with AddressSanitizer keep its allocator and count nothing. The label of each benchmark
// says which limits hold.
//
// Timing is wall-clock time (manual time): the tools run as processes, on as many threads as
// the library. Each iteration times both sides, in alternating order; ratios are ratios of the
// sums. The files go to the directory named by $TARNIO_BENCH_DIR (default: the current one) and
// are removed at the end. Each write ends with an fsync on both sides (the library's close()
// makes the file durable; pigz's output is synced inside its time). Reads come from the page
// cache on both sides.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "bench/bench_files.h"
#include "bench/bench_timing.h"
#include "bench/compressed_stack.h"
#include "bench/heap_watch.h"
#include "bench/microscopy_data.h"
#include "tarnio/arrays/region.h"
#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/bf/internal/region_reader.h"
#include "tarnio/bf/internal/tbf_format.h"
#include "tarnio/bf/internal/zlib_segment.h"

extern char** environ;

namespace tarnio_bench {
namespace {

namespace fs = std::filesystem;
using Mode = Tarn::bf::DiskFile::Mode;

constexpr std::uint64_t kPlaneBytes = kPlaneSamples * sizeof(std::uint16_t);
constexpr std::uint64_t kPlanes = 16;
constexpr std::uint64_t kStackSamples = kPlaneSamples * kPlanes;
constexpr std::uint64_t kStackBytes = kStackSamples * sizeof(std::uint16_t);
constexpr std::uint64_t kTallPlanes = 64;
constexpr std::uint64_t kPlane = 32;
// The destination of the reads holds the tall stack.
constexpr std::uint64_t kTallSamples = kPlaneSamples * kTallPlanes;
constexpr double kStackMB = static_cast<double>(kStackBytes) / 1e6;
constexpr double kMiB = 1024.0 * 1024.0;
constexpr double kHeapLimitBytes =
    static_cast<double>((kThreads + 1) * kFlushBlockBytes) + 16.0 * kMiB;

const std::array<const Kind*, 3> kKinds{&kCamera12, &kSparse8, &kDense16};

const MicroscopyData& microscopy() {
  static const MicroscopyData data;
  return data;
}

// The 16 planes of the write and read benchmarks of data of kind `kind`.
const std::vector<std::uint16_t>& samples(std::size_t kind) {
  static std::array<std::vector<std::uint16_t>, kKinds.size()> values;
  if (values.at(kind).empty()) values[kind] = MicroscopyData(*kKinds[kind]).planes(0, kPlanes);
  return values[kind];
}

fs::path raw_file(std::size_t kind) { return bench_file(kKinds.at(kind)->name + ".raw"); }

// The plain bytes of the 16 planes in a file, the input of pigz.
fs::path raw_input(std::size_t kind) {
  const fs::path path = raw_file(kind);
  if (!fs::exists(path)) write_file(path, std::as_bytes(std::span(samples(kind))));
  return path;
}

// Runs a program found on the PATH with its standard output going to `output`, waits for it
// and returns its wall-clock seconds; throws unless it exits with status 0.
double run_program(std::vector<std::string> args, const fs::path& output) {
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const auto start = Clock::now();
  pid_t pid = 0;
  const int spawned = ::posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) throw std::system_error(spawned, std::generic_category(), args[0]);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "waitpid");
  }
  const double seconds = seconds_since(start);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error(args[0] + " failed");
  }
  return seconds;
}

// The compressed bytes of the first stack of a TBF file as a gzip member: a 10-byte header,
// the raw deflate runs and the empty final block (the stream without its 2-byte zlib header
// and 4-byte adler32), the crc32 and the length of `plain`.
void write_gzip_member(const fs::path& tbf, std::span<const std::byte> plain, const fs::path& out) {
  std::uint64_t position = 0;
  std::uint64_t length = 0;
  {
    auto file = Tarn::open_file(tbf, Mode::read);
    position = file->stack(0)->data_position();
    length = file->stack(0)->data_length();
    file->close();
  }
  constexpr std::uint64_t kAdlerBytes = 4;
  const std::uint64_t body = length - Tarn::bf::internal::kZlibHeaderSize - kAdlerBytes;
  std::vector<std::byte> member(10 + body + 8);
  constexpr std::array<unsigned char, 10> kHeader = {0x1f, 0x8b, 8, 0, 0, 0, 0, 0, 0, 3};
  std::transform(kHeader.begin(), kHeader.end(), member.begin(),
                 [](unsigned char c) { return std::byte{c}; });
  Tarn::bf::DiskFile file(tbf, Mode::read);
  file.seek(position + Tarn::bf::internal::kZlibHeaderSize);
  file.read(member.data() + 10, body);
  const auto crc = static_cast<std::uint32_t>(
      crc32_z(0, reinterpret_cast<const Bytef*>(plain.data()), plain.size()));
  const auto size = static_cast<std::uint32_t>(plain.size());
  for (std::size_t i = 0; i < 4; ++i) {
    member[10 + body + i] = static_cast<std::byte>(crc >> (8 * i));
    member[10 + body + 4 + i] = static_cast<std::byte>(size >> (8 * i));
  }
  write_file(out, member);
}

void report_heap(benchmark::State& state, double heap_bytes, std::string& label) {
#if defined(__SANITIZE_ADDRESS__)
  (void)state;
  (void)heap_bytes;
  label += "; heap not counted under AddressSanitizer";
#else
  state.counters["heap_MiB"] = heap_bytes / kMiB;
  state.counters["x_heap"] = heap_bytes / kHeapLimitBytes;
  label += "; " + verdict("x_heap", heap_bytes / kHeapLimitBytes, false, 1.0);
#endif
}

void BM_Write(benchmark::State& state) {
  const auto level = static_cast<std::uint32_t>(state.range(0));
  const auto kind = static_cast<std::size_t>(state.range(1));
  const double speed_limit = level == 1 ? 2.0 : 3.0;
  const double size_limit = level == 1 ? 1.02 : 1.00;
  const fs::path library_path = bench_file("write.tbf");
  const fs::path pigz_path = bench_file("write.gz");
  const std::vector<std::string> pigz_args = {"pigz",
                                              "-p",
                                              fmt::format("{}", kThreads),
                                              fmt::format("-{}", level),
                                              "-c",
                                              raw_input(kind).string()};
  double library_seconds = 0, pigz_seconds = 0, heap_bytes = 0;
  std::uint64_t library_bytes = 0, pigz_bytes = 0;
  bool tool_first = true;
  for (auto _ : state) {
    remove_file(library_path);
    remove_file(pigz_path);
    double seconds = 0;
    try {
      run_both(
          tool_first,
          [&] {
            pigz_seconds += wall_seconds([&] {
              run_program(pigz_args, pigz_path);
              sync_file(pigz_path);
            });
            pigz_bytes = fs::file_size(pigz_path);
          },
          [&] {
            const HeapWatch heap;
            seconds = wall_seconds(
                [&] { library_bytes = write_compressed(library_path, samples(kind), level); });
            heap_bytes = std::max(heap_bytes, heap.extra_bytes());
          });
    } catch (const std::exception& error) {
      state.SkipWithError(error.what());
      break;
    }
    library_seconds += seconds;
    state.SetIterationTime(seconds);
  }
  remove_file(library_path);
  remove_file(pigz_path);
  if (state.error_occurred()) return;
  const std::string suffix = std::to_string(level);
  const double speed = pigz_seconds / library_seconds;
  const double size = static_cast<double>(library_bytes) / static_cast<double>(pigz_bytes);
  const auto n = static_cast<double>(state.iterations());
  state.counters["x_pigz" + suffix] = speed;
  state.counters["size_pigz" + suffix] = size;
  state.counters["library_MBps"] = n * kStackMB / library_seconds;
  state.counters["pigz_MBps"] = n * kStackMB / pigz_seconds;
  state.counters["library_ratio"] = static_cast<double>(library_bytes) / (kStackMB * 1e6);
  state.counters["pigz_ratio"] = static_cast<double>(pigz_bytes) / (kStackMB * 1e6);
  std::string label = kKinds[kind]->name + ": " +
                      verdict("x_pigz" + suffix, speed, true, speed_limit) + "; " +
                      verdict("size_pigz" + suffix, size, false, size_limit);
  report_heap(state, heap_bytes, label);
  state.SetLabel(label);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kStackBytes));
}

void BM_Read(benchmark::State& state) {
  const auto level = static_cast<std::uint32_t>(state.range(0));
  const auto kind = static_cast<std::size_t>(state.range(1));
  const fs::path library_path = bench_file("read.tbf");
  const fs::path gzip_path = bench_file("read.gz");
  const std::span<const std::uint16_t> data(samples(kind));
  const std::span<std::uint16_t> out = destination<kTallSamples>().first(kStackSamples);
  double library_seconds = 0, gzip_seconds = 0, heap_bytes = 0;
  try {
    write_compressed(library_path, data, level);
    write_gzip_member(library_path, std::as_bytes(data), gzip_path);
    bool tool_first = true;
    bool checked = false;
    for (auto _ : state) {
      double seconds = 0;
      run_both(
          tool_first,
          [&] {
            gzip_seconds += run_program({"gzip", "-dc", gzip_path.string()}, "/dev/null");
          },
          [&] {
            const HeapWatch heap;
            seconds = wall_seconds([&] { read_compressed(library_path, out); });
            heap_bytes = std::max(heap_bytes, heap.extra_bytes());
          });
      if (!checked) {
        if (!std::equal(out.begin(), out.end(), data.begin())) {
          state.SkipWithError("the library read back other samples");
          break;
        }
        checked = true;
      }
      library_seconds += seconds;
      state.SetIterationTime(seconds);
    }
  } catch (const std::exception& error) {
    state.SkipWithError(error.what());
  }
  remove_file(library_path);
  remove_file(gzip_path);
  if (state.error_occurred()) return;
  const double speed = gzip_seconds / library_seconds;
  const auto n = static_cast<double>(state.iterations());
  state.counters["x_gunzip"] = speed;
  state.counters["library_MBps"] = n * kStackMB / library_seconds;
  state.counters["gunzip_MBps"] = n * kStackMB / gzip_seconds;
  std::string label = kKinds[kind]->name + ": " + verdict("x_gunzip", speed, true, 4.0);
  report_heap(state, heap_bytes, label);
  state.SetLabel(label);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kStackBytes));
}

// The flush blocks among `points` that overlap plain bytes [begin, end).
std::uint64_t blocks_overlapping(const std::vector<Tarn::bf::FlushPoint>& points,
                                 std::uint64_t begin, std::uint64_t end) {
  std::uint64_t count = 0;
  for (std::size_t i = 0; i + 1 < points.size(); ++i) {
    if (points[i].plain_offset < end && points[i + 1].plain_offset > begin) ++count;
  }
  return count;
}

// Times `part` (which returns its seconds) against reading the whole stack into `whole`, in
// alternating order, adding to the sums; each iteration's time is the part's.
template <class Part>
void time_against_whole(benchmark::State& state, Tarn::bf::StackImp& stack,
                        std::span<std::uint16_t> whole, double& whole_seconds, double& part_seconds,
                        Part part) {
  bool whole_first = true;
  for (auto _ : state) {
    double seconds = 0;
    run_both(
        whole_first, [&] { whole_seconds += wall_seconds([&] { stack.read(0, whole); }); },
        [&] { seconds = part(); });
    part_seconds += seconds;
    state.SetIterationTime(seconds);
  }
}

void BM_Plane(benchmark::State& state) {
  constexpr std::uint64_t kPlaneReads = 8;
  const fs::path path = bench_file("planes.tbf");
  const std::span<std::uint16_t> whole = destination<kTallSamples>();
  std::vector<std::uint16_t> plane(kPlaneSamples);
  std::vector<std::uint16_t> expected(kPlaneSamples);
  microscopy().fill_plane(kPlane, expected);
  double whole_seconds = 0, plane_seconds = 0, heap_bytes = 0, write_heap_bytes = 0;
  std::uint64_t inflated = 0, overlapping = 0;
  try {
    {
      std::vector<std::uint16_t> source(kPlaneSamples);
      const HeapWatch heap;
      write_compressed(path, kTallPlanes, 1, [&](std::uint64_t z) {
        microscopy().fill_plane(z, source);
        return std::span<const std::uint16_t>(source);
      });
      write_heap_bytes = heap.extra_bytes();
    }
    auto file = open_threaded(path, Mode::read);
    const auto stack = file->stack(0);
    const std::uint64_t plane_begin = kPlane * kPlaneBytes;
    {
      // A reader segment of its own over the same stored bytes counts the blocks a plane costs.
      Tarn::bf::DiskFile disk(path, Mode::read);
      Tarn::bf::internal::ZlibSegment segment(disk, stack->data_position(), stack->data_length(),
                                              kTallPlanes * kPlaneBytes, stack->flush_points(),
                                              {kThreads, {}});
      segment.read(plane_begin, std::as_writable_bytes(std::span(plane)));
      inflated = segment.blocks_inflated();
      overlapping =
          blocks_overlapping(stack->flush_points(), plane_begin, plane_begin + kPlaneBytes);
      if (plane != expected) throw std::runtime_error("the reader segment read another plane");
    }
    time_against_whole(state, *stack, whole, whole_seconds, plane_seconds, [&] {
      const HeapWatch heap;
      const double all = wall_seconds([&] {
        for (std::uint64_t i = 0; i < kPlaneReads; ++i)
          stack->read(kPlane * kPlaneSamples, std::span(plane));
      });
      heap_bytes = std::max(heap_bytes, heap.extra_bytes());
      return all / kPlaneReads;
    });
    if (plane != expected ||
        !std::equal(expected.begin(), expected.end(),
                    whole.begin() + static_cast<std::ptrdiff_t>(kPlane * kPlaneSamples))) {
      throw std::runtime_error("the library read another plane");
    }
    file->close();
  } catch (const std::exception& error) {
    state.SkipWithError(error.what());
  }
  remove_file(path);
  if (state.error_occurred()) return;
  const auto n = static_cast<double>(state.iterations());
  const double share = plane_seconds / whole_seconds;
  const double x_blocks = static_cast<double>(inflated) / static_cast<double>(overlapping);
  state.counters["x_whole"] = share;
  state.counters["plane_ms"] = 1e3 * plane_seconds / n;
  state.counters["whole_ms"] = 1e3 * whole_seconds / n;
  state.counters["blocks"] = static_cast<double>(inflated);
  state.counters["overlapping"] = static_cast<double>(overlapping);
  state.counters["x_blocks"] = x_blocks;
#if !defined(__SANITIZE_ADDRESS__)
  state.counters["write_heap_MiB"] = write_heap_bytes / kMiB;
#endif
  std::string label =
      verdict("x_whole", share, false, 0.03) + "; " + verdict("x_blocks", x_blocks, false, 1.0);
  report_heap(state, std::max(heap_bytes, write_heap_bytes), label);
  state.SetLabel(label);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kPlaneBytes));
}

// The tall stack of the region reads, written once: 64 planes of 2048 x 2048 at level 1.
const fs::path& tall_file() {
  static const fs::path path = [] {
    fs::path p = bench_file("regions.tbf");
    std::vector<std::uint16_t> source(kPlaneSamples);
    write_compressed(p, kTallPlanes, 1, [&](std::uint64_t z) {
      microscopy().fill_plane(z, source);
      return std::span<const std::uint16_t>(source);
    });
    return p;
  }();
  return path;
}

// What the Python and Dask front ends ask for: a plane, a line through all planes, a block of
// 512 x 512 x 8; against reading the whole stack, and the flush blocks inflated (counted by a
// reader segment of its own) against those the region touches.
void BM_Region(benchmark::State& state) {
  struct Shape {
    const char* name;
    Tarn::arrays::Region region;
    double limit;
  };
  const std::array<Shape, 3> shapes{{
      {"plane", Tarn::arrays::Region({0, 0, kPlane}, {kSide, kSide, 1}), 0.03},
      {"line", Tarn::arrays::Region({1000, 0, 0}, {1, kSide, kTallPlanes}), 1.2},
      {"block", Tarn::arrays::Region({512, 512, 24}, {512, 512, 8}), 0.1},
  }};
  const Shape& shape = shapes.at(static_cast<std::size_t>(state.range(0)));
  const std::span<std::uint16_t> whole = destination<kTallSamples>();
  std::vector<std::uint16_t> part(shape.region.number_of_elements());
  double whole_seconds = 0, part_seconds = 0;
  std::uint64_t inflated = 0, touched = 0;
  try {
    auto file = open_threaded(tall_file(), Mode::read);
    const auto stack = file->stack(0);
    const std::vector<std::uint64_t> shape_of_stack = stack->shape();
    {
      Tarn::bf::DiskFile disk(tall_file(), Mode::read);
      Tarn::bf::internal::ZlibSegment segment(disk, stack->data_position(), stack->data_length(),
                                              kTallSamples * 2, stack->flush_points(),
                                              {kThreads, {}});
      Tarn::bf::internal::read_region(
          segment, shape_of_stack, shape.region,
          {Tarn::dt::uint16, Tarn::dt::uint16, reinterpret_cast<std::byte*>(part.data()), nullptr});
      inflated = segment.blocks_inflated();
    }
    // The blocks touched, from the plain offsets of the region's lines.
    const auto& points = stack->flush_points();
    const auto& start = shape.region.start();
    const auto& size = shape.region.size();
    for (std::size_t i = 0; i + 1 < points.size(); ++i) {
      bool hit = false;
      for (std::uint64_t z = start[2]; z < start[2] + size[2] && !hit; ++z) {
        for (std::uint64_t y = start[1]; y < start[1] + size[1] && !hit; ++y) {
          const std::uint64_t begin = 2 * (start[0] + kSide * (y + kSide * z));
          hit = points[i].plain_offset < begin + 2 * size[0] && points[i + 1].plain_offset > begin;
        }
      }
      touched += hit ? 1 : 0;
    }
    time_against_whole(state, *stack, whole, whole_seconds, part_seconds, [&] {
      return wall_seconds([&] { stack->read_region(shape.region, std::span(part)); });
    });
    file->close();
  } catch (const std::exception& error) {
    state.SkipWithError(error.what());
    return;
  }
  const double share = part_seconds / whole_seconds;
  const double x_blocks = static_cast<double>(inflated) / static_cast<double>(touched);
  state.counters["x_whole"] = share;
  state.counters["blocks"] = static_cast<double>(inflated);
  state.counters["touched"] = static_cast<double>(touched);
  state.counters["x_blocks"] = x_blocks;
  state.SetLabel(std::string(shape.name) + ": " + verdict("x_whole", share, false, shape.limit) +
                 "; " + verdict("x_blocks", x_blocks, false, 1.0));
}

// Registers the benchmarks, the data and the buffers ready before the first timing.
void register_benchmarks() {
  for (std::size_t kind = 0; kind < kKinds.size(); ++kind) (void)samples(kind);
  (void)destination<kTallSamples>();
  const std::vector<std::vector<std::int64_t>> runs{{1, 0}, {1, 1}, {1, 2}, {6, 0}};
  for (const auto& run : runs) {
    register_manual_time("write", BM_Write, run[0] == 1 ? 3 : 2)
        ->Args(run)
        ->ArgNames({"level", "kind"});
  }
  for (const auto& run : runs) {
    register_manual_time("read", BM_Read, 3)->Args(run)->ArgNames({"level", "kind"});
  }
  register_manual_time("read_plane_32/uint16_2048x2048x64", BM_Plane, 3);
  register_manual_time("read_region/uint16_2048x2048x64", BM_Region, 3)->DenseRange(0, 2);
}

}  // namespace
}  // namespace tarnio_bench

#if !defined(__SANITIZE_ADDRESS__)
// Counting replacements of the C allocation functions, which operator new and the deflate
// engines all call: the usable size of each block is added on allocation and taken away on
// release; the allocator itself stays glibc's, reached under its internal names.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* p, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* p);
}

extern "C" {
void* malloc(std::size_t size) noexcept {
  return tarnio_bench::count_allocation(__libc_malloc(size));
}
void* calloc(std::size_t count, std::size_t size) noexcept {
  return tarnio_bench::count_allocation(__libc_calloc(count, size));
}
void* realloc(void* p, std::size_t size) noexcept {
  tarnio_bench::count_release(p);
  void* moved = __libc_realloc(p, size);
  // A failed realloc keeps the block; realloc(p, 0) frees it.
  if (moved == nullptr && p != nullptr && size != 0) {
    tarnio_bench::count_allocation(p);
    return nullptr;
  }
  return tarnio_bench::count_allocation(moved);
}
void* reallocarray(void* p, std::size_t count, std::size_t size) noexcept {
  if (size != 0 && count > SIZE_MAX / size) {
    errno = ENOMEM;
    return nullptr;
  }
  return realloc(p, count * size);
}
void free(void* p) noexcept {
  tarnio_bench::count_release(p);
  __libc_free(p);
}
void* memalign(std::size_t alignment, std::size_t size) noexcept {
  return tarnio_bench::count_allocation(__libc_memalign(alignment, size));
}
void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  return tarnio_bench::count_allocation(__libc_memalign(alignment, size));
}
int posix_memalign(void** p, std::size_t alignment, std::size_t size) noexcept {
  if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0) return EINVAL;
  void* block = tarnio_bench::count_allocation(__libc_memalign(alignment, size));
  if (block == nullptr) return ENOMEM;
  *p = block;
  return 0;
}
void* valloc(std::size_t size) noexcept {
  return tarnio_bench::count_allocation(
      __libc_memalign(static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)), size));
}
}
#endif

int main(int argc, char** argv) {
  tarnio_bench::register_benchmarks();
  const int status = tarnio_bench::run_benchmarks(argc, argv);
  tarnio_bench::remove_file(tarnio_bench::bench_file("regions.tbf"));
  for (std::size_t kind = 0; kind < tarnio_bench::kKinds.size(); ++kind) {
    tarnio_bench::remove_file(tarnio_bench::raw_file(kind));
  }
  return status;
}
