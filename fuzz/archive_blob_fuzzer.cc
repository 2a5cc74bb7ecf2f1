// Fuzz target for archive blobs: the input is unpacked by Kalix::Blob::buffer_to_fs into the
// directory "target" of a fresh scratch directory, which already holds a file "keep" and
// symbolic links "file" and "dir" to a file and a directory beside it, outside the target.
// std::runtime_error (filesystem errors included) passes; anything else escapes. Oracles,
// which abort:
//   - nothing lands outside the target: the scratch directory holds the target and the two
//     entries beside it, and those are unchanged;
//   - "keep" keeps its contents unless the blob names it, and no temporary file is left;
//   - the target directory is still there after a refused blob.

#include <fmt/format.h>
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>

#include "fuzz/fuzz_support.h"
#include "tarnio/archive/blob.h"

namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(std::string_view what, std::string_view detail) {
  tarnio_fuzz::fail("archive_blob_fuzzer", what, detail);
}

std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void spill(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

class Scratch {
 public:
  Scratch() {
    std::string pattern = (fs::temp_directory_path() / "archive-blob-fuzz-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) fail("no scratch directory", pattern);
    root_ = pattern;
    fs::create_directories(root_ / "outside_dir");
    spill(root_ / "outside_file", "outside");
    fs::create_directories(root_ / "target");
    spill(root_ / "target/keep", "kept");
    fs::create_symlink(root_ / "outside_file", root_ / "target/file");
    fs::create_directory_symlink(root_ / "outside_dir", root_ / "target/dir");
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  const fs::path& root() const { return root_; }

  void check_outside() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(root_)) {
      names.insert(entry.path().filename().string());
    }
    if (names != std::set<std::string>{"outside_dir", "outside_file", "target"}) {
      fail("an entry landed beside the target", fmt::format("{}", fmt::join(names, ", ")));
    }
    if (!fs::is_empty(root_ / "outside_dir")) fail("written through a directory link", "dir");
    if (slurp(root_ / "outside_file") != "outside") fail("written through a file link", "file");
  }

  void check_target(bool names_keep) const {
    for (const auto& entry : fs::recursive_directory_iterator(root_ / "target")) {
      if (entry.path().filename().string().starts_with(".klx-part-")) {
        fail("a temporary file was left", entry.path().string());
      }
    }
    if (!names_keep && slurp(root_ / "target/keep") != "kept") fail("keep changed", "keep");
  }

 private:
  fs::path root_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Scratch scratch;
  const std::string text = tarnio_fuzz::input_text(data, size);
  const fs::path target = scratch.root() / "target";
  try {
    Kalix::Blob::buffer_to_fs(reinterpret_cast<const std::byte*>(data), size, target);
  } catch (const std::runtime_error&) {
    if (!fs::exists(target)) fail("the target directory went missing", target.string());
  }
  scratch.check_outside();
  // A blob that names "keep" anywhere may have replaced it.
  scratch.check_target(text.find("keep") != std::string::npos);
  return 0;
}
