#include "tarnio/bf/disk_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "tarnio/bf/internal/transfer.h"
#include "tarnio/errors/internal/os_error.h"
#include "tarnio/errors/internal/raise.h"

namespace Tarn::bf {

namespace {

using errors::internal::os_error_text;
using errors::internal::throw_tarn;
using Mode = DiskFile::Mode;

void require_valid(Mode mode) {
  if (mode != Mode::read && mode != Mode::write && mode != Mode::append) {
    throw std::runtime_error("Invalid file mode when opening file.");
  }
}

// Write mode empties the file only after locking, in settle().
int open_flags(Mode mode) {
  if (mode == Mode::read) return O_RDONLY | O_CLOEXEC;
  if (mode == Mode::write) return O_RDWR | O_CREAT | O_CLOEXEC;
  return O_RDWR | O_CLOEXEC;
}

// 0 once locked, or where the file system has no flock; else the errno, EWOULDBLOCK when
// another opener holds a lock that conflicts.
int lock(int fd, Mode mode) {
  const int operation = (mode == Mode::read ? LOCK_SH : LOCK_EX) | LOCK_NB;
  while (::flock(fd, operation) != 0) {
    const int error = errno;
    if (error == EOPNOTSUPP) return 0;
    if (error != EINTR) return error;
  }
  return 0;
}

// Whether a locked, existing file at `path` may be replaced by a new one instead of being
// truncated: a non-empty regular file reached without a link, with no other name, whose owner
// and group the new file can be given.
bool replaceable(const std::filesystem::path& path, const struct stat& opened) {
  struct stat named {};
  if (::lstat(path.c_str(), &named) != 0 || !S_ISREG(named.st_mode) ||
      named.st_ino != opened.st_ino || named.st_dev != opened.st_dev || named.st_nlink != 1 ||
      named.st_size <= 0) {
    return false;
  }
  return ::geteuid() == 0 || (named.st_uid == ::geteuid() && named.st_gid == ::getegid());
}

// Creates a new, locked file at `path`, whose old file `fd` holds and was just unlinked, with
// the old file's owner, group and permission bits; `fd` then becomes the new file's descriptor.
// Returns 0 or the errno of the step that failed, so that nothing is written to a file that
// has no name any more.
int recreate(int& fd, const std::filesystem::path& path, const struct stat& old, Mode mode) {
  // The old file stays locked until its descriptor closes, behind the new one's lock.
  const int fresh = ::open(path.c_str(), open_flags(mode) | O_EXCL, old.st_mode & 07777);
  if (fresh < 0) return errno;
  int error = 0;
  if (::fchown(fresh, old.st_uid, old.st_gid) != 0 || ::fchmod(fresh, old.st_mode & 07777) != 0) {
    error = errno;
  }
  if (error == 0) error = lock(fresh, mode);
  if (error != 0) {
    ::close(fresh);
    return error;
  }
  ::close(fd);
  fd = fresh;
  return 0;
}

// Makes a freshly opened descriptor a file of the mode: refuses a directory, locks a regular
// file and, in write mode, empties it: by replacing it with a new file where that is possible,
// by truncating otherwise. Returns 0 or the errno of the step that failed.
int settle(int& fd, const std::filesystem::path& path, Mode mode, bool locked) {
  struct stat info {};
  if (::fstat(fd, &info) != 0) return errno;
  if (S_ISDIR(info.st_mode)) return EISDIR;
  if (!S_ISREG(info.st_mode)) return 0;
  if (locked) {
    if (const int error = lock(fd, mode); error != 0) return error;
  }
  if (mode != Mode::write) return 0;
  if (replaceable(path, info) && ::unlink(path.c_str()) == 0) return recreate(fd, path, info, mode);
  if (::ftruncate(fd, 0) != 0) return errno;
  return 0;
}

void require_all_read(const internal::TransferResult& result, std::uint64_t n) {
  if (result.error != 0) {
    throw_tarn("Failed reading {} bytes from file: {}", n, os_error_text(result.error));
  }
  if (result.done < n) throw_tarn("Failed reading {} bytes from file: {}", n, "File too short.");
}

}  // namespace

DiskFile::DiskFile(const std::filesystem::path& path, Mode mode) { open(path, mode); }

DiskFile::DiskFile(const DiskFile& other)
    : DiskFileAccess(other),
      threading_(other.threading_),
      handle_(other.handle_),
      owned_(other.owned_),
      mode_(other.mode_),
      sparse_(other.sparse_) {
  if (owned_ && handle_ != kNoHandle) {
    handle_ = ::fcntl(other.handle_, F_DUPFD_CLOEXEC, 0);
    if (handle_ < 0) throw_tarn("Could not open file: {}", os_error_text());
  }
}

DiskFile& DiskFile::operator=(const DiskFile& other) {
  DiskFile copy(other);
  std::swap(threading_, copy.threading_);
  std::swap(handle_, copy.handle_);
  std::swap(owned_, copy.owned_);
  std::swap(mode_, copy.mode_);
  std::swap(sparse_, copy.sparse_);
  return *this;
}

DiskFile::~DiskFile() {
  if (owned_) close();
}

bool DiskFile::is_open_for_reading() const { return mode_ != Mode::none; }

bool DiskFile::is_open_for_writing() const { return mode_ == Mode::write || mode_ == Mode::append; }

std::uint64_t DiskFile::tell() const {
  require_handle();
  const off_t pos = ::lseek(handle_, 0, SEEK_CUR);
  return pos < 0 ? kNpos : static_cast<std::uint64_t>(pos);
}

std::uint64_t DiskFile::seek(std::uint64_t pos) {
  require_handle();
  if (pos != kNpos && pos > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) {
    return kNpos;
  }
  const off_t moved = pos == kNpos ? ::lseek(handle_, 0, SEEK_END)
                                   : ::lseek(handle_, static_cast<off_t>(pos), SEEK_SET);
  return moved < 0 ? kNpos : static_cast<std::uint64_t>(moved);
}

void DiskFile::read(void* buf, std::uint64_t n) {
  require_handle();
  auto* bytes = static_cast<std::byte*>(buf);
  const internal::TransferResult result =
      internal::transfer_all(n, [&](std::uint64_t offset, std::size_t count) {
        return ::read(handle_, bytes + offset, count);
      });
  require_all_read(result, n);
}

void DiskFile::read_at(std::uint64_t pos, void* buf, std::uint64_t n) {
  require_handle();
  if (pos > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max()) ||
      n > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max()) - pos) {
    throw_tarn("Failed reading {} bytes from file: {}", n, "File too short.");
  }
  auto* bytes = static_cast<std::byte*>(buf);
  const internal::TransferResult result =
      internal::transfer_all(n, [&](std::uint64_t offset, std::size_t count) {
        return ::pread(handle_, bytes + offset, count, static_cast<off_t>(pos + offset));
      });
  require_all_read(result, n);
}

