#include "tarnio/archive/internal/tree_walk.h"

#include <fmt/format.h>

#include <stdexcept>

namespace Kalix::Blob::internal {

namespace fs = std::filesystem;

void walk_tree(const fs::path& directory, const TreeVisitor& visit) {
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
    const fs::file_status status = entry.symlink_status();
    const std::string relative = entry.path().lexically_relative(directory).string();
    if (fs::is_symlink(status)) {
      throw std::runtime_error(fmt::format(
          "Cannot pack '{}': it is a symbolic link, and links are not stored.", relative));
    }
    if (!fs::is_directory(status) && !fs::is_regular_file(status)) {
      throw std::runtime_error(
          fmt::format("Cannot pack '{}': it is neither a regular file nor a directory.", relative));
    }
    visit(entry, relative, fs::is_directory(status));
  }
}

}  // namespace Kalix::Blob::internal
