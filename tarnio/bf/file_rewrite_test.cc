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
#include "tarnio/testing/stack_samples.h"
#include "tarnio/testing/temp_dir.h"

namespace Tarn::bf {
namespace {

using Tarn::testing::numbered_samples;
using Tarn::testing::read_all_samples;
using Tarn::testing::TempDir;
using Mode = DiskFile::Mode;
using Compression = StackImp::Compression;

// Stack `i` of the kill loop: plain, compressed or growing chunk-wise in turn, of 1 to 4
// planes.
void add_numbered_stack(FileInterface& file, std::uint64_t i) {
  const std::uint64_t planes = 1 + i % 4;
  const auto samples = numbered_samples(i, 128 * 96 * planes);
  auto stack = file.add_stack(Tarn::dt::uint16, {128, 96, planes});
  stack->set_name("stack " + std::to_string(i));
  if (i % 3 == 1) stack->set_compression(Compression::zlib, static_cast<std::uint32_t>(1 + i % 9));
  if (i % 3 == 2) stack->set_variable_last_dimension(true);
  stack->set_flush_block_size(20000);
  for (std::uint64_t p = 0; p < planes; ++p) {
    stack->write(std::span<const std::uint16_t>(samples.data() + p * 128 * 96, 128 * 96));
  }
  stack->commit();
}

// The writer of the kill loop: adds stacks from number `first` on to the file opened in `mode`,
// each reported on `report` once committed, until killed.
[[noreturn]] void write_until_killed(const std::filesystem::path& path, Mode mode,
                                     std::uint64_t first, int report) {
  try {
    auto file = Tarn::create_file();
    file->open(path, mode);
    file->set_threading_support({2, {}});
    for (std::uint64_t i = first;; ++i) {
      add_numbered_stack(*file, i);
      const std::uint32_t index = static_cast<std::uint32_t>(i);
      if (::write(report, &index, sizeof index) != sizeof index) ::_exit(3);
    }
  } catch (...) {
    ::_exit(2);
  }
}

// Every stack of `file` holds a prefix of its numbered samples: all of them, or for a growing
// stack that may be cut short, whole planes.
void expect_numbered_stacks(FileInterface& file, std::uint64_t committed) {
  for (std::uint64_t i = 0; i < file.number_of_stacks(); ++i) {
    auto stack = file.stack(i);
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
    const auto expected = numbered_samples(i, 128 * 96 * full);
    const auto got = read_all_samples(*stack);
    EXPECT_TRUE(std::equal(got.begin(), got.end(), expected.begin())) << "stack " << i;
  }
}

// Writers in write mode and appenders to a finished file of `kBase` stacks, killed at random
// moments while another process (this one) follows the growing file: the follower only ever
// sees sound stacks, the killed file never shows a half-written stack as complete, and its
// recovery gives back every stack committed before the kill.
TEST(RecoverFile, EveryStackCommittedBeforeAKillComesBackBitExact) {
  constexpr std::uint64_t kBase = 3;
  TempDir dir;
  std::mt19937 random(20261122);
  for (int round = 0; round < 40; ++round) {
    const bool append = round % 2 == 1;
    const auto path = dir / "killed.tbf";
    std::filesystem::remove(path);
    if (append) {
      auto file = Tarn::create_file();
      file->open(path, Mode::write);
      file->set_metadata("note", "before the append");
      for (std::uint64_t i = 0; i < kBase; ++i) add_numbered_stack(*file, i);
      file->close();
    }
    const std::uint64_t first = append ? kBase : 0;
    std::array<int, 2> pipe{};
    ASSERT_EQ(::pipe(pipe.data()), 0);
    const pid_t writer = ::fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
      ::close(pipe[0]);
      write_until_killed(path, append ? Mode::append : Mode::write, first, pipe[1]);
    }
    ::close(pipe[1]);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::microseconds(random() % 60000);
    while (append && std::chrono::steady_clock::now() < deadline) {
      auto follower = Tarn::open_unfinished_file(path);
      EXPECT_EQ(follower->metadata().at("note"), "before the append");
      expect_numbered_stacks(*follower, first);
    }
    std::this_thread::sleep_until(deadline);
    ::kill(writer, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(writer, &status, 0), writer);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself: " << status;
    std::uint32_t index = 0;
    std::uint64_t committed = first;
    while (::read(pipe[0], &index, sizeof index) == sizeof index) committed = index + 1;
    ::close(pipe[0]);

    if (!std::filesystem::exists(path)) continue;
    try {
      // Only an append killed before it began a stack leaves a complete file: the one it had.
      auto file = Tarn::open_file(path, Mode::read);
      EXPECT_TRUE(append);
      EXPECT_EQ(file->number_of_stacks(), kBase);
    } catch (const std::runtime_error& error) {
      if (append || std::filesystem::file_size(path) > 64) {
        EXPECT_STREQ(error.what(), "File incomplete. Metadata missing.");
      }
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
    if (append) {
      EXPECT_EQ(file->metadata().at("note"), "before the append");
    }
    expect_numbered_stacks(*file, committed);
  }
}

TEST(CompactFile, DropsReservedSpaceAndOldMetadataAndRecompresses) {
  TempDir dir;
  const auto path = dir / "loose.tbf";
  const auto samples = numbered_samples(5, 512 * 512);
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
      EXPECT_EQ(read_all_samples(*file->stack(i)), samples);
      EXPECT_EQ(file->stack(i)->shape(), original->stack(i)->shape());
    }
    EXPECT_EQ(std::get<JSON::Value>(file->stack(1)->tag("exposure")), JSON::Value(0.25));
  }
  EXPECT_THROW(Tarn::compact_file(path, path), std::invalid_argument);
}

}  // namespace
}  // namespace Tarn::bf
