#pragma once

// The library's side of the benchmarks of compressed stacks: a TBF file of one stack of
// 2048 x 2048 uint16 planes, deflated (zlib) at a given level in flush blocks of 4 MiB, the file
// opened with 2 threads, written one plane per call and read back whole. Each call opens and
// closes its own file; failures throw as the library's calls do.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>

#include "tarnio/arrays/data_type.h"
#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/bf/stack_imp.h"

namespace tarnio_bench {

inline constexpr std::uint64_t kThreads = 2;
inline constexpr std::uint64_t kFlushBlockBytes = std::uint64_t{4} << 20;
inline constexpr std::uint64_t kSide = 2048;
inline constexpr std::uint64_t kPlaneSamples = kSide * kSide;

// The file at `path` opened in `mode` with kThreads threads.
inline std::shared_ptr<Tarn::bf::FileInterface> open_threaded(const std::filesystem::path& path,
                                                              Tarn::bf::DiskFile::Mode mode) {
  auto file = Tarn::create_file();
  file->set_threading_support({kThreads, {}});
  file->open(path, mode);
  return file;
}

// Writes a new file at `path` of one stack of `planes` planes compressed at `level`, plane z the
// kPlaneSamples values that `plane(z)` returns (a span that lives until the next call), and
// returns the length of the stored data.
template <class PlaneSource>
std::uint64_t write_compressed(const std::filesystem::path& path, std::uint64_t planes,
                               std::uint32_t level, PlaneSource plane) {
  auto file = open_threaded(path, Tarn::bf::DiskFile::Mode::write);
  auto stack = file->add_stack(Tarn::dt::uint16, {kSide, kSide, planes});
  stack->set_compression(Tarn::bf::StackImp::Compression::zlib, level);
  stack->set_flush_block_size(kFlushBlockBytes);
  for (std::uint64_t z = 0; z < planes; ++z) stack->write(plane(z));
  stack->commit();
  const std::uint64_t length = stack->data_length();
  file->close();
  return length;
}

// The same for the planes of `data`, one behind the other.
inline std::uint64_t write_compressed(const std::filesystem::path& path,
                                      std::span<const std::uint16_t> data, std::uint32_t level) {
  return write_compressed(path, data.size() / kPlaneSamples, level, [&](std::uint64_t z) {
    return data.subspan(z * kPlaneSamples, kPlaneSamples);
  });
}

// Reads the whole first stack of the file at `path` into `out`, which holds exactly its samples.
inline void read_compressed(const std::filesystem::path& path, std::span<std::uint16_t> out) {
  auto file = open_threaded(path, Tarn::bf::DiskFile::Mode::read);
  file->stack(0)->read(0, out);
  file->close();
}

}  // namespace tarnio_bench
