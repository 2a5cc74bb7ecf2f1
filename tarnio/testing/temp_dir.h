#pragma once

// TempDir: a fresh directory under the system's temporary directory (or another base), removed
// with everything in it when the object is destroyed. For tests only.

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace Tarn::testing {

class TempDir {
 public:
  explicit TempDir(const std::filesystem::path& base = std::filesystem::temp_directory_path()) {
    std::string pattern = (base / "tarnio-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("Could not create a temporary directory.");
    }
    path_ = pattern;
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::filesystem::path& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

}  // namespace Tarn::testing
