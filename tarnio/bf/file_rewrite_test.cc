// Recovery of files whose writer was killed at random moments, and compaction.

#include "tarnio/bf/file_rewrite.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <random>
#include <thread>
#include <vector>

#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/json/value.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/temp_dir.h"

namespace Tarn::bf {
namespace {

using Tarn::testing::TempDir;
using Mode = DiskFile::Mode;
using Compression = StackImp::Compression;

std::vector<std::uint16_t> samples_of(std::uint64_t stack, std::uint64_t count) {
  std::vector<std::uint16_t> samples(count);
  std::uint32_t x = static_cast<std::uint32_t>(stack) * 2654435761u + 1;
  for (auto& sample : samples) {
    x = x * 1664525u + 1013904223u;
    // Smooth enough to compress, noisy enough to need real deflate blocks.
    sample = static_cast<std::uint16_t>(100 + (x >> 28) + (stack & 0xFF));
  }
  return samples;
}

std::vector<std::uint16_t> read_all(StackImp& stack) {
  std::vector<std::uint16_t> samples(stack.number_of_elements());
  if (!samples.empty()) stack.read(0, std::span<std::uint16_t>(samples));
  return samples;
}

// The writer of the kill loop: stacks of three kinds in turn (plain, compressed, growing
// chunk-wise), each reported on `report` once committed, until killed.
[[noreturn]] void write_until_killed(const std::filesystem::path& path, int report) {
  try {
    auto file = Tarn::create_file();
    file->open(path, Mode::write);
    file->set_threading_support({2, {}});
    for (std::uint64_t i = 0;; ++i) {
      const std::uint64_t planes = 1 + i % 4;
      const auto samples = samples_of(i, 128 * 96 * planes);
      auto stack = file->add_stack(Tarn::dt::uint16, {128, 96, planes});
      stack->set_name("stack " + std::to_string(i));
      if (i % 3 == 1)
        stack->set_compression(Compression::zlib, static_cast<std::uint32_t>(1 + i % 9));
      if (i % 3 == 2) stack->set_variable_last_dimension(true);
      stack->set_flush_block_size(20000);
      for (std::uint64_t p = 0; p < planes; ++p) {
        stack->write(std::span<const std::uint16_t>(samples.data() + p * 128 * 96, 128 * 96));
      }
      stack->commit();
      const std::uint32_t index = static_cast<std::uint32_t>(i);
      if (::write(report, &index, sizeof index) != sizeof index) ::_exit(3);
    }
  } catch (...) {
    ::_exit(2);
  }
}

TEST(RecoverFile, EveryStackCommittedBeforeAKillComesBackBitExact) {
  TempDir dir;
  std::mt19937 random(20261122);
  for (int round = 0; round < 25; ++round) {
    const auto path = dir / "killed.tbf";
    // A writer killed before it created its file must not leave the last round's behind.
    std::filesystem::remove(path);
    std::array<int, 2> pipe{};
    ASSERT_EQ(::pipe(pipe.data()), 0);
    const pid_t writer = ::fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
      ::close(pipe[0]);
      write_until_killed(path, pipe[1]);
    }
    ::close(pipe[1]);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 60000));
    ::kill(writer, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(writer, &status, 0), writer);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself: " << status;
    std::uint32_t index = 0;
    std::uint64_t committed = 0;
    while (::read(pipe[0], &index, sizeof index) == sizeof index) committed = index + 1;
    ::close(pipe[0]);

    if (!std::filesystem::exists(path)) continue;
    if (std::filesystem::file_size(path) > 64) {
      EXPECT_THROW_MESSAGE(Tarn::open_file(path, Mode::read), std::runtime_error,
                           "File incomplete. Metadata missing.");
    }
    const auto out = dir / "recovered.tbf";
    RecoveryResult result;
    try {
      result = Tarn::recover_file(path, out);
    } catch (const std::exception& error) {
      // Killed before the file header was complete: nothing was committed.
      EXPECT_EQ(committed, 0u) << error.what();
      continue;
    }
    auto file = Tarn::open_file(out, Mode::read);
    // Behind the stacks reported, at most the one the writer was in: committed but not yet
    // reported, or the committed chunks of a growing one.
    ASSERT_GE(file->number_of_stacks(), committed) << "round " << round;
    ASSERT_LE(file->number_of_stacks(), committed + 1) << "round " << round;
    EXPECT_EQ(result.stacks, file->number_of_stacks());
    for (std::uint64_t i = 0; i < file->number_of_stacks(); ++i) {
      auto stack = file->stack(i);
      const std::uint64_t planes = stack->shape().back();
      const std::uint64_t full = 1 + i % 4;
      EXPECT_EQ(stack->name(), "stack " + std::to_string(i));
      if (i < committed) {
        EXPECT_EQ(planes, full);
      } else {
        // Only a growing stack can come back shorter than it was meant to be: its committed
        // chunks (all of them, when the writer died just before commit).
        EXPECT_GE(planes, 1u);
        EXPECT_LE(planes, full);
        if (planes < full) {
          EXPECT_EQ(i % 3, 2u);
        }
      }
      const auto expected = samples_of(i, 128 * 96 * full);
      const auto got = read_all(*stack);
      EXPECT_TRUE(std::equal(got.begin(), got.end(), expected.begin())) << "stack " << i;
    }
  }
}

TEST(CompactFile, DropsReservedSpaceAndOldMetadataAndRecompresses) {
  TempDir dir;
  const auto path = dir / "loose.tbf";
  const auto samples = samples_of(5, 512 * 512);
  {
    auto file = Tarn::create_file();
    file->open(path, Mode::write);
    file->set_metadata("ome_xml", "<OME/>");
    auto stack = file->add_stack(Tarn::dt::uint16, {512, 512});
    stack->set_compression(Compression::zlib, 6);
    stack->reserve_space();
    stack->write(std::span<const std::uint16_t>(samples));
    stack->commit();
    file->close();
  }
  {
    auto file = Tarn::open_file(path, Mode::append);
    file->set_metadata("note", "appended");
    auto stack = file->add_stack(Tarn::dt::uint16, {512, 512});
    stack->set_tag("exposure", JSON::Value(0.25));
    stack->write(std::span<const std::uint16_t>(samples));
    stack->commit();
    file->close();
  }
  const auto compact = dir / "compact.tbf";
  Tarn::compact_file(path, compact);
  EXPECT_LT(std::filesystem::file_size(compact), std::filesystem::file_size(path));
  const auto zipped = dir / "zipped.tbf";
  Tarn::compact_file(path, zipped, {StackCompression{Compression::zlib, 1}, {2, {}}});
  EXPECT_LT(std::filesystem::file_size(zipped), std::filesystem::file_size(compact));

  auto original = Tarn::open_file(path, Mode::read);
  for (const auto& rewritten : {compact, zipped}) {
    auto file = Tarn::open_file(rewritten, Mode::read);
    EXPECT_EQ(file->metadata(), original->metadata());
    ASSERT_EQ(file->number_of_stacks(), 2u);
    for (std::size_t i = 0; i < 2; ++i) {
      EXPECT_EQ(read_all(*file->stack(i)), samples);
      EXPECT_EQ(file->stack(i)->shape(), original->stack(i)->shape());
    }
    EXPECT_EQ(std::get<JSON::Value>(file->stack(1)->tag("exposure")), JSON::Value(0.25));
  }
  EXPECT_THROW(Tarn::compact_file(path, path), std::invalid_argument);
}

}  // namespace
}  // namespace Tarn::bf
