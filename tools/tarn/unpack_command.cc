// tarn unpack: restores the directory tree stored in one stack of a TBF file (see tarn pack).
// The stack's data is read whole into memory and unpacked from there by the library
// (Kalix::Archive::unpack_from_file), which refuses damaged data and entries that would land
// outside the directory.

#include <cstdint>
#include <memory>
#include <string>

#include "tarnio/archive/file_archive.h"
#include "tarnio/bf/file_interface.h"
#include "tools/tarn/commands.h"
#include "tools/tarn/progress_bar.h"

namespace tarn {
namespace {

struct UnpackOptions {
  std::string file;
  std::size_t stack = 0;
  std::string directory;
};

void run_unpack(const UnpackOptions& options) {
  watch_interruptions();
  ProgressBar bar("read");  // outlives the file, whose stack calls it
  const auto file = Tarn::open_file(options.file, Tarn::bf::DiskFile::Mode::read);
  const auto stack = file->stack(options.stack);
  stack->set_progress_callback([&](std::uint64_t done, std::uint64_t total) {
    bar.update(done, total);
    return !interrupted();
  });
  Kalix::Archive::unpack_from_file(*stack, options.directory);
}

}  // namespace

void add_unpack_command(CLI::App& app) {
  auto options = std::make_shared<UnpackOptions>();
  CLI::App* command = app.add_subcommand(
      "unpack",
      "Restore the directory tree stored in a stack by tarn pack into DIR (created as needed): "
      "files of the same name are replaced, others kept. Damaged data and entries that would "
      "land outside DIR are refused before anything is written.");
  command->footer("Example: tarn unpack run.tbf --stack 2 results/");
  command->add_option("FILE", options->file, "The TBF file")->required();
  command->add_option("--stack", options->stack, "The index of the stack holding the tree")
      ->required();
  command->add_option("DIR", options->directory, "The directory to restore the tree in")
      ->required();
  command->callback([options] { run_unpack(*options); });
}

}  // namespace tarn
