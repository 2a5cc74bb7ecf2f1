// tarn recover: a complete file from one whose writer died (or is still at work): every
// committed stack, and the committed chunks of a stack that was being written chunk-wise.

#include <fmt/format.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "tarnio/bf/file_rewrite.h"
#include "tools/tarn/commands.h"

namespace tarn {
namespace {

struct RecoverOptions {
  std::string file;
  std::string out;
  std::uint64_t threads = 0;
};

void run_recover(const RecoverOptions& options) {
  std::error_code ignored;
  if (std::filesystem::equivalent(options.file, options.out, ignored)) {
    throw std::runtime_error("OUT must not be FILE: recovery writes a new file.");
  }
  Tarn::bf::RecoveryResult result;
  replace_file(options.out, [&](const std::filesystem::path& temporary) {
    result = Tarn::recover_file(options.file, temporary, {{}, {options.threads, {}}});
  });
  const std::string line =
      fmt::format("recovered {} stacks{}\n", result.stacks,
                  result.partial_stack ? ", the last one cut to its committed chunks" : "");
  write_stdout(line.data(), line.size());
}

}  // namespace

void add_recover_command(CLI::App& app) {
  auto options = std::make_shared<RecoverOptions>();
  CLI::App* command = app.add_subcommand(
      "recover",
      "Write the stacks that a TBF file whose writer died holds (every committed stack, and the "
      "committed chunks of one written chunk-wise) into a new, complete file OUT.");
  command->add_option("FILE", options->file, "The unfinished TBF file")->required();
  command->add_option("OUT", options->out, "The new file")->required();
  add_threads_option(*command, options->threads, "compressed data");
  command->callback([options] { run_recover(*options); });
}

}  // namespace tarn
