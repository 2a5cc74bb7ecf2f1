// tarn verify: opens a TBF file (which checks the header, the stack chain and the metadata
// block), checks the stored form of every stack (each zlib stream inflated against its flush
// index and adler32, chunk frames against the chunk index), reads every stack completely and
// reads the OME metadata; a line per stack (and one for damaged OME metadata), and success only
// when all of it is intact.

#include <fmt/format.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "tarnio/arrays/data_type.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/errors/tarn_error.h"
#include "tools/tarn/commands.h"
#include "tools/tarn/progress_bar.h"

namespace tarn {
namespace {

struct VerifyOptions {
  std::string file;
  std::uint64_t threads = 0;
};

// Checks the stack's stored form and reads the stack whole unless that check already inflated
// all of it; the failure's text when it is not intact.
std::optional<std::string> check_stack(Tarn::bf::StackImp& stack, std::size_t index) {
  try {
    std::uint64_t expected = 0;
    const bool too_large = __builtin_mul_overflow(
        stack.number_of_elements(), std::uint64_t{tarn_dt_get_size(stack.type())}, &expected);
    if (stack.compression() == Tarn::bf::StackImp::Compression::none && !stack.is_chunk_wise() &&
        stack.has_data() && (too_large || stack.data_length() != expected)) {
      return fmt::format("Data length {} differs from the {} bytes of the stack's samples.",
                         stack.data_length(), expected);
    }
    stack.verify();
    // A compressed stack's check inflated every block against its index and the adler32 of
    // the whole stream, more than reading it would prove: reading it again doubles the work.
    if (stack.compression() == Tarn::bf::StackImp::Compression::zlib) return std::nullopt;
    ProgressBar bar(fmt::format("verify {}", index));
    std::uint64_t seen = 0;
    stream_stack(stack, bar, [&seen](const std::byte*, std::size_t n) { seen += n; });
    if (stack.has_data() && seen != expected) {
      return fmt::format("Read {} of the stack's {} bytes.", seen, expected);
    }
    return std::nullopt;
  } catch (const TarnError& error) {
    return error.message();
  } catch (const std::exception& error) {
    if (interrupted()) throw;
    return std::string(error.what());
  }
}

void run_verify(const VerifyOptions& options) {
  watch_interruptions();
  const auto file = Tarn::open_file(options.file, Tarn::bf::DiskFile::Mode::read);
  file->set_threading_support({options.threads, {}});
  std::optional<std::string> first_failure;
  std::size_t failures = 0;
  for (std::size_t i = 0; i < file->number_of_stacks(); ++i) {
    const auto stack = file->stack(i);
    const auto failure = check_stack(*stack, i);
    const std::string line = fmt::format(
        "stack {} ({}, {}, {} bytes): {}\n", i, tarn_dt_get_name(stack->type()),
        stack->shape().empty() ? "-" : fmt::format("{}", fmt::join(stack->shape(), "x")),
        stack->data_length(), failure ? "damaged: " + *failure : "ok");
    write_stdout(line.data(), line.size());
    if (failure) {
      ++failures;
      if (!first_failure) first_failure = fmt::format("Stack {}: {}", i, *failure);
    }
    if (interrupted()) throw std::runtime_error("Cancelled by user.");
  }
  // The OME description is checked apart from the stacks, which read without it.
  std::optional<std::string> ome_failure;
  try {
    file->get_OME_root();
  } catch (const std::invalid_argument& error) {
    const std::string line = fmt::format("ome_xml: damaged: {}\n", error.what());
    write_stdout(line.data(), line.size());
    ome_failure = fmt::format("Metadata entry 'ome_xml': {}", error.what());
  }
  if (first_failure) {
    if (failures == 1) throw std::runtime_error(*first_failure);
    throw std::runtime_error(fmt::format("{} ({} of {} stacks damaged)", *first_failure, failures,
                                         file->number_of_stacks()));
  }
  if (ome_failure) throw std::runtime_error(*ome_failure);
  const std::string summary =
      fmt::format("ok: {} stacks, {} bytes\n", file->number_of_stacks(), file->file_size());
  write_stdout(summary.data(), summary.size());
}

}  // namespace

void add_verify_command(CLI::App& app) {
  auto options = std::make_shared<VerifyOptions>();
  CLI::App* command = app.add_subcommand(
      "verify",
      "Check a TBF file: its header, stack chain and metadata, and every stack read completely. "
      "Exits 0 only when all of it is intact.");
  command->add_option("FILE", options->file, "The TBF file")->required();
  add_threads_option(*command, options->threads, "inflating compressed data");
  command->callback([options] { run_verify(*options); });
}

}  // namespace tarn
