// Fuzz target for TBF files. The input becomes the content of a memory file (memfd_create),
// which Tarn::open_file opens by its /proc/self/fd path as it would any file; where either is
// missing, a temporary file serves. The file is opened in read mode and every stack is read in
// full, in pieces of at most 1 MiB; TarnError, std::runtime_error and std::invalid_argument
// pass, anything else escapes. Oracles, which abort:
//   - a stack that opens lies within the file, and plain data is exactly its element count
//     times the element size, so that a caller who sizes a buffer by it stays within the file;
//   - no single allocation exceeds the file's size plus 16 MiB (the operator new below);
//   - a file that opens for reading opens for appending, and appending nothing leaves a file
//     that reads again with the same description, metadata (the OME-XML aside) and stacks;
//     one that fails for reading fails alike for appending, and when the open itself failed,
//     the file is untouched;
//   - opened as an unfinished file (the way a reader follows a file being written, and the way
//     recovery reads it), it shows its stacks, which read in full likewise, or fails with a
//     documented error.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "tarnio/arrays/data_type.h"
#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/bf/stack_imp.h"
#include "tarnio/errors/tarn_error.h"

namespace {

namespace fs = std::filesystem;
using Tarn::bf::DiskFile;
using Tarn::bf::FileInterface;
using Tarn::bf::StackImp;

// What the library may allocate at once beyond the size of the file it reads.
constexpr std::uint64_t kAllocationAllowance = std::uint64_t{16} << 20;
constexpr std::uint64_t kPieceBytes = std::uint64_t{1} << 20;
// A compressed stack may hold more than its bytes; beyond this it is not read.
constexpr std::uint64_t kMaxExpandedBytes = std::uint64_t{64} << 20;

std::atomic<std::uint64_t> allocation_limit{~std::uint64_t{0}};

[[noreturn]] void fail(std::string_view what, std::string_view detail) {
  tarnio_fuzz::fail("tbf_file_fuzzer", what, detail);
}

// The file the inputs are written to, created once.
class InputFile {
 public:
  InputFile() {
    fd_ = ::memfd_create("tbf_file_fuzzer", MFD_CLOEXEC);
    if (fd_ >= 0) {
      path_ = "/proc/self/fd/" + std::to_string(fd_);
      if (::access(path_.c_str(), R_OK | W_OK) == 0) return;
      ::close(fd_);
    }
    path_ = fs::temp_directory_path() / ("tbf_file_fuzzer." + std::to_string(::getpid()) + ".tbf");
    fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd_ < 0) fail("cannot create the input file", path_.string());
    temporary_ = true;
  }
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;
  ~InputFile() {
    ::close(fd_);
    if (temporary_) ::unlink(path_.c_str());
  }

  const fs::path& path() const { return path_; }

  void load(const std::uint8_t* data, std::size_t size) {
    if (::ftruncate(fd_, 0) != 0) fail("cannot empty the input file", path_.string());
    std::size_t done = 0;
    while (done < size) {
      const ssize_t n = ::pwrite(fd_, data + done, size - done, static_cast<off_t>(done));
      if (n <= 0) fail("cannot write the input file", path_.string());
      done += static_cast<std::size_t>(n);
    }
  }

  std::string content() const {
    std::string bytes;
    char block[4096];
    for (off_t at = 0;;) {
      const ssize_t n = ::pread(fd_, block, sizeof block, at);
      if (n < 0) fail("cannot read the input file", path_.string());
      if (n == 0) return bytes;
      bytes.append(block, static_cast<std::size_t>(n));
      at += n;
    }
  }

 private:
  fs::path path_;
  int fd_ = -1;
  bool temporary_ = false;
};

// What a file shows to its callers, compared before and after appending nothing.
struct Summary {
  std::uint32_t format_version = 0;
  std::string description;
  std::map<std::string, std::string> metadata;
  std::vector<std::string> stacks;

  friend bool operator==(const Summary&, const Summary&) = default;
};

std::string describe(const StackImp& stack) {
  std::string text = fmt::format("{} type {} shape", stack.name(), stack.type());
  for (const std::uint64_t n : stack.shape()) text += fmt::format(" {}", n);
  return text + fmt::format(" data {}", stack.data_length());
}

std::string describe(const Summary& summary) {
  std::string text = "version " + std::to_string(summary.format_version) + ", description '" +
                     summary.description + "', metadata keys:";
  for (const auto& [key, value] : summary.metadata) text += " " + key;
  for (const std::string& stack : summary.stacks) text += "\n  stack " + stack;
  return text;
}

