// Reading a whole input document and writing a whole output text, for the commands that
// convert documents.

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "tools/tarn/commands.h"

namespace tarn {

std::string read_input(const std::string& name) {
  if (name == "-") {
    std::string text{std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
    if (std::cin.bad()) throw std::runtime_error("Could not read standard input.");
    return text;
  }
  std::ifstream in(name, std::ios::binary);
  if (in) {
    std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (!in.bad()) return text;
  }
  throw std::runtime_error(fmt::format("Could not read '{}': {}", name, std::strerror(errno)));
}

void write_output(const std::string& name, const std::string& text) {
  if (name.empty()) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    if (std::fflush(stdout) != 0) {
      throw std::runtime_error(fmt::format("Could not write output: {}", std::strerror(errno)));
    }
    return;
  }
  std::ofstream out(name, std::ios::binary | std::ios::trunc);
  if (out) out.write(text.data(), static_cast<std::streamsize>(text.size()));
  if (out) out.close();
  if (!out) {
    throw std::runtime_error(fmt::format("Could not write '{}': {}", name, std::strerror(errno)));
  }
}

}  // namespace tarn
