#pragma once

// Small trees of files for tests: writing a file (with its missing directories), reading one
// whole, and a whole tree as a map. For tests only.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

namespace Tarn::testing {

inline void spill_file(const std::filesystem::path& path, const std::string& bytes) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string slurp_file(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Every entry below `root` by its relative path: a directory maps to "/", a file to its bytes.
inline std::map<std::string, std::string> tree_of(const std::filesystem::path& root) {
  std::map<std::string, std::string> tree;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    tree[entry.path().lexically_relative(root).string()] =
        entry.is_directory() ? "/" : slurp_file(entry.path());
  }
  return tree;
}

}  // namespace Tarn::testing
