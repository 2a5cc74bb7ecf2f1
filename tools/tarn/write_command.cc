// tarn write: one stack from raw little-endian samples (first index fastest), into a new file or
// appended to an existing one.
//
// A failed or interrupted write never leaves a file that passes for complete. A new file is
// written under a temporary name beside OUT and renamed to OUT only once it is closed, so a
// failure removes the temporary file and leaves an existing OUT as it was (a replaced OUT gets
// the permissions of a new file). With --append the file is closed after a failure too, which
// drops the unfinished stack and writes the metadata block anew: the file keeps the stacks it
// had.

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "tarnio/arrays/data_type.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/units/runtime_value.h"
#include "tools/tarn/commands.h"
#include "tools/tarn/progress_bar.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using Tarn::bf::StackImp;

struct WriteOptions {
  std::string out;
  std::string input;
  std::string type;
  std::vector<std::uint64_t> shape;
  std::string name;
  std::string description;
  std::vector<double> lengths;
  std::vector<std::string> units;
  std::vector<std::string> labels;
  std::string compression = "none";
  std::uint64_t threads = 0;
  bool append = false;
  std::string file_description;
};

// The input descriptor, closed at the end unless it is standard input.
class Input {
 public:
  explicit Input(const std::string& name) {
    if (name == "-") return;
    fd_ = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
      throw std::runtime_error(fmt::format("Could not open '{}': {}", name, std::strerror(errno)));
    }
  }
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;
  ~Input() {
    if (fd_ != STDIN_FILENO) ::close(fd_);
  }

  // Reads until `n` bytes are there or the input ends; returns the count.
  std::size_t fill(std::byte* data, std::size_t n) {
    std::size_t got = 0;
    while (got < n) {
      if (interrupted()) throw std::runtime_error("Cancelled by user.");
      const ssize_t done = ::read(fd_, data + got, n - got);
      if (done == 0) break;
      if (done < 0) {
        if (errno == EINTR) continue;
        throw std::runtime_error(fmt::format("Could not read input: {}", std::strerror(errno)));
      }
      got += static_cast<std::size_t>(done);
    }
    return got;
  }

 private:
  int fd_ = STDIN_FILENO;
};

// Streams the input into the stack in blocks, passing whole samples and carrying a partial
// one over to the next block.
void copy_samples(Input& input, StackImp& stack, std::size_t sample) {
  std::uint64_t total = 0;
  if (__builtin_mul_overflow(stack.number_of_elements(), std::uint64_t{sample}, &total)) {
    throw std::runtime_error("The product exceeds the maximum size.");
  }
  std::vector<std::byte> buffer(kTransferBlock);
  std::uint64_t written = 0;
  std::size_t carry = 0;
  ProgressBar bar("write");
  // The callback must not outlive this frame. It counts the bytes of the whole stack.
  struct CallbackReset {
    StackImp& stack;
    ~CallbackReset() { stack.set_progress_callback(nullptr); }
  } reset{stack};
  stack.set_progress_callback([&](std::uint64_t done, std::uint64_t of) {
    bar.update(done, of);
    return !interrupted();
  });
  for (;;) {
    const std::size_t wanted = buffer.size() - carry;
    const std::size_t got = input.fill(buffer.data() + carry, wanted);
    const std::size_t have = carry + got;
    if (have > total - written) {
      throw std::runtime_error("Trying to write more samples than the stack is long.");
    }
    const std::size_t whole = have / sample * sample;
    if (whole > 0) {
      stack.write(buffer.data(), whole);
      written += whole;
      bar.update(written, total);
    }
    carry = have - whole;
    if (carry > 0) std::memmove(buffer.data(), buffer.data() + whole, carry);
    if (got < wanted) break;  // the input ended
  }
  bar.finish();
}

