// The C++ side of bench/python_benchmark.py, run by it as a program on the files it writes:
//   tarnio_python_baseline read PATH THREADS REPEATS
//     reads stack 0 whole into a buffer REPEATS times; prints the best wall-clock seconds.
//   tarnio_python_baseline blocks PATH BEGIN END THREADS
//     counts the flush blocks a reader segment over stack 0 inflates to read its plain bytes
//     [BEGIN, END), and those that overlap them; prints both.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <vector>

#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/bf/internal/zlib_segment.h"

namespace {

using Mode = Tarn::bf::DiskFile::Mode;

std::shared_ptr<Tarn::bf::FileInterface> open_threaded(const char* path, std::uint64_t threads) {
  auto file = Tarn::create_file();
  file->set_threading_support({threads, {}});
  file->open(path, Mode::read);
  return file;
}

double best_read_seconds(const char* path, std::uint64_t threads, int repeats) {
  auto file = open_threaded(path, threads);
  const auto stack = file->stack(0);
  std::vector<std::byte> buffer(stack->number_of_elements() * tarn_dt_get_size(stack->type()));
  std::ranges::fill(buffer, std::byte{1});  // touched before timing
  double best = 1e30;
  for (int i = 0; i < repeats; ++i) {
    const auto start = std::chrono::steady_clock::now();
    stack->read(0, stack->number_of_elements(), buffer.data());
    best = std::min(
        best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  return best;
}

void count_blocks(const char* path, std::uint64_t begin, std::uint64_t end, std::uint64_t threads) {
  auto file = open_threaded(path, threads);
  const auto stack = file->stack(0);
  const auto& points = stack->flush_points();
  std::uint64_t overlapping = 0;
  for (std::size_t i = 0; i + 1 < points.size(); ++i) {
    if (points[i].plain_offset < end && points[i + 1].plain_offset > begin) ++overlapping;
  }
  Tarn::bf::DiskFile disk(path, Mode::read);
  const std::uint64_t plain = stack->number_of_elements() * tarn_dt_get_size(stack->type());
  Tarn::bf::internal::ZlibSegment segment(disk, stack->data_position(), stack->data_length(), plain,
                                          points, {threads, {}});
  std::vector<std::byte> bytes(end - begin);
  segment.read(begin, bytes);
  std::printf("%llu %llu\n", static_cast<unsigned long long>(segment.blocks_inflated()),
              static_cast<unsigned long long>(overlapping));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "read" && argc == 5) {
      std::printf("%.6f\n", best_read_seconds(argv[2], std::stoull(argv[3]), std::stoi(argv[4])));
    } else if (command == "blocks" && argc == 6) {
      count_blocks(argv[2], std::stoull(argv[3]), std::stoull(argv[4]), std::stoull(argv[5]));
    } else {
      std::fprintf(stderr, "usage: %s read PATH THREADS REPEATS | blocks PATH BEGIN END THREADS\n",
                   argv[0]);
      return 2;
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tarnio_python_baseline: %s\n", error.what());
    return 1;
  }
  return 0;
}
