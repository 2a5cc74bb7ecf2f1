#pragma once

// The files that benchmarks write and read on disk, and the plain system calls that the library
// is measured against. Each file lies in the directory named by $TARNIO_BENCH_DIR (default: the
// current one) and is named after the program and its process id, so that runs side by side never
// meet; the benchmark removes it when done. Failures of the system calls throw
// std::system_error, except where a function says otherwise.

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <system_error>

namespace tarnio_bench {

// "<program>.<pid>.<name>" in the benchmarks' directory.
inline std::filesystem::path bench_file(std::string_view name) {
  const char* dir = std::getenv("TARNIO_BENCH_DIR");
  const std::filesystem::path base =
      dir != nullptr && *dir != '\0' ? std::filesystem::path(dir) : std::filesystem::current_path();
  return base / (std::string(program_invocation_short_name) + "." + std::to_string(::getpid()) +
                 "." + std::string(name));
}

// Removes the file if it is there; never throws.
inline void remove_file(const std::filesystem::path& path) {
  std::error_code ignored;
  std::filesystem::remove(path, ignored);
}

// A descriptor of `path` opened with `flags` (close-on-exec added; a new file gets mode 0644),
// owned by the caller.
inline int open_or_throw(const std::filesystem::path& path, int flags) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC, 0644);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), path.string());
  return fd;
}

enum class Sync { no, yes };

// Writes `bytes` to a new file at `path` (an old one is truncated) in write() calls of at most
// `block` bytes each; with Sync::yes the data is made durable (fsync) before the file is closed.
inline void write_file(const std::filesystem::path& path, std::span<const std::byte> bytes,
                       std::size_t block = std::numeric_limits<std::size_t>::max(),
                       Sync sync = Sync::no) {
  const int fd = open_or_throw(path, O_WRONLY | O_CREAT | O_TRUNC);
  for (std::size_t at = 0; at < bytes.size();) {
    const ssize_t n = ::write(fd, bytes.data() + at, std::min(block, bytes.size() - at));
    if (n <= 0) throw std::system_error(errno, std::generic_category(), "write");
    at += static_cast<std::size_t>(n);
  }
  if (sync == Sync::yes && ::fsync(fd) != 0) {
    throw std::system_error(errno, std::generic_category(), "fsync");
  }
  if (::close(fd) != 0) throw std::system_error(errno, std::generic_category(), "close");
}

// Reads `bytes.size()` bytes from the start of the file at `path` in read() calls of at most
// `block` bytes each; a file shorter than that throws.
inline void read_file(const std::filesystem::path& path, std::span<std::byte> bytes,
                      std::size_t block) {
  const int fd = open_or_throw(path, O_RDONLY);
  for (std::size_t at = 0; at < bytes.size();) {
    const ssize_t n = ::read(fd, bytes.data() + at, std::min(block, bytes.size() - at));
    if (n <= 0) throw std::system_error(errno, std::generic_category(), "read");
    at += static_cast<std::size_t>(n);
  }
  ::close(fd);
}

// Makes the file's data durable, as a write that promises durability must; the fsync's own
// failure is not reported.
inline void sync_file(const std::filesystem::path& path) {
  const int fd = open_or_throw(path, O_RDONLY);
  ::fsync(fd);
  ::close(fd);
}

// Makes the file's data durable and drops it from the page cache, so that the next read comes
// from the disk; the fsync's and the advice's own failures are not reported.
inline void evict_file(const std::filesystem::path& path) {
  const int fd = open_or_throw(path, O_RDONLY);
  ::fsync(fd);
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  ::close(fd);
}

}  // namespace tarnio_bench
