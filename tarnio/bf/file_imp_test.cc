#include "tarnio/bf/file_imp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/bf/internal/tbf_format.h"
#include "tarnio/errors/tarn_error.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/file_bytes.h"
#include "tarnio/testing/file_size_limit.h"
#include "tarnio/testing/stack_samples.h"
#include "tarnio/testing/temp_dir.h"

namespace Tarn::bf {
namespace {

using Mode = DiskFile::Mode;
using Tarn::testing::read_all_samples;
using Tarn::testing::read_file_bytes;
using Tarn::testing::TempDir;
using Tarn::testing::write_file_bytes;
namespace fs = std::filesystem;

constexpr std::uint64_t kNextField = internal::kNextStackOffset;

std::uint64_t u64_at(const std::string& bytes, std::size_t offset) {
  std::uint64_t v = 0;
  std::memcpy(&v, bytes.data() + offset, sizeof v);
  return v;
}

std::string le32(std::uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
std::string le64(std::uint64_t v) { return std::string(reinterpret_cast<const char*>(&v), 8); }

void put_u64(std::string& bytes, std::size_t offset, std::uint64_t v) {
  std::memcpy(bytes.data() + offset, &v, sizeof v);
}

// A file header built byte by byte: version 1 has no metadata field.
std::string header_bytes(std::uint32_t version, std::uint64_t first_stack,
                         const std::string& description, std::uint64_t metadata_position = 0) {
  std::string h = std::string("TARN_BF\n\xFF\xFF", 10) + le32(version) + le64(first_stack) +
                  le32(static_cast<std::uint32_t>(description.size())) + description;
  if (version >= 2) h += le64(metadata_position);
  return h;
}

std::string block_bytes(const std::map<std::string, std::string>& entries) {
  std::string b;
  for (const auto& [k, v] : entries) {
    b += le32(static_cast<std::uint32_t>(k.size())) + k +
         le32(static_cast<std::uint32_t>(v.size())) + v;
  }
  return b + le32(0);
}

// A complete version-2 file without stacks whose metadata block is `block`.
std::string file_with_block(const std::string& description, const std::string& block) {
  const std::uint64_t at = 26 + description.size() + 8;
  return header_bytes(2, 0, description, at) + block;
}

std::vector<std::uint16_t> ramp(std::size_t n, std::uint16_t start) {
  std::vector<std::uint16_t> v(n);
  std::iota(v.begin(), v.end(), start);
  return v;
}

// Writes a committed uint16 stack of `n` samples starting at `start`.
std::shared_ptr<StackImp> add_ramp(FileInterface& file, std::size_t n, std::uint16_t start,
                                   const std::string& name = "") {
  auto stack = file.add_stack(Tarn::dt::uint16, {n});
  stack->set_name(name);
  const std::vector<std::uint16_t> v = ramp(n, start);
  stack->write(std::span<const std::uint16_t>(v));
  stack->commit();
  return stack;
}

// The positions of the chain as the files' bytes say: first-stack field, then offset 360.
std::vector<std::uint64_t> chain_of(const std::string& bytes) {
  std::vector<std::uint64_t> chain;
  for (std::uint64_t p = u64_at(bytes, 14); p != 0; p = u64_at(bytes, p + kNextField)) {
    chain.push_back(p);
    if (chain.size() > 100) break;
  }
  return chain;
}

// Every field at its offset; the metadata block directly behind the header, its entries in key
// order. An append that adds nothing leaves the file as it was.
TEST(FileHeader, FieldsLieAtTheirOffsetsAndAnEmptyAppendKeepsThem) {
  TempDir dir;
  const fs::path path = dir / "empty.tbf";
  for (const std::string description : {"", "cells"}) {
    auto file = create_file();
    file->open(path, Mode::write);
    file->set_description(description);
    if (!description.empty()) file->set_metadata("b", "2");
    if (!description.empty()) file->set_metadata("a", "1");
    file->close();
    const std::uint64_t block = 26 + description.size() + 8;
    const std::string expected =
        header_bytes(2, 0, description, block) +
        (description.empty() ? le32(0) : block_bytes({{"a", "1"}, {"b", "2"}}));
    EXPECT_EQ(read_file_bytes(path), expected);

    auto back = std::make_shared<FileImp>();
    back->open(path, Mode::read);
    EXPECT_EQ(back->format_version(), 2u);
    EXPECT_EQ(back->description(), description);
    EXPECT_EQ(back->metadata().size(), description.empty() ? 0u : 2u);
    EXPECT_EQ(back->number_of_stacks(), 0u);
    EXPECT_EQ(back->metadata_position(), block);
    EXPECT_EQ(back->tell(), block);  // reading ends just behind the header
    back->close();
    back->open(path, Mode::append);
    back->close();
    EXPECT_EQ(read_file_bytes(path), expected);
  }
}

TEST(FileHeader, VersionOneHasNoMetadataField) {
  TempDir dir;
  const std::string bytes = header_bytes(1, 0, "old");
  write_file_bytes(dir / "v1.tbf", bytes);
  auto file = open_file(dir / "v1.tbf", Mode::read);
  EXPECT_EQ(file->format_version(), 1u);
  EXPECT_EQ(file->description(), "old");
  EXPECT_TRUE(file->metadata().empty());
  EXPECT_EQ(file->number_of_stacks(), 0u);
  file->close();

  // Appending nothing to a version-1 file leaves it as it was: it has no field to patch.
  file->open(dir / "v1.tbf", Mode::append);
  file->close();
  EXPECT_EQ(read_file_bytes(dir / "v1.tbf"), bytes);
}

TEST(FileOpen, InvalidModeIsRefusedBeforeAnythingIsOpened) {
  TempDir dir;
  auto file = create_file();
  for (const Mode mode : {Mode::none, static_cast<Mode>(3), static_cast<Mode>(-7)}) {
    EXPECT_THROW_MESSAGE(file->open(dir / "new.tbf", mode), std::runtime_error,
                         "Invalid opening mode.");
  }
  EXPECT_FALSE(fs::exists(dir / "new.tbf"));
  EXPECT_FALSE(file->is_open());
}

TEST(FileOpen, FailedOpenLeavesTheObjectClosedAndReusable) {
  TempDir dir;
  write_file_bytes(dir / "bad.tbf", "not a tbf file at all, but long enough");
  write_file_bytes(dir / "good.tbf", file_with_block("good", block_bytes({{"k", "v"}})));
  auto file = create_file();
  file->close();  // nothing open: nothing to do
  EXPECT_THROW(file->open(dir / "bad.tbf", Mode::read), std::runtime_error);
  EXPECT_FALSE(file->is_open());
  EXPECT_FALSE(file->is_writable());
  EXPECT_THROW(file->open(dir / "bad.tbf", Mode::append), std::runtime_error);
  EXPECT_FALSE(file->is_open());
  // The failed opener held no lock: a writer gets the file.
  { DiskFile writer(dir / "bad.tbf", Mode::append); }

  file->open(dir / "good.tbf", Mode::read);
  EXPECT_EQ(file->description(), "good");
  EXPECT_EQ(file->metadata().at("k"), "v");
}

TEST(FileWrite, DestructorFinishesTheFile) {
  TempDir dir;
  {
    auto file = create_file();
    file->open(dir / "f.tbf", Mode::write);
    file->set_metadata("ome_xml", "<OME/>");
  }
  EXPECT_EQ(open_file(dir / "f.tbf", Mode::read)->metadata().at("ome_xml"), "<OME/>");
}

TEST(FileWrite, MisuseMessages) {
  TempDir dir;
  write_file_bytes(dir / "f.tbf", file_with_block("", le32(0)));
  auto closed = create_file();
  auto reader = open_file(dir / "f.tbf", Mode::read);
  for (FileInterface* file : {closed.get(), reader.get()}) {
    EXPECT_THROW_MESSAGE(file->set_description("x"), std::runtime_error,
                         "Read-only handle specified in write function.");
    EXPECT_THROW_MESSAGE(file->set_metadata("k", "v"), std::runtime_error,
                         "Read-only handle specified in write function.");
    EXPECT_THROW_MESSAGE(file->add_stack(Tarn::dt::uint8, {4}), std::runtime_error,
                         "Read-only handle specified in write function.");
    EXPECT_THROW_MESSAGE(file->stack(0), TarnError, "Invalid stack index '0'.");
  }
  EXPECT_THROW_MESSAGE(closed->seek_stack(0), std::runtime_error,
                       "File must be open in read mode to allow seeking to end of file.");
  EXPECT_THROW_MESSAGE(reader->seek_stack(0), std::runtime_error, "Invalid stack number.");
  reader->close();

  auto appender = open_file(dir / "f.tbf", Mode::append);
  EXPECT_THROW_MESSAGE(appender->set_description("x"), std::runtime_error,
                       "Header already written. Cannot set file description.");
  EXPECT_THROW_MESSAGE(appender->seek_stack(0), std::runtime_error,
                       "File must be open in read mode to allow seeking to end of file.");
  EXPECT_THROW(appender->set_metadata("", "v"), std::invalid_argument);
}

TEST(Metadata, RoundTripKeepsEveryByte) {
  TempDir dir;
  std::string binary(256, '\0');
  std::iota(binary.begin(), binary.end(), '\0');
  const std::map<std::string, std::string> entries = {
      {"empty", ""},
      {"binary", binary},
      {std::string("k\0ey", 4), "zero in the key"},
      {"ome_xml", "<OME xmlns=\"http://www.openmicroscopy.org/Schemas/OME/2016-06\"/>"},
      {"big", std::string(1 << 20, 'x')},
  };
  auto file = create_file();
  file->open(dir / "f.tbf", Mode::write);
  for (const auto& [k, v] : entries) file->set_metadata(k, v);
  file->set_metadata("empty", "replaced first");
  file->set_metadata("empty", "");
  file->close();
  EXPECT_EQ(open_file(dir / "f.tbf", Mode::read)->metadata(), entries);

  // Appending keeps the entries, adds new ones and writes the block anew at the end.
  file->open(dir / "f.tbf", Mode::append);
  const std::uint64_t old_size = file->file_size();
  file->set_metadata("added", "later");
  file->close();
  auto back = std::static_pointer_cast<FileImp>(open_file(dir / "f.tbf", Mode::read));
  auto expected = entries;
  expected["added"] = "later";
  EXPECT_EQ(back->metadata(), expected);
  EXPECT_EQ(back->metadata_position(), old_size);
}

TEST(FileChain, StacksAreLinkedInTheOrderTheyAreWritten) {
  TempDir dir;
  const fs::path path = dir / "chain.tbf";
  auto file = create_file(false);  // no OME description: an empty block
  file->open(path, Mode::write);
  file->set_description("three");
  // Added in one order, written in another: the chain follows the writing.
  auto late = file->add_stack(Tarn::dt::uint16, {5});
  add_ramp(*file, 7, 100, "first");
  EXPECT_THROW_MESSAGE(file->set_description("too late"), std::runtime_error,
                       "Header already written. Cannot set file description.");
  add_ramp(*file, 3, 200, "second");
  const std::vector<std::uint16_t> v = ramp(5, 300);
  late->set_name("third");
  late->write(std::span<const std::uint16_t>(v));
  late->commit();
  EXPECT_EQ(file->number_of_stacks(), 3u);
  EXPECT_EQ(file->stack(2)->name(), "third");
  EXPECT_EQ(file->stack(1)->next_position(), late->position());
  file->close();

  const std::string bytes = read_file_bytes(path);
  const std::vector<std::uint64_t> chain = chain_of(bytes);
  ASSERT_EQ(chain.size(), 3u);
  EXPECT_EQ(chain[0], 26u + 5 + 8);  // the first stack follows the header directly
  EXPECT_LT(chain[0], chain[1]);
  EXPECT_LT(chain[1], chain[2]);
  EXPECT_EQ(u64_at(bytes, chain[2] + kNextField), 0u);
  // The metadata block is the last thing in the file.
  EXPECT_EQ(bytes.substr(u64_at(bytes, 31)), le32(0));

  auto back = std::static_pointer_cast<FileImp>(open_file(path, Mode::read));
  ASSERT_EQ(back->number_of_stacks(), 3u);
  const char* names[] = {"first", "second", "third"};
  const std::uint16_t starts[] = {100, 200, 300};
  const std::size_t sizes[] = {7, 3, 5};
  for (std::size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(back->stack(i)->position(), chain[i]);
    EXPECT_EQ(back->stack(i)->name(), names[i]);
    EXPECT_EQ(read_all_samples(*back->stack(i)), ramp(sizes[i], starts[i]));
  }
  // seek_stack moves to a stack's header and says where that is.
  for (std::size_t i : {2u, 0u, 1u}) {
    EXPECT_EQ(back->seek_stack(i), chain[i]);
    EXPECT_EQ(back->tell(), chain[i]);
  }
  EXPECT_THROW_MESSAGE(back->seek_stack(3), std::runtime_error, "Invalid stack number.");
  EXPECT_THROW_MESSAGE(back->stack(3), TarnError, "Invalid stack index '3'.");
}

TEST(FileChain, AppendLinksFromTheLastStack) {
  TempDir dir;
  const fs::path path = dir / "f.tbf";
  {
    auto file = create_file();
    file->open(path, Mode::write);
    file->set_metadata("ome_xml", "<OME/>");
    add_ramp(*file, 4, 10);
    add_ramp(*file, 4, 20);
    file->close();
  }
  const std::string before = read_file_bytes(path);
  const std::uint64_t old_block = u64_at(before, 26);
  const std::vector<std::uint64_t> old_chain = chain_of(before);

  auto file = open_file(path, Mode::append);
  EXPECT_TRUE(file->is_writable());
  EXPECT_EQ(file->number_of_stacks(), 2u);
  auto added = add_ramp(*file, 6, 30, "added");
  EXPECT_EQ(added->position(), before.size());  // behind the old metadata block
  file->close();

  const std::string after = read_file_bytes(path);
  const std::vector<std::uint64_t> chain = chain_of(after);
  ASSERT_EQ(chain.size(), 3u);
  EXPECT_EQ(chain[0], old_chain[0]);
  EXPECT_EQ(chain[1], old_chain[1]);
  EXPECT_EQ(chain[2], before.size());
  // The old block stays where it was; the header points at a new one behind the new stack.
  EXPECT_EQ(after.substr(old_block, before.size() - old_block), before.substr(old_block));
  const std::uint64_t new_block = u64_at(after, 26);
  EXPECT_GT(new_block, chain[2]);
  EXPECT_EQ(after.substr(new_block), block_bytes({{"ome_xml", "<OME/>"}}));

  auto back = open_file(path, Mode::read);
  ASSERT_EQ(back->number_of_stacks(), 3u);
  EXPECT_EQ(read_all_samples(*back->stack(0)), ramp(4, 10));
  EXPECT_EQ(read_all_samples(*back->stack(2)), ramp(6, 30));
  EXPECT_EQ(back->metadata().at("ome_xml"), "<OME/>");
}

TEST(FileChain, AppendToAFileWithoutStacksLinksFromTheHeader) {
  TempDir dir;
  const fs::path path = dir / "f.tbf";
  write_file_bytes(path, file_with_block("none yet", le32(0)));
  auto file = open_file(path, Mode::append);
  add_ramp(*file, 3, 7);
  add_ramp(*file, 2, 9);
  file->close();
  const std::string bytes = read_file_bytes(path);
  EXPECT_EQ(u64_at(bytes, 14), 26u + 8 + 8 + 4);  // behind the old, empty block
  auto back = open_file(path, Mode::read);
  ASSERT_EQ(back->number_of_stacks(), 2u);
  EXPECT_EQ(back->description(), "none yet");
  EXPECT_EQ(read_all_samples(*back->stack(1)), ramp(2, 9));
}

// A version-1 file: its first stack follows the description directly, it has no metadata
// block, and appending adds stacks but no block.
TEST(FileChain, VersionOneFileReadsAndTakesNewStacks) {
  TempDir dir;
  const fs::path path = dir / "v1.tbf";
  // The stacks' bytes as a version-2 writer lays them out, from the first stack to the block.
  const auto stack_bytes = [&](std::size_t n, std::uint16_t start, const std::string& name) {
    auto file = create_file();
    file->open(dir / "v2.tbf", Mode::write);
    add_ramp(*file, n, start, name);
    file->close();
    const std::string v2 = read_file_bytes(dir / "v2.tbf");
    const std::uint64_t at = u64_at(v2, 14);
    return v2.substr(at, u64_at(v2, 26) - at);
  };
  const std::string stack = stack_bytes(5, 40, "old");
  const std::string v1 = header_bytes(1, 26 + 3, "abc") + stack;
  write_file_bytes(path, v1);

  auto file = open_file(path, Mode::read);
  EXPECT_EQ(file->format_version(), 1u);
  ASSERT_EQ(file->number_of_stacks(), 1u);
  EXPECT_EQ(file->stack(0)->position(), 29u);
  EXPECT_EQ(read_all_samples(*file->stack(0)), ramp(5, 40));
  file->close();

  file->open(path, Mode::append);
  add_ramp(*file, 2, 50, "new");
  file->close();
  const std::string after = read_file_bytes(path);
  // Only the old stack's link changed; the new stack ends the file: no metadata block.
  std::string expected_prefix = v1;
  put_u64(expected_prefix, 29 + kNextField, v1.size());
  EXPECT_EQ(after.substr(0, v1.size()), expected_prefix);
  EXPECT_EQ(after.substr(v1.size()), stack_bytes(2, 50, "new"));

  auto back = open_file(path, Mode::read);
  EXPECT_EQ(back->format_version(), 1u);
  ASSERT_EQ(back->number_of_stacks(), 2u);
  EXPECT_EQ(back->stack(1)->name(), "new");
  EXPECT_EQ(read_all_samples(*back->stack(1)), ramp(2, 50));
}

TEST(FileChain, UnfinishedStackIsDroppedAtClose) {
  TempDir dir;
  for (const bool with_committed : {false, true}) {
    SCOPED_TRACE(with_committed);
    const fs::path path = dir / "f.tbf";
    auto file = create_file();
    file->open(path, Mode::write);
    if (with_committed) add_ramp(*file, 4, 1);
    auto unfinished = file->add_stack(Tarn::dt::uint16, {8});
    const std::vector<std::uint16_t> half = ramp(4, 0);
    unfinished->write(std::span<const std::uint16_t>(half));
    auto other = file->add_stack(Tarn::dt::uint16, {2});
    EXPECT_THROW_MESSAGE(other->write(std::span<const std::uint16_t>(half.data(), 2)),
                         std::runtime_error, "Another stack of the file is still being written.");
    file->close();
    EXPECT_THROW_MESSAGE(unfinished->write(std::span<const std::uint16_t>(half)),
                         std::runtime_error, "Cannot access File_Stack, file has been closed.");

    const std::string bytes = read_file_bytes(path);
    auto back = open_file(path, Mode::read);
    ASSERT_EQ(back->number_of_stacks(), with_committed ? 1u : 0u);
    if (with_committed) {
      EXPECT_EQ(u64_at(bytes, back->stack(0)->position() + kNextField), 0u);
      EXPECT_EQ(read_all_samples(*back->stack(0)), ramp(4, 1));
    } else {
      EXPECT_EQ(u64_at(bytes, 14), 0u);
    }
  }
}

// A file of two 16-sample stacks and one metadata entry at `path`; returns its bytes.
std::string two_stack_file(const fs::path& path) {
  auto file = create_file();
  file->open(path, Mode::write);
  file->set_metadata("k", "v");
  add_ramp(*file, 16, 0);
  add_ramp(*file, 16, 0);
  file->close();
  return read_file_bytes(path);
}

// Records every move of the file position, so that a test sees where reading left it.
class SeekRecordingFile : public FileImp {
 public:
  std::uint64_t seek(std::uint64_t pos) override {
    seeks.push_back(pos);
    return FileImp::seek(pos);
  }
  std::vector<std::uint64_t> seeks;
};

TEST(FileOpen, PositionIsPutBackWhenReadingFails) {
  TempDir dir;
  const fs::path path = dir / "f.tbf";
  const std::string good = two_stack_file(path);
  const std::vector<std::uint64_t> chain = chain_of(good);
  ASSERT_EQ(chain.size(), 2u);
  const std::uint64_t block = u64_at(good, 26);

  std::string loop = good;
  put_u64(loop, chain[1] + kNextField, chain[0]);
  std::string damaged_stack = good;
  damaged_stack[chain[1]] = 'X';
  std::string damaged_block = good;
  damaged_block[block] = '\x7F';
  for (const std::string& bad : {loop, damaged_stack, damaged_block}) {
    write_file_bytes(path, bad);
    auto file = std::make_shared<SeekRecordingFile>();
    EXPECT_ANY_THROW(file->open(path, Mode::read));
    ASSERT_FALSE(file->seeks.empty());
    EXPECT_NE(std::count_if(file->seeks.begin(), file->seeks.end(),
                            [](std::uint64_t p) { return p != 0 && p != DiskFile::kNpos; }),
              0);
    EXPECT_EQ(file->seeks.back(), 0u);
    EXPECT_FALSE(file->is_open());
  }
}

// A file whose close() could not write the metadata block is closed all the same, and stays
// recognisably unfinished.
TEST(FileWrite, FailedCloseReleasesTheFile) {
  TempDir dir;
  const fs::path path = dir / "f.tbf";
  auto file = create_file();
  file->open(path, Mode::write);
  auto stack = add_ramp(*file, 1000, 0);
  file->set_metadata("big", std::string(100000, 'x'));
  {
    const std::uint64_t size = file->file_size();
    const Tarn::testing::FileSizeLimit limit(size + 100);
    EXPECT_THROW(file->close(), TarnError);
  }
  EXPECT_FALSE(file->is_open());
  EXPECT_THROW_MESSAGE(read_all_samples(*stack), std::runtime_error,
                       "Cannot access File_Stack, file has been closed.");
  EXPECT_THROW_MESSAGE(open_file(path, Mode::read), std::runtime_error,
                       "File incomplete. Metadata missing.");
}

// A cancelled stack, in a new file or an append, leaves the chain as it was; the next stack
// takes its link.
TEST(FileChain, StackAfterACancelledOneTakesItsLink) {
  TempDir dir;
  const fs::path path = dir / "f.tbf";
  for (const Mode mode : {Mode::write, Mode::append}) {
    SCOPED_TRACE(mode == Mode::write ? "write" : "append");
    auto file = create_file();
    file->open(path, mode);
    if (mode == Mode::write) add_ramp(*file, 3, 1);
    // Committed stacks before the cancelled one.
    const std::vector<std::uint64_t> chain = chain_of(read_file_bytes(path));
    auto cancelled = file->add_stack(Tarn::dt::uint16, {4});
    cancelled->set_progress_callback([](std::uint64_t, std::uint64_t) { return false; });
    const std::vector<std::uint16_t> v = ramp(4, 0);
    EXPECT_THROW_MESSAGE(cancelled->write(std::span<const std::uint16_t>(v)), std::runtime_error,
                         "Cancelled by user.");
    add_ramp(*file, 2, 5);
    file->close();

    auto back = open_file(path, Mode::read);
    ASSERT_EQ(back->number_of_stacks(), chain.size() + 1);
    std::vector<std::uint64_t> expected = chain;
    expected.push_back(back->stack(chain.size())->position());
    EXPECT_EQ(chain_of(read_file_bytes(path)), expected);
    EXPECT_EQ(read_all_samples(*back->stack(0)), ramp(3, 1));
    EXPECT_EQ(back->stack(0)->next_position(), back->stack(1)->position());
    EXPECT_EQ(read_all_samples(*back->stack(1)), ramp(2, 5));
  }
}

}  // namespace
}  // namespace Tarn::bf
