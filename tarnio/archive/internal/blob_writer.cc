#include "tarnio/archive/internal/blob_writer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

#include "tarnio/archive/internal/blob_format.h"
#include "tarnio/archive/internal/tree_walk.h"

namespace Kalix::Blob::internal {

namespace {

namespace fs = std::filesystem;

void put(BlobOutput& out, const void* data, std::size_t n) {
  const auto* from = static_cast<const std::byte*>(data);
  while (n > 0) {
    const std::span<std::byte> room = out.room();
    const std::size_t k = std::min(n, room.size());
    std::memcpy(room.data(), from, k);
    out.advance(k);
    from += k;
    n -= k;
  }
}

void put_number(BlobOutput& out, std::uint64_t value) {
  std::array<std::byte, kLengthSize> bytes;
  put_u64(bytes.data(), value);
  put(out, bytes.data(), bytes.size());
}

void put_header(BlobOutput& out, const Header& header) {
  std::array<std::byte, kHeaderSize> bytes{};
  std::memcpy(bytes.data(), header.signature.data(), kSignatureSize);
  std::memcpy(bytes.data() + kVersionOffset, &header.version, sizeof header.version);
  std::memcpy(bytes.data() + kTimeOffset, &header.time, sizeof header.time);
  std::memcpy(bytes.data() + kReservedOffset, header.reserved.data(), kReservedSize);
  put(out, bytes.data(), bytes.size());
}

[[noreturn]] void throw_unreadable(const fs::path& path, std::uint64_t size) {
  throw std::runtime_error(fmt::format("error writing file {}, {} bytes", path.string(), size));
}

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

// The file's size and then its bytes, read straight into the output's memory.
void put_contents(BlobOutput& out, const fs::directory_entry& entry) {
  const FileDescriptor file(::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  struct stat status {};
  if (file.get() < 0 || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    std::error_code ignored;
    throw_unreadable(entry.path(), entry.file_size(ignored));
  }
  const auto size = static_cast<std::uint64_t>(status.st_size);
  put_number(out, size);
  std::uint64_t left = size;
  while (left > 0) {
    const std::span<std::byte> room = out.room();
    const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(left, room.size()));
    const ssize_t got = ::read(file.get(), room.data(), wanted);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) throw_unreadable(entry.path(), size);
    out.advance(static_cast<std::size_t>(got));
    left -= static_cast<std::uint64_t>(got);
  }
}

}  // namespace

void throw_tree_changed() { throw std::runtime_error("The tree changed while it was packed."); }

void write_blob(const Header& header, const fs::path& directory, BlobOutput& out) {
  put_header(out, header);
  walk_tree(directory,
            [&](const fs::directory_entry& entry, const std::string& relative, bool is_directory) {
              put_number(out, relative.size());
              put(out, relative.data(), relative.size());
              const std::uint8_t kind = is_directory ? kDirectoryKind : kFileKind;
              put(out, &kind, kKindSize);
              if (!is_directory) put_contents(out, entry);
            });
  put_number(out, 0);
}

}  // namespace Kalix::Blob::internal
