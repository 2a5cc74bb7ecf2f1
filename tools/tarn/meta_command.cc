// tarn meta: the metadata keys of a TBF file, one per line, or the exact bytes of one entry.

#include <fmt/format.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "tarnio/bf/file_interface.h"
#include "tools/tarn/commands.h"

namespace tarn {
namespace {

struct MetaOptions {
  std::string file;
  std::string key;
  bool has_key = false;
};

void run_meta(const MetaOptions& options) {
  const auto file = Tarn::open_file(options.file, Tarn::bf::DiskFile::Mode::read);
  const auto& metadata = file->metadata();
  if (!options.has_key) {
    std::string text;
    for (const auto& entry : metadata) text += entry.first + '\n';
    write_stdout(text.data(), text.size());
    return;
  }
  const auto entry = metadata.find(options.key);
  if (entry == metadata.end()) {
    throw std::runtime_error(fmt::format("No metadata entry '{}'.", options.key));
  }
  write_stdout(entry->second.data(), entry->second.size());
}

}  // namespace

void add_meta_command(CLI::App& app) {
  auto options = std::make_shared<MetaOptions>();
  CLI::App* command = app.add_subcommand(
      "meta",
      "Print the metadata keys of a TBF file, one per line, or the value of one entry exactly "
      "as stored.");
  command->add_option("FILE", options->file, "The TBF file")->required();
  CLI::Option* key = command->add_option("KEY", options->key, "The entry to print");
  command->callback([options, key] {
    options->has_key = key->count() > 0;
    run_meta(*options);
  });
}

}  // namespace tarn
