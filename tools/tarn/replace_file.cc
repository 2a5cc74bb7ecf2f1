// Files that the tarn commands create whole: written under a temporary name, renamed when done;
// or, where the user asks for it, extended in place.

#include <fmt/format.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <system_error>

#include "tools/tarn/commands.h"

namespace tarn {

namespace {

namespace fs = std::filesystem;

// A name beside `target` that nothing uses yet.
fs::path temporary_beside(const fs::path& target) {
  const fs::path directory = target.parent_path();
  for (unsigned attempt = 0;; ++attempt) {
    fs::path candidate =
        directory / fmt::format(".{}.tarn-{}-{}", target.filename().string(), ::getpid(), attempt);
    std::error_code ignored;
    if (!fs::exists(fs::symlink_status(candidate, ignored))) return candidate;
  }
}

}  // namespace

void replace_file(const fs::path& target, const std::function<void(const fs::path&)>& write) {
  std::error_code ignored;
  // A symbolic link keeps pointing at the file it names.
  const fs::path file = fs::is_symlink(target, ignored) ? fs::weakly_canonical(target) : target;
  // Renaming over a device or a pipe (/dev/null) would put a plain file in its place.
  const fs::file_status existing = fs::status(file, ignored);
  if (fs::exists(existing) && !fs::is_regular_file(existing)) {
    throw std::runtime_error(
        fmt::format("Could not create '{}': not a regular file.", target.string()));
  }
  const fs::path temporary = temporary_beside(file);
  try {
    write(temporary);
    fs::rename(temporary, file);
  } catch (const fs::filesystem_error& error) {
    fs::remove(temporary, ignored);
    throw std::runtime_error(
        fmt::format("Could not create '{}': {}", target.string(), error.code().message()));
  } catch (...) {
    fs::remove(temporary, ignored);
    throw;
  }
}

void fill_file(const fs::path& out, bool append,
               const std::function<void(Tarn::bf::FileInterface&)>& fill) {
  if (append) {
    // On a failure the file's destructor closes it, dropping the unfinished stack.
    const auto file = Tarn::open_file(out, Tarn::bf::DiskFile::Mode::append);
    fill(*file);
    return;
  }
  replace_file(out, [&](const fs::path& temporary) {
    const auto file = Tarn::create_file();
    file->open(temporary, Tarn::bf::DiskFile::Mode::write);
    fill(*file);
  });
}

}  // namespace tarn
