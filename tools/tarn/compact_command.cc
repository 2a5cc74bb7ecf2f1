// tarn compact: rewrites a TBF file without unused reserved space, superseded metadata blocks
// and gaps, optionally with another compression.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "tarnio/bf/file_rewrite.h"
#include "tools/tarn/commands.h"

namespace tarn {
namespace {

struct CompactOptions {
  std::string file;
  std::string out;
  std::string compression;
  std::uint64_t threads = 0;
};

void run_compact(const CompactOptions& options) {
  Tarn::bf::RewriteOptions rewrite{std::nullopt, {options.threads, {}}};
  if (!options.compression.empty()) rewrite.compression = parse_compression(options.compression);
  // Without OUT the file is replaced, once its compacted copy is complete.
  const std::string& out = options.out.empty() ? options.file : options.out;
  replace_file(out, [&](const std::filesystem::path& temporary) {
    Tarn::compact_file(options.file, temporary, rewrite);
  });
}

}  // namespace

void add_compact_command(CLI::App& app) {
  auto options = std::make_shared<CompactOptions>();
  CLI::App* command = app.add_subcommand(
      "compact",
      "Rewrite a TBF file without unused reserved space, superseded metadata blocks and gaps, "
      "into OUT or, without OUT, in place once the copy is complete.");
  command->add_option("FILE", options->file, "The TBF file")->required();
  command->add_option("OUT", options->out, "The compacted file (default: replace FILE)");
  add_compression_option(*command, options->compression,
                         "Store every stack with this compression: none, zlib or zlib:LEVEL");
  add_threads_option(*command, options->threads, "compressed data");
  command->callback([options] { run_compact(*options); });
}

}  // namespace tarn
