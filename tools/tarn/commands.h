#pragma once

// The commands of the tarn tool. Each add_*_command registers a subcommand on the application
// with its options and the callback that runs it; a callback reports failures by throwing.
// Below them the few helpers that several commands share.

#include <CLI/CLI.hpp>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>

namespace Tarn::bf {
class StackImp;
}  // namespace Tarn::bf

namespace tarn {

class ProgressBar;

void add_types_command(CLI::App& app);
void add_props_command(CLI::App& app);
void add_units_command(CLI::App& app);
void add_info_command(CLI::App& app);
void add_write_command(CLI::App& app);
void add_read_command(CLI::App& app);
void add_meta_command(CLI::App& app);
void add_verify_command(CLI::App& app);
void add_demo_command(CLI::App& app);

// The bytes each command moves per call when it streams stack data: the library's own block
// size. Blocks of 16 MiB were measurably slower, as each one leaves the CPU caches.
inline constexpr std::size_t kTransferBlock = std::size_t{4} << 20;

// Prints what `tarn info` prints for the TBF file at `path`. Throws as Tarn::open_file does.
void print_info(const std::filesystem::path& path, bool json);

// Writes all `n` bytes to the descriptor, retrying short writes. Throws std::runtime_error
// "Could not write output: {system text}".
void write_all(int fd, const void* data, std::size_t n);
// write_all to standard output.
void write_stdout(const void* data, std::size_t n);

// Reads every sample of a committed stack in blocks of about kTransferBlock bytes, in the
// stack's own type, and hands each block to `sink`, in order, showing progress on `bar`. A
// stack without data hands nothing. Throws the library's errors, "Cancelled by user." after an
// interruption, and std::runtime_error for an element type without a size.
void stream_stack(Tarn::bf::StackImp& stack, ProgressBar& bar,
                  const std::function<void(const std::byte*, std::size_t)>& sink);

// Set by SIGINT and SIGTERM once watch_interruptions() ran: long transfers stop with
// "Cancelled by user." and clean up.
bool interrupted();
void watch_interruptions();

}  // namespace tarn
