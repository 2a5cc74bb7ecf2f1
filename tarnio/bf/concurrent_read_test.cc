// Reading one open file from several threads at once, and between the writes of another stack.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include "tarnio/bf/file_interface.h"
#include "tarnio/testing/stack_samples.h"
#include "tarnio/testing/temp_dir.h"

namespace Tarn::bf {
namespace {

constexpr std::uint64_t kSamples = 128 * 96 * 8;

// Stack `i`, plain, compressed or compressed chunk-wise, written in 8 pieces; between two of
// them, `between` runs.
template <typename Between>
void add_stack(FileInterface& file, std::uint64_t i, Between&& between) {
  auto stack = file.add_stack(Tarn::dt::uint16, {128, 96, 8});
  if (i % 3 != 0) stack->set_compression(StackImp::Compression::zlib, 3);
  if (i % 3 == 2) stack->set_variable_last_dimension(true);
  stack->set_flush_block_size(10000);
  const auto samples = Tarn::testing::numbered_samples(i, kSamples);
  for (std::uint64_t p = 0; p < 8; ++p) {
    stack->write(std::span<const std::uint16_t>(samples.data() + p * kSamples / 8, kSamples / 8));
    between();
  }
  stack->commit();
}

TEST(ConcurrentReads, EightThreadsReadRandomRangesAsOneThreadDoes) {
  Tarn::testing::TempDir dir;
  auto file = Tarn::create_file();
  file->open(dir / "shared.tbf", DiskFile::Mode::write);
  add_stack(*file, 0, [] {});
  // A read of a finished stack between two writes of another leaves the writer's position.
  std::vector<std::uint16_t> piece(1000);
  for (std::uint64_t i = 1; i < 3; ++i)
    add_stack(*file, i, [&] { file->stack(0)->read(7, std::span(piece)); });
  file->close();

  file = Tarn::open_file(dir / "shared.tbf", DiskFile::Mode::read);
  file->set_threading_support({2, {}});
  std::atomic<int> wrong{0};
  std::vector<std::thread> readers;
  for (unsigned t = 0; t < 8; ++t) {
    readers.emplace_back([&, t] {
      std::mt19937 random(t);
      for (int n = 0; n < 60; ++n) {
        const std::uint64_t i = random() % 3;
        const std::uint64_t first = random() % kSamples;
        std::vector<std::uint16_t> got(1 + random() % (kSamples - first));
        file->stack(i)->read(first, std::span(got));
        const auto expected = Tarn::testing::numbered_samples(i, kSamples);
        wrong += !std::equal(got.begin(), got.end(), expected.begin() + static_cast<long>(first));
      }
    });
  }
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace Tarn::bf