void read_stack(StackImp& stack, std::size_t index, std::uint64_t file_size,
                std::vector<std::byte>& buffer) {
  if (!stack.has_data()) return;
  const std::string which = "stack " + std::to_string(index) + ": ";
  const std::uint64_t position = stack.data_position();
  const std::uint64_t length = stack.data_length();
  if (position > file_size || length > file_size - position) {
    fail("a stack that opened reaches beyond the file",
         which + std::to_string(length) + " bytes at " + std::to_string(position) +
             " in a file of " + std::to_string(file_size));
  }
  const std::uint64_t size = tarn_dt_get_size(stack.type());
  const std::uint64_t count = stack.samples_available();
  const bool plain = stack.compression() == StackImp::Compression::none && !stack.is_chunk_wise();
  if (plain && (size == 0 || count > length / size || count * size != length)) {
    fail("plain data that is not its elements' bytes",
         which + std::to_string(count) + " elements of type " + std::to_string(stack.type()) +
             " in " + std::to_string(length) + " bytes");
  }
  if (size == 0 || count > kMaxExpandedBytes / size) return;
  const std::uint64_t piece = std::max<std::uint64_t>(1, kPieceBytes / size);
  for (std::uint64_t first = 0; first < count; first += piece) {
    const std::uint64_t n = std::min(piece, count - first);
    const std::uint64_t next = stack.read(first, n, buffer.data());
    const std::uint64_t expected =
        first + n == stack.number_of_elements() ? StackImp::kNpos : first + n;
    if (next != expected) {
      fail("read returned the wrong position", which + "reading " + std::to_string(n) +
                                                   " samples from " + std::to_string(first) +
                                                   " returned " + std::to_string(next));
    }
  }
}

// Opens the file in `mode` (none: as an unfinished file), reads every stack, closes it and
// returns what it showed. `opened` tells whether the open succeeded, whatever came after it.
Summary open_and_read(const fs::path& path, DiskFile::Mode mode, std::vector<std::byte>& buffer,
                      bool& opened) {
  opened = false;
  const auto file =
      mode == DiskFile::Mode::none ? Tarn::open_unfinished_file(path) : Tarn::open_file(path, mode);
  opened = true;
  Summary summary;
  summary.format_version = file->format_version();
  summary.description = file->description();
  summary.metadata = file->metadata();
  summary.metadata.erase("ome_xml");
  const std::uint64_t file_size = file->file_size();
  for (std::size_t i = 0; i < file->number_of_stacks(); ++i) {
    const auto stack = file->stack(i);
    summary.stacks.push_back(describe(*stack));
    read_stack(*stack, i, file_size, buffer);
  }
  file->close();
  return summary;
}

// The library's message of a documented exception, or nothing when the call succeeded.
template <class Call>
std::string documented_error(Call call) {
  try {
    call();
    return "";
  } catch (const TarnError& error) {
    return "TarnError: " + error.message();
  } catch (const std::invalid_argument& error) {
    return std::string("std::invalid_argument: ") + error.what();
  } catch (const std::runtime_error& error) {
    return std::string("std::runtime_error: ") + error.what();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static InputFile input;
  static std::vector<std::byte> buffer(kPieceBytes);
  input.load(data, size);

  allocation_limit = size + kAllocationAllowance;
  bool opened = false;
  Summary unfinished;
  documented_error(
      [&] { unfinished = open_and_read(input.path(), DiskFile::Mode::none, buffer, opened); });
  Summary read;
  const std::string read_error = documented_error(
      [&] { read = open_and_read(input.path(), DiskFile::Mode::read, buffer, opened); });
  Summary appended;
  const std::string append_error = documented_error(
      [&] { appended = open_and_read(input.path(), DiskFile::Mode::append, buffer, opened); });

  if (read_error != append_error) {
    fail("read and append mode disagree",
         "read: " + (read_error.empty() ? "success" : read_error) +
             "\nappend: " + (append_error.empty() ? "success" : append_error));
  }
  if (!read_error.empty()) {
    allocation_limit = ~std::uint64_t{0};
    if (!opened && input.content() != tarnio_fuzz::input_text(data, size)) {
      fail("a failed append open changed the file", append_error);
    }
    return 0;
  }
  if (!(appended == read)) {
    fail("append mode shows another file", describe(read) + "\nappend:\n" + describe(appended));
  }
  Summary again;
  const std::string again_error = documented_error(
      [&] { again = open_and_read(input.path(), DiskFile::Mode::read, buffer, opened); });
  allocation_limit = ~std::uint64_t{0};
  if (!again_error.empty() || !(again == read)) {
    fail("appending nothing changed the file",
         describe(read) + "\nafterwards: " + (again_error.empty() ? describe(again) : again_error));
  }
  return 0;
}

// Replacements of the global allocation functions that stop the run at an allocation larger
// than the file allows: a length taken from the file unchecked. Every form that a fuzz engine
// or the library may pair is replaced, so that each block goes back the way it came (malloc and
// free). g++ sees free() meet a pointer that an operator new returned and warns, not knowing
// that this operator new is malloc.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
namespace {

void* checked_malloc(std::size_t size) noexcept {
  if (size > allocation_limit.load(std::memory_order_relaxed)) {
    std::fprintf(stderr, "tbf_file_fuzzer: allocation of %zu bytes, limit %llu\n", size,
                 static_cast<unsigned long long>(allocation_limit.load()));
    std::abort();
  }
  return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

void* operator new(std::size_t size) {
  if (void* p = checked_malloc(size)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
  if (void* p = checked_malloc(size)) return p;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return checked_malloc(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return checked_malloc(size);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
