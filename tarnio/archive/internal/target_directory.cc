#include "tarnio/archive/internal/target_directory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace Kalix::Blob::internal {

namespace {

namespace fs = std::filesystem;

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

[[noreturn]] void throw_create_directories(const fs::path& path, int error) {
  throw fs::filesystem_error("create_directories", path,
                             std::error_code(error, std::system_category()));
}

bool is_symlink_at(int parent, const std::string& name) {
  struct stat status {};
  return ::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISLNK(status.st_mode);
}

// Opens the directory `name` in `parent`, making it when missing and replacing a symbolic link
// of that name by a directory.
int open_child(int parent, const std::string& name, const fs::path& path) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    const int fd = ::openat(parent, name.c_str(), kDirectoryFlags);
    if (fd >= 0) return fd;
    const int error = errno;
    if (error == ENOENT) {
      if (::mkdirat(parent, name.c_str(), 0777) != 0 && errno != EEXIST) {
        throw_create_directories(path, errno);
      }
    } else if ((error == ELOOP || error == ENOTDIR) && is_symlink_at(parent, name)) {
      if (::unlinkat(parent, name.c_str(), 0) != 0) throw_create_directories(path, errno);
    } else {
      throw_create_directories(path, error == ELOOP ? ENOTDIR : error);
    }
  }
  throw_create_directories(path, EEXIST);
}

bool write_all(int fd, const std::byte* data, std::size_t n) {
  while (n > 0) {
    const ssize_t done = ::write(fd, data, n);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    data += done;
    n -= static_cast<std::size_t>(done);
  }
  return true;
}

}  // namespace

TargetDirectory::TargetDirectory(const fs::path& directory) : directory_(directory) {
  fs::create_directories(directory);
  root_ = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (root_ < 0) throw_create_directories(directory, errno);
}

TargetDirectory::~TargetDirectory() {
  if (cached_ >= 0) ::close(cached_);
  ::close(root_);
}

fs::path TargetDirectory::path_of(const std::vector<std::string>& components,
                                  std::size_t count) const {
  fs::path path = directory_;
  for (std::size_t i = 0; i < count; ++i) path /= components[i];
  return path;
}

int TargetDirectory::open_directory(const std::vector<std::string>& components, std::size_t count) {
  if (count == 0) return root_;
  std::string key;
  for (std::size_t i = 0; i < count; ++i) (key += components[i]) += '/';
  if (cached_ >= 0 && key == cached_path_) return cached_;
  if (cached_ >= 0) ::close(cached_);
  cached_ = -1;
  int fd = root_;
  for (std::size_t i = 0; i < count; ++i) {
    const int child = open_child(fd, components[i], path_of(components, i + 1));
    if (fd != root_) ::close(fd);
    fd = child;
  }
  cached_ = fd;
  cached_path_ = std::move(key);
  return fd;
}

void TargetDirectory::make_directory(const std::vector<std::string>& components) {
  open_directory(components, components.size());
}

void TargetDirectory::write_file(const std::vector<std::string>& components,
                                 std::span<const std::byte> contents) {
  const int parent = open_directory(components, components.size() - 1);
  const fs::path path = path_of(components, components.size());
  const std::string temporary = fmt::format(".klx-part-{}-{}", ::getpid(), temporaries_++);
  const int fd = ::openat(parent, temporary.c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
  bool written = fd >= 0 && write_all(fd, contents.data(), contents.size());
  if (fd >= 0) written = ::close(fd) == 0 && written;
  if (written)
    written = ::renameat(parent, temporary.c_str(), parent, components.back().c_str()) == 0;
  if (!written) {
    if (fd >= 0) ::unlinkat(parent, temporary.c_str(), 0);
    throw std::runtime_error(
        fmt::format("error writing file {}, {} bytes", path.string(), contents.size()));
  }
}

}  // namespace Kalix::Blob::internal
