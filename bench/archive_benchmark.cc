// Packing a directory tree into a TBF file and unpacking it again, against `cp -r` of the same
// tree, measured in the same run:
//   pack: a tree of 10000 files in 100 directories, 1 GiB in all, packed into a new TBF file
//     (Kalix::Archive::pack_to_file, as tarn pack does, with the file closed), against `cp -r`
//     of the tree. x_pack is the library's time over cp's; its limit is 1.5.
//   unpack: the packed stack restored into a new directory (Kalix::Archive::unpack_from_file,
//     as tarn unpack does) against `cp -r` of the tree: x_unpack, limit 1.5.
// rss_MiB is the most resident memory that a call added to what the process held before it (the
// peak is reset before each call through /proc/self/clear_refs). x_rss relates it to its
// limit: 64 MiB for packing, which streams the blob, and the stack's bytes plus 64 MiB for
// unpacking, which holds the stack's data once.
//
// $TARNIO_ARCHIVE_BENCH_MIB scales the tree's total size (default 1024; the file count stays);
// the trees and files go to $TARNIO_BENCH_DIR (default: the current one) and are removed at the
// end. Timing is wall-clock time: the work waits on the disk. Each iteration times both sides
// in alternating order; ratios are ratios of the sums. Closing the TBF file makes its data
// durable (fsync) and cp does not, which the pack ratio carries against the library.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/bench_files.h"
#include "bench/bench_timing.h"
#include "tarnio/archive/file_archive.h"
#include "tarnio/bf/file_interface.h"

namespace tarnio_bench {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kFiles = 10000;
constexpr std::uint64_t kDirectories = 100;
constexpr double kMiB = 1024.0 * 1024.0;
constexpr double kRssAllowance = 64.0 * kMiB;
constexpr double kTimeLimit = 1.5;

std::uint64_t tree_bytes() {
  const char* mib = std::getenv("TARNIO_ARCHIVE_BENCH_MIB");
  const std::uint64_t scale = mib != nullptr && *mib != '\0' ? std::stoull(mib) : 1024;
  return scale << 20;
}

// Writes the tree once: files of equal size cut from one block of random bytes at varying
// offsets, so that no two are alike.
const fs::path& tree() {
  static const fs::path root = [] {
    const fs::path path = bench_file("tree");
    const std::size_t file_bytes = tree_bytes() / kFiles;
    std::vector<std::byte> block(file_bytes + 4096);
    std::mt19937_64 random(2024);
    for (std::byte& b : block) b = static_cast<std::byte>(random() & 0xFF);
    for (std::uint64_t i = 0; i < kFiles; ++i) {
      const fs::path directory = path / fmt::format("d{:03}", i % kDirectories);
      fs::create_directories(directory);
      write_file(directory / fmt::format("chunk.{}", i),
                 std::span(block).subspan(i % 4096, file_bytes));
    }
    return path;
  }();
  return root;
}

void copy_tree(const fs::path& from, const fs::path& to) {
  const std::string command = fmt::format("cp -r '{}' '{}'", from.string(), to.string());
  if (std::system(command.c_str()) != 0) throw std::runtime_error("cp -r failed");
}

void pack(const fs::path& file_path) {
  const auto file = Tarn::create_file();
  file->open(file_path, Tarn::bf::DiskFile::Mode::write);
  Kalix::Archive::pack_to_file(*file, tree(), "bench", "bench");
  file->close();
}

void unpack(const fs::path& file_path, const fs::path& to) {
  const auto file = Tarn::open_file(file_path, Tarn::bf::DiskFile::Mode::read);
  Kalix::Archive::unpack_from_file(*file->stack(0), to);
}

// The "VmHWM" or "VmRSS" line of /proc/self/status in bytes.
double status_bytes(const std::string& key) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with(key + ":"))
      return 1024.0 * std::strtod(line.c_str() + key.size() + 1, nullptr);
  }
  return 0;
}

// Resident bytes that `body` added at its peak to what was resident before it.
template <class Body>
double peak_rss_of(Body body) {
  std::ofstream("/proc/self/clear_refs") << "5";  // the peak starts again from now
  const double before = status_bytes("VmRSS");
  body();
  return status_bytes("VmHWM") - before;
}

void remove_tree(const fs::path& path) {
  std::error_code ignored;
  fs::remove_all(path, ignored);
}

void report(benchmark::State& state, const char* name, double library, double copy, double rss,
            double rss_limit) {
  state.counters["rss_MiB"] = rss / kMiB;
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(tree_bytes()));
  state.SetLabel(verdict(name, library / copy, false, kTimeLimit) + ", " +
                 verdict("x_rss", rss / rss_limit, false, 1.0));
}

// Times `library` against `cp -r` of the tree in each iteration; `setup` runs untimed before
// both, `rss_limit` is the limit of the library's added resident memory.
template <class Setup, class Library>
void compare(benchmark::State& state, const char* name, Setup setup, Library library,
             double rss_limit) {
  const fs::path copy = bench_file(std::string(name) + "_copy");
  double library_seconds = 0, plain_seconds = 0, rss = 0;
  bool plain_first = true;
  for (auto _ : state) {
    remove_tree(copy);
    setup();
    double seconds = 0;
    run_both(
        plain_first, [&] { plain_seconds += wall_seconds([&] { copy_tree(tree(), copy); }); },
        [&] { rss = std::max(rss, peak_rss_of([&] { seconds = wall_seconds(library); })); });
    library_seconds += seconds;
    state.SetIterationTime(seconds);
  }
  report(state, name, library_seconds, plain_seconds, rss, rss_limit);
  remove_tree(copy);
}

void BM_Pack(benchmark::State& state) {
  const fs::path packed = bench_file("pack.tbf");
  compare(
      state, "x_pack", [&] { remove_file(packed); }, [&] { pack(packed); }, kRssAllowance);
  remove_file(packed);
}

void BM_Unpack(benchmark::State& state) {
  const fs::path packed = bench_file("unpack.tbf");
  const fs::path restored = bench_file("restored");
  pack(packed);
  const double stack_bytes = static_cast<double>(fs::file_size(packed));
  compare(
      state, "x_unpack", [&] { remove_tree(restored); }, [&] { unpack(packed, restored); },
      stack_bytes + kRssAllowance);
  remove_tree(restored);
  remove_file(packed);
}

}  // namespace
}  // namespace tarnio_bench

int main(int argc, char** argv) {
  (void)tarnio_bench::tree();
  tarnio_bench::register_manual_time("pack/10000_files", tarnio_bench::BM_Pack, 4);
  tarnio_bench::register_manual_time("unpack/10000_files", tarnio_bench::BM_Unpack, 4);
  const int status = tarnio_bench::run_benchmarks(argc, argv);
  tarnio_bench::remove_tree(tarnio_bench::tree());
  return status;
}
