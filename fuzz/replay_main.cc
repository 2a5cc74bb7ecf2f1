// A main for the fuzz targets when no fuzz engine is linked: runs every file named on the
// command line, and every regular file in a directory named there (not recursively, in name
// order), through LLVMFuzzerTestOneInput once, and reports how many ran. A path that cannot be
// read is an error (exit code 1); a failing input aborts in the target.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

// The files to run for one argument; false when it names nothing readable.
bool collect(const fs::path& argument, std::vector<fs::path>& files) {
  std::error_code error;
  if (fs::is_regular_file(argument, error)) {
    files.push_back(argument);
    return true;
  }
  if (!fs::is_directory(argument, error)) return false;
  std::vector<fs::path> found;
  for (const fs::directory_entry& entry : fs::directory_iterator(argument, error)) {
    if (entry.is_regular_file(error)) found.push_back(entry.path());
  }
  if (error) return false;
  std::sort(found.begin(), found.end());
  files.insert(files.end(), found.begin(), found.end());
  return true;
}

// The bytes of the file into `bytes`, which must be empty: a fresh vector gets a block of
// exactly their size, so that AddressSanitizer sees a read past the end.
bool read_bytes(const fs::path& file, std::vector<std::uint8_t>& bytes) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return false;
  const std::vector<char> text{std::istreambuf_iterator<char>(in),
                               std::istreambuf_iterator<char>()};
  if (in.bad()) return false;
  bytes.assign(text.begin(), text.end());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s FILE_OR_DIRECTORY...\n", argv[0]);
    return 2;
  }
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    if (!collect(argv[i], files)) {
      std::fprintf(stderr, "replay: cannot read '%s'\n", argv[i]);
      return 1;
    }
  }
  for (const fs::path& file : files) {
    std::vector<std::uint8_t> bytes;
    if (!read_bytes(file, bytes)) {
      std::fprintf(stderr, "replay: cannot read '%s'\n", file.c_str());
      return 1;
    }
    std::fprintf(stderr, "replay: running %s (%zu bytes)\n", file.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::printf("replay: %zu inputs ran\n", files.size());
  return 0;
}
