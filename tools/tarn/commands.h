#pragma once

// The commands of the tarn tool. Each add_*_command registers a subcommand on the application
// with its options and the callback that runs it; a callback reports failures by throwing.
// Below them the few helpers that several commands share.

#include <CLI/CLI.hpp>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <string>

#include "tarnio/arrays/region.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/bf/file_rewrite.h"
#include "tarnio/json/value.h"

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
void add_recover_command(CLI::App& app);
void add_compact_command(CLI::App& app);
void add_tcp_command(CLI::App& app);
void add_pack_command(CLI::App& app);
void add_unpack_command(CLI::App& app);
void add_ome_command(CLI::App& app);

// The bytes each command moves per call when it streams stack data: the library's own block
// size. Blocks of 16 MiB were measurably slower, as each one leaves the CPU caches.
inline constexpr std::size_t kTransferBlock = std::size_t{4} << 20;

// Adds --compression (none, zlib or zlib:LEVEL with a level from 0 to 9) to `command`,
// stored as text in `text`; parse_compression then reads it.
CLI::Option* add_compression_option(CLI::App& command, std::string& text,
                                    const std::string& description);
// The threads the machine runs at once (at least 1): what the commands that compress or
// decompress give the library unless --threads says otherwise.
std::uint64_t hardware_threads();
// Adds --threads N to `command`, stored in `threads`, which starts as hardware_threads();
// `purpose` ends the option's description ("Threads for PURPOSE ...").
CLI::Option* add_threads_option(CLI::App& command, std::uint64_t& threads,
                                const std::string& purpose);

// The compression of a text that add_compression_option accepted; zlib alone is level 6.
// Throws std::invalid_argument for other text.
Tarn::bf::StackCompression parse_compression(const std::string& text);

// Runs `write` on a temporary file beside `target` (the file a symbolic link names) and renames
// it to `target` once `write` returned, so that a failure or an interruption never leaves a
// file that passes for complete: the temporary file is removed and `target` stays as it was.
// A replaced `target` gets the permissions of a new file. Throws std::runtime_error "Could not
// create '{}': {}" when the rename fails, and what `write` throws.
void replace_file(const std::filesystem::path& target,
                  const std::function<void(const std::filesystem::path&)>& write);

// Fills a TBF file through `fill`: a new one at `out` (through replace_file), or with `append`
// the existing one, opened for appending; there a failure closes the file, which drops the
// unfinished stack and keeps the stacks it had. `fill` closes the file when it is done.
void fill_file(const std::filesystem::path& out, bool append,
               const std::function<void(Tarn::bf::FileInterface&)>& fill);

// The whole text of the file `name`, or of standard input for "-". Throws std::runtime_error
// "Could not read '{name}': {system text}".
std::string read_input(const std::string& name);
// Writes `text` to the file `name`, or to standard output when `name` is empty. Throws
// std::runtime_error "Could not write '{name}': {system text}" / "Could not write output: ...".
void write_output(const std::string& name, const std::string& text);

// The region of `text`, each axis of a stack of `shape` given in order, comma-separated, as an
// index i, a half-open range a:b (a or b left out: 0 or the axis size) or ':' for the whole
// axis. Throws std::runtime_error for text of another form, another number of axes, and for a
// region that does not lie inside the shape.
Tarn::arrays::Region parse_region(const std::string& text, std::span<const std::uint64_t> shape);

// Prints what `tarn info` prints for the TBF file at `path`. Throws as Tarn::open_file does.
void print_info(const std::filesystem::path& path, bool json);

// For tarn info: a line per stack that holds a packed tree (its "kalix" tag's label and
// identifiers), after an empty line; empty when no stack does.
std::string archive_lines(const Tarn::bf::FileInterface& file);
// Adds the member "kalix" with the archive description to the JSON object of each such stack.
void add_archive_json(const Tarn::bf::FileInterface& file, JSON::Value& stacks);

// For tarn info: a line per stack whose image in the OME metadata has a name or a pixel size,
// after an empty line; the error, when the OME metadata cannot be read. Empty otherwise.
std::string ome_lines(Tarn::bf::FileInterface& file);
// Adds the member "image" (name, pixel_size: a list of X, Y, Z sizes with units) to each stack
// object of `info` whose stack has an image, and "ome_error" to `info` when the OME metadata
// cannot be read.
void add_ome_json(Tarn::bf::FileInterface& file, JSON::Value& info);

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
