#pragma once

// The walk over a tree that packing shares between measuring and writing: the same entries in
// the same order, regular files and directories only.

#include <filesystem>
#include <functional>
#include <string>

namespace Kalix::Blob::internal {

// Calls `visit` for every entry below `directory`, parents before their contents, with the
// entry's path relative to `directory` in the narrow encoding. Symbolic links are not followed:
// a link, like any entry that is neither a regular file nor a directory, throws
// std::runtime_error naming it. Walk failures throw std::filesystem_error.
using TreeVisitor = std::function<void(const std::filesystem::directory_entry& entry,
                                       const std::string& relative, bool is_directory)>;
void walk_tree(const std::filesystem::path& directory, const TreeVisitor& visit);

}  // namespace Kalix::Blob::internal