void DiskFile::write(const void* buf, std::uint64_t n) {
  require_handle();
  const auto* bytes = static_cast<const std::byte*>(buf);
  const internal::TransferResult result =
      internal::transfer_all(n, [&](std::uint64_t offset, std::size_t count) {
        return ::write(handle_, bytes + offset, count);
      });
  if (result.done == n) return;
  const bool out_of_room =
      result.error == 0 || (result.done > 0 && (result.error == ENOSPC || result.error == EFBIG));
  if (!out_of_room) {
    throw_tarn("Failed writing {} bytes to file: {}", n, os_error_text(result.error));
  }
  throw_tarn("Failed writing {} bytes to file: {}", n, "Not enough space.");
}

void DiskFile::flush_file_buffers() {
  require_handle();
  if (::fsync(handle_) != 0) throw_tarn("Failed flushing data to file: {}", os_error_text());
}

ThreadingSupport DiskFile::threading_support() const { return threading_; }

void DiskFile::open(const std::filesystem::path& path, Mode mode) {
  if (handle_ != kNoHandle) throw std::runtime_error("File already open or attached.");
  require_valid(mode);
  open_descriptor(path, mode, true);
}

void DiskFile::open_follower(const std::filesystem::path& path) {
  if (handle_ != kNoHandle) throw std::runtime_error("File already open or attached.");
  open_descriptor(path, Mode::read, false);
}

void DiskFile::open_descriptor(const std::filesystem::path& path, Mode mode, bool locked) {
  int fd = ::open(path.c_str(), open_flags(mode), 0666);
  if (fd < 0) throw_tarn("Could not open file: {}", os_error_text());
  if (const int error = settle(fd, path, mode, locked); error != 0) {
    ::close(fd);
    throw_tarn("Could not open file: {}", os_error_text(error));
  }
  adopt(fd, true, mode);
}

void DiskFile::attach(NativeHandle handle, Mode mode) {
  if (handle_ != kNoHandle) throw std::runtime_error("File already open or attached.");
  require_valid(mode);
  if (handle < 0) throw std::invalid_argument("Invalid file handle.");
  adopt(handle, false, mode);
}

DiskFile::NativeHandle DiskFile::detach() {
  const NativeHandle handle = handle_;
  handle_ = kNoHandle;
  mode_ = Mode::none;
  return handle;
}

void DiskFile::close() {
  if (handle_ == kNoHandle) return;
  if (!owned_) throw std::runtime_error("File not opened with open(), cannot close.");
  // Linux releases the descriptor even when close reports an error, so there is nothing to
  // retry; flush_file_buffers() is where a caller learns that data did not reach the device.
  ::close(handle_);
  handle_ = kNoHandle;
  mode_ = Mode::none;
}

std::uint64_t DiskFile::size() const {
  require_handle();
  struct stat info {};
  if (::fstat(handle_, &info) != 0) throw_tarn("Could not get file size: {}", os_error_text());
  return static_cast<std::uint64_t>(info.st_size);
}

std::uint64_t DiskFile::size_on_disk(const std::filesystem::path& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) throw_tarn("Could not get file size: {}", os_error_text());
  // st_blocks counts 512-byte units whatever the file system's block size.
  return static_cast<std::uint64_t>(info.st_blocks) * 512;
}

void DiskFile::set_sparse(bool sparse) {
  struct stat info {};
  if (::fstat(handle_, &info) != 0) throw_tarn("Failed to set sparse flag: {}", os_error_text());
  sparse_ = sparse;
}

void DiskFile::set_threading_support(ThreadingSupport threading) {
  threading_ = std::move(threading);
}

void DiskFile::remove(const std::filesystem::path& path) {
  if (::unlink(path.c_str()) == 0) return;
  const int error = errno;
  if (error == ENOENT) throw_tarn("Could not remove file: {}", os_error_text(error));
  throw std::filesystem::filesystem_error("remove", path,
                                          std::error_code(error, std::generic_category()));
}

void DiskFile::adopt(NativeHandle handle, bool owned, Mode mode) {
  handle_ = handle;
  owned_ = owned;
  mode_ = mode;
  sparse_ = false;
}

void DiskFile::require_handle() const {
  if (handle_ == kNoHandle) throw std::runtime_error("File not open.");
}

}  // namespace Tarn::bf
