// Reading one open file from several threads at once, and reading between (and during) the
// writes of another stack.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/bf/stack_imp.h"
#include "tarnio/testing/temp_dir.h"

namespace Tarn::bf {
namespace {

using Tarn::testing::TempDir;
using Mode = DiskFile::Mode;
using Compression = StackImp::Compression;

constexpr std::uint64_t kPlane = 128 * 96;

std::vector<std::uint16_t> samples_of(std::uint64_t seed, std::uint64_t count) {
  std::vector<std::uint16_t> samples(count);
  std::uint32_t x = static_cast<std::uint32_t>(seed) * 2654435761u + 7;
  for (auto& sample : samples) {
    x = x * 1664525u + 1013904223u;
    sample = static_cast<std::uint16_t>(200 + (x >> 27) + seed);
  }
  return samples;
}

// Stack `i` of 8 planes: plain, compressed in small flush blocks, or compressed chunk-wise.
void add_stack(FileInterface& file, std::uint64_t i) {
  auto stack = file.add_stack(Tarn::dt::uint16, {128, 96, 8});
  if (i % 3 != 0) stack->set_compression(Compression::zlib, 3);
  if (i % 3 == 2) stack->set_variable_last_dimension(true);
  stack->set_flush_block_size(10000);
  const auto samples = samples_of(i, 8 * kPlane);
  for (std::uint64_t p = 0; p < 8; ++p) {
    stack->write(std::span<const std::uint16_t>(samples.data() + p * kPlane, kPlane));
  }
  stack->commit();
}

TEST(ConcurrentReads, EightThreadsReadRandomRangesAsOneThreadDoes) {
  TempDir dir;
  const auto path = dir / "shared.tbf";
  {
    auto file = Tarn::create_file();
    file->open(path, Mode::write);
    for (std::uint64_t i = 0; i < 3; ++i) add_stack(*file, i);
    file->close();
  }
  auto file = Tarn::open_file(path, Mode::read);
  file->set_threading_support({2, {}});
  std::vector<std::vector<std::uint16_t>> whole;
  for (std::uint64_t i = 0; i < 3; ++i) {
    whole.emplace_back(8 * kPlane);
    file->stack(i)->read(0, std::span<std::uint16_t>(whole.back()));
    ASSERT_EQ(whole.back(), samples_of(i, 8 * kPlane));
  }

  std::atomic<int> wrong{0};
  std::vector<std::thread> readers;
  for (unsigned t = 0; t < 8; ++t) {
    readers.emplace_back([&, t] {
      std::mt19937 random(t);
      for (int n = 0; n < 60; ++n) {
        const std::uint64_t i = random() % 3;
        const std::uint64_t first = random() % (8 * kPlane);
        const std::uint64_t count = 1 + random() % (8 * kPlane - first);
        std::vector<std::uint16_t> got(count);
        file->stack(i)->read(first, std::span<std::uint16_t>(got));
        if (!std::equal(got.begin(), got.end(), whole[i].begin() + static_cast<long>(first))) {
          ++wrong;
        }
      }
    });
  }
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(wrong, 0);
}

// A read of a finished stack, between two writes of another or from another thread while it is
// written, leaves the writer's position alone.
TEST(ConcurrentReads, ReadsDoNotDisturbAStackBeingWritten) {
  TempDir dir;
  auto file = Tarn::create_file();
  file->open(dir / "growing.tbf", Mode::write);
  add_stack(*file, 1);
  auto finished = file->stack(0);
  const auto expected = samples_of(1, 8 * kPlane);
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  std::thread reader([&] {
    std::vector<std::uint16_t> got(8 * kPlane);
    while (!done) {
      finished->read(0, std::span<std::uint16_t>(got));
      if (got != expected) ++wrong;
    }
  });
  for (std::uint64_t i = 3; i < 6; ++i) {
    auto stack = file->add_stack(Tarn::dt::uint16, {128, 96, 8});
    if (i % 3 != 0) stack->set_compression(Compression::zlib, 3);
    if (i % 3 == 2) stack->set_variable_last_dimension(true);
    stack->set_flush_block_size(10000);
    const auto samples = samples_of(i, 8 * kPlane);
    std::vector<std::uint16_t> got(kPlane);
    for (std::uint64_t p = 0; p < 8; ++p) {
      stack->write(std::span<const std::uint16_t>(samples.data() + p * kPlane, kPlane));
      finished->read(p * kPlane, std::span<std::uint16_t>(got));
    }
    stack->commit();
  }
  done = true;
  reader.join();
  EXPECT_EQ(wrong, 0);
  file->close();
  auto reread = Tarn::open_file(dir / "growing.tbf", Mode::read);
  ASSERT_EQ(reread->number_of_stacks(), 4u);
  for (std::uint64_t i = 1; i < 4; ++i) {
    std::vector<std::uint16_t> got(8 * kPlane);
    reread->stack(i)->read(0, std::span<std::uint16_t>(got));
    EXPECT_EQ(got, samples_of(i + 2, 8 * kPlane)) << "stack " << i;
  }
}

}  // namespace
}  // namespace Tarn::bf