// Lengths, units and labels of the axes as the options give them; each option that is given
// has one value per axis.
void describe_axes(StackImp& stack, const WriteOptions& options) {
  const std::size_t rank = options.shape.size();
  const auto check = [rank](std::size_t count, const char* option) {
    if (count != 0 && count != rank) {
      throw std::runtime_error(
          fmt::format("{} needs one value per axis ({}), got {}.", option, rank, count));
    }
  };
  check(options.lengths.size(), "--lengths");
  check(options.units.size(), "--units");
  check(options.labels.size(), "--labels");
  if (!options.lengths.empty()) stack.set_lengths(options.lengths);
  for (std::size_t axis = 0; axis < options.units.size(); ++axis) {
    stack.set_units(axis, Tarn::units::RuntimeValue::parse(options.units[axis]));
  }
  if (!options.labels.empty()) stack.set_labels(options.labels);
}

void write_stack(Tarn::bf::FileInterface& file, const WriteOptions& options, Input& input) {
  const Tarn::bf::StackCompression compression = parse_compression(options.compression);
  file.set_threading_support({options.threads, {}});
  if (!options.append) file.set_description(options.file_description);
  const DataType type = tarn_dt_from_name(options.type.c_str());
  const auto stack = file.add_stack(type, options.shape);
  stack->set_name(options.name);
  stack->set_description(options.description);
  describe_axes(*stack, options);
  stack->set_compression(compression.type, compression.level);
  copy_samples(input, *stack, tarn_dt_get_size(type));
  stack->commit();
  file.close();
}

void run_write(const WriteOptions& options) {
  watch_interruptions();
  const fs::path out = options.out;
  std::error_code ignored;
  if (options.input != "-" && fs::equivalent(out, options.input, ignored)) {
    throw std::runtime_error(fmt::format("Input '{}' is the output file.", options.input));
  }
  Input input(options.input);
  fill_file(out, options.append,
            [&](Tarn::bf::FileInterface& file) { write_stack(file, options, input); });
}

}  // namespace

void add_write_command(CLI::App& app) {
  auto options = std::make_shared<WriteOptions>();
  CLI::App* command = app.add_subcommand(
      "write",
      "Write one stack from raw little-endian samples, first index fastest, into a new TBF file "
      "(created or replaced) or, with --append, behind the stacks of an existing one. A failed "
      "write creates no file and leaves an existing one as it was.");
  command->add_option("OUT", options->out, "The TBF file")->required();
  command->add_option("INPUT", options->input, "The raw samples; '-' reads standard input.")
      ->required();
  command->add_option("--type", options->type, "The element type by name (see tarn types)")
      ->required()
      ->check(CLI::Validator(
          [](std::string& name) -> std::string {
            const DataType type = tarn_dt_from_name(name.c_str());
            if (type == Tarn::dt::none || tarn_dt_get_size(type) == 0) {
              return fmt::format("'{}' is no element type with a size (see tarn types)", name);
            }
            return {};
          },
          "TYPE"));
  command
      ->add_option("--shape", options->shape,
                   "The size of each dimension, first (fastest) first: N0,N1,...")
      ->required()
      ->delimiter(',')
      ->check(CLI::NonNegativeNumber);
  command->add_option("--name", options->name, "The stack's name");
  command->add_option("--description", options->description, "The stack's description");
  command
      ->add_option("--lengths", options->lengths,
                   "The physical length of each axis, in its unit: L0,L1,... (default: its size)")
      ->delimiter(',');
  command
      ->add_option("--units", options->units,
                   "The unit of each axis: U0,U1,... ('um', 's'; 1 for none). With "
                   "--lengths 51.2,51.2,10 --units um,um,um a 512x512x20 stack has 0.1 µm pixels "
                   "and 0.5 µm between planes.")
      ->delimiter(',');
  command
      ->add_option("--labels", options->labels,
                   "The label of each axis: X,Y,Z,C,T name the axes in the file's OME metadata")
      ->delimiter(',');
  add_compression_option(*command, options->compression,
                         "none (the default), zlib or zlib:LEVEL with a level from 0 to 9");
  add_threads_option(*command, options->threads, "compressing the data");
  CLI::Option* append = command->add_flag(
      "--append", options->append, "Add the stack behind the stacks of the existing file OUT.");
  command
      ->add_option("--file-description", options->file_description, "The description of a new file")
      ->excludes(append);
  command->callback([options] { run_write(*options); });
}

}  // namespace tarn
