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

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>

#include "fuzz/fuzz_support.h"
#include "tarnio/archive/blob.h"
#include "tarnio/testing/temp_dir.h"
#include "tarnio/testing/tree_files.h"

namespace {

namespace fs = std::filesystem;
using Tarn::testing::slurp_file;
using Tarn::testing::spill_file;

[[noreturn]] void fail(std::string_view what, std::string_view detail) {
  tarnio_fuzz::fail("archive_blob_fuzzer", what, detail);
}

class Scratch {
 public:
  Scratch() {
    fs::create_directories(dir_ / "outside_dir");
    spill_file(dir_ / "outside_file", "outside");
    spill_file(dir_ / "target/keep", "kept");
    fs::create_symlink(dir_ / "outside_file", dir_ / "target/file");
    fs::create_directory_symlink(dir_ / "outside_dir", dir_ / "target/dir");
  }
  const fs::path& root() const { return dir_.path(); }

  void check_outside() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir_.path())) {
      names.insert(entry.path().filename().string());
    }
    if (names != std::set<std::string>{"outside_dir", "outside_file", "target"}) {
      fail("an entry landed beside the target", fmt::format("{}", fmt::join(names, ", ")));
    }
    if (!fs::is_empty(dir_ / "outside_dir")) fail("written through a directory link", "dir");
    if (slurp_file(dir_ / "outside_file") != "outside") fail("written through a file link", "file");
  }

  void check_target(bool names_keep) const {
    for (const auto& entry : fs::recursive_directory_iterator(dir_ / "target")) {
      if (entry.path().filename().string().starts_with(".klx-part-")) {
        fail("a temporary file was left", entry.path().string());
      }
    }
    if (!names_keep && slurp_file(dir_ / "target/keep") != "kept") fail("keep changed", "keep");
  }

 private:
  Tarn::testing::TempDir dir_;
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
