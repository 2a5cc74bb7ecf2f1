// Stacks written chunk-wise and stacks whose last dimension grows: round trips, the write
// flags, reserved space, and reading a file while another process still writes it.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <vector>

#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/bf/stack_imp.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/stack_samples.h"
#include "tarnio/testing/temp_dir.h"

namespace Tarn::bf {
namespace {

using Tarn::testing::read_all_samples;
using Tarn::testing::TempDir;
using Mode = DiskFile::Mode;
using Compression = StackImp::Compression;

// Sample j of slice k: different in every slice and every position.
std::vector<std::uint16_t> slice_samples(std::uint64_t slice, std::uint64_t elements) {
  std::vector<std::uint16_t> samples(elements);
  for (std::uint64_t j = 0; j < elements; ++j) {
    samples[j] = static_cast<std::uint16_t>(slice * 7919 + j * 31 + (j >> 7));
  }
  return samples;
}

std::vector<std::uint16_t> expected_slices(std::uint64_t slices, std::uint64_t elements) {
  std::vector<std::uint16_t> all;
  for (std::uint64_t k = 0; k < slices; ++k) {
    const auto slice = slice_samples(k, elements);
    all.insert(all.end(), slice.begin(), slice.end());
  }
  return all;
}

struct ChunkCase {
  Compression compression;
  std::uint64_t chunk_slices;  // 0: the default chunk
  std::uint64_t piece;         // samples per write() call
};

class ChunkWise : public ::testing::TestWithParam<ChunkCase> {};

TEST_P(ChunkWise, FixedAndGrowingStacksReadBackAsWritten) {
  const ChunkCase param = GetParam();
  TempDir dir;
  const std::uint64_t slice = 24 * 10;
  const std::uint64_t slices = 7;
  const std::vector<std::uint16_t> all = expected_slices(slices, slice);
  {
    auto file = Tarn::create_file();
    file->open(dir / "chunks.tbf", Mode::write);
    for (const bool growing : {false, true}) {
      // A growing stack is created with any last size; what is written decides.
      auto stack = file->add_stack(Tarn::dt::uint16, {24, 10, growing ? 1u : slices});
      stack->set_compression(param.compression, 1);
      stack->set_chunk_wise(true, param.chunk_slices * slice);
      stack->set_variable_last_dimension(growing);
      for (std::uint64_t done = 0; done < all.size(); done += param.piece) {
        const std::uint64_t n = std::min<std::uint64_t>(param.piece, all.size() - done);
        stack->write(std::span<const std::uint16_t>(all.data() + done, n));
      }
      stack->commit();
    }
    file->close();
  }
  auto file = Tarn::open_file(dir / "chunks.tbf", Mode::read);
  ASSERT_EQ(file->number_of_stacks(), 2u);
  for (std::size_t i = 0; i < 2; ++i) {
    auto stack = file->stack(i);
    EXPECT_EQ(stack->shape(), (std::vector<std::uint64_t>{24, 10, slices}));
    EXPECT_TRUE(stack->is_chunk_wise());
    EXPECT_EQ(stack->chunk_samples(), std::max<std::uint64_t>(param.chunk_slices, 1) * slice);
    EXPECT_EQ(read_all_samples(*stack), all);
    // A range across chunk boundaries.
    std::vector<std::uint16_t> part(slice + 17);
    stack->read(slice * 2 - 5, std::span<std::uint16_t>(part));
    EXPECT_TRUE(std::equal(part.begin(), part.end(), all.begin() + slice * 2 - 5));
    stack->verify();
  }
}

INSTANTIATE_TEST_SUITE_P(Layouts, ChunkWise,
                         ::testing::Values(ChunkCase{Compression::none, 0, 240},
                                           ChunkCase{Compression::none, 2, 1000},
                                           ChunkCase{Compression::none, 3, 7},
                                           ChunkCase{Compression::zlib, 0, 999},
                                           ChunkCase{Compression::zlib, 3, 240 * 7}));

TEST(ChunkWise, FlagsAreCheckedAndFixedOnceWritingBegins) {
  TempDir dir;
  auto file = Tarn::create_file();
  file->open(dir / "flags.tbf", Mode::write);
  auto stack = file->add_stack(Tarn::dt::uint16, {4, 3, 2});
  EXPECT_THROW_MESSAGE(stack->set_chunk_wise(true, 13), std::runtime_error,
                       "Custom varsize chunk size must be multiple of default chunk size");
  stack->set_chunk_wise(true, 24);
  stack->write(std::span<const std::uint16_t>(slice_samples(0, 12)));
  EXPECT_THROW_MESSAGE(stack->set_chunk_wise(false), std::runtime_error,
                       "Invalid attempt to change write flags.");
  EXPECT_THROW_MESSAGE(stack->set_variable_last_dimension(true), std::runtime_error,
                       "Invalid attempt to change write flags.");
  EXPECT_THROW_MESSAGE(stack->set_no_data(true), std::runtime_error,
                       "Invalid attempt to change write flags.");
  EXPECT_THROW_MESSAGE(stack->set_flush_block_size(1024), std::runtime_error,
                       "Flush block size can only be set before starting to write.");
  EXPECT_THROW_MESSAGE(stack->set_compression(Compression::zlib, 6), std::runtime_error,
                       "Cannot change compression mode.");

  auto scalar = file->add_stack(Tarn::dt::uint16, std::span<const std::uint64_t>{});
  EXPECT_THROW(scalar->set_variable_last_dimension(true), std::invalid_argument);
}

TEST(ChunkWise, GrowingStackCommitsWholeSlicesOnly) {
  TempDir dir;
  auto file = Tarn::create_file();
  file->open(dir / "grow.tbf", Mode::write);
  auto stack = file->add_stack(Tarn::dt::uint16, {8, 2, 0});
  stack->set_variable_last_dimension(true);
  EXPECT_THROW_MESSAGE(stack->commit(), std::runtime_error, "Not enough samples written.");
  stack->write(std::span<const std::uint16_t>(slice_samples(0, 20)));
  EXPECT_THROW_MESSAGE(stack->commit(), std::runtime_error, "Not enough samples written.");
  stack->write(std::span<const std::uint16_t>(slice_samples(1, 12)));
  stack->commit();
  EXPECT_EQ(stack->shape(), (std::vector<std::uint64_t>{8, 2, 2}));
}

TEST(ReserveSpace, RefusalsFollowTheStacksState) {
  TempDir dir;
  auto file = Tarn::create_file();
  file->open(dir / "reserve.tbf", Mode::write);
  const auto refused = [&](auto prepare, const char* message) {
    auto stack = file->add_stack(Tarn::dt::uint16, {4, 4});
    prepare(*stack);
    EXPECT_THROW_MESSAGE(stack->reserve_space(), std::runtime_error, message);
  };
  refused([](StackImp& s) { s.set_variable_last_dimension(true); },
          "Cannot reserve space: The last dimension of the stack is variable sized.");
  refused([](StackImp& s) { s.set_no_data(true); },
          "Cannot reserve space: Stack was created as data less.");
  refused([](StackImp& s) { s.set_chunk_wise(true); },
          "Invalid attempt to reserve space: Stack is written chunk wise.");
  auto untyped = file->add_stack(Tarn::dt::none, {4, 4});
  EXPECT_THROW_MESSAGE(untyped->reserve_space(), std::runtime_error,
                       "Cannot reserve space: The data type of the stack is not (yet) determined.");

  auto stack = file->add_stack(Tarn::dt::uint16, {4, 4});
  stack->write(std::span<const std::uint16_t>(slice_samples(0, 4)));
  EXPECT_THROW_MESSAGE(stack->reserve_space(), std::runtime_error,
                       "Cannot reserve space: Stack is in an invalid state.");
  stack->write(std::span<const std::uint16_t>(slice_samples(1, 12)));
  stack->commit();
  EXPECT_THROW_MESSAGE(stack->reserve_space(), std::runtime_error,
                       "Cannot reserve space: Stack is already completely written to disk.");
}

TEST(ReserveSpace, ReservedStacksAreSparseUntilWrittenAndReadBack) {
  TempDir dir;
  const auto path = dir / "reserved.tbf";
  const std::uint64_t side = 1024;
  const std::vector<std::uint16_t> all = expected_slices(4, side * side);
  auto file = Tarn::create_file();
  file->open(path, Mode::write);
  auto stack = file->add_stack(Tarn::dt::uint16, {side, side, 4});
  stack->reserve_space();
  EXPECT_THROW_MESSAGE(stack->reserve_space(), std::runtime_error,
                       "Cannot reserve space: Stack is in an invalid state.");
  // The file reaches behind the reserved data at once, but takes almost no room yet.
  EXPECT_GE(std::filesystem::file_size(path), all.size() * 2);
  EXPECT_LT(DiskFile::size_on_disk(path), all.size() / 2);
  stack->write(std::span<const std::uint16_t>(all));
  stack->commit();
  auto next = file->add_stack(Tarn::dt::uint8, {3});
  next->write(std::span<const std::uint8_t>(std::vector<std::uint8_t>{1, 2, 3}));
  next->commit();
  file->close();

  auto read = Tarn::open_file(path, Mode::read);
  EXPECT_EQ(read_all_samples(*read->stack(0)), all);
  EXPECT_EQ(read->stack(1)->number_of_elements(), 3u);
}

// A stack that is being written: chunk-wise stacks show what was committed, others nothing.
TEST(UnfinishedFile, ShowsCommittedStacksAndChunks) {
  TempDir dir;
  const auto path = dir / "open.tbf";
  const std::uint64_t slice = 32 * 4;
  auto file = Tarn::create_file();
  file->open(path, Mode::write);
  auto done = file->add_stack(Tarn::dt::uint16, {32, 4, 1});
  done->write(std::span<const std::uint16_t>(slice_samples(9, slice)));
  done->commit();
  auto growing = file->add_stack(Tarn::dt::uint16, {32, 4, 0});
  growing->set_variable_last_dimension(true);
  for (std::uint64_t k = 0; k < 3; ++k) {
    growing->write(std::span<const std::uint16_t>(slice_samples(k, slice)));
  }
  // Half a slice more: not a committed chunk.
  growing->write(std::span<const std::uint16_t>(slice_samples(3, slice / 2)));

  {
    auto reader = Tarn::open_unfinished_file(path);
    ASSERT_EQ(reader->number_of_stacks(), 2u);
    EXPECT_FALSE(reader->stack(0)->is_unfinished());
    auto stack = reader->stack(1);
    EXPECT_TRUE(stack->is_unfinished());
    EXPECT_EQ(stack->shape(), (std::vector<std::uint64_t>{32, 4, 3}));
    EXPECT_EQ(read_all_samples(*stack), expected_slices(3, slice));
  }
  growing->write(std::span<const std::uint16_t>(slice_samples(3, slice / 2)));
  growing->commit();
  // A plain stack in the middle of its data is not shown.
  auto plain = file->add_stack(Tarn::dt::uint16, {32, 4, 2});
  plain->write(std::span<const std::uint16_t>(slice_samples(0, slice)));
  auto reader = Tarn::open_unfinished_file(path);
  ASSERT_EQ(reader->number_of_stacks(), 2u);
  EXPECT_EQ(reader->stack(1)->shape(), (std::vector<std::uint64_t>{32, 4, 4}));
  EXPECT_FALSE(reader->stack(1)->is_unfinished());
}

// One process grows a stack slice by slice; another opens the file again after each slice and
// must see every committed slice, intact, and never a torn one.
TEST(UnfinishedFile, ASecondProcessFollowsAGrowingStack) {
  TempDir dir;
  const auto path = dir / "follow.tbf";
  const std::uint64_t slice = 256 * 64;
  const std::uint64_t slices = 24;
  std::array<int, 2> to_reader{};
  std::array<int, 2> to_writer{};
  ASSERT_EQ(::pipe(to_reader.data()), 0);
  ASSERT_EQ(::pipe(to_writer.data()), 0);
  const pid_t writer = ::fork();
  ASSERT_GE(writer, 0);
  if (writer == 0) {
    int status = 0;
    try {
      auto file = Tarn::create_file();
      file->open(path, Mode::write);
      auto stack = file->add_stack(Tarn::dt::uint16, {256, 64, 0});
      stack->set_variable_last_dimension(true);
      stack->set_compression(Compression::zlib, 1);
      for (std::uint64_t k = 0; k < slices; ++k) {
        const auto samples = slice_samples(k, slice);
        // Every third slice in two halves, with the reader looking in between.
        if (k % 3 == 0) {
          stack->write(std::span<const std::uint16_t>(samples.data(), slice / 2));
          char go = 0;
          if (::write(to_reader[1], "h", 1) != 1 || ::read(to_writer[0], &go, 1) != 1) status = 3;
          stack->write(std::span<const std::uint16_t>(samples.data() + slice / 2, slice / 2));
        } else {
          stack->write(std::span<const std::uint16_t>(samples));
        }
        char go = 0;
        if (::write(to_reader[1], "s", 1) != 1 || ::read(to_writer[0], &go, 1) != 1) status = 3;
      }
      stack->commit();
      file->close();
    } catch (...) {
      status = 2;
    }
    ::_exit(status);
  }
  ::close(to_reader[1]);
  ::close(to_writer[0]);
  std::uint64_t committed = 0;
  char event = 0;
  // Checks never stop the loop: the writer waits for every answer.
  while (::read(to_reader[0], &event, 1) == 1) {
    if (event == 's') ++committed;
    auto reader = Tarn::open_unfinished_file(path);
    // A stack shows once its first slice is committed.
    EXPECT_EQ(reader->number_of_stacks(), committed > 0 ? 1u : 0u) << "after event " << event;
    if (committed > 0 && reader->number_of_stacks() == 1) {
      auto stack = reader->stack(0);
      EXPECT_EQ(stack->shape().back(), committed) << "after event " << event;
      if (stack->shape().back() == committed) {
        EXPECT_EQ(read_all_samples(*stack), expected_slices(committed, slice));
      }
    }
    if (::write(to_writer[1], "g", 1) != 1) break;
  }
  ::close(to_writer[1]);
  int status = 0;
  ASSERT_EQ(::waitpid(writer, &status, 0), writer);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  auto file = Tarn::open_file(path, Mode::read);
  EXPECT_EQ(read_all_samples(*file->stack(0)), expected_slices(slices, slice));
}

}  // namespace
}  // namespace Tarn::bf
