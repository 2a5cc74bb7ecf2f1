// tarn pack: a directory tree of localization data as one "uint8" stack of a TBF file, tagged
// "kalix" with the archive's label and identifiers (Kalix::Archive::pack_to_file): the blob
// goes to the file piece by piece while the tree is read, so memory stays small whatever the
// tree's size. Like tarn write, a new file appears only when complete, and a
// failed --append leaves the file with the stacks it had.

#include <fmt/format.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "tarnio/archive/archive.h"
#include "tarnio/archive/file_archive.h"
#include "tarnio/bf/file_interface.h"
#include "tools/tarn/commands.h"
#include "tools/tarn/progress_bar.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

struct PackOptions {
  std::string directory;
  std::string out;
  std::string label;
  std::string aid;
  std::string compression = "none";
  bool append = false;
};

// `bar` outlives the file, whose stack calls it.
void pack_into(Tarn::bf::FileInterface& file, const PackOptions& options, ProgressBar& bar) {
  const Tarn::bf::StackCompression compression = parse_compression(options.compression);
  const std::string aid = options.aid.empty() ? Kalix::make_uid() : options.aid;
  Kalix::Archive::pack_to_file(
      file, options.directory, options.label, aid, [&](Tarn::bf::StackImp& stack) {
        stack.set_name(options.label);
        stack.set_compression(compression.type, compression.level);
        stack.set_progress_callback([&](std::uint64_t done, std::uint64_t total) {
          bar.update(done, total);
          return !interrupted();
        });
      });
  bar.finish();
  file.close();
}

void run_pack(const PackOptions& options) {
  watch_interruptions();
  if (!fs::is_directory(options.directory)) {
    throw std::runtime_error(fmt::format("'{}' is no directory.", options.directory));
  }
  // The file would be packed while it is written.
  const fs::path inside =
      fs::weakly_canonical(options.out).lexically_relative(fs::canonical(options.directory));
  if (!inside.empty() && *inside.begin() != "..") {
    throw std::runtime_error(
        fmt::format("The output '{}' lies inside the tree '{}'.", options.out, options.directory));
  }
  ProgressBar bar("pack");
  fill_file(options.out, options.append,
            [&](Tarn::bf::FileInterface& file) { pack_into(file, options, bar); });
}

}  // namespace

void add_pack_command(CLI::App& app) {
  auto options = std::make_shared<PackOptions>();
  CLI::App* command = app.add_subcommand(
      "pack",
      "Store a directory tree (regular files and directories) as one uint8 stack of a TBF file, "
      "tagged \"kalix\" with its label and identifiers: a new file (created or replaced), or with "
      "--append behind the stacks of an existing one. A failed pack creates no file and leaves an "
      "existing one as it was.");
  command->footer("Example: tarn pack results/ run.tbf --label 'run 1' --append");
  command->add_option("DIR", options->directory, "The directory whose tree is stored")->required();
  command->add_option("OUT", options->out, "The TBF file")->required();
  command->add_option("--label", options->label, "The archive's label (also the stack's name)")
      ->required();
  command->add_option("--aid", options->aid, "The archive identifier; a fresh one by default");
  add_compression_option(*command, options->compression,
                         "none (the default), zlib or zlib:LEVEL with a level from 0 to 9");
  command->add_flag("--append", options->append,
                    "Add the stack behind the stacks of the existing file OUT.");
  command->callback([options] { run_pack(*options); });
}

}  // namespace tarn
