#include "tarnio/bf/disk_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "tarnio/errors/tarn_error.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/file_size_limit.h"
#include "tarnio/testing/temp_dir.h"

namespace Tarn::bf {
namespace {

using Mode = DiskFile::Mode;
using Tarn::testing::TempDir;

void write_file(const std::filesystem::path& path, const std::string& text) {
  DiskFile file(path, Mode::write);
  file.write(text.data(), text.size());
}

std::string read_file(const std::filesystem::path& path) {
  DiskFile file(path, Mode::read);
  std::string text(file.size(), '\0');
  file.read(text.data(), text.size());
  return text;
}

bool is_open_descriptor(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

TEST(DiskFileModes, WriteTruncatesAndAppendKeepsContents) {
  TempDir dir;
  const auto path = dir / "data.tbf";
  write_file(path, "hello world");
  write_file(path, "abc");
  DiskFile file(path, Mode::append);
  EXPECT_TRUE(file.is_open_for_writing());
  EXPECT_EQ(file.tell(), 0u);
  EXPECT_EQ(file.seek(DiskFile::kNpos), 3u);
  file.write("def", 3);
  file.close();
  EXPECT_EQ(read_file(path), "abcdef");
}

std::uint64_t inode_of(const std::filesystem::path& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

// Write mode replaces a plain file with a new one (cheaper than truncating its blocks), but
// keeps the identity of what other names or links share: they must see the new contents.
TEST(DiskFileModes, WriteReplacesPlainFilesAndTruncatesSharedOnes) {
  TempDir dir;
  const auto path = dir / "data.tbf";
  write_file(path, "old contents");
  // The new file keeps bits that the process's umask would take from a file it creates.
  const mode_t umask = ::umask(022);
  ::chmod(path.c_str(), 0666);
  const std::uint64_t old_inode = inode_of(path);
  {
    // A reader of the old file keeps reading it while the new one is written.
    DiskFile reader;
    reader.open_follower(path);
    write_file(path, "new");
    std::string old(12, '\0');
    reader.read(old.data(), old.size());
    EXPECT_EQ(old, "old contents");
  }
  EXPECT_NE(inode_of(path), old_inode);
  EXPECT_EQ(read_file(path), "new");
  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0666u);
  ::umask(umask);

  const auto link = dir / "link.tbf";
  const auto hard = dir / "hard.tbf";
  std::filesystem::create_symlink(path, link);
  std::filesystem::create_hard_link(path, hard);
  const std::uint64_t shared_inode = inode_of(path);
  write_file(link, "via link");
  write_file(hard, "via hard link");
  EXPECT_EQ(inode_of(path), shared_inode);
  EXPECT_EQ(read_file(path), "via hard link");
  EXPECT_TRUE(std::filesystem::is_symlink(link));
}

// The old file is unlinked before the new one is created; when that creation fails (here for
// want of a descriptor), the open fails instead of writing into the file without a name.
TEST(DiskFileModes, WriteFailsWhenTheReplacementCannotBeCreated) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizers' runtime needs descriptors of its own";
#endif
  TempDir dir;
  const auto path = dir / "data.tbf";
  write_file(path, "old contents");
  rlimit saved{};
  ::getrlimit(RLIMIT_NOFILE, &saved);
  rlimit lowered = saved;
  lowered.rlim_cur = 64;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
  std::vector<int> taken;
  for (int fd = ::open("/dev/null", O_RDONLY); fd >= 0; fd = ::open("/dev/null", O_RDONLY)) {
    taken.push_back(fd);
  }
  ASSERT_FALSE(taken.empty());
  ::close(taken.back());
  taken.pop_back();
  EXPECT_THROW_MESSAGE(DiskFile(path, Mode::write), TarnError,
                       "Could not open file: Too many open files");
  for (const int fd : taken) ::close(fd);
  ::setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(DiskFileModes, MissingFilesAndDirectoriesCannotBeOpened) {
  TempDir dir;
  DiskFile file;
  for (const Mode mode : {Mode::read, Mode::append}) {
    EXPECT_THROW_MESSAGE(file.open(dir / "missing.tbf", mode), TarnError,
                         "Could not open file: No such file or directory");
  }
  for (const Mode mode : {Mode::read, Mode::write, Mode::append}) {
    EXPECT_THROW_MESSAGE(file.open(dir.path(), mode), TarnError,
                         "Could not open file: Is a directory");
  }
  EXPECT_EQ(file.mode(), Mode::none);
  file.open(dir / "missing.tbf", Mode::write);
  EXPECT_EQ(file.mode(), Mode::write);
}

TEST(DiskFileModes, ReadersShareOnlyWithReaders) {
  TempDir dir;
  const auto path = dir / "data.tbf";
  write_file(path, "precious");
  {
    DiskFile first(path, Mode::read);
    DiskFile second(path, Mode::read);
    for (const Mode mode : {Mode::write, Mode::append}) {
      EXPECT_THROW_MESSAGE(DiskFile refused(path, mode), TarnError,
                           "Could not open file: Resource temporarily unavailable");
    }
  }
  // The refused writer did not truncate the file.
  EXPECT_EQ(read_file(path), "precious");
  DiskFile writer(path, Mode::append);
  EXPECT_THROW_MESSAGE(DiskFile refused(path, Mode::read), TarnError,
                       "Could not open file: Resource temporarily unavailable");
}

TEST(DiskFileTransfers, ReadPastEndSaysFileTooShortAndKeepsTheFile) {
  TempDir dir;
  DiskFile file(dir / "data.tbf", Mode::write);
  file.write("abc", 3);
  file.read(nullptr, 0);
  char text[4] = {};
  file.seek(1);
  EXPECT_THROW_MESSAGE(file.read(text, 4), TarnError,
                       "Failed reading 4 bytes from file: File too short.");
  EXPECT_EQ(file.mode(), Mode::write);
  file.seek(0);
  file.read(text, 3);
  EXPECT_EQ(std::string(text, 3), "abc");
}

TEST(DiskFileTransfers, FullDeviceFailsWritesAndFlushes) {
  DiskFile file("/dev/full", Mode::write);
  EXPECT_THROW_MESSAGE(file.write("x", 1), TarnError,
                       "Failed writing 1 bytes to file: No space left on device");
  EXPECT_THROW_MESSAGE(file.flush_file_buffers(), TarnError,
                       "Failed flushing data to file: Invalid argument");
  EXPECT_EQ(file.mode(), Mode::write);
}

TEST(DiskFileTransfers, WriteCutShortByTheFileSizeLimitSaysNotEnoughSpace) {
  TempDir dir;
  const auto path = dir / "data.tbf";
  {
    DiskFile file(path, Mode::write);
    const Tarn::testing::FileSizeLimit limit(10);
    const std::string text(16, 'x');
    EXPECT_THROW_MESSAGE(file.write(text.data(), text.size()), TarnError,
                         "Failed writing 16 bytes to file: Not enough space.");
    EXPECT_THROW_MESSAGE(file.write("x", 1), TarnError,
                         "Failed writing 1 bytes to file: File too large");
  }
  EXPECT_EQ(read_file(path), std::string(10, 'x'));
}

// Needs 4 GiB of memory and 4 GiB of disk.
TEST(DiskFileTransfers, DISABLED_OneCallMovesMoreThanFourGiB) {
  TempDir dir;
  const std::uint64_t n = (std::uint64_t{4} << 30) + 3;
  std::vector<std::uint8_t> bytes(n);
  std::iota(bytes.begin(), bytes.end(), std::uint8_t{7});
  DiskFile file(dir / "big.tbf", Mode::write);
  file.write(bytes.data(), n);
  EXPECT_EQ(file.size(), n);
  std::fill(bytes.begin(), bytes.end(), std::uint8_t{0});
  file.seek(0);
  file.read(bytes.data(), n);
  for (std::uint64_t i = 0; i < n; i += 4099) {
    ASSERT_EQ(bytes[i], static_cast<std::uint8_t>(7 + i)) << i;
  }
  EXPECT_EQ(bytes[n - 1], static_cast<std::uint8_t>(7 + n - 1));
}

TEST(DiskFilePosition, SeekBeyondTheEndLeavesAHoleThatTakesNoRoomOnDisk) {
  TempDir dir;
  const auto path = dir / "sparse.tbf";
  constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;
  {
    DiskFile file(path, Mode::write);
    file.set_sparse(true);
    EXPECT_TRUE(file.is_sparse());
    EXPECT_EQ(file.seek(DiskFile::kNpos), 0u);
    EXPECT_EQ(file.seek(kGiB), kGiB);
    EXPECT_EQ(file.size(), 0u);
    file.write("x", 1);
    EXPECT_EQ(file.seek(DiskFile::kNpos), kGiB + 1);
    EXPECT_EQ(file.seek(std::uint64_t{1} << 63), DiskFile::kNpos);
    EXPECT_EQ(file.tell(), kGiB + 1);
  }
  EXPECT_LT(DiskFile::size_on_disk(path), std::uint64_t{1} << 20);
  EXPECT_THROW_MESSAGE(DiskFile::size_on_disk(dir / "missing.tbf"), TarnError,
                       "Could not get file size: No such file or directory");
}

TEST(DiskFileHandle, MisuseLeavesHandleAndModeUnchanged) {
  TempDir dir;
  const auto path = dir / "data.tbf";
  write_file(path, "abc");
  DiskFile file(path, Mode::read);
  EXPECT_THROW_MESSAGE(file.open(path, Mode::write), std::runtime_error,
                       "File already open or attached.");
  EXPECT_THROW_MESSAGE(file.attach(0, Mode::read), std::runtime_error,
                       "File already open or attached.");
  EXPECT_EQ(file.mode(), Mode::read);
  EXPECT_EQ(file.size(), 3u);

  DiskFile closed;
  for (const Mode mode : {Mode::none, static_cast<Mode>(3)}) {
    EXPECT_THROW_MESSAGE(closed.open(path, mode), std::runtime_error,
                         "Invalid file mode when opening file.");
  }
  EXPECT_EQ(closed.mode(), Mode::none);
  char byte = 0;
  EXPECT_THROW_MESSAGE(closed.tell(), std::runtime_error, "File not open.");
  EXPECT_THROW_MESSAGE(closed.seek(0), std::runtime_error, "File not open.");
  EXPECT_THROW_MESSAGE(closed.read(&byte, 1), std::runtime_error, "File not open.");
  EXPECT_THROW_MESSAGE(closed.write(&byte, 1), std::runtime_error, "File not open.");
  EXPECT_THROW_MESSAGE(closed.flush_file_buffers(), std::runtime_error, "File not open.");
  EXPECT_THROW_MESSAGE(closed.size(), std::runtime_error, "File not open.");
  EXPECT_THROW_MESSAGE(closed.set_sparse(true), TarnError,
                       "Failed to set sparse flag: Bad file descriptor");
  closed.close();
  EXPECT_EQ(closed.detach(), DiskFile::kNoHandle);
}

TEST(DiskFileHandle, AttachedDescriptorIsBorrowedAndCopiesBorrowItToo) {
  TempDir dir;
  const auto path = dir / "data.tbf";
  write_file(path, "abc");
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  {
    DiskFile file;
    EXPECT_THROW(file.attach(DiskFile::kNoHandle, Mode::read), std::invalid_argument);
    file.attach(fd, Mode::read);
    EXPECT_THROW_MESSAGE(file.close(), std::runtime_error,
                         "File not opened with open(), cannot close.");
    EXPECT_EQ(file.mode(), Mode::read);
    // Not locked: a writer may open the file beside it.
    EXPECT_NO_THROW(DiskFile writer(path, Mode::append));
    DiskFile copy(file);
    EXPECT_EQ(copy.detach(), fd);
    EXPECT_EQ(copy.mode(), Mode::none);
  }
  EXPECT_TRUE(is_open_descriptor(fd));
  ::close(fd);
}

TEST(DiskFileHandle, CopyOfOwnedFileOwnsADuplicate) {
  TempDir dir;
  const auto path = dir / "data.tbf";
  const auto other_path = dir / "other.tbf";
  ThreadingSupport threading;
  threading.thread_count = 4;
  auto original = std::make_unique<DiskFile>(path, Mode::write);
  original->set_threading_support(threading);
  original->write("abc", 3);
  DiskFile copy(*original);
  EXPECT_EQ(copy.threading_support().thread_count, 4u);
  original->seek(1);
  EXPECT_EQ(copy.tell(), 1u);
  original.reset();
  EXPECT_EQ(copy.size(), 3u);

  DiskFile assigned(other_path, Mode::write);
  assigned = copy;
  // The file assigned over was closed, and so released its lock.
  EXPECT_NO_THROW(DiskFile writer(other_path, Mode::write));
  copy.close();
  const int fd = assigned.detach();
  EXPECT_TRUE(is_open_descriptor(fd));
  ::close(fd);
}

TEST(DiskFileRemove, RemovesFilesOnly) {
  TempDir dir;
  const auto path = dir / "data.tbf";
  write_file(path, "abc");
  DiskFile::remove(path);
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_THROW_MESSAGE(DiskFile::remove(path), TarnError,
                       "Could not remove file: No such file or directory");
  try {
    DiskFile::remove(dir.path());
    ADD_FAILURE() << "removed a directory";
  } catch (const std::filesystem::filesystem_error& error) {
    EXPECT_EQ(error.code(), std::errc::is_a_directory);
    EXPECT_EQ(error.path1(), dir.path());
  }
}

}  // namespace
}  // namespace Tarn::bf
