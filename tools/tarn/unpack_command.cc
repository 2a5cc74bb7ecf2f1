// tarn unpack: restores the directory tree stored in one stack of a TBF file (see tarn pack).
// The stack's data is read whole into memory and unpacked from there by the library, which
// refuses damaged data and entries that would land outside the directory.

#include <fmt/format.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include "tarnio/archive/archive.h"
#include "tarnio/arrays/data_type.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/stack_factory/create_stack.h"
#include "tools/tarn/commands.h"
#include "tools/tarn/progress_bar.h"

namespace tarn {
namespace {

struct UnpackOptions {
  std::string file;
  std::size_t stack = 0;
  std::string directory;
};

// No deflate stream grows by more than this factor (its ceiling is about 1032), so a stack
// claiming more plain data than this allows is damaged, and nothing is allocated for it.
constexpr std::uint64_t kMaxInflation = 1100;
constexpr std::uint64_t kSmallStack = std::uint64_t{1} << 20;

// The stack's data in memory, as the bytes of a uint8 stack.
std::shared_ptr<Tarn::arrays::StackInterface> load(Tarn::bf::StackImp& stack, std::size_t index) {
  const std::uint64_t sample = tarn_dt_get_size(stack.type());
  if (sample == 0) {
    throw std::runtime_error(
        fmt::format("Stack {} holds no archive: its elements have no size.", index));
  }
  const std::uint64_t samples = stack.number_of_elements();
  std::uint64_t bytes = 0;
  if (__builtin_mul_overflow(samples, sample, &bytes) ||
      bytes > stack.data_length() * kMaxInflation + kSmallStack) {
    throw std::runtime_error(
        fmt::format("Stack {} claims more data than the file holds for it.", index));
  }
  std::shared_ptr<Tarn::arrays::StackInterface> data = Tarn::create_stack(Tarn::dt::uint8, {bytes});
  if (bytes == 0) return data;
  ProgressBar bar("read");
  stack.set_progress_callback([&](std::uint64_t done, std::uint64_t total) {
    bar.update(done, total);
    return !interrupted();
  });
  try {
    stack.read(0, samples, data->bytes().data());
  } catch (...) {
    stack.set_progress_callback(nullptr);
    throw;
  }
  stack.set_progress_callback(nullptr);
  bar.finish();
  return data;
}

void run_unpack(const UnpackOptions& options) {
  watch_interruptions();
  const auto file = Tarn::open_file(options.file, Tarn::bf::DiskFile::Mode::read);
  const auto data = load(*file->stack(options.stack), options.stack);
  Kalix::Archive::unpack(data, options.directory);
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
