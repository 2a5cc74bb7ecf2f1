#pragma once

// The directory a blob is unpacked into. Every entry is reached component by component from
// the directory itself without following a symbolic link: a link named like a directory on the
// way is replaced by a real directory, a link named like a file is replaced by the file. Files
// are written under a temporary name and renamed into place when complete. Not thread-safe.

#include <cstddef>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace Kalix::Blob::internal {

class TargetDirectory {
 public:
  // Creates `directory` with its missing parents. Throws std::filesystem_error
  // "create_directories".
  explicit TargetDirectory(const std::filesystem::path& directory);
  TargetDirectory(const TargetDirectory&) = delete;
  TargetDirectory& operator=(const TargetDirectory&) = delete;
  ~TargetDirectory();

  // Makes the directory of `components` (from entry_components) with its missing parents.
  // Throws std::filesystem_error "create_directories" when a file stands in the way.
  void make_directory(const std::vector<std::string>& components);
  // Creates or replaces the file of `components` with `contents`. Throws std::runtime_error
  // "error writing file {}, {} bytes" when it cannot be written whole, and leaves nothing of it.
  void write_file(const std::vector<std::string>& components, std::span<const std::byte> contents);

 private:
  // The descriptor of the directory of the first `count` components, made as needed; owned by
  // this object.
  int open_directory(const std::vector<std::string>& components, std::size_t count);
  std::filesystem::path path_of(const std::vector<std::string>& components,
                                std::size_t count) const;

  std::filesystem::path directory_;
  int root_ = -1;
  // The directory last opened below the root, kept for the entries that follow in it.
  std::string cached_path_;
  int cached_ = -1;
  unsigned temporaries_ = 0;
};

}  // namespace Kalix::Blob::internal
